// Map_impl's file operations: read, write, append_to_file and append_from_file of the binary
// map file. The layout itself belongs to Map_file; this file decides what of a map goes where.
#include <algorithm>
#include <cstring>
#include <vector>

#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

// A failed write after the file was made: the file is not usable.
constexpr int32_t ERR_WRITE_FAILED = 30;

// A quality above 1 gives a negative threshold, which the BVH replaces by the manager's default.
constexpr float BVH_DEFAULT_QUALITY = 2.0f;
// Maps read from the open formats are built with threshold 0.4.
constexpr float OPEN_FORMAT_QUALITY = 0.6f;

// True when element i lies at page i / E, slot i % E for every element below `total`: every
// segment has the map's E, and only the last one may end in a partial page. Then the map's
// pages are the file's pages and can be written whole.
bool pages_are_packed(const Map_page_store& store, uint32_t total)
{
    for (const Map_segment& segment : store.segments()) {
        if (segment.elements_per_page != store.elements_per_page)
            return false;
        if (segment.last_element + 1 < total && segment.last_page_count != segment.elements_per_page)
            return false;
    }
    return true;
}

// Writes elements [first, first + count) as whole file pages of `per_page` elements, each
// rebuilt in a zero-filled page: used where the map's pages are not the file's.
bool write_repacked_pages(Map_page_store& store, Map_file& file, uint32_t first, uint32_t count, uint32_t per_page)
{
    std::vector<uint8_t> page(file.page_bytes);
    for (uint32_t done = 0; done < count;) {
        uint32_t run = std::min(per_page, count - done);
        std::fill(page.begin(), page.end(), uint8_t(0));
        map_file_gather(store, first + done, run, page.data());
        if (!file.write_raw(page.data(), page.size()))
            return false;
        done += run;
    }
    return true;
}

// Writes the map's first `pages` pages whole, page BVHs included, through the cache in
// read-only mode so that the write never pulls the whole map into memory.
bool write_whole_pages(Map_page_store& store, Map_file& file, uint32_t pages)
{
    for (uint32_t page = 0; page < pages; ++page)
        if (!file.write_raw(store.get_page(page, true), file.page_bytes))
            return false;
    return true;
}

Map_status write_failed(Map_file& file, bool messages)
{
    if (messages)
        msg_error_n(ERR_WRITE_FAILED, "cannot write map file \"%s\"", file.file_name());
    file.close();
    return MAP_FILE_CANNOT_OPEN;
}

} // namespace

void map_file_gather(Map_page_store& store, uint32_t first, uint32_t count, uint8_t* out)
{
    const uint32_t bytes = store.element_bytes;
    uint32_t current = UINT32_MAX;
    const uint8_t* data = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t page, slot;
        store.locate(first + i, &page, &slot);
        if (page != current) {
            data = store.get_page(page, true);
            current = page;
        }
        memcpy(out + size_t(i) * bytes, data + size_t(slot) * bytes, bytes);
    }
}

// ---- Reading ----------------------------------------------------------------------------------

Map_status Map_impl::read(const char* filename, uint32_t options)
{
    Module_scope scope(MOD_RCMP);
    const bool notices = (options & MAP_READ_VERBOSE) && !quiet;
    const bool errors = (options & (MAP_READ_VERBOSE | MAP_READ_ERRORS)) && !quiet;
    Map_status status = MAP_SUCCESS;
    // 1. Nothing of the map changes before the header has been read and checked.
    auto* file = new Map_file(MAP_FILE_KIND_READ, notices, errors, true, filename, nullptr, &status);
    if (status != MAP_SUCCESS) {
        delete file;
        return status;
    }
    // 2, 3. The file's declaration and global block.
    clear();
    adopt_declaration(file->declaration);
    if (globals)
        file->read_global(globals);
    if (file->format == MAP_FORMAT_OPEN_BINARY) {
        // Every element into the map's pages; the file is closed behind them.
        status = map_file_read_open_binary_elements(*this, *file, errors);
        delete file;
        if (status == MAP_SUCCESS)
            build_bvh(OPEN_FORMAT_QUALITY, false, false);
        return status;
    }
    // 5. The file becomes the map's one segment; its pages stay on disk until touched.
    const uint32_t count = file->element_count;
    if (count == 0) {
        delete file;
    } else {
        attach_file(file, count, file->elements_per_page, &file->bounds);
        std::lock_guard<std::mutex> hold(lock);
        size_ = count;
        pending_count = 0;
        bounds = pending_bounds;
    }
    // 4. A stored BVH spares the build.
    needs_refit = false;
    needs_build = count > 0 && !map_file_read_bvh(*this, file, true);
    // 6.
    build_bvh(BVH_DEFAULT_QUALITY, false, false);
    return MAP_SUCCESS;
}

