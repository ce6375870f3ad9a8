// Reading open binary map files: the short text header behind "qv=MAPob", the field list text
// that declares the map, and the packed elements behind the global block. Such a file is read
// whole into the map's pages (and, when memory is short, the swap file); it never backs a map.
#include <algorithm>
#include <mutex>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

// Message numbers of the open binary reader, beside those of the binary file (20 to 30).
enum : int32_t {
    ERR_READ = 29,
    ERR_VERSION = 31,
    ERR_EXPECTED = 32,
    ERR_DIMENSION = 33,
    ERR_FIELD_TYPE = 34,
    ERR_SYNTAX = 35,
    ERR_END_OF_TEXT = 36,
    ERR_ILLEGAL_FIELD = 37,
};

// "qv=MAP", "ob", the version digit, "dim" and the dimension digit.
constexpr uint32_t FIXED_HEADER_BYTES = 13;

// Elements are taken from the stream this many at a time; the file is read to its end anyway,
// so a larger run only saves calls.
constexpr size_t READ_RUN_BYTES = 256 * 1024;

// The largest count an item may carry: the 16-bit count of a field, and its 16-bit size.
constexpr uint32_t MAX_FIELD_BYTES = 0xFFFF;

// One ASCII digit as the C runtime's atoi reads a one-character string.
int digit_value(char c)
{
    const char text[2] = {c, '\0'};
    return atoi(text);
}

// Bytes that a field of `type` and `count` takes, without the 16-bit wrap of the stored sizes.
uint64_t true_field_bytes(uint32_t type, uint32_t count)
{
    if (type == MAP_TYPE_SCALAR_ARRAY || type == MAP_TYPE_INTEGER_ARRAY)
        return uint64_t(count) * 4;
    if (type == MAP_TYPE_STRING)
        return count;
    return map_field_bytes(type, count);
}

// The type code whose signature letter is `letter`, or 0 when no type has it.
uint32_t known_type_of(char letter)
{
    static const uint32_t types[] = {MAP_TYPE_SCALAR,       MAP_TYPE_INTEGER,       MAP_TYPE_VECTOR,
                                     MAP_TYPE_COLOR,        MAP_TYPE_TRANSFORM,     MAP_TYPE_SCALAR_ARRAY,
                                     MAP_TYPE_INTEGER_ARRAY, MAP_TYPE_STRING};
    for (uint32_t type : types)
        if (map_field_type_letter(type) == letter)
            return type;
    return MAP_TYPE_NONE;
}

// The field type an item declares: the letter decides, and for "i" and "s" a count of 1 or more
// makes the array.
uint32_t item_type(char letter, uint32_t count)
{
    switch (letter) {
    case 'i': return count >= 1 ? MAP_TYPE_INTEGER_ARRAY : MAP_TYPE_INTEGER;
    case 's': return count >= 1 ? MAP_TYPE_SCALAR_ARRAY : MAP_TYPE_SCALAR;
    case '$': return MAP_TYPE_STRING;
    case 'c': return MAP_TYPE_COLOR;
    case 'v': return MAP_TYPE_VECTOR;
    case 't': return MAP_TYPE_TRANSFORM;
    default: return MAP_TYPE_NONE;
    }
}

Map_status syntax_error(bool messages, int32_t number, const char* format, const char* name)
{
    if (messages)
        msg_error_n(number, format, name);
    return MAP_FILE_MALFORMED;
}

// Appends `count` packed elements to the map's pending ones under one hold of the map's lock,
// one page access per run of elements that share a page.
void append_run(Map_impl& map, const uint8_t* elements, uint32_t count)
{
    Map_page_store& store = map.page_store();
    const uint32_t bytes = store.element_bytes;
    const uint32_t dimension = store.dimension;
    std::lock_guard<std::mutex> hold(map.map_lock());
    const uint32_t first = map.size_ + map.pending_count;
    for (uint32_t i = 0; i < count; ++i)
        map.pending_bounds.add(reinterpret_cast<const float*>(elements + size_t(i) * bytes), dimension);
    for (uint32_t done = 0; done < count;) {
        uint32_t page, slot;
        store.locate(first + done, &page, &slot);
        const uint32_t run = std::min(count - done, store.elements_per_page - slot);
        uint8_t* data = store.get_page(page, false);
        memcpy(data + size_t(slot) * bytes, elements + size_t(done) * bytes, size_t(run) * bytes);
        done += run;
    }
    map.pending_count += count;
}

} // namespace

