// Writing the open formats: open binary (the packed elements behind a short text header) and
// open ASCII (the scene language's declaration and map text). Other programs read these
// without knowing pages, page trees or the page size; neither is ever appended to.
#include <algorithm>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

constexpr int32_t ERR_OPEN_WRITE = 23;  // shared with the binary writer: the same text
constexpr int32_t ERR_WRITE_FAILED = 30;

// The comment line of an open ASCII file names the library that wrote it.
constexpr const char* LIBRARY_VERSION = "3.9.4.14";
constexpr const char* LIBRARY_BUILD_DATE = "May 12 2011";

// Elements go out a page's worth at a time, as the page cache hands them over.
constexpr uint32_t ELEMENTS_PER_WRITE = 4096;

// `prefix` completed by six characters to a name that no file in the current directory has,
// the way the C runtime's temporary names are made.
std::string unique_name(const char* prefix)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static uint32_t sequence = 0;
    std::string name;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        uint64_t seed = (uint64_t(getpid()) << 20) ^ (uint64_t(++sequence) * 0x9E3779B97F4A7C15ull);
        name = prefix;
        for (int i = 0; i < 6; ++i) {
            name += letters[seed % (sizeof letters - 1)];
            seed /= sizeof letters - 1;
        }
        if (access(name.c_str(), F_OK) != 0)
            break;
    }
    return name;
}

// One value of a field: a blank before each number, floats in the stream's default form (six
// significant digits), strings quoted up to their NUL and not escaped.
void put_value(std::string& out, const uint8_t* bytes, uint32_t type, uint32_t count)
{
    char number[64];
    if (type == MAP_TYPE_STRING) {
        out += " \"";
        out.append(reinterpret_cast<const char*>(bytes), strnlen(reinterpret_cast<const char*>(bytes), count));
        out += '"';
        return;
    }
    const uint32_t values = map_field_value_count(type, count);
    const bool integers = type == MAP_TYPE_INTEGER || type == MAP_TYPE_INTEGER_ARRAY;
    for (uint32_t i = 0; i < values; ++i) {
        if (integers) {
            int32_t value;
            memcpy(&value, bytes + 4 * size_t(i), 4);
            snprintf(number, sizeof number, " %d", value);
        } else {
            float value;
            memcpy(&value, bytes + 4 * size_t(i), 4);
            snprintf(number, sizeof number, " %g", double(value));
        }
        out += number;
    }
}

void put_element(std::string& out, const Map_declaration_impl& declaration, const uint8_t* element)
{
    char number[64];
    out += "\t{";
    // The position has no blank before it and no separator after the brace.
    for (uint32_t axis = 0; axis < declaration.dimension(); ++axis) {
        float value;
        memcpy(&value, element + 4 * size_t(axis), 4);
        snprintf(number, sizeof number, axis ? " %g" : "%g", double(value));
        out += number;
    }
    for (uint32_t i = 0; i < declaration.get_element_field_count(); ++i) {
        const Map_field& field = declaration.element_field(i);
        out += " ,";
        put_value(out, element + declaration.element_field_offset(i), field.type, field.count);
    }
    out += " }";
}

Map_status write_failed(const char* name, bool messages)
{
    if (messages)
        msg_error_n(ERR_WRITE_FAILED, "cannot write map file \"%s\"", name);
    return MAP_FILE_CANNOT_OPEN;
}

} // namespace

bool Map_file::write_open_binary_header()
{
    std::string header(MAP_FILE_MAGIC, sizeof MAP_FILE_MAGIC);
    header += "ob1dim";
    header += char('0' + declaration.dimension());
    declaration.signature_text(header);
    header += '\0';
    global_offset = uint32_t(header.size());
    data_offset = uint64_t(global_offset) + declaration.global_bytes();
    // Zeros where the global block goes, until the map writes it.
    header.resize(size_t(data_offset), '\0');
    return write_raw(header.data(), header.size());
}

