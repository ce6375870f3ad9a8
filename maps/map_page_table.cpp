#include "maps/map_page_table.h"

#include <cassert>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_manager.h"

namespace QV::RCMAP {

namespace {

inline size_t hash_key(uint64_t key)
{
    // Map ids and page numbers are small and dense; mix so that neighbouring pages spread.
    key ^= key >> 29;
    key *= 0xBF58476D1CE4E5B9ull;
    key ^= key >> 32;
    return size_t(key);
}

} // namespace

Map_page_table::Map_page_table(uint32_t capacity) : capacity_(capacity < 4 ? 4 : capacity)
{
    // Start small: most tables see far fewer pages than their capacity.
    slot_mask_ = 63;
    slots_ = static_cast<Map_page_entry**>(mem_raw_alloc(__FILE__, __LINE__, sizeof(Map_page_entry*) * 64));
}

Map_page_table::~Map_page_table()
{
    // Its pages must not stay pinned by a table that is gone.
    if (registered)
        Map_manager::instance().unregister_table(this);
    assert(count_ == 0 && "a table must be emptied by the manager before it is destroyed");
    mem_raw_free(__FILE__, __LINE__, slots_);
}

Map_page_entry** Map_page_table::find_slot(uint64_t key)
{
    size_t slot = hash_key(key) & slot_mask_;
    while (slots_[slot]) {
        if (slots_[slot]->key == key)
            return &slots_[slot];
        slot = (slot + 1) & slot_mask_;
    }
    return &slots_[slot];
}

uint8_t* Map_page_table::lookup(uint64_t key, bool for_write)
{
    std::lock_guard<std::mutex> hold(lock_);
    Map_page_entry* entry = *find_slot(key);
    if (!entry)
        return nullptr;
    if (entry != head_) {
        // Unlink and put at the head.
        entry->prev->next = entry->next;
        if (entry->next)
            entry->next->prev = entry->prev;
        else
            tail_ = entry->prev;
        entry->prev = nullptr;
        entry->next = head_;
        head_->prev = entry;
        head_ = entry;
    }
    ++entry->accesses;
    if (for_write)
        entry->dirty = true;
    return entry->data;
}

void Map_page_table::grow_index()
{
    size_t old_size = slot_mask_ + 1;
    Map_page_entry** old = slots_;
    size_t new_size = old_size * 2;
    slots_ = static_cast<Map_page_entry**>(mem_raw_alloc(__FILE__, __LINE__, sizeof(Map_page_entry*) * new_size));
    memset(slots_, 0, sizeof(Map_page_entry*) * new_size);
    slot_mask_ = new_size - 1;
    for (size_t i = 0; i < old_size; ++i)
        if (old[i])
            *find_slot(old[i]->key) = old[i];
    mem_raw_free(__FILE__, __LINE__, old);
}

void Map_page_table::insert_head(Map_page_entry* entry)
{
    // Keep the load factor at most one half so probes stay short.
    if ((count_ + 1) * 2 > slot_mask_ + 1)
        grow_index();
    Map_page_entry** slot = find_slot(entry->key);
    assert(!*slot && "a page enters a table once");
    *slot = entry;
    entry->prev = nullptr;
    entry->next = head_;
    if (head_)
        head_->prev = entry;
    else
        tail_ = entry;
    head_ = entry;
    ++count_;
}

void Map_page_table::erase_slot(size_t slot)
{
    // Backward-shift deletion: pull later members of the probe run into the hole.
    slots_[slot] = nullptr;
    size_t hole = slot;
    size_t next = (slot + 1) & slot_mask_;
    while (slots_[next]) {
        size_t home = hash_key(slots_[next]->key) & slot_mask_;
        // Move when the hole lies cyclically between the member's home and its position.
        bool move = (next > hole) ? (home <= hole || home > next) : (home <= hole && home > next);
        if (move) {
            slots_[hole] = slots_[next];
            slots_[next] = nullptr;
            hole = next;
        }
        next = (next + 1) & slot_mask_;
    }
}

Map_page_entry* Map_page_table::remove(uint64_t key)
{
    Map_page_entry** slot = find_slot(key);
    Map_page_entry* entry = *slot;
    if (!entry)
        return nullptr;
    erase_slot(size_t(slot - slots_));
    if (entry->prev)
        entry->prev->next = entry->next;
    else
        head_ = entry->next;
    if (entry->next)
        entry->next->prev = entry->prev;
    else
        tail_ = entry->prev;
    entry->next = entry->prev = nullptr;
    --count_;
    return entry;
}

Map_page_entry* Map_page_table::remove_tail()
{
    return tail_ ? remove(tail_->key) : nullptr;
}

} // namespace QV::RCMAP
