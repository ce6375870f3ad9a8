// QV::RCMAP::Map_file: one open binary map file and all knowledge of its layout.
//
// The binary file is the page image of the map cache behind a header, so that a file can be a
// map's backing store without being read whole: a page is read when it is first touched. All
// integers and floats are little-endian as they lie in memory; nothing is aligned.
//
//   offset              size        field
//   0                   6           magic "qv=MAP", no NUL
//   6                   4           version, 2 ("ob" in its first two bytes: open binary)
//   10                  4           D, bytes of the declaration record
//   14                  D           declaration record (Map_declaration_impl::write_binary)
//   14 + D              4           G, the declaration's global size
//   18 + D              G           global block
//   18 + D + G          4           page size in bytes, 32768
//   22 + D + G          4           elements per page E
//   26 + D + G          4           page count, ceil(element count / E)
//   30 + D + G          4           element count
//   34 + D + G          8           global BVH offset from the data start, 0 when none
//   42 + D + G          4 M         bounds minimum, M = dimension
//   42 + D + G + 4 M    4 M         bounds maximum
//   42 + D + G + 8 M    pages       data start: page_count pages of page_bytes each
//   data + pages        rest        global BVH, when the offset is not 0
//
// Element i of a file lies in page i / E, slot i % E; a page holds its E elements from its
// first byte, then its page BVH, then unused bytes up to the page size.
//
// Ownership: a Map_file owns its stream. A file that backs a map belongs to the map's page
// store (which deletes it); page reads from many threads are serialised by the store's file
// list lock, so one stream position per file is enough. Messages go out only when the
// verbose flag of their kind was given; the status comes back in any case.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_page_store.h"

namespace QV::RCMAP {

class Map_global_bvh_base;

constexpr char MAP_FILE_MAGIC[6] = {'q', 'v', '=', 'M', 'A', 'P'};
constexpr uint32_t MAP_FILE_VERSION = 2;
// Versions below the oldest or above the newest are refused; one in between but older than the
// current would be read with a warning.
constexpr uint32_t MAP_FILE_OLDEST_VERSION = 2;
constexpr uint32_t MAP_FILE_NEWEST_VERSION = 2;

// Byte offsets of the fixed header fields, for a declaration record of `d` bytes and a global
// block of `g` bytes.
constexpr uint64_t map_file_global_offset(uint64_t d) { return d + 18; }
constexpr uint64_t map_file_page_size_offset(uint64_t d, uint64_t g) { return d + g + 18; }
constexpr uint64_t map_file_bvh_field_offset(uint64_t d, uint64_t g) { return d + g + 34; }
constexpr uint64_t map_file_bounds_offset(uint64_t d, uint64_t g) { return d + g + 42; }
constexpr uint64_t map_file_data_offset(uint64_t d, uint64_t g, uint64_t dimension)
{
    return d + g + 8 * dimension + 42;
}

// What a Map_file was opened for.
enum Map_file_kind : uint32_t {
    MAP_FILE_KIND_READ = 0,
    MAP_FILE_KIND_WRITE = 1,
    MAP_FILE_KIND_READ_FOR_APPEND = 2, // a map appends the file's elements to its own
    MAP_FILE_KIND_APPEND = 3,          // a map writes its elements onto the end of the file
};

// Results of read_bvh and write_bvh.
enum Map_file_bvh_result : uint32_t {
    MAP_FILE_BVH_DONE = 0,
    MAP_FILE_BVH_NOT_OPEN = 1,
    MAP_FILE_BVH_WRONG_KIND = 2,
    MAP_FILE_BVH_VERSION_1 = 3,
    MAP_FILE_BVH_NONE = 4, // reading: the file has no BVH; writing: stream beyond its place
};

// Streams are opened by mode number.
enum : uint32_t {
    MAP_FILE_MODE_READ = 0,       // "rb"
    MAP_FILE_MODE_WRITE = 2,      // "w+b"
    MAP_FILE_MODE_READ_WRITE = 4, // "r+b"
};

class Map_file final : public Map_page_source {
public:
    // Opens `name` for reading (kind 0 or 2) and reads its header. `substitute_path` sends the
    // name through path substitution first. Open ASCII is recognised by its text ("declare"
    // first): `format` 2 and MAP_FILE_MALFORMED with the stream closed, since its parser is not
    // part of this program. Open binary ("ob" after the magic) gets `format` 1; its text header
    // is parsed into `declaration`, and on success the stream stands on the first element with
    // `element_count` whole elements behind it (the map reads them; nothing is paged from such
    // a file). For kind 2, `declaration` (may be null) is the map's, and a file whose dimension
    // or element layout differs is refused with MAP_NOT_EQUIVALENT. On any failure the file is
    // closed.
    Map_file(uint32_t kind, bool verbose_info, bool verbose_error, bool substitute_path, const char* name,
             const Map_declaration_impl* declaration, Map_status* status);

