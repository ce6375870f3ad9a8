#include "maps/map_page_store.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <sched.h>

#include "maps/map_manager.h"
#include "maps/map_page_table.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

uint32_t map_page_bvh_bytes(uint32_t count, uint32_t dimension)
{
    uint32_t inner = 0;
    for (uint32_t n = count; n > 8;) {
        n = (n + 7) / 8;
        inner += n;
    }
    uint32_t node_bytes = 12 + 8 * dimension;
    float room = float((inner + 1) * node_bytes) * 1.6f;
    return 4 + uint32_t(std::trunc(room));
}

uint32_t map_elements_per_page(uint32_t element_bytes, uint32_t dimension)
{
    auto fits = [&](uint64_t count) {
        return count * element_bytes + map_page_bvh_bytes(uint32_t(count), dimension) <= MAP_FILE_PAGE_BYTES;
    };
    if (!fits(1))
        return 0;
    // Double while it fits, then bisect between the last fit and the first miss.
    uint64_t low = 1;
    while (fits(low * 2))
        low *= 2;
    uint64_t high = low * 2;
    while (high - low > 1) {
        uint64_t middle = (low + high) / 2;
        if (fits(middle))
            low = middle;
        else
            high = middle;
    }
    return uint32_t(low);
}

Map_page_store::Map_page_store() = default;

Map_page_store::~Map_page_store()
{
    reset();
}

void Map_page_store::configure(uint32_t element_size, uint32_t position_dimension)
{
    assert(map_id < 0 && "a page store is configured once");
    Map_manager& manager = Map_manager::instance();
    element_bytes = element_size;
    dimension = position_dimension;
    elements_per_page = map_elements_per_page(element_bytes, dimension);
    page_data_bytes = elements_per_page * element_bytes;
    file_page_bytes = MAP_FILE_PAGE_BYTES;
    uint32_t cache_bytes = manager.cache_page_bytes();
    file_pages_per_cache_page = cache_bytes / MAP_FILE_PAGE_BYTES;
    cache_page_mask = file_pages_per_cache_page - 1;
    cache_page_shift = 0;
    while ((1u << cache_page_shift) < file_pages_per_cache_page)
        ++cache_page_shift;
    map_id = manager.register_map(this);
    swap.configure(map_id, cache_bytes);
}

void Map_page_store::reset()
{
    if (map_id >= 0)
        Map_manager::instance().unregister_map(this);
    map_id = -1;
    swap.close();
    has_swap_file = false;
    memory_limit_hit = false;
    for (Map_page_source* source : files_)
        delete source;
    files_.clear();
    segments_.clear();
    backed_file_pages_ = 0;
}

void Map_page_store::locate(uint32_t element, uint32_t* page, uint32_t* slot) const
{
    if (segments_.empty()) {
        *page = element / elements_per_page;
        *slot = element % elements_per_page;
        return;
    }
    const Map_segment& last = segments_.back();
    if (element > last.last_element) {
        // Past all segments the numbering continues after the last one.
        uint32_t rest = element - last.last_element - 1;
        *page = last.last_page + rest / elements_per_page + 1;
        *slot = rest % elements_per_page;
        return;
    }
    auto it = std::lower_bound(segments_.begin(), segments_.end(), element,
                               [](const Map_segment& segment, uint32_t value) { return segment.last_element < value; });
    uint32_t within = element - it->first_element;
    *page = within / it->elements_per_page + it->first_page;
    *slot = within % it->elements_per_page;
}

uint32_t Map_page_store::page_count(uint32_t elements) const
{
    if (elements == 0)
        return 0;
    uint32_t page, slot;
    locate(elements - 1, &page, &slot);
    return page + 1;
}

uint8_t* Map_page_store::get_page(uint32_t page, bool read_only, Map_page_table* table, uint32_t flags)
{
    Map_manager& manager = Map_manager::instance();
    if (!table)
        table = manager.current_table();
    uint32_t cache_page = page >> cache_page_shift;
    size_t offset = size_t(page & cache_page_mask) * file_page_bytes;

    // 1. The thread's own table: no global lock.
    uint64_t key = Map_page_table::make_key(uint32_t(map_id), cache_page);
    if (uint8_t* data = table->lookup(key, !read_only))
        return data + offset;
    // 2.
    if (flags & MAP_PAGE_NO_LOAD)
        return nullptr;
    // The miss path reads and writes files, whose errors belong to this module.
    Module_scope scope(MOD_RCMP);
    if (!table->registered)
        manager.register_table(table);
    // 3. A full table gives its oldest entry back with the request.
    bool give_back_tail;
    {
        std::lock_guard<std::mutex> hold(table->lock());
        give_back_tail = table->is_full();
    }
    bool beyond_limit = false;
    for (;;) {
        // 4. The manager decides under its lock.
        Map_io_request request;
        manager.get_page(this, cache_page, read_only, table, give_back_tail, beyond_limit, &request);
        give_back_tail = false;

        // 5, 6. I/O without the manager lock, then the manager finishes.
        switch (request.answer) {
        case Map_io_answer::load:
            load_cache_page(cache_page, request.node->buffer.data);
            manager.finish_io(this, &request, true);
            break;
        case Map_io_answer::swap:
        case Map_io_answer::swap_and_load: {
            uint8_t* buffer = request.victim->buffer.data;
            bool swapped = request.victim_store->swap_out(request.victim->page, buffer);
            if (swapped && request.answer == Map_io_answer::swap_and_load)
                load_cache_page(cache_page, buffer);
            manager.finish_io(this, &request, swapped);
            break;
        }
        case Map_io_answer::busy:
            if (request.spill_count) {
                bool written[4];
                for (uint32_t i = 0; i < request.spill_count; ++i)
                    written[i] = request.spill_store[i]->swap_out(request.spill[i]->page, request.spill[i]->buffer.data);
                manager.finish_writes(request.spill, request.spill_count, written);
            }
            break;
        case Map_io_answer::ready:
            break;
        }

        // 8. Into the table, at the head.
        if (request.answer == Map_io_answer::ready) {
            Map_page_entry* entry = request.entry;
            entry->dirty = !read_only;
            std::lock_guard<std::mutex> hold(table->lock());
            table->insert_head(entry);
            return entry->data + offset;
        }
        // 7. Busy.
        if (flags & MAP_PAGE_NO_WAIT)
            return nullptr;
        if (request.out_of_memory) {
            std::lock_guard<std::mutex> hold(table->lock());
            give_back_tail = table->count() > 0;
            // Nothing of ours left to give: no other thread is going to make room for us.
            beyond_limit = !give_back_tail;
        } else if (!request.spill_count) {
            sched_yield();
        }
    }
}

