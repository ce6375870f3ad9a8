// The second level of the map cache: one Map_manager per process.
//
// It owns the global page table (nodes in frequency buckets: bucket i holds the pages that i
// thread tables reference, bucket 0 the unreferenced ones in order of last use), the page
// buffers with their free list, the in-transit bits by map, and the statistics. Everything here
// runs under the manager lock except I/O: a miss answers `load`, `swap` or `swap and load`, and
// the calling thread carries that out without the lock and then calls finish_io.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <vector>

namespace QV::RCMAP {

class Map_page_store;
class Map_page_table;
struct Map_page_entry;

struct Map_page_buffer {
    Map_page_buffer* next;
    Map_page_buffer* prev;
    uint8_t* data;             // one cache page
};

struct Map_page_node {
    Map_page_node* next;       // in its frequency bucket, towards the tail
    Map_page_node* prev;
    uint32_t map_id;
    uint32_t page;             // cache page number
    uint32_t bucket;           // number of thread tables that reference the node
    bool dirty;
    Map_page_buffer buffer;    // data null while a swap is bringing one
};

// The four counters of a map, in the order of the statistics lines.
struct Map_cache_statistics {
    uint64_t accesses;         // every page access, table hits included
    uint64_t global_accesses;  // calls that reached the manager
    uint64_t swaps;
    uint64_t loads;
};

// What the manager answers a miss with, to be carried out outside its lock.
enum class Map_io_answer { ready, busy, load, swap, swap_and_load };

struct Map_io_request {
    Map_io_answer answer = Map_io_answer::busy;
    Map_page_node* node = nullptr;     // the requested page's node (ready, load, swap*)
    Map_page_node* victim = nullptr;   // swap*: dirty node whose buffer goes to `node`
    Map_page_store* victim_store = nullptr;
    // Dirty pages of other maps handed out to be written before their buffers are freed, when
    // nothing else could be evicted.
    Map_page_node* spill[4] = {};
    Map_page_store* spill_store[4] = {};
    uint32_t spill_count = 0;
    bool out_of_memory = false;
    Map_page_entry* entry = nullptr;   // ready: the table entry to insert
};

// The cache limit in MB from the memory limit and the three settings (0 = unset), in the order
// option, registry, environment: a quarter of memory when none is set, never above memory.
float map_cache_limit_mb(uint32_t memory_limit_mb, uint32_t option_mb, uint32_t registry_mb, uint32_t env_mb);
// QV_MAP_CACHE_SIZE when it is a positive number, else 0.
uint32_t map_cache_env_size_mb();
// The machine's available physical memory in whole MB.
uint32_t map_available_memory_mb();

// The page size the cache uses for a requested size in KB: at least 32, at most 1024, else the
// next power-of-two multiple of 32; warnings 1, 2 and 3 say what was corrected.
uint32_t map_correct_page_size_kb(uint32_t requested_kb);

class Map_manager {
public:
    // The process-wide instance, made at first use and never destroyed.
    static Map_manager& instance();

    // Resolves the page size (warnings 1 to 3) and, with `bypass_settings`, makes the cache
    // limit the machine's available memory without reading QV_MAP_CACHE_SIZE, the registry or
    // the option, and without a message. Later calls do nothing.
    void init(bool bypass_settings);
    // The cache limit in MB, resolved on first need.
    float size_limit();
    // Overrides the limit (tests, benchmarks, an explicit option). Does not evict at once.
    void set_size_limit_mb(float limit_mb);
    // The option size of the resolution order; 0 leaves it unset.
    void set_option_size_mb(uint32_t megabytes) { option_size_ = megabytes; }
    // The page size asked for, in KB; used when the page size is first fixed.
    void set_requested_page_size_kb(uint32_t kilobytes) { requested_page_kb_ = kilobytes; }

    uint32_t cache_page_bytes();                 // fixes the page size on first call
    uint32_t file_pages_per_cache_page() { return cache_page_bytes() / 32768; }

    int32_t register_map(Map_page_store* store);
    // Takes every page of the map out of all tables and the global table, prints and merges its
    // statistics.
    void unregister_map(Map_page_store* store);

    // Core of a miss (steps of get_page under the manager lock). `give_back_tail`: `table`
    // gives its oldest entry back first. `beyond_limit` lets a caller that has nothing left to
    // give back take a buffer over the limit rather than wait forever.
    void get_page(Map_page_store* store, uint32_t cache_page, bool read_only, Map_page_table* table,
                  bool give_back_tail, bool beyond_limit, Map_io_request* request);
    // Ends a load / swap / swap-and-load; `swapped` reports the swap write (true for a plain
    // load). A failed swap answers busy and keeps the old page.
    void finish_io(Map_page_store* store, Map_io_request* request, bool swapped);
    // Ends the writes of pages handed out to be written without the lock (spill of a busy
    // answer, flush): written ones lose their buffers, the others stay dirty.
    void finish_writes(Map_page_node* const* nodes, uint32_t count, const bool* written);

