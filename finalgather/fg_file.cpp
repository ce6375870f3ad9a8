// Reading final-gather files: telling the kinds apart, the classic headers and records, and the
// loaders into maps and kd-trees.
#include "finalgather/fg_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "containers/kdtree.h"
#include "database/db.h"
#include "database/scene_records.h"
#include "finalgather/fg_file_internal.h"
#include "finalgather/fg_file_io.h"
#include "finalgather/fg_map.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/paths.h"
#include "tool/blend.h"

using QV::RCMAP::Map_declaration_impl;
using QV::RCMAP::Map_element_impl;
using QV::RCMAP::Map_impl;
using namespace fg_file_detail;

namespace {

Fg_progressive_query g_progressive_query = nullptr;

// Classic records gathered before they go into the map together: a few pages' worth.
constexpr uint32_t CLASSIC_APPEND_BATCH = 1024;

// Reads the classic records behind the headers and hands each to `add`, which gets the whole
// record (word 26 zero) and answers whether it took it. Stops at the first short read and
// keeps what came before it, so the header's count is only an upper bound. Returns how many
// records were taken. `add_run(records, n)` is offered each block of file records first, when
// they need neither byte swapping nor the version-0 conversion; it takes the first records it
// can (all of them, or none) and returns how many, and the rest go to `add` one by one.
template <class Add, class Add_run>
uint32_t read_classic_records(FILE* file, const char* path, const Classic_header& header, Add add, Add_run add_run)
{
    if (!file_seek(file, FG_DATA_OFFSET, SEEK_SET, path, 10, "failed seek to finalgather data file begin"))
        return 0;
    // Read a block of records per call; a short block hands on its whole records and then
    // reports the failure once, as a read per record would at the first one missing.
    constexpr uint32_t BLOCK_RECORDS = 512;
    std::vector<uint8_t> block(size_t(BLOCK_RECORDS) * FG_RECORD_BYTES);
    const bool as_stored = !header.swap && header.version != 0;
    uint32_t loaded = 0;
    Fg_point record;
    while (loaded < header.count) {
        const uint32_t wanted = std::min(BLOCK_RECORDS, header.count - loaded);
        errno = 0;
        const size_t got = std::fread(block.data(), FG_RECORD_BYTES, wanted, file);
        size_t k = 0;
        if (as_stored) {
            k = add_run(block.data(), got);
            loaded += uint32_t(k);
        }
        for (; k < got; ++k) {
            std::memcpy(&record, block.data() + k * FG_RECORD_BYTES, FG_RECORD_BYTES);
            record.trailing = 0;
            if (header.swap)
                swap_bytes(&record, FG_SWAP_RECORD);
            if (header.version == 0)
                convert_version0(&record);
            // A point the target refused is not counted.
            if (add(record))
                ++loaded;
        }
        if (got < wanted) {
            file_failure(11, "failed reading finalgather point", path);
            break;
        }
    }
    return loaded;
}

// The classic part of the two loaders: headers, records, close. The stream stands at 32.
template <class Add, class Add_run>
uint32_t load_classic(FILE* file, const char* path, Add add, Add_run add_run)
{
    const Classic_header header = read_classic_headers(file, path);
    if (header.count == 0) {
        file_close(file, path, 9, TEXT_CLOSING);
        return 0;
    }
    const uint32_t loaded = read_classic_records(file, path, header, add, add_run);
    file_close(file, path, 12, "failed closing finalgather file");
    return loaded;
}

// The usual element layout is the record's words 0..17 followed by its words 20..25: a record
// then becomes an element by two copies, without going through the declaration field by field.
constexpr size_t FG_RECORD_HEAD_BYTES = 18 * 4;
constexpr size_t FG_RECORD_TAIL_WORD = 20;
static_assert(FG_RECORD_HEAD_BYTES + FG_RECORD_BYTES - 4 * FG_RECORD_TAIL_WORD == FG_ELEMENT_BYTES);

void record_to_element_fixed(uint8_t* element, const uint8_t* record)
{
    std::memcpy(element, record, FG_RECORD_HEAD_BYTES);
    std::memcpy(element + FG_RECORD_HEAD_BYTES, record + 4 * FG_RECORD_TAIL_WORD,
                FG_ELEMENT_BYTES - FG_RECORD_HEAD_BYTES);
}

// Whether the field-by-field conversion into `element`'s declaration writes exactly what the
// two copies write, for every record: a record of distinct byte values is converted both ways
// over an element cleared to zero, so a byte of another field, another place or no field at all
// shows as a difference.
bool has_fixed_layout(Map_element_impl* element)
{
    if (element->get_declaration()->element_bytes() != FG_ELEMENT_BYTES)
        return false;
    uint8_t probe[sizeof(Fg_point)];
    for (size_t i = 0; i < sizeof probe; ++i)
        probe[i] = uint8_t(i + 1);
    uint8_t fixed[FG_ELEMENT_BYTES];
    record_to_element_fixed(fixed, probe);
    std::vector<uint8_t> saved(element->get_data(), element->get_data() + FG_ELEMENT_BYTES);
    std::memset(element->get_data(), 0, FG_ELEMENT_BYTES);
    Fg_point point;
    std::memcpy(&point, probe, sizeof point);
    fg_point_to_element(element, point.position, point.normal);
    const bool same = std::memcmp(element->get_data(), fixed, FG_ELEMENT_BYTES) == 0;
    std::memcpy(element->get_data(), saved.data(), FG_ELEMENT_BYTES);
    return same;
}

void report_loaded(uint32_t loaded, const char* path)
{
    if (loaded > 0)
        msg_progress("%i finalgather points loaded from %s", int(loaded), path);
}

// A NUL-terminated copy of the file name held by a string element, cut to the path buffer.
void element_text(char (&out)[FG_PATH_BYTES], const void* data, uint32_t size)
{
    size_t length = 0;
    if (data) {
        const auto* text = static_cast<const char*>(data);
        while (length < size && length + 1 < FG_PATH_BYTES && text[length])
            ++length;
        std::memcpy(out, text, length);
    }
    out[length] = '\0';
}

// Appends a current file (binary or open binary) to `map` with the reader's errors on and its
// notices off. The map reader substitutes the path itself: it gets the name as the user gave it.
bool append_current_file(Map_impl* map, const char* path)
{
    return QV::RCMAP::map_file_append_from(*map, path, false, true, false, nullptr) == qv::shader_v3::MAP_SUCCESS;
}

bool may_load_list(uint32_t tag)
{
    if (!tag)
        return false;
    if (const Thread_context* context = thread_context(); context && context->host_number != 0)
        return false;
    return !(g_progressive_query && g_progressive_query());
}

// Loads the file named under `tag`, or every file of a tag list; `load(name, allow_classic)`.
template <class Load>
uint32_t load_list(uint32_t tag, bool skip_first, bool limit_classic, Load load)
{
    char name[FG_PATH_BYTES];
    uint32_t loaded = 0;
    if (qv_db_type(tag) == SCENE_TAG) {
        const auto* entries = static_cast<const uint32_t*>(qv_db_access(tag));
        const uint32_t count = qv_db_size(tag) / 4;
        const uint32_t first = skip_first && count > 0 ? 1 : 0;
        uint32_t remaining = 0;
        for (uint32_t n = first; n < count; ++n)
            remaining += entries[n] != 0;
        // Several files combine only when all are current files.
        const bool allow_classic = !limit_classic || remaining <= 1;
        for (uint32_t n = first; n < count; ++n) {
            const uint32_t entry = entries[n];
            if (!entry)
                continue;
            element_text(name, qv_db_access(entry), qv_db_size(entry));
            qv_db_unpin(entry);
            loaded += load(name, allow_classic);
        }
    } else {
        element_text(name, qv_db_access(tag), qv_db_size(tag));
        loaded = load(name, true);
    }
    qv_db_unpin(tag);
    return loaded;
}

}  // namespace

