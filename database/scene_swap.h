// Byte order conversion of plain scene records that arrived from a host of the other byte order.
//
// A layout string walks a record field by field:
//   c  1 byte, skipped        s  2 bytes, swapped       i, f  4 bytes, reversed
//   d  8 bytes, reversed      p  8 bytes, zeroed (a pointer means nothing on another host)
// A decimal count N before a letter applies the letter N + 1 times: "3c" is four bytes, "5i" six
// integers. Every layout string of the system was written with that count, so it stays. Digits
// accumulate ("79c" is 80 bytes); any other character is passed over and leaves the count standing
// for the next letter. Padding is spelled out with `c`: the walk knows nothing of alignment.
//
// The routines touch exactly the bytes the layout covers; `c` letters touch nothing, so a layout
// whose tail is only `c` may run past a shorter record without harm.
#pragma once

#include <cstddef>
#include <cstdint>

struct Db_record;

// Width in bytes of one layout letter; 0 for a character that is not a field letter.
constexpr size_t qv_scene_layout_letter_width(char letter)
{
    switch (letter) {
    case 'c': return 1;
    case 's': return 2;
    case 'i':
    case 'f': return 4;
    case 'd':
    case 'p': return 8;
    default: return 0;
    }
}

// Bytes covered by a layout, by the same walk as qv_scene_swap_layout.
constexpr size_t qv_scene_layout_size(const char* layout)
{
    size_t size = 0;
    size_t count = 0;
    for (const char* cursor = layout; *cursor; ++cursor) {
        const char letter = *cursor;
        if (letter >= '0' && letter <= '9') {
            count = count * 10 + size_t(letter - '0');
            continue;
        }
        const size_t width = qv_scene_layout_letter_width(letter);
        if (width == 0)
            continue;
        size += width * (count + 1);
        count = 0;
    }
    return size;
}

// Converts `record` in place as `layout` describes; returns the bytes covered.
size_t qv_scene_swap_layout(void* record, const char* layout);

// In-place byte reversal of `count` consecutive values.
void qv_scene_swap_16(void* values, size_t count);
void qv_scene_swap_32(void* values, size_t count);
void qv_scene_swap_64(void* values, size_t count);

// Swap handlers of the built-in types: record and flag; nothing happens when `swap` is false.
// Index 0 to 127; null where the type has no handler.
using Scene_swap_fn = void (*)(Db_record* record, bool swap);
Scene_swap_fn qv_scene_builtin_swap(int type);
