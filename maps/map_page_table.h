// The first level of the map cache: one table per thread.
//
// A table holds references to cache pages of the global table, most recently used first, each
// with an access count and a dirty flag. A page referenced by any table cannot be evicted, so a
// hot page stays pinned without a global lock: a hit takes only this table's own lock, which
// the manager takes too when it has to shrink the table (lock order: manager, then table).
#pragma once

#include <cstdint>
#include <mutex>

namespace QV::RCMAP {

struct Map_page_node;

struct Map_page_entry {
    Map_page_entry* next;      // towards the tail (older)
    Map_page_entry* prev;      // towards the head (newer)
    Map_page_node* node;       // the page in the global table
    uint8_t* data;             // the node's buffer, cached here for the hit path
    uint64_t key;              // (map_id << 32) | cache page
    uint64_t accesses;         // hits since the entry entered the table
    bool dirty;                // the page was taken for writing
};

// A table made outside the module frame (e.g. one per worker of a job) joins the manager's list
// on its first miss and leaves it, giving its pages back, when destroyed. One thread at a time.
class Map_page_table {
public:
    // `capacity` entries at most (at least 4 are always allowed).
    explicit Map_page_table(uint32_t capacity);
    ~Map_page_table();
    Map_page_table(const Map_page_table&) = delete;
    Map_page_table& operator=(const Map_page_table&) = delete;

    static uint64_t make_key(uint32_t map_id, uint32_t cache_page)
    {
        return (uint64_t(map_id) << 32) | cache_page;
    }

    // Hit path: on a hit the entry moves to the head, counts the access, becomes dirty for a
    // write, and its data is returned; null on a miss. Takes only this table's lock.
    uint8_t* lookup(uint64_t key, bool for_write);

    // The following are called with lock() held (by the table's thread or by the manager).
    void insert_head(Map_page_entry* entry);
    Map_page_entry* remove_tail();
    Map_page_entry* remove(uint64_t key);
    Map_page_entry* tail() const { return tail_; }
    Map_page_entry* head() const { return head_; }
    // Lowers or raises the bound; the manager gives back what is over it.
    void set_capacity(uint32_t capacity) { capacity_ = capacity < 4 ? 4 : capacity; }
    uint32_t count() const { return count_; }
    uint32_t capacity() const { return capacity_; }
    bool is_full() const { return count_ >= capacity_; }

    std::mutex& lock() { return lock_; }

    // Set by the manager at registration; the link in its list of live tables.
    Map_page_table* next_table = nullptr;
    Map_page_table* prev_table = nullptr;
    bool registered = false;

private:
    Map_page_entry** find_slot(uint64_t key);
    void erase_slot(size_t slot);
    void grow_index();

    std::mutex lock_;
    Map_page_entry* head_ = nullptr;
    Map_page_entry* tail_ = nullptr;
    uint32_t count_ = 0;
    uint32_t capacity_;
    // Open-addressed index (linear probing, backward-shift deletion) of the entries by key.
    Map_page_entry** slots_ = nullptr;
    size_t slot_mask_ = 0;
};

} // namespace QV::RCMAP
