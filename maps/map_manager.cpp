#include "maps/map_manager.h"

#include <cassert>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_page_store.h"
#include "maps/map_page_table.h"
#include "maps/rcmp_module.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/registry.h"
#include "runtime/threads.h"

namespace QV::RCMAP {

// Per map: the page index by cache page, its in-transit bits and its counters.
struct Map_manager::Map_record {
    Map_page_store* store;
    std::vector<Map_page_node*> index;   // by cache page; null when not resident
    std::vector<uint64_t> transit;       // one bit per cache page
    uint32_t extent;                     // one past the highest cache page ever indexed
    bool swap_failed;                    // dirty pages of this map can't leave memory
    Map_cache_statistics statistics;
};

namespace {

constexpr uint32_t DUMP_BUFFER_BYTES = 1u << 20;

uint32_t env_positive(const char* name)
{
    const char* text = getenv(name);
    int value = text ? atoi(text) : 0;
    return value > 0 ? uint32_t(value) : 0;
}

// Available physical memory in whole MB (MemAvailable, else MemFree).
uint32_t available_memory_mb_impl()
{
    FILE* file = fopen("/proc/meminfo", "r");
    if (!file)
        return 1024;
    char line[256];
    unsigned long long available_kb = 0, free_kb = 0;
    while (fgets(line, sizeof(line), file)) {
        unsigned long long value;
        if (sscanf(line, "MemAvailable: %llu kB", &value) == 1)
            available_kb = value;
        else if (sscanf(line, "MemFree: %llu kB", &value) == 1)
            free_kb = value;
    }
    fclose(file);
    unsigned long long kb = available_kb ? available_kb : free_kb;
    return uint32_t(kb / 1024);
}

thread_local Map_page_table* t_fallback_table = nullptr;

// A thread outside the module frame still gets a table; it goes back with the thread.
struct Fallback_table_holder {
    ~Fallback_table_holder()
    {
        if (t_fallback_table) {
            Map_manager::instance().unregister_table(t_fallback_table);
            delete t_fallback_table;
            t_fallback_table = nullptr;
        }
    }
};
thread_local Fallback_table_holder t_fallback_holder;

} // namespace

uint32_t map_available_memory_mb()
{
    return available_memory_mb_impl();
}

uint32_t map_cache_env_size_mb()
{
    return env_positive("QV_MAP_CACHE_SIZE");
}

float map_cache_limit_mb(uint32_t memory_limit_mb, uint32_t option_mb, uint32_t registry_mb, uint32_t env_mb)
{
    uint32_t chosen = option_mb ? option_mb : registry_mb ? registry_mb : env_mb;
    if (chosen == 0)
        return float(memory_limit_mb / 4);
    return float(chosen > memory_limit_mb ? memory_limit_mb : chosen);
}

uint32_t map_correct_page_size_kb(uint32_t requested_kb)
{
    if (requested_kb < 32) {
        msg_warn_n(1, "map page size in KB smaller than minimum (%u), corrected", requested_kb);
        return 32;
    }
    if (requested_kb > 1024) {
        msg_warn_n(2, "map page size in KB greater than maximum (%u), corrected", requested_kb);
        return 1024;
    }
    uint32_t multiple = (requested_kb + 31) / 32;
    uint32_t power = 1;
    while (power < multiple)
        power *= 2;
    uint32_t corrected = power * 32;
    if (corrected != requested_kb)
        msg_warn_n(3, "map page size in KB rounded up to %u", corrected);
    return corrected;
}

Map_manager& Map_manager::instance()
{
    // Never destroyed: thread tables may give pages back during process exit.
    static Map_manager* manager = new Map_manager();
    return *manager;
}

Map_manager::Map_manager()
{
    statistics_ = env_positive("QV_MAP_CACHE_STATS") > 0;
    if (env_positive("QV_DUMP") > 0) {
        dump_buffer_ = static_cast<char*>(mem_raw_alloc(__FILE__, __LINE__, DUMP_BUFFER_BYTES));
    }
    bucket_heads_.assign(4, nullptr);
    bucket_tails_.assign(4, nullptr);
    bucket_counts_.assign(4, 0);
}

// ---- Settings -------------------------------------------------------------------------

void Map_manager::init(bool bypass_settings)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (initialised_)
        return;
    initialised_ = true;
    bypass_ = bypass_settings;
    fix_page_size_locked();
    if (limit_mb_ < 0.0f)
        resolve_limit_locked();
}

