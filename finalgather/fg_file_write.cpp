// Writing final-gather files: opening a classic or current file for new points, adding points,
// and the closing sequence with its temporary name and rename.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>
#include <unistd.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "containers/kdtree.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_file_internal.h"
#include "finalgather/fg_file_io.h"
#include "finalgather/fg_map.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/paths.h"

using QV::RCMAP::Map_impl;
using namespace fg_file_detail;

namespace {

constexpr const char TEXT_CLOSE_WRITER[] = "failed to close finalgather file";  // 28
constexpr float COMMIT_QUALITY = 0.6f;

// The three header blocks of a new classic file. Reserved words are zero.
struct Classic_blocks {
    uint8_t file_header[FG_FILE_HEADER_BYTES] = {};
    uint8_t options[FG_OPTIONS_HEADER_BYTES] = {};
    uint8_t size_block[FG_SIZE_BLOCK_BYTES] = {};

    explicit Classic_blocks(const Fg_scene_options* scene_options)
    {
        std::memcpy(file_header, FG_FILE_MAGIC, 4);
        std::memcpy(file_header + 4, "    ", 4);
        std::memcpy(file_header + 8, FG_LIBRARY_VERSION, std::strlen(FG_LIBRARY_VERSION));
        std::memcpy(options, FG_OPTIONS_MAGIC, 4);
        const int32_t order = 1;
        const uint32_t version = 1;
        const int32_t rays = scene_options ? scene_options->finalg_rays : 0;
        std::memcpy(options + 4, &order, 4);
        std::memcpy(options + 8, &version, 4);
        std::memcpy(options + 12, &rays, 4);
    }
};
static_assert(sizeof(Classic_blocks) == FG_DATA_OFFSET, "the three blocks are the 120-byte header");

bool rebuild_requested(const Fg_scene_options* options)
{
    return options && (options->rebuild & 1u);
}

// With options given and rebuild off, points that cannot be saved are announced before any work.
bool refuse_unwritable(const Fg_scene_options* options, bool exists, const char* path)
{
    if (!options || rebuild_requested(options) || !exists || access(path, W_OK) == 0)
        return false;
    msg_warn_n(6, "finalgather map not writable, not saving new points: %s", path);
    return true;
}

// The writer record: the fields found by the open, `ok` true and an owned copy of the path.
Fg_map_writer* new_writer(const char* path, const Fg_map_writer& fields)
{
    auto* writer = static_cast<Fg_map_writer*>(QV_ALLOC(sizeof(Fg_map_writer)));
    *writer = fields;
    writer->path = mem_strdup(__FILE__, __LINE__, path);
    writer->ok = true;
    return writer;
}

// Completes the trailing "XXXXXX" of `name` to a name that does not exist yet, in place. The
// result is not checked: a name that is taken after all makes the save fail, which is reported.
void complete_temporary_name(char* name)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::atomic<uint32_t> sequence{0};
    const size_t length = std::strlen(name);
    if (length < 6)
        return;
    char* tail = name + length - 6;
    uint64_t seed = uint64_t(getpid()) * 2654435761u ^ uint64_t(std::time(nullptr));
    for (int attempt = 0; attempt < 100; ++attempt) {
        uint64_t value = seed + uint64_t(++sequence) * 0x9E3779B97F4A7C15ull;
        for (int n = 0; n < 6; ++n) {
            tail[n] = letters[value % 62];
            value /= 62;
        }
        if (access(name, F_OK) != 0)
            return;
    }
}

// Step of fg_map_open_write for an existing classic file: append behind its records, or
// replace a file that has none (or is of version 0) by fresh headers.
bool prepare_classic(FILE* file, const char* path, const Classic_blocks& blocks, Fg_map_writer* writer)
{
    const Classic_header header = read_classic_headers(file, path);
    if (header.version != 0 && header.count != 0) {
        const long end = long(FG_DATA_OFFSET) + long(FG_RECORD_BYTES) * long(header.count);
        if (!file_seek(file, end, SEEK_SET, path, 22, "failed to seek to the finalgather map data end"))
            return false;
        writer->swap = header.swap;
        writer->old_count = writer->count = header.count;
        return true;
    }
    msg_info("overwriting finalgather file \"%s\"", path);
    return file_truncate(file, FG_DATA_OFFSET, path, 15, "failed to truncate file") &&
           file_seek(file, FG_FILE_HEADER_BYTES, SEEK_SET, path, 16, "failed seek after truncate") &&
           file_write(file, blocks.options, sizeof(blocks.options), path, 17,
                      "failed to write finalgather map header") &&
           file_write(file, blocks.size_block, sizeof(blocks.size_block), path, 18,
                      "failed to write finalgather map data");
}

