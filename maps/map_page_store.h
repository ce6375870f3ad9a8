// Page addressing of one map: element index -> file page and slot, segments of backing files,
// and the byte-level access that goes through the shared page cache.
//
// Two page sizes exist and must not be confused. The file page is always MAP_FILE_PAGE_BYTES and
// is the unit of addressing, of the files and of the per-page BVH. The cache page is a
// power-of-two multiple of it and is the unit of the cache and the swap file. Page numbers passed
// to and returned from this class are file pages unless a name says "cache_page".
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "maps/map_swap_file.h"

namespace QV::RCMAP {

class Map_page_table;

constexpr uint32_t MAP_FILE_PAGE_BYTES = 32768;

// Room that the per-page BVH of `count` elements takes at the end of a file page: fan-out 8,
// 1.6 times the inner node count plus one, in single precision as the files were written.
uint32_t map_page_bvh_bytes(uint32_t count, uint32_t dimension);
// Largest E with E * element_bytes + map_page_bvh_bytes(E) <= MAP_FILE_PAGE_BYTES (0 when not
// even one element fits).
uint32_t map_elements_per_page(uint32_t element_bytes, uint32_t dimension);

// A run of elements held by one backing file (or by memory, file_index -1). Consecutive
// segments continue each other's element and page numbering; a partly filled last page stays
// partly filled.
struct Map_segment {
    uint32_t first_element;     // global element index of the first element held
    uint32_t last_element;      // global element index of the last element held
    uint32_t first_page;        // global file page of the first element
    uint32_t last_page;         // global file page of the last element
    uint32_t elements_per_page; // E of the file that holds the segment
    uint32_t last_page_count;   // elements in the last page (== elements_per_page when full)
    int32_t file_index;         // index in the file list; -1 for memory-only data
};
static_assert(sizeof(Map_segment) == 28, "seven 32-bit fields");

// Where pages come from on a cache miss when the swap file has none. The map file class derives
// from this; the store owns the sources in its file list. `page` counts file pages from the
// source's own data start. Must fill `count * MAP_FILE_PAGE_BYTES` bytes and answer false on a
// short or failed read (the cache then keeps zeros). Calls are serialised by the store.
class Map_page_source {
public:
    virtual ~Map_page_source() = default;
    virtual bool read_pages(uint32_t page, uint32_t count, void* buffer) = 0;
};

// Flag bits of get_page.
enum : uint32_t {
    MAP_PAGE_NO_LOAD = 0x1, // answer null on a miss instead of loading
    MAP_PAGE_NO_WAIT = 0x2, // answer null when the page is in transit
};

class Map_page_store {
public:
    Map_page_store();
    ~Map_page_store();
    Map_page_store(const Map_page_store&) = delete;
    Map_page_store& operator=(const Map_page_store&) = delete;

    // Fixes the element layout and registers with the Map_manager (which hands out map_id).
    // Called once, when the map gets its declaration. Takes the cache page size of the manager.
    void configure(uint32_t element_bytes, uint32_t dimension);
    bool is_configured() const { return map_id >= 0; }
    // Drops every page of this store from the cache and the swap file and unregisters; the store
    // may be configured again afterwards.
    void reset();

    // Element index -> global file page and slot within it.
    void locate(uint32_t element, uint32_t* page, uint32_t* slot) const;
    // Number of file pages that `elements` elements occupy.
    uint32_t page_count(uint32_t elements) const;

    // The bytes of file page `page` in the cache, or null (only with MAP_PAGE_NO_LOAD or
    // MAP_PAGE_NO_WAIT). The pointer stays valid while the page is in `table`: at least until the
    // next get_page with the same table. `read_only` false marks the page dirty. `table` null
    // means the calling thread's table.
    uint8_t* get_page(uint32_t page, bool read_only, Map_page_table* table = nullptr, uint32_t flags = 0);

    // Copy `size` bytes at `field_offset` inside element `element`. No range check: the caller
    // knows the element exists (or is being appended).
    void read_bytes(uint32_t element, uint32_t field_offset, uint32_t size, void* out,
                    Map_page_table* table = nullptr);
    void write_bytes(uint32_t element, uint32_t field_offset, uint32_t size, const void* in,
                     Map_page_table* table = nullptr);

    // ---- Segments and backing files ---------------------------------------------------
    // Pending elements [first, first + count) become a memory-only segment; a no-op for 0.
    void add_memory_segment(uint32_t first_element, uint32_t count);
    // Attaches `source` (owned from now on) holding `element_count` elements at
    // `elements_per_page` each, starting at global element `first_element`, which must be the
    // next element after the existing segments. Returns the file index.
    int32_t add_file_segment(Map_page_source* source, uint32_t first_element, uint32_t element_count,
                             uint32_t source_elements_per_page);
    const std::vector<Map_segment>& segments() const { return segments_; }
    size_t file_count() const { return files_.size(); }
    Map_page_source* file(size_t index) const { return files_[index]; }
    // File pages that segments with a backing file cover; a cache page below this has content
    // to read even if it was never in the cache.
    uint32_t backed_file_pages() const { return backed_file_pages_; }

    // Fills `buffer` (one cache page) for `cache_page`: swap file first, then the backing files,
    // zeros for what none of them holds. False when nothing held the page ("not loaded").
    bool load_cache_page(uint32_t cache_page, uint8_t* buffer);
    // Writes one cache page to the swap file, creating it on first need. False keeps the page
    // dirty in memory.
    bool swap_out(uint32_t cache_page, const uint8_t* buffer);

    // ---- Layout ------------------------------------------------------------------------
    int32_t map_id = -1;                  // id in the Map_manager; -1 when not registered
    int32_t master_id = -1;               // id on the master host; -1 locally
    bool is_read_only = false;
    uint32_t file_page_bytes = MAP_FILE_PAGE_BYTES;
    uint32_t file_pages_per_cache_page = 1;
    uint32_t cache_page_shift = 0;        // bit count of cache_page_mask
    uint32_t cache_page_mask = 0;         // file_pages_per_cache_page - 1
    uint32_t element_bytes = 0;
    uint32_t dimension = 0;
    uint32_t elements_per_page = 0;       // E
    uint32_t page_data_bytes = 0;         // E * element_bytes
    bool memory_limit_hit = false;        // a page was taken from a thread's table for lack of memory
    // Set by whichever thread swaps out first; readers of several threads may race to it.
    std::atomic<bool> has_swap_file{false};

    Map_swap_file swap;

private:
    std::vector<Map_segment> segments_;
    std::vector<Map_page_source*> files_;
    std::mutex files_lock_;               // serialises reads of the file list
    uint32_t backed_file_pages_ = 0;
};

} // namespace QV::RCMAP