Map_status map_file_write_open_binary(Map_impl& map, const char* name, bool messages)
{
    Module_scope scope(MOD_RCMP);
    map.commit();
    const Map_declaration_impl& declaration = *map.get_declaration();
    Map_status status = MAP_SUCCESS;
    Map_file file(MAP_FILE_KIND_WRITE, MAP_FORMAT_OPEN_BINARY, messages, messages, false, name, &declaration,
                  map.committed_size(), 0, 0, 0, nullptr, &status);
    if (status != MAP_SUCCESS)
        return status;
    const uint32_t count = map.committed_size();
    const uint32_t bytes = declaration.element_bytes();
    std::vector<uint8_t> run(size_t(std::min(count, ELEMENTS_PER_WRITE)) * bytes);
    bool ok = (!map.get_globals() || file.write_global(map.get_globals())) && file.seek_data(0);
    for (uint32_t done = 0; ok && done < count;) {
        const uint32_t n = std::min(ELEMENTS_PER_WRITE, count - done);
        map_file_gather(map.page_store(), done, n, run.data());
        ok = file.write_raw(run.data(), size_t(n) * bytes);
        done += n;
    }
    if (!file.close() || !ok)
        return write_failed(name, messages);
    return MAP_SUCCESS;
}

Map_status map_file_write_open_ascii(Map_impl& map, const char* name, bool messages, const char* comment)
{
    Module_scope scope(MOD_RCMP);
    map.commit();
    FILE* stream = fopen(name, "w");
    if (!stream) {
        if (messages)
            msg_error_n(ERR_OPEN_WRITE, "cannot open map file \"%s\" for writing", name);
        return MAP_FILE_CANNOT_OPEN;
    }
    if (messages)
        msg_info("writing map file \"%s\"", name);
    const Map_declaration_impl& declaration = *map.get_declaration();
    const uint32_t count = map.committed_size();

    std::string text = "#\n";
    if (comment) {
        // The caller's text as it stands: a line end is the caller's to give.
        text += "# ";
        text += comment;
    } else {
        text += "# Quovray, version ";
        text += LIBRARY_VERSION;
        text += ", ";
        text += LIBRARY_BUILD_DATE;
        text += "\n";
    }
    text += "# open ASCII map file, " + std::to_string(count) + " elements\n";
    text += "#\n\n";
    const std::string declaration_name = unique_name("map_decl_");
    declaration.write_text(declaration_name.c_str(), text);
    const std::string map_name = unique_name("map_");
    text += "map \"" + map_name + "\" \"" + declaration_name + "\"";

    bool written = false; // anything of the globals or elements so far
    const uint8_t* globals = map.get_globals();
    if (globals && declaration.get_global_field_count()) {
        text += "\n\t{global";
        for (uint32_t i = 0; i < declaration.get_global_field_count(); ++i) {
            const Map_field& field = declaration.global_field(i);
            if (i)
                text += " ,";
            put_value(text, globals + declaration.global_field_offset(i), field.type, field.count);
        }
        text += " }";
        written = true;
    }

    // Elements in index order, flushed to the stream a run at a time.
    bool ok = true;
    const uint32_t bytes = declaration.element_bytes();
    std::vector<uint8_t> run(size_t(std::min(count, ELEMENTS_PER_WRITE)) * bytes);
    for (uint32_t done = 0; ok && done < count;) {
        const uint32_t n = std::min(ELEMENTS_PER_WRITE, count - done);
        map_file_gather(map.page_store(), done, n, run.data());
        for (uint32_t i = 0; i < n; ++i) {
            if (written)
                text += ",";
            text += "\n";
            put_element(text, declaration, run.data() + size_t(i) * bytes);
            written = true;
        }
        ok = fwrite(text.data(), 1, text.size(), stream) == text.size();
        text.clear();
        done += n;
    }
    text += "\n";
    text += "end map\n\n";
    ok = ok && fwrite(text.data(), 1, text.size(), stream) == text.size();
    if (fclose(stream) != 0 || !ok)
        return write_failed(name, messages);
    return MAP_SUCCESS;
}

} // namespace QV::RCMAP
