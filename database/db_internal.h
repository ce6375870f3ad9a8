// Shared state of the tag store, private to database/db_*.cpp.
#pragma once

#include <atomic>
#include <cstdint>

#include "database/db.h"

namespace qv_db_detail {

// 1,024 records behind an 8-byte header: one allocation per thousand tags.
struct Db_page {
    uint32_t free_count;    // records with state 0 (1,024 when made)
    uint32_t slot_hint;     // slot to look at next
    Db_record records[DB_RECORDS_PER_PAGE];
};

struct Db_directory {
    int32_t page_hint;      // first page to look at; outside 0..16,383 means full
    uint32_t spare;
    // Published once under the table lock, read without a lock ever after.
    std::atomic<Db_page*> pages[DB_PAGES_PER_DIRECTORY];
};

extern std::atomic<Db_directory*> g_directories[DB_DIRECTORIES];

// The four global locks, made by qv_db_init. Order: global, then table; global, then the
// thread list; delay is innermost.
extern Lock g_global_lock;
extern Lock g_waiters_lock;
extern Lock g_delay_lock;
extern Lock g_table_lock;
extern Lock g_cluster_table_lock;

extern std::atomic<uint32_t> g_clock;
extern uint32_t g_pidx_counter;

extern Db_job_hooks g_job_hooks;
extern Db_remote_hooks g_remote_hooks;
extern Db_thread_hooks g_thread_hooks;
extern Db_type_handler g_type_handlers[DB_TYPES];
extern const char* (*g_type_name_hook)(int type);
extern const char* (*g_tag_name_hook)(Db_tag tag);
extern bool g_debug_slave_tags;

Db_statistics& statistics();

// Address of the record of `tag` without locks; null when its directory or page is missing.
inline Db_record* record_peek(Db_tag tag)
{
    Db_directory* directory = g_directories[tag >> 24].load(std::memory_order_acquire);
    if (!directory)
        return nullptr;
    Db_page* page = directory->pages[(tag >> 10) & 0x3FFFu].load(std::memory_order_acquire);
    if (!page)
        return nullptr;
    return &page->records[tag & 0x3FFu];
}

// Makes directory, page and record lock of `tag` as needed (takes the table lock only when
// something is missing). Tag 0 is the caller's business.
Db_record* record_make(Db_tag tag);
// Gives a record's lock if it has none yet.
void record_make_lock(Db_record* record);
// Returns the slot of `tag` to its page's free count and hints. Global lock held.
void slot_give_back(Db_tag tag);
// Queues a delete of `tag` if a delay bracket is open; false when the delete must run now.
// `from_network` becomes the delete-in-progress byte when the queued delete runs.
bool delay_if_bracketed(Db_tag tag, uint8_t from_network);
// Allocates a tag (global lock taken and left inside); the record is set and pinned.
Db_tag tag_allocate(int type, bool job, Db_record* parent, Db_record** out_record);

// Host number of the calling thread (0 without a context).
inline uint32_t this_host()
{
    Thread_context* context = thread_context();
    return context ? context->host_number : 0;
}

// A thread's pin array, made on its first pin (by that thread only).
uint32_t* pins_make(Thread_context* context);
inline uint32_t* pins_of(Thread_context* context) { return context->db_pins ? context->db_pins : pins_make(context); }

inline void pin_chain(uint32_t* pins, Db_record* record)
{
    for (; record; record = record->parent)
        ++pins[record->pidx];
}
inline void unpin_chain(uint32_t* pins, Db_record* record)
{
    for (; record; record = record->parent)
        --pins[record->pidx];
}

// Frees data that belongs to the database through its type's handler.
void data_free(int type, void* data);

// The thread list: the thread table's hooks when set, else the database's own list.
bool thread_list_snapshot(Db_thread_list* list);
void thread_list_release(Db_thread_list* list);
// The DB context area's exit: leaves the database's own list before the pins are freed.
void thread_list_context_exit(void* area);
// Frees the database's own list and ended-pins table (qv_db_exit).
void thread_list_reset();

// Calls `fn(tag, record)` for every record of every existing page, in table order.
template <typename Fn>
void for_each_record(Fn&& fn)
{
    for (int d = 0; d < DB_DIRECTORIES; ++d) {
        Db_directory* directory = g_directories[d].load(std::memory_order_acquire);
        if (!directory)
            continue;
        for (int p = 0; p < DB_PAGES_PER_DIRECTORY; ++p) {
            Db_page* page = directory->pages[p].load(std::memory_order_acquire);
            if (!page)
                continue;
            Db_tag base = (Db_tag(d) << 24) | (Db_tag(p) << 10);
            for (int s = 0; s < DB_RECORDS_PER_PAGE; ++s)
                fn(base | Db_tag(s), &page->records[s]);
        }
    }
}

}  // namespace qv_db_detail