void Map_manager::fix_page_size_locked()
{
    if (page_size_fixed_)
        return;
    page_size_fixed_ = true;
    page_kb_ = map_correct_page_size_kb(requested_page_kb_);
    page_bytes_ = page_kb_ * 1024;
    pages_per_mb_ = 1.0f / float(page_bytes_);
    mb_per_page_ = float(page_kb_) / 1024.0f;
}

void Map_manager::resolve_limit_locked()
{
    memory_limit_mb_ = map_available_memory_mb();
    if (bypass_) {
        // Programs that only process maps are bounded by memory alone.
        limit_mb_ = float(memory_limit_mb_);
        return;
    }
    env_size_ = map_cache_env_size_mb();
    if (char* text = registry_lookup("{_QV_REG_MAP_CACHE_SIZE}", 0)) {
        int value = atoi(text);
        registry_size_ = value > 0 ? uint32_t(value) : 0;
        mem_free(__FILE__, __LINE__, text);
    }
    limit_mb_ = map_cache_limit_mb(memory_limit_mb_, option_size_, registry_size_, env_size_);
    msg_info("map cache size set to %u MB", unsigned(limit_mb_));
}

float Map_manager::size_limit()
{
    std::lock_guard<std::mutex> hold(lock_);
    if (limit_mb_ < 0.0f)
        resolve_limit_locked();
    return limit_mb_;
}

void Map_manager::set_size_limit_mb(float limit_mb)
{
    std::lock_guard<std::mutex> hold(lock_);
    fix_page_size_locked();
    limit_mb_ = limit_mb;
    // Tables made under the old limit would pin more than the new limit holds.
    uint32_t capacity = thread_table_capacity_locked();
    for (Map_page_table* table = tables_; table; table = table->next_table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        table->set_capacity(capacity);
    }
    for (Map_page_table* table = tables_; table; table = table->next_table)
        shrink_table_locked(table, table->capacity());
}

uint32_t Map_manager::cache_page_bytes()
{
    std::lock_guard<std::mutex> hold(lock_);
    fix_page_size_locked();
    return page_bytes_;
}

uint32_t Map_manager::thread_table_capacity()
{
    std::lock_guard<std::mutex> hold(lock_);
    fix_page_size_locked();
    if (limit_mb_ < 0.0f)
        resolve_limit_locked();
    return thread_table_capacity_locked();
}

uint32_t Map_manager::thread_table_capacity_locked()
{
    float share = 0.8f;
    if (env_positive("QV_MAP_CACHE_ADAPTIVE") > 0) {
        int threads = processor_count();
        float even = threads > 0 ? 1.0f / float(threads) : 1.0f;
        share = even < share ? even : share;
    }
    double entries = std::trunc(double(limit_mb_) * 1024.0 * 1024.0 * double(pages_per_mb_) * double(share));
    if (!(entries > 4.0))
        return 4;
    return entries > 4294967295.0 ? 0xFFFFFFFFu : uint32_t(entries);
}

// ---- Maps -----------------------------------------------------------------------------

int32_t Map_manager::register_map(Map_page_store* store)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    fix_page_size_locked();
    int32_t id = next_map_id_++;
    Map_record* record = new Map_record();
    record->store = store;
    record->extent = 0;
    record->swap_failed = false;
    record->statistics = {};
    if (size_t(id) >= maps_.size())
        maps_.resize(size_t(id) + 1, nullptr);
    maps_[size_t(id)] = record;
    ++live_maps_;
    return id;
}

void Map_manager::unregister_map(Map_page_store* store)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    int32_t id = store->map_id;
    if (id < 0 || size_t(id) >= maps_.size() || !maps_[size_t(id)])
        return;
    Map_record* record = maps_[size_t(id)];
    // Entries of this map in any thread table go back first, so their counts are merged.
    for (Map_page_table* table = tables_; table; table = table->next_table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        for (Map_page_entry* entry = table->head(); entry;) {
            Map_page_entry* next = entry->next;
            if (uint32_t(entry->key >> 32) == uint32_t(id))
                give_back_locked(table->remove(entry->key));
            entry = next;
        }
    }
    for (Map_page_node* node : record->index)
        if (node)
            drop_node_locked(node);
    if (statistics_)
        print_map_statistics(id, record->statistics, false);
    totals_.accesses += record->statistics.accesses;
    totals_.global_accesses += record->statistics.global_accesses;
    totals_.swaps += record->statistics.swaps;
    totals_.loads += record->statistics.loads;
    trace("unregister map %d", id);
    delete record;
    maps_[size_t(id)] = nullptr;
    --live_maps_;
}

// ---- Buckets, nodes, buffers ------------------------------------------------------------