// ---- The field list text ----------------------------------------------------------------------

Map_status map_open_binary_parse_fields(const char* text, size_t length, Map_declaration_impl& declaration,
                                        const char* name, bool messages)
{
    static const char END_OF_TEXT[] =
        "syntax error in declaration of open binary map file \"%s\" - unexpected end of string";
    static const char ILLEGAL_FIELD[] = "syntax error in declaration of open binary map file \"%s\" - illegal field";
    std::string field_name;
    size_t at = 0;
    // 1. The end of the text ends the parse without error.
    while (at < length) {
        // 2. The type letter.
        const char letter = text[at++];
        if (known_type_of(letter) == MAP_TYPE_NONE)
            return syntax_error(messages, ERR_FIELD_TYPE,
                                "syntax error in declaration of open binary map file \"%s\" - unrecognized field type",
                                name);
        // 3. The count; no digits means 0. Anything above the 16-bit field limit stays above it.
        uint32_t count = 0;
        while (at < length && text[at] >= '0' && text[at] <= '9') {
            count = std::min<uint32_t>(count * 10 + uint32_t(text[at] - '0'), MAX_FIELD_BYTES + 1);
            ++at;
        }
        // 4. "g" for a global field.
        if (at == length)
            return syntax_error(messages, ERR_END_OF_TEXT, END_OF_TEXT, name);
        const bool global = text[at] == 'g';
        if (global && ++at == length)
            return syntax_error(messages, ERR_END_OF_TEXT, END_OF_TEXT, name);
        // 5. The name between double quotes.
        if (text[at] != '"')
            return syntax_error(messages, ERR_SYNTAX, "syntax error in declaration of open binary map file \"%s\"", name);
        const char* begin = text + at + 1;
        const char* end = static_cast<const char*>(memchr(begin, '"', length - at - 1));
        if (!end)
            return syntax_error(messages, ERR_END_OF_TEXT, END_OF_TEXT, name);
        field_name.assign(begin, end);
        at = size_t(end - text) + 1;
        // 7. The field. Sizes are stored in 16 bits and an element must fit in a file page:
        // what would wrap or not fit is refused here rather than giving a layout that lies.
        const uint32_t type = item_type(letter, count);
        const uint32_t field_count = type >= MAP_TYPE_SCALAR_ARRAY ? count : 0;
        const uint64_t bytes = true_field_bytes(type, field_count);
        bool legal = bytes <= MAX_FIELD_BYTES;
        if (legal && !global) {
            const uint64_t element_bytes = declaration.element_bytes() + bytes;
            legal = map_elements_per_page(uint32_t(element_bytes), declaration.dimension()) > 0;
        }
        if (legal) {
            const Map_status status = global ? declaration.add_global_field(field_name.c_str(), Map_field_type(type), field_count)
                                             : declaration.add_field(field_name.c_str(), Map_field_type(type), field_count);
            legal = status == MAP_SUCCESS;
        }
        if (!legal)
            return syntax_error(messages, ERR_ILLEGAL_FIELD, ILLEGAL_FIELD, name);
    }
    return MAP_SUCCESS;
}

// ---- The header -------------------------------------------------------------------------------

Map_status Map_file::open_binary_failed(Map_status status)
{
    close();
    return status;
}

