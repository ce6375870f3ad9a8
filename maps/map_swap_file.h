// The private swap file of one map: changed pages that the cache had to give up.
//
// Created on the first page that needs it, in TMPDIR, TMP or TEMP (else "."), and removed from
// the directory at once so that it vanishes with its descriptor. Slots are one cache page each;
// a table maps page number to slot, and freed slots are reused before the file grows. Thread
// safe: one lock of its own, never held together with the Map_manager lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

namespace QV::RCMAP {

class Map_swap_file {
public:
    Map_swap_file() = default;
    ~Map_swap_file();
    Map_swap_file(const Map_swap_file&) = delete;
    Map_swap_file& operator=(const Map_swap_file&) = delete;

    // `map_id` names the file; `slot_bytes` is the cache page size. Must precede any write.
    void configure(int32_t map_id, uint32_t slot_bytes);

    // Writes `page` (a cache page number) into its slot, creating the file on first need.
    // False when the file cannot be created or written; the error is given once per map.
    bool write_page(uint32_t page, const void* data);
    // False, leaving `data` untouched, when the page has no slot or the read fails.
    bool read_page(uint32_t page, void* data);
    bool has_page(uint32_t page);
    // Gives the page's slot back to the free-slot stack.
    void discard_page(uint32_t page);
    // Closes the file and forgets all slots.
    void close();

    bool is_open() const { return fd_ >= 0; }
    // Slots in the file, used and free.
    uint32_t slot_count() const { return slot_count_; }
    uint64_t file_bytes() const { return uint64_t(slot_count_) * slot_bytes_; }

private:
    bool create_locked();

    std::mutex lock_;
    int fd_ = -1;
    int32_t map_id_ = -1;
    uint32_t slot_bytes_ = 0;
    uint32_t slot_count_ = 0;
    bool create_failed_ = false;
    std::vector<int32_t> slots_;       // by cache page; -1 when none
    std::vector<int32_t> free_slots_;  // stack of reusable slots
};

} // namespace QV::RCMAP
