// Memory pressure: the oldest-first walk over droppable data, eviction, and the last-resort free.
#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "runtime/msg.h"

using namespace qv_db_detail;

namespace {

constexpr int STACK_CANDIDATES = 1024;

int compare_stamps(const void* a, const void* b)
{
    uint32_t left = static_cast<const Db_flush_entry*>(a)->stamp;
    uint32_t right = static_cast<const Db_flush_entry*>(b)->stamp;
    return left < right ? -1 : left > right ? 1 : 0;
}

}  // namespace

namespace {

// The walk with the global lock held by the caller; leaves it before the delayed deletes run.
void flush_walk_locked(Db_flush_fn fn, void* user1, void* user2)
{
    Db_thread_list threads{};
    if (!thread_list_snapshot(&threads)) {
        lock_leave(g_global_lock);
        return;
    }
    qv_db_delay_deletes();

    // Collect unpinned tracked records that hold data. The array grows on the plain C heap: this
    // runs when the memory manager is short, and must see a failed growth instead of dying.
    Db_flush_entry stack_entries[STACK_CANDIDATES];
    Db_flush_entry* entries = stack_entries;
    int capacity = STACK_CANDIDATES;
    int count = 0;
    bool out_of_room = false;
    for (int d = 0; d < DB_DIRECTORIES && !out_of_room; ++d) {
        Db_directory* directory = g_directories[d].load(std::memory_order_acquire);
        if (!directory)
            continue;
        for (int p = 0; p < DB_PAGES_PER_DIRECTORY && !out_of_room; ++p) {
            Db_page* page = directory->pages[p].load(std::memory_order_acquire);
            if (!page)
                continue;
            Db_tag base = (Db_tag(d) << 24) | (Db_tag(p) << 10);
            for (int s = 0; s < DB_RECORDS_PER_PAGE; ++s) {
                Db_record* record = &page->records[s];
                Db_tag tag = base | Db_tag(s);
                if ((record->state != DB_STATE_NORMAL && record->state != DB_STATE_ATTACHED) || !record->data ||
                    !qv_db_tracked(tag, record->type) || qv_db_pin_sum(&threads, record->pidx) != 0)
                    continue;
                if (count == capacity) {
                    void* grown = entries == stack_entries
                                      ? std::malloc(sizeof(Db_flush_entry) * size_t(capacity) * 2)
                                      : std::realloc(entries, sizeof(Db_flush_entry) * size_t(capacity) * 2);
                    if (!grown) {
                        msg_debug("buffer allocation failed during memory flush");
                        out_of_room = true;
                        break;
                    }
                    if (entries == stack_entries)
                        std::memcpy(grown, stack_entries, sizeof(stack_entries));
                    entries = static_cast<Db_flush_entry*>(grown);
                    capacity *= 2;
                }
                const uint32_t stamp = __atomic_load_n(&record->lru_stamp, __ATOMIC_RELAXED);
                entries[count++] = Db_flush_entry{record, tag, stamp};
            }
        }
    }

    std::qsort(entries, size_t(count), sizeof(Db_flush_entry), compare_stamps);
    fn(user1, user2, entries, count, &threads);
    if (entries != stack_entries)
        std::free(entries);
    thread_list_release(&threads);
    // Deletes made by the callback ran into the bracket; they run with the global lock left.
    lock_leave(g_global_lock);
    qv_db_run_delayed_deletes();
}

}  // namespace

void qv_db_flush_walk(Db_flush_fn fn, void* user1, void* user2)
{
    Module_scope scope(MOD_DB);
    lock_enter(g_global_lock);
    flush_walk_locked(fn, user1, user2);
}

void* qv_db_evict(uint32_t* out_size, Db_record* record, Db_thread_list* threads)
{
    Module_scope scope(MOD_DB);
    lock_enter(record->lock);
    uint8_t saved = record->state;
    // A reader of a job tag that sees this state waits on the record's lock we hold.
    qv_db_state_store(record, DB_STATE_FLUSHING);
    void* data = nullptr;
    if (qv_db_pin_sum(threads, record->pidx) == 0) {
        data = record->data;
        if (out_size)
            *out_size = record->size;
        qv_db_data_store(record, nullptr);
        record->size = 0;
    }
    qv_db_state_store(record, saved);
    if (!data)
        lock_leave(record->lock);
    return data;
}

void qv_db_emergency_free()
{
    Module_scope scope(MOD_DB);
    Lock_holder hold(g_global_lock);
    Db_thread_list threads{};
    while (!thread_list_snapshot(&threads))
        thread_sleep(1000);
    int count = 0;
    uint64_t total_bytes = 0;
    for_each_record([&](Db_tag tag, Db_record* record) {
        if (!record->data || record->state != DB_STATE_NORMAL || record->type == DB_TYPE_SERIALIZABLE ||
            !qv_db_tracked(tag, record->type))
            return;
        if (threads.count != 0 && qv_db_pin_sum(&threads, record->pidx) != 0)
            return;
        total_bytes += record->size;
        ++count;
        qv_db_state_store(record, DB_STATE_FREE);
        data_free(record->type, record->data);
        qv_db_data_store(record, nullptr);
        lock_destroy(&record->lock);
    });
    thread_list_release(&threads);
    msg_info("out of memory emergency shutdown deleted %i DB tags freeing %i MBs of memory", count,
             int(total_bytes >> 20));
}

namespace {

struct Memory_flush_request {
    size_t wanted;
    size_t freed;
};

void evict_oldest(void* user1, void*, Db_flush_entry* entries, int count, Db_thread_list* threads)
{
    auto* request = static_cast<Memory_flush_request*>(user1);
    for (int i = 0; i < count && request->freed < request->wanted; ++i) {
        Db_record* record = entries[i].record;
        uint32_t size = 0;
        void* data = qv_db_evict(&size, record, threads);
        if (!data)
            continue;
        data_free(record->type, data);
        lock_leave(record->lock);
        request->freed += size;
    }
}

}  // namespace

size_t qv_db_memory_flush(size_t bytes)
{
    // Runs inside an allocation, which may hold locks that rank after the global lock (the map
    // cache's, for one): only a try, never a wait.
    Module_scope scope(MOD_DB);
    if (!lock_try_enter(g_global_lock))
        return 0;
    Memory_flush_request request{bytes, 0};
    flush_walk_locked(evict_oldest, &request, nullptr);
    return request.freed;
}