// The element count in the header of an existing current file of the final-gather layout;
// `path` is substituted already.
qv::shader_v3::Map_status read_map_file_count(const char* path, uint32_t* count)
{
    qv::shader_v3::Map_status status = qv::shader_v3::MAP_SUCCESS;
    QV::RCMAP::Map_file file(QV::RCMAP::MAP_FILE_KIND_READ_FOR_APPEND, false, true, false, path,
                             fg_cached_declaration(), &status);
    *count = status == qv::shader_v3::MAP_SUCCESS ? file.element_count : 0;
    return status;
}

// The map side of fg_map_close: commit, then write a new file, or replace an existing one
// through a temporary name in its directory so that a failed save leaves the old file whole.
bool close_map(Fg_map_writer* writer, int64_t added)
{
    Map_impl* map = writer->map;
    const char* path = writer->path;
    bool result = true;
    map->build_bvh(COMMIT_QUALITY, false, false);
    char temporary[FG_PATH_BYTES + 8] = "";
    if (writer->mode == FG_WRITER_NEW_MAP) {
        result = map->write_file(path, qv::shader_v3::MAP_FORMAT_BINARY, false, true) == qv::shader_v3::MAP_SUCCESS;
    } else if (added > 0) {
        std::snprintf(temporary, sizeof(temporary), "%sXXXXXX", path);
        complete_temporary_name(temporary);
        result = map->write_file(temporary, qv::shader_v3::MAP_FORMAT_BINARY, false, true) == qv::shader_v3::MAP_SUCCESS;
        // A write that failed half-way must not leave its piece next to the untouched old file.
        if (!result)
            unlink(temporary);
    }
    if (result && temporary[0]) {
        // The map lets go of its files first: the old file may be one of them.
        map->clear();
        unlink(path);
        if (std::rename(temporary, path) != 0) {
            msg_error_n(27, "cannot rename temporary map file \"%s\" as \"%s\"", temporary, path);
            unlink(temporary);
            result = false;
        } else {
            if (map->read(path, qv::shader_v3::MAP_READ_ERRORS) != qv::shader_v3::MAP_SUCCESS) {
                msg_error_n(29, "cannot re-open the file \"%s\"", path);
                result = false;
            }
            map->build_bvh(COMMIT_QUALITY, false, false);
        }
    }
    if (writer->owns_map)
        delete map;
    return result;
}

}  // namespace

constexpr size_t WRITE_BUFFER_BYTES = size_t(1) << 16;