void Map_page_store::read_bytes(uint32_t element, uint32_t field_offset, uint32_t size, void* out,
                                Map_page_table* table)
{
    uint32_t page, slot;
    locate(element, &page, &slot);
    const uint8_t* data = get_page(page, true, table);
    memcpy(out, data + size_t(slot) * element_bytes + field_offset, size);
}

void Map_page_store::write_bytes(uint32_t element, uint32_t field_offset, uint32_t size, const void* in,
                                 Map_page_table* table)
{
    uint32_t page, slot;
    locate(element, &page, &slot);
    uint8_t* data = get_page(page, false, table);
    memcpy(data + size_t(slot) * element_bytes + field_offset, in, size);
}

void Map_page_store::add_memory_segment(uint32_t first_element, uint32_t count)
{
    if (count == 0)
        return;
    Map_segment segment;
    // Memory data always starts right after the previous segment (or at element 0), so that
    // the elements already placed by the continued numbering keep their pages.
    segment.first_element = segments_.empty() ? 0 : segments_.back().last_element + 1;
    segment.first_page = segments_.empty() ? 0 : segments_.back().last_page + 1;
    assert(segment.first_element <= first_element && "memory segment must continue the last one");
    segment.last_element = first_element + count - 1;
    uint32_t held = segment.last_element - segment.first_element + 1;
    segment.elements_per_page = elements_per_page;
    segment.last_page = segment.first_page + (held - 1) / elements_per_page;
    segment.last_page_count = (held - 1) % elements_per_page + 1;
    segment.file_index = -1;
    segments_.push_back(segment);
}

int32_t Map_page_store::add_file_segment(Map_page_source* source, uint32_t first_element, uint32_t element_count,
                                         uint32_t source_elements_per_page)
{
    std::unique_lock<std::mutex> hold(files_lock_);
    int32_t file_index = int32_t(files_.size());
    files_.push_back(source);
    if (element_count == 0 || source_elements_per_page == 0)
        return file_index;
    Map_segment segment;
    segment.first_element = first_element;
    segment.first_page = segments_.empty() ? 0 : segments_.back().last_page + 1;
    assert((segments_.empty() ? first_element == 0 : first_element == segments_.back().last_element + 1) &&
           "a file segment continues the numbering");
    segment.last_element = first_element + element_count - 1;
    segment.elements_per_page = source_elements_per_page;
    segment.last_page = segment.first_page + (element_count - 1) / source_elements_per_page;
    segment.last_page_count = (element_count - 1) % source_elements_per_page + 1;
    segment.file_index = file_index;
    segments_.push_back(segment);
    backed_file_pages_ = segment.last_page + 1;
    hold.unlock();

    // A file that starts inside a cache page shares that page with the data before it. The page
    // may be resident (a fresh page is never loaded) or in the swap file, with zeros where the
    // file's pages go, so those pages are read into it now. Taking it for writing keeps them
    // through a later swap-out.
    if (segment.first_page & cache_page_mask) {
        uint32_t high = std::min(segment.first_page | cache_page_mask, segment.last_page);
        uint32_t count = high - segment.first_page + 1;
        uint8_t* target = get_page(segment.first_page, false);
        hold.lock();
        if (!source->read_pages(0, count, target))
            memset(target, 0, size_t(count) * file_page_bytes);
    }
    return file_index;
}

bool Map_page_store::load_cache_page(uint32_t cache_page, uint8_t* buffer)
{
    size_t cache_bytes = size_t(file_pages_per_cache_page) * file_page_bytes;
    if (swap.read_page(cache_page, buffer))
        return true;
    memset(buffer, 0, cache_bytes);
    uint32_t first = cache_page << cache_page_shift;
    uint32_t last = first + file_pages_per_cache_page - 1;
    if (first >= backed_file_pages_)
        return false;
    bool loaded = false;
    std::lock_guard<std::mutex> hold(files_lock_);
    auto it = std::lower_bound(segments_.begin(), segments_.end(), first,
                               [](const Map_segment& segment, uint32_t value) { return segment.last_page < value; });
    for (; it != segments_.end() && it->first_page <= last; ++it) {
        if (it->file_index < 0)
            continue;
        // One read per run of file pages inside one segment.
        uint32_t low = std::max(first, it->first_page);
        uint32_t high = std::min(last, it->last_page);
        uint8_t* target = buffer + size_t(low - first) * file_page_bytes;
        if (files_[size_t(it->file_index)]->read_pages(low - it->first_page, high - low + 1, target))
            loaded = true;
        else
            memset(target, 0, size_t(high - low + 1) * file_page_bytes);
    }
    return loaded;
}

bool Map_page_store::swap_out(uint32_t cache_page, const uint8_t* buffer)
{
    if (!swap.write_page(cache_page, buffer))
        return false;
    has_swap_file = true;
    return true;
}

} // namespace QV::RCMAP