void Map_manager::bucket_unlink(Map_page_node* node)
{
    uint32_t bucket = node->bucket;
    if (node->prev)
        node->prev->next = node->next;
    else
        bucket_heads_[bucket] = node->next;
    if (node->next)
        node->next->prev = node->prev;
    else
        bucket_tails_[bucket] = node->prev;
    node->next = node->prev = nullptr;
    --bucket_counts_[bucket];
}

void Map_manager::bucket_push_head(Map_page_node* node, uint32_t bucket)
{
    if (bucket >= bucket_heads_.size()) {
        bucket_heads_.resize(size_t(bucket) + 1, nullptr);
        bucket_tails_.resize(size_t(bucket) + 1, nullptr);
        bucket_counts_.resize(size_t(bucket) + 1, 0);
    }
    node->bucket = bucket;
    node->prev = nullptr;
    node->next = bucket_heads_[bucket];
    if (node->next)
        node->next->prev = node;
    else
        bucket_tails_[bucket] = node;
    bucket_heads_[bucket] = node;
    ++bucket_counts_[bucket];
}

void Map_manager::move_up_locked(Map_page_node* node)
{
    uint32_t bucket = node->bucket;
    bucket_unlink(node);
    bucket_push_head(node, bucket + 1);
}

Map_page_node* Map_manager::new_node_locked(uint32_t map_id, uint32_t page)
{
    Map_page_node* node = free_nodes_;
    if (node) {
        free_nodes_ = node->next;
    } else {
        node = static_cast<Map_page_node*>(QV_ALLOC(sizeof(Map_page_node)));
    }
    memset(node, 0, sizeof(*node));
    node->map_id = map_id;
    node->page = page;
    bucket_push_head(node, 0);
    index_set(map_id, page, node);
    ++node_count_;
    return node;
}

void Map_manager::free_node_locked(Map_page_node* node)
{
    bucket_unlink(node);
    index_set(node->map_id, node->page, nullptr);
    --node_count_;
    node->next = free_nodes_;
    free_nodes_ = node;
}

bool Map_manager::take_buffer_locked(Map_page_buffer* out, bool beyond_limit)
{
    // The limit binds recycled buffers as well: after the limit was lowered the free list may
    // still hold buffers of the old one, and taking them would keep the cache above it.
    if (used_mb_ + mb_per_page_ > limit_mb_ && !beyond_limit)
        return false;
    if (!free_buffers_.empty()) {
        out->data = free_buffers_.back();
        free_buffers_.pop_back();
    } else {
        out->data = static_cast<uint8_t*>(QV_ALLOC(page_bytes_));
        // A peak, not a count of allocations: buffers freed by a flush or by
        // free_spare_buffers and made again later must not be counted twice.
        if (++live_buffers_ > max_pages_)
            max_pages_ = live_buffers_;
    }
    used_mb_ += mb_per_page_;
    ++resident_pages_;
    return true;
}

void Map_manager::release_buffer_locked(Map_page_buffer* buffer)
{
    if (!buffer->data)
        return;
    memset(buffer->data, 0, page_bytes_);
    free_buffers_.push_back(buffer->data);
    buffer->data = nullptr;
    used_mb_ -= mb_per_page_;
    if (used_mb_ < 0.0f)
        used_mb_ = 0.0f;
    --resident_pages_;
}

void Map_manager::drop_node_locked(Map_page_node* node)
{
    release_buffer_locked(&node->buffer);
    free_node_locked(node);
}

// ---- Index and in-transit bits ----------------------------------------------------------

Map_page_node* Map_manager::index_get(uint32_t map_id, uint32_t page) const
{
    const Map_record* record = maps_[map_id];
    return page < record->index.size() ? record->index[page] : nullptr;
}

void Map_manager::index_set(uint32_t map_id, uint32_t page, Map_page_node* node)
{
    Map_record* record = maps_[map_id];
    if (!record)
        return;
    if (page >= record->index.size()) {
        if (!node)
            return;
        size_t size = record->index.size() < 32 ? 32 : record->index.size();
        while (size <= page)
            size *= 2;
        record->index.resize(size, nullptr);
    }
    record->index[page] = node;
    if (node && page >= record->extent)
        record->extent = page + 1;
}

bool Map_manager::in_transit(uint32_t map_id, uint32_t page) const
{
    const Map_record* record = maps_[map_id];
    size_t word = page >> 6;
    return word < record->transit.size() && (record->transit[word] >> (page & 63)) & 1;
}