Fg_map_writer* fg_map_open_write(const Fg_scene_options* options, const char* path, bool legacy)
{
    Module_scope scope(MOD_RCFG);
    char name[FG_PATH_BYTES];
    path_substitute(name, path, sizeof(name));
    const Classic_blocks blocks(options);
    const bool exists = access(name, F_OK) == 0;
    if (refuse_unwritable(options, exists, name))
        return nullptr;
    const bool keep = exists && !rebuild_requested(options);
    FILE* file = file_open(name, keep ? "r+b" : "w+b", 13, "cannot save finalgather map");
    if (!file)
        return nullptr;
    // Records go out one at a time; a larger stream buffer turns them into fewer writes. It
    // stays small enough for the processor's cache, from where the system copies it faster than
    // from memory. It must outlive the stream, so the writer owns it; every other exit frees it.
    struct Buffer_owner {
        char* data = static_cast<char*>(QV_ALLOC(WRITE_BUFFER_BYTES));
        ~Buffer_owner() { QV_FREE(data); }
    } buffer;
    std::setvbuf(file, buffer.data, _IOFBF, WRITE_BUFFER_BYTES);

    // A file without content is new, whatever it was called before.
    bool is_new = true;
    if (file_seek(file, 0, SEEK_END, name, 14, "failed to seek to the file end"))
        is_new = std::ftell(file) <= 0;

    Fg_map_writer fields{};
    if (!is_new) {
        const File_kind kind = file_kind(file, name);
        if (kind == FILE_KIND_CURRENT && legacy)
            msg_error_n(4, "%s: wrong file header, not a finalgather map file, skipping", name);
        if (kind == FILE_KIND_FAILED || (kind == FILE_KIND_CURRENT && legacy)) {
            file_close(file, name, 5, TEXT_CLOSING);
            return nullptr;
        }
        if (kind == FILE_KIND_CURRENT) {
            if (!file_close(file, name, 28, TEXT_CLOSE_WRITER))
                return nullptr;
            Map_impl* map = fg_map_new();
            // The map reader substitutes the path itself: it gets the name as the user gave it.
            // A map file of another layout is no final-gather map: every point written to it
            // would be refused.
            if (map->read(path, 0) != qv::shader_v3::MAP_SUCCESS || !map->get_declaration() ||
                !map->get_declaration()->is_layout_equivalent(*fg_cached_declaration())) {
                msg_error_n(20, "%s", TEXT_NOT_VALID);
                delete map;
                return nullptr;
            }
            fields.map = map;
            fields.owns_map = 1;
            fields.mode = FG_WRITER_EXISTING_MAP;
            fields.old_count = fields.count = map->size();
        } else {
            if (!prepare_classic(file, name, blocks, &fields)) {
                file_close(file, name, 28, TEXT_CLOSE_WRITER);
                return nullptr;
            }
            fields.file = file;
            fields.mode = FG_WRITER_CLASSIC;
            std::swap(fields.io_buffer, buffer.data);
        }
    } else if (legacy) {
        const bool written = file_write(file, blocks.file_header, sizeof(blocks.file_header), name, 23,
                                        "failed to write finalgather file header") &&
                             file_write(file, blocks.options, sizeof(blocks.options), name, 24,
                                        "failed to write finalgather map header") &&
                             file_write(file, blocks.size_block, sizeof(blocks.size_block), name, 25,
                                        "failed write finalgather map header");
        if (!written) {
            file_close(file, name, 28, TEXT_CLOSE_WRITER);
            return nullptr;
        }
        fields.file = file;
        fields.mode = FG_WRITER_CLASSIC;
        std::swap(fields.io_buffer, buffer.data);
    } else {
        // A new current file is written whole on closing; until then nothing of it may exist.
        if (!file_close(file, name, 28, TEXT_CLOSE_WRITER))
            return nullptr;
        unlink(name);
        fields.map = fg_map_new();
        fields.owns_map = 1;
        fields.mode = FG_WRITER_NEW_MAP;
    }
    return new_writer(name, fields);
}

Fg_map_writer* fg_map_open_append(const Fg_scene_options* options, const char* path, Map_impl* map)
{
    Module_scope scope(MOD_RCFG);
    char name[FG_PATH_BYTES];
    path_substitute(name, path, sizeof(name));
    const bool exists = access(name, F_OK) == 0;
    if (refuse_unwritable(options, exists, name))
        return nullptr;
    Fg_map_writer fields{};
    fields.mode = FG_WRITER_NEW_MAP;
    if (exists && !rebuild_requested(options)) {
        FILE* file = file_open(name, "r+b", 13, "cannot open finalgather map");
        if (!file)
            return nullptr;
        const File_kind kind = file_kind(file, name);
        if (kind == FILE_KIND_CLASSIC)
            msg_warn_n(10, "%s: classic finalgather map file, cannot append", name);
        if (kind != FILE_KIND_CURRENT) {
            file_close(file, name, 5, TEXT_CLOSING);
            return nullptr;
        }
        if (!file_close(file, name, 5, TEXT_CLOSING))
            return nullptr;
        uint32_t count = 0;
        if (read_map_file_count(name, &count) != qv::shader_v3::MAP_SUCCESS)
            return nullptr;
        fields.mode = FG_WRITER_EXISTING_MAP;
        fields.old_count = fields.count = count;
    }
    if (map) {
        fields.map = map;
    } else {
        fields.map = fg_map_new();
        fields.owns_map = 1;
    }
    return new_writer(name, fields);
}

