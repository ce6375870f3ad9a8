// Map_file: opening, recognising, the header, page reads and closing.
#include "maps/map_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/paths.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

// Message numbers of the map file, unique among the RCMP errors and warnings.
enum : int32_t {
    ERR_OPEN_READ = 20,
    ERR_NOT_A_MAP = 21,
    ERR_VERSION = 22,
    ERR_OPEN_WRITE = 23,
    ERR_OPEN_READ_WRITE = 24,
    ERR_APPEND_OPEN_FORMAT = 25,
    ERR_APPEND_TO_DIFFERS = 26,
    ERR_APPEND_FROM_DIFFERS = 27,
    ERR_DAMAGED = 28,
    // 29 and 31 to 37: the open binary header (map_file_open_read.cpp); 30: write failures.
    WARN_VERSION_DEPRECATED = 20,
};

namespace {

constexpr size_t PATH_BYTES = 4096;

bool take(FILE* stream, void* out, size_t bytes)
{
    return fread(out, 1, bytes, stream) == bytes;
}

template <class T>
void put(std::vector<uint8_t>& out, T value)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

bool is_blank(int c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

// ---- Opening --------------------------------------------------------------------------------

bool Map_file::open_stream(uint32_t mode)
{
    const char* text = mode == MAP_FILE_MODE_WRITE ? "w+b" : mode == MAP_FILE_MODE_READ_WRITE ? "r+b" : "rb";
    stream_ = fopen(name_.c_str(), text);
    is_open = stream_ != nullptr;
    if (!is_open)
        return false;
    struct stat info;
    file_bytes_ = fstat(fileno(stream_), &info) == 0 ? uint64_t(info.st_size) : 0;
    return true;
}

bool Map_file::looks_like_open_ascii()
{
    FILE* text = fopen(name_.c_str(), "r");
    if (!text)
        return false;
    int c = getc(text);
    for (;;) {
        if (is_blank(c)) {
            c = getc(text);
        } else if (c == '#') {
            while (c != EOF && c != '\n' && c != '\r')
                c = getc(text);
        } else {
            break;
        }
    }
    // The first other character and the next six.
    char word[7];
    size_t have = 0;
    if (c != EOF) {
        word[have++] = char(c);
        have += fread(word + 1, 1, 6, text);
    }
    fclose(text);
    return have == 7 && memcmp(word, "declare", 7) == 0;
}

Map_status Map_file::damaged()
{
    // The layout can't be trusted past this point: nothing of the file is used.
    if (verbose_error_)
        msg_error_n(ERR_DAMAGED, "map file \"%s\" is damaged", name_.c_str());
    close();
    return MAP_FILE_MALFORMED;
}

Map_status Map_file::read_header()
{
    // 2. The magic.
    char magic[sizeof MAP_FILE_MAGIC];
    if (!take(stream_, magic, sizeof magic) || memcmp(magic, MAP_FILE_MAGIC, sizeof magic) != 0) {
        if (verbose_error_)
            msg_error_n(ERR_NOT_A_MAP, "file \"%s\" is not a map file", name_.c_str());
        close();
        return MAP_FILE_NOT_A_MAP;
    }
    // 3, 4. The version; its first two bytes double as the open binary mark.
    uint8_t version_bytes[4];
    if (!take(stream_, version_bytes, 2))
        return damaged();
    if (memcmp(version_bytes, "ob", 2) == 0) {
        format = MAP_FORMAT_OPEN_BINARY;
        return read_open_binary_header();
    }
    if (!take(stream_, version_bytes + 2, 2))
        return damaged();
    memcpy(&version, version_bytes, 4);
    if (version < MAP_FILE_OLDEST_VERSION || version > MAP_FILE_NEWEST_VERSION) {
        if (verbose_error_)
            msg_error_n(ERR_VERSION, "version of map file \"%s\" is %u, unsupported", name_.c_str(), version);
        close();
        return MAP_FILE_BAD_VERSION;
    }
    if (version < MAP_FILE_VERSION && verbose_error_)
        msg_warn_n(WARN_VERSION_DEPRECATED, "version of map file \"%s\" is %u, deprecated", name_.c_str(), version);

    // 5. The declaration record, which must fill exactly its D bytes.
    if (!take(stream_, &declaration_bytes_, 4) || uint64_t(declaration_bytes_) + 14 > file_bytes_)
        return damaged();
    std::vector<uint8_t> record(declaration_bytes_);
    size_t consumed = 0;
    if (!take(stream_, record.data(), record.size()) ||
        declaration.read_binary(record.data(), record.size(), &consumed) != MAP_SUCCESS ||
        consumed != record.size())
        return damaged();

    // 6. The global block is skipped here; the map reads it from global_offset.
    uint32_t global_bytes = 0;
    if (!take(stream_, &global_bytes, 4) || global_bytes != declaration.global_bytes())
        return damaged();
    const uint64_t d = declaration_bytes_, g = global_bytes, m = declaration.dimension();
    if (map_file_data_offset(d, g, m) > file_bytes_ || fseeko(stream_, off_t(g), SEEK_CUR) != 0)
        return damaged();
    global_offset = uint32_t(map_file_global_offset(d));

    // 7. Page layout, counts, BVH offset and bounds.
    uint32_t counts[4];
    uint64_t stored_bvh_offset = 0;
    if (!take(stream_, counts, sizeof counts) || !take(stream_, &stored_bvh_offset, 8) ||
        !take(stream_, bounds.minimum, 4 * m) || !take(stream_, bounds.maximum, 4 * m))
        return damaged();
    page_bytes = counts[0];
    elements_per_page = counts[1];
    page_count = counts[2];
    element_count = counts[3];
    bounds.valid = element_count > 0;
    bounds_offset = uint32_t(map_file_bounds_offset(d, g));
    data_offset = map_file_data_offset(d, g, m);

    // The pages must be the cache's file pages, packed as this program packs them, and every
    // counted element must lie inside the file: anything else would feed the cache garbage.
    const uint32_t element_bytes = declaration.element_bytes();
    if (page_bytes != MAP_FILE_PAGE_BYTES || elements_per_page == 0 ||
        elements_per_page != map_elements_per_page(element_bytes, declaration.dimension()))
        return damaged();
    const uint64_t expected_pages = element_count == 0 ? 0 : (uint64_t(element_count) - 1) / elements_per_page + 1;
    if (page_count != expected_pages)
        return damaged();
    if (element_count > 0) {
        uint64_t last_page_elements = element_count - uint64_t(page_count - 1) * elements_per_page;
        uint64_t end = data_offset + uint64_t(page_count - 1) * page_bytes + last_page_elements * element_bytes;
        if (end > file_bytes_)
            return damaged();
    }
    const uint64_t pages_end = uint64_t(page_count) * page_bytes;
    if (stored_bvh_offset != 0 && (stored_bvh_offset < pages_end || stored_bvh_offset > file_bytes_ - data_offset))
        return damaged();
    bvh_offset = stored_bvh_offset ? stored_bvh_offset + data_offset : 0;
    return MAP_SUCCESS;
}

namespace {

// The name as it is opened: through path substitution when asked.
std::string file_path(const char* name, bool substitute)
{
    if (!name)
        return std::string();
    if (!substitute)
        return name;
    char path[PATH_BYTES];
    path_substitute(path, name, sizeof path);
    return path;
}

} // namespace

Map_file::Map_file(uint32_t file_kind, bool verbose_info, bool verbose_error, bool substitute_path, const char* name,
                   const Map_declaration_impl* map_declaration, Map_status* status)
    : kind(file_kind), name_(file_path(name, substitute_path)), verbose_info_(verbose_info),
      verbose_error_(verbose_error)
{
    Module_scope scope(MOD_RCMP);
    const Map_status result = open_existing(map_declaration);
    if (status)
        *status = result;
}

Map_status Map_file::open_existing(const Map_declaration_impl* map_declaration)
{
    bounds.clear();
    Map_status result = MAP_SUCCESS;
    const char* path = name_.c_str();
    const bool from_append = kind == MAP_FILE_KIND_READ_FOR_APPEND;

    if (looks_like_open_ascii()) {
        // Text for the scene language's parser; the stream stays closed.
        format = MAP_FORMAT_OPEN_ASCII;
        if (verbose_info_)
            msg_info(from_append ? "appending from map file \"%s\"" : "reading map file \"%s\"", path);
        return MAP_FILE_MALFORMED;
    }
    if (!open_stream(MAP_FILE_MODE_READ)) {
        if (verbose_error_)
            msg_error_n(ERR_OPEN_READ, "cannot open map file \"%s\" for reading", path);
        return MAP_FILE_CANNOT_OPEN;
    }
    result = read_header();
    if (result != MAP_SUCCESS)
        return result;
    if (from_append && map_declaration && !map_declaration->is_layout_equivalent(declaration)) {
        if (verbose_error_)
            msg_error_n(ERR_APPEND_FROM_DIFFERS, "cannot append from map file \"%s\", declarations are not equivalent",
                        path);
        close();
        return MAP_NOT_EQUIVALENT;
    }
    if (verbose_info_)
        msg_info(from_append ? "appending from map file \"%s\"" : "reading map file \"%s\"", path);
    return MAP_SUCCESS;
}

Map_file::Map_file(uint32_t file_kind, uint32_t file_format, bool verbose_info, bool verbose_error,
                   bool substitute_path, const char* name, const Map_declaration_impl* map_declaration,
                   uint32_t count, uint32_t page_size, uint32_t per_page, uint32_t pages, const Map_bounds* box,
                   Map_status* status)
    : kind(file_kind), format(file_format), element_count(count), page_bytes(page_size),
      elements_per_page(per_page), page_count(pages),
      name_(file_path(name, substitute_path && file_kind != MAP_FILE_KIND_WRITE)), verbose_info_(verbose_info),
      verbose_error_(verbose_error)
{
    Module_scope scope(MOD_RCMP);
    if (box)
        bounds = *box;
    else
        bounds.clear();
    if (map_declaration)
        declaration = *map_declaration;
    Map_status result = MAP_SUCCESS;
    if ((format != MAP_FORMAT_BINARY && format != MAP_FORMAT_OPEN_BINARY) || !map_declaration) {
        result = map_declaration ? MAP_FILE_MALFORMED : MAP_NO_DECLARATION;
    } else if (!open_stream(MAP_FILE_MODE_WRITE)) {
        if (verbose_error_)
            msg_error_n(ERR_OPEN_WRITE, "cannot open map file \"%s\" for writing", name_.c_str());
        result = MAP_FILE_CANNOT_OPEN;
    } else if (format == MAP_FORMAT_OPEN_BINARY) {
        if (verbose_info_)
            msg_info("writing map file \"%s\"", name_.c_str());
        if (!write_open_binary_header()) {
            if (verbose_error_)
                msg_error_n(ERR_OPEN_WRITE, "cannot open map file \"%s\" for writing", name_.c_str());
            close();
            result = MAP_FILE_CANNOT_OPEN;
        }
    } else {
        if (verbose_info_)
            msg_info("writing map file \"%s\"", name_.c_str());
        // The whole header in one piece: the true D is known before anything is written, so
        // there is no need to come back for it. The global block is zeros until the map writes
        // it, and the BVH offset 0 until write_bvh stores it.
        std::vector<uint8_t> record;
        declaration.write_binary(record);
        declaration_bytes_ = uint32_t(record.size());
        const uint32_t g = declaration.global_bytes(), m = declaration.dimension();
        std::vector<uint8_t> header;
        header.reserve(size_t(map_file_data_offset(record.size(), g, m)));
        header.assign(MAP_FILE_MAGIC, MAP_FILE_MAGIC + sizeof MAP_FILE_MAGIC);
        put(header, version);
        put(header, declaration_bytes_);
        header.insert(header.end(), record.begin(), record.end());
        put(header, g);
        header.resize(header.size() + g, 0);
        put(header, page_bytes);
        put(header, elements_per_page);
        put(header, page_count);
        put(header, element_count);
        put(header, uint64_t(0));
        for (uint32_t i = 0; i < m; ++i)
            put(header, bounds.minimum[i]);
        for (uint32_t i = 0; i < m; ++i)
            put(header, bounds.maximum[i]);
        global_offset = uint32_t(map_file_global_offset(declaration_bytes_));
        bounds_offset = uint32_t(map_file_bounds_offset(declaration_bytes_, g));
        data_offset = map_file_data_offset(declaration_bytes_, g, m);
        bvh_offset = 0;
        if (!write_raw(header.data(), header.size())) {
            if (verbose_error_)
                msg_error_n(ERR_OPEN_WRITE, "cannot open map file \"%s\" for writing", name_.c_str());
            close();
            result = MAP_FILE_CANNOT_OPEN;
        }
    }
    if (status)
        *status = result;
}

Map_file::Map_file(bool verbose_error, bool substitute_path, const char* name,
                   const Map_declaration_impl* map_declaration, Map_status* status)
    : kind(MAP_FILE_KIND_READ), name_(file_path(name, substitute_path)), verbose_error_(verbose_error)
{
    Module_scope scope(MOD_RCMP);
    // Read and checked as a read; the file becomes one to append to only once it can be written.
    Map_status result = open_existing(nullptr);
    const char* path = name_.c_str();
    if (format == MAP_FORMAT_OPEN_BINARY || format == MAP_FORMAT_OPEN_ASCII) {
        // Refused whatever its header held: an open file has no pages to fill.
        if (verbose_error_)
            msg_error_n(ERR_APPEND_OPEN_FORMAT, "cannot append to map file \"%s\", file format is open", path);
        close();
        result = MAP_FILE_MALFORMED;
    } else if (result == MAP_SUCCESS) {
        if (!map_declaration || !map_declaration->is_layout_equivalent(declaration)) {
            if (verbose_error_)
                msg_error_n(ERR_APPEND_TO_DIFFERS, "cannot append to map file \"%s\", declarations are not equivalent",
                            path);
            result = MAP_NOT_EQUIVALENT;
            close();
        } else {
            // The header stays as read; only the stream changes to one that can write.
            close();
            if (open_stream(MAP_FILE_MODE_READ_WRITE)) {
                kind = MAP_FILE_KIND_APPEND;
            } else {
                if (verbose_error_)
                    msg_error_n(ERR_OPEN_READ_WRITE, "cannot open map file \"%s\" for reading/writing", path);
                result = MAP_FILE_CANNOT_OPEN;
            }
        }
    }
    if (status)
        *status = result;
}

Map_file::~Map_file()
{
    close();
}

// ---- Pages and pieces ------------------------------------------------------------------------

bool Map_file::read_pages(uint32_t first_page, uint32_t count, void* destination)
{
    size_t wanted = size_t(count) * page_bytes;
    size_t got = 0;
    if (is_open) {
        int descriptor = fileno(stream_);
        off_t at = off_t(data_offset + uint64_t(first_page) * page_bytes);
        auto* out = static_cast<uint8_t*>(destination);
        while (got < wanted) {
            ssize_t n = pread(descriptor, out + got, wanted - got, at + off_t(got));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            got += size_t(n);
        }
        pages_read_ += count;
    }
    // A page cut short by the end of the file reads as far as it goes. Its tree may be cut
    // too, so it is given none: the page is then searched element by element.
    auto* pages = static_cast<uint8_t*>(destination);
    memset(pages + got, 0, wanted - got);
    const size_t tree_offset = size_t(elements_per_page) * declaration.element_bytes();
    if (got < wanted && tree_offset + 4 <= page_bytes) {
        for (size_t page = got / page_bytes; page < count; ++page)
            memset(pages + page * page_bytes + tree_offset, 0, 4);
    }
    return got > 0;
}

bool Map_file::read_global(void* out)
{
    const uint32_t g = declaration.global_bytes();
    if (g == 0)
        return true;
    return is_open && fseeko(stream_, off_t(global_offset), SEEK_SET) == 0 && take(stream_, out, g);
}

bool Map_file::write_at(uint64_t offset, const void* data, size_t bytes)
{
    return is_open && fseeko(stream_, off_t(offset), SEEK_SET) == 0 && write_raw(data, bytes);
}

bool Map_file::write_global(const void* in)
{
    const uint32_t g = declaration.global_bytes();
    return g == 0 || write_at(global_offset, in, g);
}

bool Map_file::seek_data(uint64_t offset)
{
    return is_open && fseeko(stream_, off_t(data_offset + offset), SEEK_SET) == 0;
}

bool Map_file::write_raw(const void* data, size_t bytes)
{
    return is_open && fwrite(data, 1, bytes, stream_) == bytes;
}

bool Map_file::clear_bvh_offset()
{
    const uint64_t zero = 0;
    bvh_offset = 0;
    return write_at(map_file_bvh_field_offset(declaration_bytes_, declaration.global_bytes()), &zero, sizeof zero);
}

bool Map_file::close()
{
    if (!is_open)
        return true;
    bool ok = true;
    if (kind == MAP_FILE_KIND_APPEND) {
        // The counts and bounds grew with the append; they sit in front of the BVH offset.
        page_count = element_count == 0 ? 0 : (element_count - 1) / elements_per_page + 1;
        const uint32_t counts[2] = {page_count, element_count};
        const uint32_t m = declaration.dimension();
        ok = write_at(map_file_page_size_offset(declaration_bytes_, declaration.global_bytes()) + 8, counts,
                      sizeof counts) &&
             write_at(bounds_offset, bounds.minimum, 4 * m) && write_raw(bounds.maximum, 4 * m);
    }
    if (fclose(stream_) != 0)
        ok = false;
    stream_ = nullptr;
    is_open = false;
    return ok;
}

} // namespace QV::RCMAP