void Map_manager::set_in_transit(uint32_t map_id, uint32_t page, bool on)
{
    Map_record* record = maps_[map_id];
    if (!record)
        return;
    size_t word = page >> 6;
    if (word >= record->transit.size()) {
        if (!on)
            return;
        record->transit.resize(word + 1 + record->transit.size() / 2, 0);
    }
    if (on)
        record->transit[word] |= uint64_t(1) << (page & 63);
    else
        record->transit[word] &= ~(uint64_t(1) << (page & 63));
}

// ---- Tables -----------------------------------------------------------------------------

void Map_manager::register_table(Map_page_table* table)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (table->registered)
        return;
    table->next_table = tables_;
    table->prev_table = nullptr;
    if (tables_)
        tables_->prev_table = table;
    tables_ = table;
    table->registered = true;
    ++table_count_;
}

void Map_manager::unregister_table(Map_page_table* table)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    if (!table->registered)
        return;
    shrink_table_locked(table, 0);
    if (table->prev_table)
        table->prev_table->next_table = table->next_table;
    else
        tables_ = table->next_table;
    if (table->next_table)
        table->next_table->prev_table = table->prev_table;
    table->next_table = table->prev_table = nullptr;
    table->registered = false;
    --table_count_;
}

Map_page_table* Map_manager::current_table()
{
    if (auto* context = static_cast<Rcmp_context*>(mod_context_area(MOD_RCMP))) {
        if (!context->table)
            rcmp_context_init(context);
        return context->table;
    }
    if (!t_fallback_table) {
        (void)&t_fallback_holder; // makes sure the holder exists on this thread
        t_fallback_table = new Map_page_table(thread_table_capacity());
        register_table(t_fallback_table);
    }
    return t_fallback_table;
}

void Map_manager::give_back_locked(Map_page_entry* entry)
{
    if (!entry)
        return;
    Map_page_node* node = entry->node;
    if (Map_record* record = maps_[node->map_id])
        record->statistics.accesses += entry->accesses;
    node->dirty = node->dirty || entry->dirty;
    uint32_t bucket = node->bucket;
    bucket_unlink(node);
    bucket_push_head(node, bucket > 0 ? bucket - 1 : 0);
    entry->next = free_entries_;
    free_entries_ = entry;
}

Map_page_entry* Map_manager::make_entry_locked(Map_page_node* node)
{
    Map_page_entry* entry = free_entries_;
    if (entry) {
        free_entries_ = entry->next;
    } else {
        // Entries come from one pool for all threads, grown in chunks.
        constexpr int CHUNK = 64;
        auto* chunk = static_cast<Map_page_entry*>(QV_ALLOC(sizeof(Map_page_entry) * CHUNK));
        for (int i = 1; i < CHUNK - 1; ++i)
            chunk[i].next = &chunk[i + 1];
        chunk[CHUNK - 1].next = nullptr;
        free_entries_ = &chunk[1];
        entry = &chunk[0];
    }
    memset(entry, 0, sizeof(*entry));
    entry->node = node;
    entry->data = node->buffer.data;
    entry->key = Map_page_table::make_key(node->map_id, node->page);
    entry->accesses = 1;
    return entry;
}

void Map_manager::shrink_table_locked(Map_page_table* table, uint32_t keep)
{
    std::lock_guard<std::mutex> table_hold(table->lock());
    while (table->count() > keep)
        give_back_locked(table->remove_tail());
}

void Map_manager::age_locked()
{
    uint64_t weight = 0;
    for (size_t i = 1; i < bucket_counts_.size(); ++i)
        weight += uint64_t(i) * bucket_counts_[i];
    uint64_t half = weight / 2;
    uint64_t idle = bucket_counts_[0];
    if (half <= idle || table_count_ == 0)
        return;
    uint64_t keep = (half - idle) / table_count_;
    if (keep < 1)
        keep = 1;
    trace("aging: weight %llu, bucket 0 %llu, keep %llu", (unsigned long long)weight,
          (unsigned long long)idle, (unsigned long long)keep);
    for (Map_page_table* table = tables_; table; table = table->next_table)
        shrink_table_locked(table, uint32_t(keep));
}

Map_page_node* Map_manager::find_victim_locked(uint32_t map_id)
{
    for (Map_page_node* node = bucket_tails_[0]; node; node = node->prev) {
        if (in_transit(node->map_id, node->page) || !node->buffer.data)
            continue;
        if (!node->dirty)
            return node;
        // Dirty pages go to their own map's swap file, which only the requester writes here.
        if (node->map_id == map_id && !maps_[map_id]->swap_failed)
            return node;
    }
    return nullptr;
}

