// Path substitution: the rewrite every user-given path goes through before it is opened.
#pragma once

#include <cstddef>

// Writes at most `size` characters (always zero-terminated) into `out` and returns `out`.
char* path_substitute(char* out, const char* path, size_t size);