namespace fg_file_detail {

File_kind file_kind(FILE* file, const char* path)
{
    uint8_t header[FG_FILE_HEADER_BYTES];
    if (!file_seek(file, 0, SEEK_SET, path, 2, TEXT_SEEK_HEADER) ||
        !file_read(file, header, sizeof(header), path, 3, TEXT_READ_HEADER))
        return FILE_KIND_FAILED;
    return std::memcmp(header, FG_FILE_MAGIC, 4) == 0 ? FILE_KIND_CLASSIC : FILE_KIND_CURRENT;
}

Classic_header read_classic_headers(FILE* file, const char* path)
{
    Classic_header header{0, 0, false};
    uint8_t options[FG_OPTIONS_HEADER_BYTES];
    if (!file_read(file, options, sizeof(options), path, 6,
                   "failed to read used options from file, content ignored"))
        return header;
    if (std::memcmp(options, FG_OPTIONS_MAGIC, 4) != 0) {
        msg_error_n(7, "%s: wrong finalgather map header magic", path);
        return header;
    }
    int32_t order;
    std::memcpy(&order, options + 4, 4);
    header.swap = order != 1;
    if (header.swap)
        swap_bytes(options, FG_SWAP_OPTIONS);
    uint32_t version;
    std::memcpy(&version, options + 8, 4);
    if (version > 1) {
        msg_info("%s: unknown finalgather map version, content ignored", path);
        return header;
    }
    // The size block's template runs on over a first record, so the buffer has room for it.
    uint8_t size_block[128] = {};
    if (!file_read(file, size_block, FG_SIZE_BLOCK_BYTES, path, 8, "failed to read data size, content ignored"))
        return header;
    if (header.swap)
        swap_bytes(size_block, FG_SWAP_SIZE);
    std::memcpy(&header.count, size_block, 4);
    header.version = version;
    return header;
}

void convert_version0(Fg_point* record)
{
    // Rows of the red, green and blue world-space gradients at record bytes 44, 56 and 68.
    float rows[9];
    std::memcpy(rows, reinterpret_cast<const uint8_t*>(record) + 44, sizeof(rows));
    float t[3], c[3];
    fg_tangent_frame(record->normal, t, c);
    float grad_t1[3], grad_t2[3];
    for (int k = 0; k < 3; ++k) {
        const float* row = rows + 3 * k;
        grad_t1[k] = -(row[0] * c[0] + row[1] * c[1] + row[2] * c[2]);
        grad_t2[k] = row[0] * t[0] + row[1] * t[1] + row[2] * t[2];
    }
    // The third row stays where it was: its first word now reads as point_id.
    std::memcpy(record->grad_t1, grad_t1, sizeof(grad_t1));
    std::memcpy(record->grad_t2, grad_t2, sizeof(grad_t2));
}

}  // namespace fg_file_detail