// ---- The miss path ----------------------------------------------------------------------

void Map_manager::get_page(Map_page_store* store, uint32_t cache_page, bool read_only, Map_page_table* table,
                           bool give_back_tail, bool beyond_limit, Map_io_request* request)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    *request = Map_io_request();
    uint32_t map_id = uint32_t(store->map_id);
    Map_record* record = maps_[map_id];
    assert(record && "get_page on a map that is not registered");

    // a. Work that was asked for while the lock was not ours.
    run_pending_flush_locked();
    // b. The caller's table lets its oldest entry go. Done here, under this lock, so that no map
    //    can be taken out of the cache while one of its entries is on its way back.
    if (give_back_tail && table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        give_back_locked(table->remove_tail());
    }
    ++record->statistics.global_accesses;
    if (limit_mb_ < 0.0f)
        resolve_limit_locked();

    // c. Someone is reading or writing this page right now.
    if (in_transit(map_id, cache_page)) {
        request->answer = Map_io_answer::busy;
        return;
    }
    // d. Resident but not in this thread's table.
    if (Map_page_node* node = index_get(map_id, cache_page)) {
        move_up_locked(node);
        request->answer = Map_io_answer::ready;
        request->node = node;
        request->entry = make_entry_locked(node);
        return;
    }
    // e. Thread tables hold too much of a full cache: make them give some back.
    bool full = used_mb_ + mb_per_page_ > limit_mb_;
    if (full && uint64_t(bucket_counts_[0]) * 5 < node_count_)
        age_locked();

    // A page beyond everything the map ever had needs no read when it is about to be written.
    bool fresh = cache_page >= record->extent &&
                 (uint64_t(cache_page) << store->cache_page_shift) >= store->backed_file_pages();

    // f, g. A buffer from the free list or fresh memory.
    Map_page_buffer buffer = {};
    if (take_buffer_locked(&buffer, beyond_limit)) {
        out_of_memory_ = false;
        place_new_node_locked(store, record, cache_page, buffer.data, fresh && !read_only, request);
        return;
    }

    // h. No buffer: evict. First among the idle pages, then after this thread gave some back.
    Map_page_node* victim = find_victim_locked(map_id);
    if (!victim && table) {
        std::unique_lock<std::mutex> table_hold(table->lock());
        uint32_t count = table->count();
        uint32_t give = uint32_t(float(count) * 0.2f);
        give = give < 4 ? 4 : give;
        give = give > count ? count : give;
        for (uint32_t i = 0; i < give; ++i)
            give_back_locked(table->remove_tail());
        table_hold.unlock();
        if (give)
            store->memory_limit_hit = true;
        victim = find_victim_locked(map_id);
    }
    if (!victim) {
        // Only dirty pages of other maps are idle: their writes go to the requester, outside
        // the lock, and their buffers are freed when that is done.
        for (Map_page_node* node = bucket_tails_[0]; node && request->spill_count < 4; node = node->prev) {
            Map_record* owner = maps_[node->map_id];
            if (!node->dirty || !node->buffer.data || in_transit(node->map_id, node->page) || owner->swap_failed)
                continue;
            set_in_transit(node->map_id, node->page, true);
            request->spill[request->spill_count] = node;
            request->spill_store[request->spill_count] = owner->store;
            ++request->spill_count;
        }
        if (request->spill_count == 0) {
            out_of_memory_ = true;
            request->out_of_memory = true;
        }
        request->answer = Map_io_answer::busy;
        return;
    }

    // i. A victim: clean ones hand over their buffer at once, dirty ones go to the swap file first.
    ++flushed_pages_;
    if (!victim->dirty) {
        uint8_t* data = victim->buffer.data;
        victim->buffer.data = nullptr;
        trace("evict map %u page %u", victim->map_id, victim->page);
        free_node_locked(victim);
        bool zero = fresh && !read_only;
        if (zero)
            memset(data, 0, page_bytes_);
        place_new_node_locked(store, record, cache_page, data, zero, request);
        return;
    }
    Map_page_node* node = new_node_locked(map_id, cache_page);
    set_in_transit(map_id, cache_page, true);
    set_in_transit(victim->map_id, victim->page, true);
    request->node = node;
    request->victim = victim;
    request->victim_store = maps_[victim->map_id]->store;
    if (fresh && !read_only) {
        request->answer = Map_io_answer::swap;
    } else {
        request->answer = Map_io_answer::swap_and_load;
        ++record->statistics.loads;
    }
    ++maps_[victim->map_id]->statistics.swaps;
    trace("swap map %u page %u for page %u", victim->map_id, victim->page, cache_page);
}

