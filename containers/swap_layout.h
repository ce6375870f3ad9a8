// Byte swapping of one record by a layout text such as "5icccciissiiii".
//
// Letters: c skips 1 byte, s swaps 2, i and f reverse 4, d reverses 8, p zeroes 8 (a pointer
// means nothing on another host). A decimal count N before a letter applies it N + 1 times:
// every layout of the system is written that way. Any other character leaves the cursor and the
// pending count as they are.
#pragma once

#include <cstddef>

namespace QV::LIB {

// Swaps `record` in place; never touches bytes at or past `size`, whatever the layout says.
void swap_by_layout(void* record, size_t size, const char* layout);

}  // namespace QV::LIB