    // Creates `name` (kind 1; the name is used as it is) and writes the header of a binary
    // file for the given layout, with a zeroed global block and no BVH; the stream is left at
    // the data start. For open binary (`format` 1) the header is the short text one, the
    // global block follows it at global_offset and the packed elements at data_offset; the
    // counts, page layout and bounds are then not stored. Open ASCII is not a Map_file.
    Map_file(uint32_t kind, uint32_t format, bool verbose_info, bool verbose_error, bool substitute_path,
             const char* name, const Map_declaration_impl* declaration, uint32_t element_count,
             uint32_t page_bytes, uint32_t elements_per_page, uint32_t page_count, const Map_bounds* bounds,
             Map_status* status);

    // Opens an existing binary file for appending `declaration`'s elements (kind 3): reads and
    // checks the header as a read does, refuses open formats (15, also after a valid open
    // binary header) and other layouts (5), then
    // reopens the file for reading and writing. The file's own fields are kept.
    Map_file(bool verbose_error, bool substitute_path, const char* name, const Map_declaration_impl* declaration,
             Map_status* status);

    ~Map_file() override;
    Map_file(const Map_file&) = delete;
    Map_file& operator=(const Map_file&) = delete;

    // ---- Map_page_source ----------------------------------------------------------------
    // Pages [first_page, first_page + page_count) from the data start into `destination`. A
    // page cut short by the end of the file reads as far as it goes, zeros after that; false
    // only when nothing at all could be read.
    bool read_pages(uint32_t first_page, uint32_t page_count, void* destination) override;

    // ---- BVH --------------------------------------------------------------------------
    // Read the file's global BVH into `bvh`, or write `bvh` behind the pages and store its
    // offset in the header. `reason` (may be null) receives a Map_file_bvh_result; the return
    // value is true for MAP_FILE_BVH_DONE.
    bool read_bvh(Map_global_bvh_base* bvh, bool asynchronous, uint32_t* reason);
    bool write_bvh(Map_global_bvh_base* bvh, uint32_t* reason);

    // ---- Pieces the map writes --------------------------------------------------------
    // The global block (G bytes) at global_offset.
    bool read_global(void* out);
    bool write_global(const void* in);
    // Places the stream `offset` bytes past the data start.
    bool seek_data(uint64_t offset);
    // Writes `bytes` at the stream's position.
    bool write_raw(const void* data, size_t bytes);
    // Stores 0 in the BVH offset field: a file appended to has no BVH.
    bool clear_bvh_offset();

    // Kind 3 first writes the new page count, element count and bounds into the header. The
    // stream is closed; a second call does nothing. False when the header update failed.
    bool close();

    // Pages handed out by read_pages so far (file pages, not calls).
    uint64_t pages_read() const { return pages_read_; }
    const char* file_name() const { return name_.c_str(); }
    FILE* stream() const { return stream_; }