void Map_manager::place_new_node_locked(Map_page_store* store, Map_record* record, uint32_t cache_page,
                                        uint8_t* data, bool ready, Map_io_request* request)
{
    Map_page_node* node = new_node_locked(uint32_t(store->map_id), cache_page);
    node->buffer.data = data;
    request->node = node;
    if (ready) {
        move_up_locked(node);
        request->answer = Map_io_answer::ready;
        request->entry = make_entry_locked(node);
        return;
    }
    set_in_transit(uint32_t(store->map_id), cache_page, true);
    ++record->statistics.loads;
    request->answer = Map_io_answer::load;
    trace("load map %d page %u", store->map_id, cache_page);
}

void Map_manager::finish_io(Map_page_store* store, Map_io_request* request, bool swapped)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    Map_page_node* node = request->node;
    uint32_t map_id = uint32_t(store->map_id);
    set_in_transit(map_id, node->page, false);
    if (Map_page_node* victim = request->victim) {
        set_in_transit(victim->map_id, victim->page, false);
        if (!swapped) {
            // The old page keeps its buffer and stays dirty; the new one must wait.
            if (Map_record* owner = maps_[victim->map_id])
                owner->swap_failed = true;
            free_node_locked(node);
            request->answer = Map_io_answer::busy;
            request->out_of_memory = true;
            return;
        }
        node->buffer.data = victim->buffer.data;
        victim->buffer.data = nullptr;
        free_node_locked(victim);
        if (request->answer == Map_io_answer::swap)
            memset(node->buffer.data, 0, page_bytes_);
    }
    move_up_locked(node);
    request->answer = Map_io_answer::ready;
    request->entry = make_entry_locked(node);
}

void Map_manager::finish_writes(Map_page_node* const* nodes, uint32_t count, const bool* written)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    for (uint32_t i = 0; i < count; ++i) {
        Map_page_node* node = nodes[i];
        set_in_transit(node->map_id, node->page, false);
        Map_record* owner = maps_[node->map_id];
        if (!written[i]) {
            if (owner)
                owner->swap_failed = true;
            continue;
        }
        if (owner)
            ++owner->statistics.swaps;
        ++flushed_pages_;
        // A node that a thread took again meanwhile stays.
        if (node->bucket == 0)
            drop_node_locked(node);
        else
            node->dirty = false;
    }
}

// ---- Flush ------------------------------------------------------------------------------

size_t Map_manager::flush_callback(size_t bytes)
{
    Map_manager& manager = instance();
    std::lock_guard<std::mutex> hold(manager.flush_request_lock_);
    manager.flush_request_bytes_ += bytes;
    return 0;
}

void Map_manager::run_pending_flush_locked()
{
    size_t bytes;
    {
        std::lock_guard<std::mutex> hold(flush_request_lock_);
        bytes = flush_request_bytes_;
        flush_request_bytes_ = 0;
    }
    if (bytes) {
        size_t freed = flush_locked(bytes);
        msg_info("flushed %lu bytes", (unsigned long)freed);
    }
}

size_t Map_manager::flush_locked(size_t bytes)
{
    size_t freed = 0;
    for (;;) {
        // Idle clean pages from the oldest on. Dirty ones need the swap file, which is I/O.
        for (Map_page_node* node = bucket_tails_[0]; node && freed < bytes;) {
            Map_page_node* previous = node->prev;
            if (!node->dirty && node->buffer.data && !in_transit(node->map_id, node->page)) {
                drop_node_locked(node);
                ++flushed_pages_;
                freed += page_bytes_;
            }
            node = previous;
        }
        if (freed >= bytes)
            break;
        // A round in which each thread table gives its oldest entry back.
        bool any = false;
        for (Map_page_table* table = tables_; table; table = table->next_table) {
            std::lock_guard<std::mutex> table_hold(table->lock());
            if (table->count() > 1) {
                give_back_locked(table->remove_tail());
                any = true;
            }
        }
        if (!any)
            break;
    }
    return freed;
}

