#include "containers/swap_layout.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace QV::LIB {

void swap_by_layout(void* record, size_t size, const char* layout)
{
    auto* bytes = static_cast<uint8_t*>(record);
    size_t cursor = 0;
    size_t count = 0;
    for (const char* c = layout; *c != '\0' && cursor < size; ++c) {
        if (*c >= '0' && *c <= '9') {
            count = count * 10 + size_t(*c - '0');
            continue;
        }
        size_t width = 0;
        switch (*c) {
        case 'c': width = 1; break;
        case 's': width = 2; break;
        case 'i':
        case 'f': width = 4; break;
        case 'd':
        case 'p': width = 8; break;
        default: continue;  // count stands for the next letter
        }
        for (size_t n = 0; n <= count && cursor + width <= size; ++n, cursor += width) {
            if (*c == 'p')
                std::memset(bytes + cursor, 0, width);
            else if (width > 1)
                std::reverse(bytes + cursor, bytes + cursor + width);
        }
        count = 0;
    }
}

}  // namespace QV::LIB