Map_status Map_impl::append_from_file(const char* filename, bool verbose, bool leave_bvh, uint32_t* format)
{
    return map_file_append_from(*this, filename, verbose, verbose, leave_bvh, format);
}

namespace {

// append_from_file of an open binary file whose header was read: its elements go behind the
// map's pending ones and are committed by the build at the end.
Map_status append_open_binary(Map_impl& map, Map_file* file, bool messages, bool leave_bvh)
{
    bool was_empty;
    {
        std::lock_guard<std::mutex> hold(map.map_lock());
        if (!map.get_declaration())
            map.adopt_declaration(file->declaration);
        was_empty = map.committed_size() == 0 && map.get_pending_count() == 0;
    }
    const Map_declaration_impl& declaration = *map.get_declaration();
    if (was_empty && map.get_globals() && file->declaration.global_signature() == declaration.global_signature() &&
        file->declaration.global_bytes() == declaration.global_bytes())
        file->read_global(map.get_globals());
    const Map_status status = map_file_read_open_binary_elements(map, *file, messages);
    delete file;
    if (status == MAP_SUCCESS)
        map.build_bvh(OPEN_FORMAT_QUALITY, false, leave_bvh);
    return status;
}

} // namespace

Map_status map_file_append_from(Map_impl& map, const char* filename, bool verbose_info, bool verbose_error,
                                bool leave_bvh, uint32_t* format)
{
    Module_scope scope(MOD_RCMP);
    if (format)
        *format = MAP_FORMAT_BINARY;
    if (!map.editable)
        return MAP_NOT_EDITABLE;
    const bool info = verbose_info && !map.quiet, errors = verbose_error && !map.quiet;
    Map_status status = MAP_SUCCESS;
    // 1. Open ASCII is the caller's to parse; the format tells it so.
    auto* file =
        new Map_file(MAP_FILE_KIND_READ_FOR_APPEND, info, errors, true, filename, map.get_declaration(), &status);
    if (format)
        *format = file->format;
    if (status != MAP_SUCCESS) {
        delete file;
        return status;
    }
    if (file->format == MAP_FORMAT_OPEN_BINARY)
        return append_open_binary(map, file, errors, leave_bvh);
    // 2. Pending appends are committed and stay where they are, as a memory segment.
    bool was_empty;
    {
        std::lock_guard<std::mutex> hold(map.lock);
        if (!map.declaration)
            map.adopt_declaration(file->declaration);
        if (map.pending_count) {
            map.size_ += map.pending_count;
            map.pending_count = 0;
            map.bounds = map.pending_bounds;
            map.needs_build = map.needs_refit = true;
        }
        was_empty = map.size_ == 0;
    }
    const bool bvh_was_valid =
        map.bvh_enabled && (was_empty || (map.global_bvh && !map.needs_build && !map.needs_refit));
    // 3. Only an empty map takes the file's global values, and only into the same global
    // layout: the append check compares the element layouts alone.
    const Map_declaration_impl& declaration = *map.declaration;
    if (was_empty && map.globals && file->declaration.global_signature() == declaration.global_signature() &&
        file->declaration.global_bytes() == declaration.global_bytes())
        file->read_global(map.globals);
    // 4, 5.
    const uint32_t count = file->element_count;
    if (count == 0) {
        delete file;
        return MAP_SUCCESS;
    }
    const Map_bounds file_bounds = file->bounds;
    map.attach_file(file, count, file->elements_per_page, &file_bounds);
    {
        std::lock_guard<std::mutex> hold(map.lock);
        map.size_ += count;
        map.pending_count -= count;
        map.bounds.merge(file_bounds, declaration.dimension());
    }
    // 6. The file's BVH joins the map's where that is possible; otherwise the map is marked.
    if (leave_bvh) {
        map.needs_refit = true;
    } else if (!bvh_was_valid) {
        map.needs_build = true;
    } else if (file->bvh_offset == 0) {
        map.needs_refit = true;
        map.needs_build = map.needs_build || was_empty;
    } else if (!map_file_read_bvh(map, file, was_empty)) {
        map.needs_build = true;
    }
    return MAP_SUCCESS;
}