void Map_manager::flush_nodes(int32_t only_map, bool everything)
{
    Module_scope scope(MOD_RCMP);
    size_t freed = 0;
    for (;;) {
        Map_page_node* batch[16];
        Map_page_store* stores[16];
        uint32_t count = 0;
        {
            std::lock_guard<std::mutex> hold(lock_);
            // Tables let go: all entries of one map, or all but the newest of every table.
            for (Map_page_table* table = tables_; table; table = table->next_table) {
                std::lock_guard<std::mutex> table_hold(table->lock());
                if (only_map >= 0) {
                    for (Map_page_entry* entry = table->head(); entry;) {
                        Map_page_entry* next = entry->next;
                        if (uint32_t(entry->key >> 32) == uint32_t(only_map))
                            give_back_locked(table->remove(entry->key));
                        entry = next;
                    }
                } else {
                    while (table->count() > 1)
                        give_back_locked(table->remove_tail());
                }
            }
            for (Map_page_node* node = bucket_tails_[0]; node && count < 16;) {
                Map_page_node* previous = node->prev;
                bool wanted = only_map < 0 || node->map_id == uint32_t(only_map);
                Map_record* owner = maps_[node->map_id];
                if (wanted && node->buffer.data && !in_transit(node->map_id, node->page)) {
                    if (!node->dirty) {
                        drop_node_locked(node);
                        ++flushed_pages_;
                        freed += page_bytes_;
                    } else if (!owner->swap_failed) {
                        set_in_transit(node->map_id, node->page, true);
                        batch[count] = node;
                        stores[count] = owner->store;
                        ++count;
                    }
                }
                node = previous;
            }
            if (count == 0) {
                if (everything && only_map < 0) {
                    for (uint8_t* data : free_buffers_)
                        QV_FREE(data);
                    live_buffers_ -= uint32_t(free_buffers_.size());
                    free_buffers_.clear();
                }
                break;
            }
        }
        // Dirty pages are written without the lock; the in-transit bits keep others away.
        bool written[16];
        for (uint32_t i = 0; i < count; ++i)
            written[i] = stores[i]->swap_out(batch[i]->page, batch[i]->buffer.data);
        for (uint32_t i = 0; i < count; ++i)
            if (written[i])
                freed += page_bytes_;
        finish_writes(batch, count, written);
    }
    if (only_map < 0)
        msg_info("flushed %lu bytes", (unsigned long)freed);
}

void Map_manager::flush(size_t bytes)
{
    if (bytes == 0) {
        flush_nodes(-1, true);
        return;
    }
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock_);
    size_t freed = flush_locked(bytes);
    msg_info("flushed %lu bytes", (unsigned long)freed);
}

void Map_manager::flush_map(Map_page_store* store)
{
    if (store->map_id >= 0)
        flush_nodes(store->map_id, false);
}

void Map_manager::discard_page(Map_page_store* store, uint32_t cache_page, bool clean_only)
{
    std::lock_guard<std::mutex> hold(lock_);
    int32_t id = store->map_id;
    if (id < 0 || size_t(id) >= maps_.size() || !maps_[size_t(id)])
        return;
    if (in_transit(uint32_t(id), cache_page))
        return;
    const uint64_t key = Map_page_table::make_key(uint32_t(id), cache_page);
    for (Map_page_table* table = tables_; table; table = table->next_table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        give_back_locked(table->remove(key));
    }
    Map_page_node* node = index_get(uint32_t(id), cache_page);
    if (node && node->bucket == 0 && node->buffer.data && !(clean_only && node->dirty))
        drop_node_locked(node);
}

void Map_manager::free_spare_buffers()
{
    std::lock_guard<std::mutex> hold(lock_);
    for (uint8_t* data : free_buffers_)
        QV_FREE(data);
    live_buffers_ -= uint32_t(free_buffers_.size());
    free_buffers_.clear();
}

void Map_manager::give_back_map(Map_page_store* store)
{
    std::lock_guard<std::mutex> hold(lock_);
    int32_t id = store->map_id;
    if (id < 0 || size_t(id) >= maps_.size() || !maps_[size_t(id)])
        return;
    for (Map_page_table* table = tables_; table; table = table->next_table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        for (Map_page_entry* entry = table->head(); entry;) {
            Map_page_entry* next = entry->next;
            if (uint32_t(entry->key >> 32) == uint32_t(id))
                give_back_locked(table->remove(entry->key));
            entry = next;
        }
    }
}

// ---- Statistics and trace -----------------------------------------------------------------