void swap_bytes(void* data, const char* layout)
{
    auto* cursor = static_cast<uint8_t*>(data);
    uint32_t count = 0;
    for (const char* letter = layout; *letter; ++letter) {
        if (*letter >= '0' && *letter <= '9') {
            count = count * 10 + uint32_t(*letter - '0');
            continue;
        }
        for (;;) {
            switch (*letter) {
            case 'c':
                cursor += 1;
                break;
            case 's':
                std::swap(cursor[0], cursor[1]);
                cursor += 2;
                break;
            case 'f':
            case 'i':
                std::swap(cursor[0], cursor[3]);
                std::swap(cursor[1], cursor[2]);
                cursor += 4;
                break;
            case 'd':
                for (int n = 0; n < 4; ++n)
                    std::swap(cursor[n], cursor[7 - n]);
                cursor += 8;
                break;
            case 'p':
                std::memset(cursor, 0, 8);
                cursor += 8;
                break;
            default:
                // Not a letter: the count stays standing for the next one.
                goto next_character;
            }
            if (count == 0)
                break;
            --count;
        }
    next_character:;
    }
}

void fg_set_progressive_query(Fg_progressive_query query)
{
    g_progressive_query = query;
}

namespace {

// Opens a user's path, after substitution into `name`, and tells the file's kind. Null when the
// file cannot be opened or its header cannot be read; both are reported, and the file is closed.
FILE* open_for_loading(const char* path, char (&name)[FG_PATH_BYTES], File_kind* kind)
{
    path_substitute(name, path, sizeof(name));
    FILE* file = file_open(name, "rb", 0, "cannot load finalgather map file");
    if (!file)
        return nullptr;
    *kind = file_kind(file, name);
    if (*kind == FILE_KIND_FAILED) {
        file_close(file, name, 5, TEXT_CLOSING);
        return nullptr;
    }
    return file;
}

}  // namespace