Map_status Map_file::read_open_binary_header()
{
    const char* path = name_.c_str();
    auto read_error = [&]() {
        if (verbose_error_)
            msg_error_n(ERR_READ, "reading from open binary map file \"%s\"", path);
        return open_binary_failed(MAP_FILE_MALFORMED);
    };

    // 1. The version digit.
    const int first = getc(stream_);
    if (first == EOF)
        return read_error();
    const int file_version = digit_value(char(first));
    if (file_version != 1) {
        if (verbose_error_)
            msg_error_n(ERR_VERSION, "version of open binary map file \"%s\" is %d, unsupported", path, file_version);
        return open_binary_failed(MAP_FILE_BAD_VERSION);
    }
    version = uint32_t(file_version);

    // 2. "dim".
    char word[3];
    if (fread(word, 1, sizeof word, stream_) != sizeof word || memcmp(word, "dim", sizeof word) != 0) {
        if (verbose_error_)
            msg_error_n(ERR_EXPECTED, "syntax error reading from open binary map file \"%s\"(expected \"%s\")", path,
                        "dim");
        return open_binary_failed(MAP_FILE_MALFORMED);
    }

    // 3. The dimension digit.
    const int dimension_byte = getc(stream_);
    if (dimension_byte == EOF)
        return read_error();
    const int dimension = digit_value(char(dimension_byte));
    if (dimension < 1 || dimension > int(MAP_MAX_DIMENSION)) {
        if (verbose_error_)
            msg_error_n(ERR_DIMENSION, "wrong dimension (%d) in open binary map file \"%s\"", dimension, path);
        return open_binary_failed(MAP_FILE_MALFORMED);
    }

    // 4. The field list text, up to its NUL.
    std::string text;
    text.reserve(64);
    int c;
    while ((c = getc(stream_)) != EOF && c != '\0')
        text += char(c);
    if (c == EOF)
        return read_error();

    if (FIXED_HEADER_BYTES + uint64_t(text.size()) + 1 > UINT32_MAX)
        return read_error();

    // 5. The declaration, one item at a time.
    declaration = Map_declaration_impl(uint32_t(dimension));
    if (map_open_binary_parse_fields(text.data(), text.size(), declaration, path, verbose_error_) != MAP_SUCCESS)
        return open_binary_failed(MAP_FILE_MALFORMED);

    // 6. The global block follows the header, the elements follow the global block. A file that
    // ends inside the global block, or holds more elements than a map can count, is not read.
    global_offset = uint32_t(FIXED_HEADER_BYTES + text.size() + 1);
    data_offset = uint64_t(global_offset) + declaration.global_bytes();
    if (data_offset > file_bytes_)
        return read_error();
    const uint64_t count = (file_bytes_ - data_offset) / declaration.element_bytes();
    if (count >= UINT32_MAX)
        return read_error();
    element_count = uint32_t(count);
    elements_per_page = 0;
    page_count = 0;
    bvh_offset = 0;
    if (fseeko(stream_, off_t(data_offset), SEEK_SET) != 0)
        return read_error();
    return MAP_SUCCESS;
}

// ---- The elements -----------------------------------------------------------------------------

Map_status map_file_read_open_binary_elements(Map_impl& map, Map_file& file, bool messages)
{
    Module_scope scope(MOD_RCMP);
    const uint32_t bytes = file.declaration.element_bytes();
    FILE* stream = file.stream();
    bool whole = stream && fseeko(stream, off_t(file.data_offset), SEEK_SET) == 0;
    if (whole) {
        std::vector<uint8_t> run(std::max<size_t>(READ_RUN_BYTES / bytes, 1) * bytes);
        // Until a read returns nothing; what is left of a run that came back short is a part of
        // an element, and a short run is also where a failed read shows.
        for (;;) {
            const size_t got = fread(run.data(), 1, run.size(), stream);
            // The map counts in 32 bits: what would not fit is not appended.
            const uint64_t held = uint64_t(map.committed_size()) + map.get_pending_count();
            const uint64_t room = held < UINT32_MAX ? UINT32_MAX - held : 0;
            const uint32_t elements = uint32_t(std::min<uint64_t>(got / bytes, room));
            if (elements)
                append_run(map, run.data(), elements);
            if (elements != got / bytes) {
                whole = false;
                break;
            }
            if (got < run.size()) {
                whole = got % bytes == 0 && !ferror(stream);
                break;
            }
        }
    }
    if (!whole) {
        if (messages)
            msg_error_n(ERR_READ, "reading from open binary map file \"%s\"", file.file_name());
        // The committed bounds are given up; the pending ones still cover what was read.
        std::lock_guard<std::mutex> hold(map.map_lock());
        map.bounds.clear();
    }
    file.close();
    return whole ? MAP_SUCCESS : MAP_FILE_MALFORMED;
}

} // namespace QV::RCMAP