int fg_map_write_point(void* handle, const void* data, const float* position)
{
    auto* writer = static_cast<Fg_map_writer*>(handle);
    if (!writer || !writer->ok)
        return 0;
    Module_scope scope(MOD_RCFG);
    if (writer->map) {
        if (fg_map_add_point(writer->map, position, data) != qv::shader_v3::MAP_SUCCESS)
            return 0;
    } else {
        // One word more than is written: the outgoing template also covers word 26.
        Fg_point record;
        std::memcpy(record.position, position, sizeof(record.position));
        std::memcpy(record.normal, data, FG_POINT_PAYLOAD_WORDS * 4);
        record.trailing = 0;
        if (writer->swap)
            swap_bytes(&record, FG_SWAP_RECORD_OUT);
        if (!file_write(writer->file, &record, FG_RECORD_BYTES, writer->path, 26, "cannot write finalgather point")) {
            writer->ok = false;
            return 0;
        }
    }
    ++writer->count;
    return 1;
}

int fg_map_close(Fg_map_writer* writer)
{
    if (!writer)
        return 0;
    Module_scope scope(MOD_RCFG);
    const char* path = writer->path;
    const int64_t added = int64_t(writer->count) - int64_t(writer->old_count);
    bool result = true;
    if (writer->mode == FG_WRITER_CLASSIC) {
        result = writer->ok;
        // The count goes out in this host's order even into a foreign file: that is how the
        // files in circulation were written.
        if (writer->ok)
            result = file_seek(writer->file, FG_COUNT_OFFSET, SEEK_SET, path, 19,
                               "failed to seek to the finalgather size field") &&
                     file_write(writer->file, &writer->count, 4, path, 21, "failed to write finalgather map size");
        result = file_close(writer->file, path, 12, "failed closing finalgather file") && result;
        QV_FREE(writer->io_buffer);
    } else {
        result = close_map(writer, added);
    }
    if (result) {
        if (writer->old_count > 0)
            msg_progress("%i new finalgather points added to %i old ones in \"%s\"", int(added),
                         int(writer->old_count), path);
        else
            msg_progress("%i new finalgather points saved to \"%s\"", int(writer->count), path);
    }
    QV_FREE(writer->path);
    QV_FREE(writer);
    return result ? 1 : 0;
}

namespace {

// A kd-tree's records in this host's order go out a buffer at a time: each is laid out as a
// classic record straight into the buffer, one fixed copy for the position and one for the
// payload, instead of one stream write per record.
constexpr uint32_t BATCH_RECORDS = uint32_t(WRITE_BUFFER_BYTES / FG_RECORD_BYTES);

struct Classic_batch {
    Fg_map_writer* writer;
    uint32_t filled;
    uint8_t bytes[BATCH_RECORDS * FG_RECORD_BYTES];
};

// The count grows by the records written; after a failure, `ok` stops every later write.
bool flush_batch(Classic_batch* batch)
{
    Fg_map_writer* writer = batch->writer;
    const uint32_t filled = batch->filled;
    batch->filled = 0;
    if (filled == 0)
        return true;
    if (!file_write(writer->file, batch->bytes, size_t(filled) * FG_RECORD_BYTES, writer->path, 26,
                    "cannot write finalgather point")) {
        writer->ok = false;
        return false;
    }
    writer->count += filled;
    return true;
}

int add_to_batch(void* argument, const void* data, const float* position)
{
    auto* batch = static_cast<Classic_batch*>(argument);
    uint8_t* record = batch->bytes + size_t(batch->filled) * FG_RECORD_BYTES;
    std::memcpy(record, position, FG_POINT_PAYLOAD_WORD * 4);
    std::memcpy(record + FG_POINT_PAYLOAD_WORD * 4, data, FG_POINT_PAYLOAD_WORDS * 4);
    if (++batch->filled < BATCH_RECORDS)
        return 1;
    return flush_batch(batch) ? 1 : 0;
}

}  // namespace

int fg_map_save_legacy(uint32_t kdtree_tag, const Fg_scene_options* options, const char* path)
{
    Module_scope scope(MOD_RCFG);
    if (!kdtree_tag)
        return 0;
    Fg_map_writer* writer = fg_map_open_write(options, path, true);
    if (!writer)
        return 0;
    Kdtree_handle* kdtree = kdtree_open_for_reading(kdtree_tag, nullptr, nullptr);
    if (writer->file && !writer->swap) {
        auto* batch = static_cast<Classic_batch*>(QV_ALLOC(sizeof(Classic_batch)));
        batch->writer = writer;
        batch->filled = 0;
        if (kdtree_iterate(kdtree, add_to_batch, batch))
            flush_batch(batch);
        QV_FREE(batch);
    } else {
        kdtree_iterate(kdtree, fg_map_write_point, writer);
    }
    kdtree_close(kdtree);
    return fg_map_close(writer);
}