// ---- Writing ----------------------------------------------------------------------------------

Map_status Map_impl::write(const char* filename, Map_file_format format, bool verbose, const char* comment)
{
    return write_file(filename, format, verbose, verbose, comment);
}

Map_status Map_impl::write_file(const char* filename, Map_file_format format, bool notices, bool errors,
                                const char* comment)
{
    Module_scope scope(MOD_RCMP);
    if (!editable)
        return MAP_NOT_EDITABLE;
    if (!declaration)
        return MAP_NO_DECLARATION;
    const bool messages = errors && !quiet;
    const bool notice = notices && !quiet;
    if (format == MAP_FORMAT_OPEN_BINARY)
        return map_file_write_open_binary(*this, filename, messages);
    if (format == MAP_FORMAT_OPEN_ASCII)
        return map_file_write_open_ascii(*this, filename, messages, comment);
    if (format != MAP_FORMAT_BINARY)
        return MAP_FILE_MALFORMED;

    // A build puts the elements in tree order in one segment, so that element i lies at page
    // i / E, slot i % E. Without a BVH the pages are repacked below where they don't.
    if (store.segments().size() > 1)
        needs_build = true;
    build_bvh(BVH_DEFAULT_QUALITY, false, false);

    const uint32_t count = size_;
    const uint32_t per_page = store.elements_per_page;
    const uint32_t pages = count == 0 ? 0 : (count - 1) / per_page + 1;
    Map_status status = MAP_SUCCESS;
    Map_file file(MAP_FILE_KIND_WRITE, MAP_FORMAT_BINARY, notice, messages, false, filename, declaration, count,
                  MAP_FILE_PAGE_BYTES, per_page, pages, &bounds, &status);
    if (status != MAP_SUCCESS)
        return status;

    if (globals && !file.write_global(globals))
        return write_failed(file, messages);
    if (!file.seek_data(0))
        return write_failed(file, messages);
    bool written = pages_are_packed(store, count) ? write_whole_pages(store, file, pages)
                                                  : write_repacked_pages(store, file, 0, count, per_page);
    if (!written)
        return write_failed(file, messages);
    map_file_write_bvh(*this, file);
    if (!file.close())
        return write_failed(file, messages);
    return MAP_SUCCESS;
}

Map_status Map_impl::append_to_file(const char* filename, bool verbose)
{
    Module_scope scope(MOD_RCMP);
    if (!editable)
        return MAP_NOT_EDITABLE;
    if (size_ == 0)
        return MAP_SUCCESS;
    const bool messages = verbose && !quiet;
    // 1 to 4.
    Map_status status = MAP_SUCCESS;
    Map_file file(messages, true, filename, declaration, &status);
    if (status != MAP_SUCCESS)
        return status;
    if (messages)
        msg_info("appending to map file \"%s\"", file.file_name());
    // 5, 6. A file appended to has no BVH, whatever it had.
    file.bounds.merge(bounds, declaration->dimension());
    if (!file.clear_bvh_offset())
        return write_failed(file, messages);

    // 7. Behind the last element; the counts grow.
    const uint32_t old_count = file.element_count;
    const uint32_t per_page = file.elements_per_page;
    const uint32_t element_bytes = declaration->element_bytes();
    const uint32_t used_slots = old_count % per_page;
    if (!file.seek_data(uint64_t(old_count / per_page) * file.page_bytes + uint64_t(used_slots) * element_bytes))
        return write_failed(file, messages);
    file.element_count = old_count + size_;

    // 8. The free slots of a partly filled last page take the map's first elements; whatever
    // follows is written in whole pages.
    uint32_t done = 0;
    if (used_slots != 0) {
        done = std::min(per_page - used_slots, size_);
        std::vector<uint8_t> head(size_t(done) * element_bytes);
        map_file_gather(store, 0, done, head.data());
        if (!file.write_raw(head.data(), head.size()))
            return write_failed(file, messages);
        if (done < size_ && !file.seek_data(uint64_t(old_count / per_page + 1) * file.page_bytes))
            return write_failed(file, messages);
    }
    bool written = done == 0 && per_page == store.elements_per_page && pages_are_packed(store, size_)
                       ? write_whole_pages(store, file, (size_ - 1) / per_page + 1)
                       : write_repacked_pages(store, file, done, size_ - done, per_page);
    // 9. The counts and bounds go into the header on close.
    if (!written || !file.close())
        return write_failed(file, messages);
    return MAP_SUCCESS;
}

} // namespace QV::RCMAP
