#include "runtime/paths.h"

#include <cstring>

// No substitution rules exist yet: the path is copied as it stands.
char* path_substitute(char* out, const char* path, size_t size)
{
    if (size == 0)
        return out;
    if (!path)
        path = "";
    std::strncpy(out, path, size - 1);
    out[size - 1] = '\0';
    return out;
}