uint32_t fg_map_load(Map_impl* map, const char* path, bool allow_classic)
{
    Module_scope scope(MOD_RCFG);
    char name[FG_PATH_BYTES];
    File_kind kind;
    FILE* file = open_for_loading(path, name, &kind);
    if (!file)
        return 0;
    uint32_t loaded = 0;
    if (kind == FILE_KIND_CURRENT) {
        if (!file_close(file, name, 5, TEXT_CLOSING))
            return 0;
        const uint32_t before = map->size();
        if (!append_current_file(map, path))
            return 0;
        loaded = map->size() - before;
    } else if (!allow_classic) {
        msg_error_n(5, "cannot use classic finalgather map file '%s'", name);
        file_close(file, name, 5, TEXT_CLOSING);
        return 0;
    } else {
        // The first record goes through append, which checks the map's layout (or gives an
        // empty map its declaration); once that has succeeded the rest are appended a batch at
        // a time, without a lock and page lookup per record. A map of another layout keeps
        // refusing each record on its own, as before.
        Map_element_impl* element = fg_scratch_element();
        const uint32_t element_bytes = element->get_declaration()->element_bytes();
        std::vector<uint8_t> batch;
        uint32_t batched = 0;
        bool layout_checked = false;
        // With the usual declaration, records that need no conversion go from the read block
        // straight into the batch.
        const bool fixed = has_fixed_layout(element);
        auto flush = [&] {
            map->append_raw_run(batch.data(), batched);
            batched = 0;
        };
        auto add = [&](const Fg_point& record) {
            fg_point_to_element(element, record.position, record.normal);
            if (!layout_checked) {
                if (map->append(element) != qv::shader_v3::MAP_SUCCESS)
                    return false;
                layout_checked = true;
                batch.resize(size_t(CLASSIC_APPEND_BATCH) * element_bytes);
                return true;
            }
            std::memcpy(batch.data() + size_t(batched) * element_bytes, element->get_data(), element_bytes);
            if (++batched == CLASSIC_APPEND_BATCH)
                flush();
            return true;
        };
        auto add_run = [&](const uint8_t* records, size_t count) -> size_t {
            if (!fixed || !layout_checked)
                return 0;
            for (size_t k = 0; k < count; ++k) {
                record_to_element_fixed(batch.data() + size_t(batched) * element_bytes,
                                        records + k * FG_RECORD_BYTES);
                if (++batched == CLASSIC_APPEND_BATCH)
                    flush();
            }
            return count;
        };
        loaded = load_classic(file, name, add, add_run);
        if (batched)
            flush();
    }
    report_loaded(loaded, name);
    return loaded;
}

uint32_t fg_kdtree_load(Kdtree_handle* kdtree, const char* path)
{
    Module_scope scope(MOD_RCFG);
    char name[FG_PATH_BYTES];
    File_kind kind;
    FILE* file = open_for_loading(path, name, &kind);
    if (!file)
        return 0;
    uint32_t loaded = 0;
    if (kind == FILE_KIND_CURRENT) {
        if (!file_close(file, name, 5, TEXT_CLOSING))
            return 0;
        const Map_declaration_impl* declaration = fg_cached_declaration();
        auto* map = new Map_impl(*declaration);
        // A file of another layout is no final-gather map, whatever the reader thinks of it.
        if (map->read(path, 0) != qv::shader_v3::MAP_SUCCESS || !map->get_declaration() ||
            !map->get_declaration()->is_layout_equivalent(*declaration)) {
            msg_error_n(20, "%s", TEXT_NOT_VALID);
            delete map;
            return 0;
        }
        Map_element_impl element(declaration);
        Fg_point point{};
        loaded = map->size();
        for (uint32_t n = 0; n < loaded; ++n) {
            map->get(n, &element);
            fg_point_from_element(&point, &element);
            kdtree_add(kdtree, point.normal, point.position);
        }
        delete map;
    } else {
        loaded = load_classic(file, name, [kdtree](const Fg_point& record) {
            kdtree_add(kdtree, record.normal, record.position);
            return true;
        }, [](const uint8_t*, size_t) { return size_t(0); });
    }
    report_loaded(loaded, name);
    return loaded;
}

uint32_t fg_map_load_list(Map_impl* map, uint32_t tag, bool skip_first)
{
    Module_scope scope(MOD_RCFG);
    uint32_t loaded = 0;
    if (may_load_list(tag))
        loaded = load_list(tag, skip_first, true, [map](const char* name, bool allow_classic) {
            return fg_map_load(map, name, allow_classic);
        });
    map->build_bvh(0.6f, false, false);
    return loaded;
}

uint32_t fg_kdtree_load_list(Kdtree_handle* kdtree, uint32_t tag, bool skip_first)
{
    Module_scope scope(MOD_RCFG);
    if (!may_load_list(tag))
        return 0;
    return load_list(tag, skip_first, false,
                     [kdtree](const char* name, bool) { return fg_kdtree_load(kdtree, name); });
}