void Map_manager::print_map_statistics(int32_t map_id, const Map_cache_statistics& statistics, bool totals)
{
    if (statistics.accesses == 0)
        return;
    double total = double(statistics.accesses);
    if (totals)
        msg_info("global map manager stats:");
    else
        msg_info("map %d stats:", map_id);
    msg_info("total page accesses          : %llu", (unsigned long long)statistics.accesses);
    msg_info("accesses to the global cache : %d (%.2lf%% of total accesses)", int(statistics.global_accesses),
             100.0 * double(statistics.global_accesses) / total);
    if (statistics.swaps)
        msg_info("page swaps                   : %d (%.2lf%% of total accesses)", int(statistics.swaps),
                 100.0 * double(statistics.swaps) / total);
    msg_info("page loads                   : %d (%.2lf%% of total accesses)", int(statistics.loads),
             100.0 * double(statistics.loads) / total);
    if (statistics.global_accesses)
        msg_info("page loads / global accesses : %.2lf%%",
                 100.0 * double(statistics.loads) / double(statistics.global_accesses));
}

void Map_manager::print_statistics()
{
    std::lock_guard<std::mutex> hold(lock_);
    print_map_statistics(-1, totals_, true);
    if (max_pages_)
        msg_info("map cache: maximum %u pages, %.3f MBytes; flushed %u pages, %.3f MBytes", max_pages_,
                 double(max_pages_) * double(mb_per_page_), flushed_pages_,
                 double(flushed_pages_) * double(mb_per_page_));
}

void Map_manager::trace(const char* format, ...)
{
    if (!dump_buffer_)
        return;
    va_list args;
    va_start(args, format);
    int length = vsnprintf(dump_line_, sizeof(dump_line_) - 1, format, args);
    va_end(args);
    if (length < 0)
        return;
    size_t bytes = strlen(dump_line_);
    dump_line_[bytes++] = '\n';
    // The trace keeps its first MiB; later lines are dropped rather than wrapping.
    if (dump_length_ + bytes > DUMP_BUFFER_BYTES)
        return;
    memcpy(dump_buffer_ + dump_length_, dump_line_, bytes);
    dump_length_ += bytes;
}

void Map_manager::shutdown()
{
    Module_scope scope(MOD_RCMP);
    if (statistics_)
        print_statistics();
    std::lock_guard<std::mutex> hold(lock_);
    if (dump_buffer_) {
        FILE* file = fopen(dump_file_name_, "w");
        if (!file || fwrite(dump_buffer_, 1, dump_length_, file) != dump_length_)
            msg_warn_n(4, "could not dump memory file to \"%s\"", dump_file_name_);
        if (file)
            fclose(file);
        mem_raw_free(__FILE__, __LINE__, dump_buffer_);
        dump_buffer_ = nullptr;
        dump_length_ = 0;
    }
}

void Map_manager::set_dump_file_name(const char* name)
{
    std::lock_guard<std::mutex> hold(lock_);
    dump_file_name_ = name;
}

void Map_manager::set_statistics(bool on)
{
    std::lock_guard<std::mutex> hold(lock_);
    statistics_ = on;
}

void Map_manager::set_trace(bool on)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (on && !dump_buffer_) {
        dump_buffer_ = static_cast<char*>(mem_raw_alloc(__FILE__, __LINE__, DUMP_BUFFER_BYTES));
        dump_length_ = 0;
    }
}

// ---- Observation --------------------------------------------------------------------------

float Map_manager::used_mb()
{
    std::lock_guard<std::mutex> hold(lock_);
    return used_mb_;
}

uint32_t Map_manager::resident_pages()
{
    std::lock_guard<std::mutex> hold(lock_);
    return resident_pages_;
}

uint32_t Map_manager::free_buffers()
{
    std::lock_guard<std::mutex> hold(lock_);
    return uint32_t(free_buffers_.size());
}

uint32_t Map_manager::max_pages()
{
    std::lock_guard<std::mutex> hold(lock_);
    return max_pages_;
}

uint32_t Map_manager::bucket_count(uint32_t bucket)
{
    std::lock_guard<std::mutex> hold(lock_);
    return bucket < bucket_counts_.size() ? bucket_counts_[bucket] : 0;
}

Map_cache_statistics Map_manager::map_statistics(int32_t map_id)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (map_id < 0 || size_t(map_id) >= maps_.size() || !maps_[size_t(map_id)])
        return {};
    Map_cache_statistics statistics = maps_[size_t(map_id)]->statistics;
    // Entries still in tables have counted accesses not yet merged.
    for (Map_page_table* table = tables_; table; table = table->next_table) {
        std::lock_guard<std::mutex> table_hold(table->lock());
        for (Map_page_entry* entry = table->head(); entry; entry = entry->next)
            if (uint32_t(entry->key >> 32) == uint32_t(map_id))
                statistics.accesses += entry->accesses;
    }
    return statistics;
}

Map_cache_statistics Map_manager::total_statistics()
{
    std::lock_guard<std::mutex> hold(lock_);
    return totals_;
}

} // namespace QV::RCMAP