    // Frees `bytes` of page buffers (bucket 0 first, then rounds over the thread tables);
    // 0 frees everything that can be freed, writing dirty pages to their swap files.
    void flush(size_t bytes);
    // Takes every page of one map out of all tables and out of memory, writing its dirty pages
    // to the map's swap file; the map stays usable.
    void flush_map(Map_page_store* store);
    // Forgets one cache page of the map: out of every thread table and out of memory, its buffer
    // back to the free list, nothing written to the swap file. For a pass that has consumed the
    // page and will drop the whole store afterwards, so that the buffer serves the pass's next
    // page instead of piling up; the page's content is undefined on a later access. A page in
    // transit is left alone. With `clean_only`, a page with changes is kept: a clean page can
    // always be read again from the map's files, so that form is safe on a map that lives on.
    void discard_page(Map_page_store* store, uint32_t cache_page, bool clean_only = false);
    // Gives the buffers of the free list back to the memory manager, for a pass whose discarded
    // pages are not wanted as cache buffers again but whose memory the pass itself needs.
    void free_spare_buffers();
    // Takes the map's entries out of every thread table, so that its pages are idle and can be
    // evicted like any other; nothing is written or freed, and the pages stay cached.
    void give_back_map(Map_page_store* store);
    // Registered with the memory manager: notes the bytes and returns at once.
    static size_t flush_callback(size_t bytes);

    // Entries a new thread table may hold.
    uint32_t thread_table_capacity();
    void register_table(Map_page_table* table);
    void unregister_table(Map_page_table* table);
    // The calling thread's table: the RCMP context area's, or a thread-local fallback.
    Map_page_table* current_table();

    void print_statistics();
    void set_statistics(bool on);
    // Starts the QV_DUMP trace (also on by the variable) and names its file.
    void set_trace(bool on);
    void set_dump_file_name(const char* name);
    // Totals at the end of a run (statistics switch) and the QV_DUMP trace.
    void shutdown();

    // ---- Observation (tests, benchmarks) ---------------------------------------------
    float used_mb();
    uint32_t resident_pages();         // buffers holding pages
    uint32_t free_buffers();
    uint32_t max_pages();              // buffers ever made
    Map_cache_statistics map_statistics(int32_t map_id);
    Map_cache_statistics total_statistics();
    uint32_t bucket_count(uint32_t bucket);

private:
    Map_manager();
    struct Map_record;

    void resolve_limit_locked();
    void fix_page_size_locked();
    void run_pending_flush_locked();
    void give_back_locked(Map_page_entry* entry);
    Map_page_entry* make_entry_locked(Map_page_node* node);
    uint32_t thread_table_capacity_locked();
    void place_new_node_locked(Map_page_store* store, Map_record* record, uint32_t cache_page, uint8_t* data,
                               bool ready, Map_io_request* request);
    void flush_nodes(int32_t only_map, bool everything);
    void bucket_unlink(Map_page_node* node);
    void bucket_push_head(Map_page_node* node, uint32_t bucket);
    void move_up_locked(Map_page_node* node);
    Map_page_node* new_node_locked(uint32_t map_id, uint32_t page);
    void free_node_locked(Map_page_node* node);
    bool take_buffer_locked(Map_page_buffer* out, bool beyond_limit);
    void release_buffer_locked(Map_page_buffer* buffer);
    Map_page_node* find_victim_locked(uint32_t map_id);
    void shrink_table_locked(Map_page_table* table, uint32_t keep);
    void age_locked();
    size_t flush_locked(size_t bytes);
    void drop_node_locked(Map_page_node* node);
    bool in_transit(uint32_t map_id, uint32_t page) const;
    void set_in_transit(uint32_t map_id, uint32_t page, bool on);
    Map_page_node* index_get(uint32_t map_id, uint32_t page) const;
    void index_set(uint32_t map_id, uint32_t page, Map_page_node* node);
    void trace(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void print_map_statistics(int32_t map_id, const Map_cache_statistics& statistics, bool totals);

    std::mutex lock_;
    float limit_mb_ = -1.0f;
    uint32_t memory_limit_mb_ = 0;
    uint32_t env_size_ = 0;
    uint32_t registry_size_ = 0;
    uint32_t option_size_ = 0;
    bool initialised_ = false;
    bool bypass_ = false;
    bool page_size_fixed_ = false;
    uint32_t requested_page_kb_ = 32;
    uint32_t page_kb_ = 32;
    uint32_t page_bytes_ = 32768;
    uint32_t min_page_kb_ = 32;
    float pages_per_mb_ = 1.0f / 32768;      // as the described default, per byte of a MB
    float mb_per_page_ = 0.03125f;
    float used_mb_ = 0.0f;
    std::mutex flush_request_lock_;
    size_t flush_request_bytes_ = 0;
    float default_bvh_threshold_ = 0.4f;
    uint32_t live_maps_ = 0;
    int32_t next_map_id_ = 0;

    std::vector<Map_record*> maps_;           // by map id; null once unregistered
    std::vector<Map_page_node*> bucket_heads_;
    std::vector<Map_page_node*> bucket_tails_;
    std::vector<uint32_t> bucket_counts_;
    uint32_t node_count_ = 0;
    Map_page_node* free_nodes_ = nullptr;
    Map_page_entry* free_entries_ = nullptr;
    std::vector<uint8_t*> free_buffers_;       // cleared cache pages ready for reuse
    uint32_t resident_pages_ = 0;

    Map_cache_statistics totals_ = {};
    bool statistics_ = false;
    uint32_t max_pages_ = 0;                  // most buffers alive at once
    uint32_t live_buffers_ = 0;
    uint32_t flushed_pages_ = 0;
    bool out_of_memory_ = false;

    Map_page_table* tables_ = nullptr;        // live thread tables
    uint32_t table_count_ = 0;

    // QV_DUMP trace.
    char* dump_buffer_ = nullptr;             // 1 MiB
    size_t dump_length_ = 0;
    char dump_line_[1024] = {};
    const char* dump_file_name_ = "memory_file.txt";
};

} // namespace QV::RCMAP