    // ---- Fields, as the file describes them ---------------------------------------------
    uint32_t kind = 0;
    uint32_t format = 0;                     // Map_file_format
    bool is_open = false;
    uint32_t version = MAP_FILE_VERSION;
    Map_declaration_impl declaration;        // the file's own
    uint32_t element_count = 0;
    uint32_t page_bytes = MAP_FILE_PAGE_BYTES;
    uint32_t elements_per_page = 0;
    uint32_t page_count = 0;
    Map_bounds bounds;
    uint32_t global_offset = 0;              // D + 18
    uint32_t bounds_offset = 0;              // D + G + 42
    uint64_t data_offset = 0;                // D + G + 8 M + 42
    uint64_t bvh_offset = 0;                 // absolute; 0 when the file has none

private:
    bool open_stream(uint32_t mode);
    // Recognises the format and reads the header of an existing file (kind 0 or 2), with the
    // messages of a read.
    Map_status open_existing(const Map_declaration_impl* map_declaration);
    // Scans past blanks and '#' comments: true when the first word is "declare".
    bool looks_like_open_ascii();
    // Header steps 2 to 7 on the open stream; reports and closes on failure.
    Map_status read_header();
    Map_status damaged();
    // The open binary header behind "ob": version digit, "dim", dimension digit, the field list
    // text up to its NUL, then the stream placed on the elements. Reports and closes on failure.
    Map_status read_open_binary_header();
    Map_status open_binary_failed(Map_status status);
    // "qv=MAPob1dim<M>", the field list text and a NUL; sets the offsets of the global block
    // and the elements behind it.
    bool write_open_binary_header();
    bool write_at(uint64_t offset, const void* data, size_t bytes);

    std::string name_;
    FILE* stream_ = nullptr;
    uint64_t file_bytes_ = 0;
    uint32_t declaration_bytes_ = 0;         // D
    bool verbose_info_ = false;
    bool verbose_error_ = false;
    uint64_t pages_read_ = 0;
};

// The BVH side of a map and its file. map_file_read_bvh reads `file`'s global BVH: into the
// map's own BVH when `replace` is set (a map that holds nothing else; a failed read leaves that
// BVH empty and invalid), otherwise into a new one that is hung under the map's root (a failed
// read leaves the map's BVH as it was). False when the file has none or it can't be used.
// map_file_write_bvh writes the map's BVH behind the pages when the map has a valid one; false
// when there is none to write or the write failed.
bool map_file_read_bvh(Map_impl& map, Map_file* file, bool replace);
bool map_file_write_bvh(Map_impl& map, Map_file& file);

// Copies elements [first, first + count) of `store` packed into `out`, one cache access per
// page, in index order whatever segments hold them.
void map_file_gather(Map_page_store& store, uint32_t first, uint32_t count, uint8_t* out);

// Map_impl::write in the two open formats: the packed elements behind a text header, and the
// scene language's text. Neither builds the BVH. `messages` gives the info and error lines.
// `comment` (may be null) replaces the open ASCII comment line's text; no line end is added.
Map_status map_file_write_open_binary(Map_impl& map, const char* name, bool messages);
Map_status map_file_write_open_ascii(Map_impl& map, const char* name, bool messages, const char* comment);

// The field list text of an open binary header (`length` bytes, no NUL needed) into
// `declaration`, which holds the dimension and no fields: one item at a time, each a type
// letter, an optional decimal count, an optional "g" for a global field and the name between
// double quotes. MAP_FILE_MALFORMED on the first faulty item, reported (with `name` as the file
// name) when `messages` is set; the declaration then holds the items before it.
Map_status map_open_binary_parse_fields(const char* text, size_t length, Map_declaration_impl& declaration,
                                        const char* name, bool messages);

// Reads the elements of an open binary `file` whose header was read, onto the end of `map`'s
// pending elements, until the end of the file. A part of an element at the end, or a failed
// read, gives the read error (reported when `messages` is set) and MAP_FILE_MALFORMED with the
// committed bounds emptied; the elements read so far stay pending. The file is closed in any
// case. REQUIRES: the map's declaration has the file's element layout.
Map_status map_file_read_open_binary_elements(Map_impl& map, Map_file& file, bool messages);

// Map_impl::append_from_file with separate switches for the info line and the error lines (the
// final-gather loader wants the errors and not the notices).
Map_status map_file_append_from(Map_impl& map, const char* filename, bool verbose_info, bool verbose_error,
                                bool leave_bvh, uint32_t* format);

} // namespace QV::RCMAP
