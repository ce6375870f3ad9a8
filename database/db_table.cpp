// The tag table: directory blocks, pages, slot allocation, start and stop of module DB.
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "database/host_messaging.h"
#include "runtime/msg.h"

const char DB_TYPE_FLAGS[DB_TYPES + 1] =
    "--------n-----yyyyyyyyyyyyy---y--y------y------n--------------------------------------------------------------------------------";
static_assert(sizeof(DB_TYPE_FLAGS) == 129, "one flag per type number");

namespace qv_db_detail {

std::atomic<Db_directory*> g_directories[DB_DIRECTORIES];
Lock g_global_lock;
Lock g_waiters_lock;
Lock g_delay_lock;
Lock g_table_lock;
Lock g_cluster_table_lock;
std::atomic<uint32_t> g_clock{2};
uint32_t g_pidx_counter;
Db_job_hooks g_job_hooks;
Db_remote_hooks g_remote_hooks;
Db_thread_hooks g_thread_hooks;
Db_type_handler g_type_handlers[DB_TYPES];
const char* (*g_type_name_hook)(int type);
const char* (*g_tag_name_hook)(Db_tag tag);
bool g_debug_slave_tags;

namespace {

bool g_started;
Db_statistics g_statistics;

// Only the calling thread's host may own the tag top byte, with the wanted job-ness.
bool directory_fits(int d, uint32_t host, bool job)
{
    if (d >= DB_DIRECTORIES)
        return false;
    Db_tag top = Db_tag(d) << 24;
    return qv_db_tag_owner(top) == host && qv_db_is_job(top) == job && ((d & 0x80) != 0) == (host != 0);
}

Db_directory* directory_make(int d)
{
    Db_directory* directory = g_directories[d].load(std::memory_order_acquire);
    if (directory)
        return directory;
    Lock_holder hold(g_table_lock);
    directory = g_directories[d].load(std::memory_order_relaxed);
    if (!directory) {
        void* memory = mem_raw_alloc(__FILE__, __LINE__, sizeof(Db_directory));
        directory = new (memory) Db_directory();
        // Tags below 0x400 stay unused so that no slot of directory 0 ever yields tag 0.
        directory->page_hint = d == 0 ? 1 : 0;
        g_directories[d].store(directory, std::memory_order_release);
    }
    return directory;
}

Db_page* page_make(Db_directory* directory, int p)
{
    Db_page* page = directory->pages[p].load(std::memory_order_acquire);
    if (page)
        return page;
    Lock_holder hold(g_table_lock);
    page = directory->pages[p].load(std::memory_order_relaxed);
    if (!page) {
        page = static_cast<Db_page*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(Db_page)));
        page->free_count = DB_RECORDS_PER_PAGE;
        directory->pages[p].store(page, std::memory_order_release);
    }
    return page;
}

void net_dispatch(Thread_context* context, void* buffer, size_t length, bool swap)
{
    if (g_remote_hooks.net_handler)
        g_remote_hooks.net_handler(context, buffer, length, swap);
}

}  // namespace

Db_statistics& statistics() { return g_statistics; }

void record_make_lock(Db_record* record)
{
    if (record->lock)
        return;
    Lock_holder hold(g_table_lock);
    if (!record->lock)
        lock_create(&record->lock);
}

Db_record* record_make(Db_tag tag)
{
    Db_record* record = record_peek(tag);
    if (!record) {
        Db_directory* directory = directory_make(int(tag >> 24));
        record = &page_make(directory, int((tag >> 10) & 0x3FFFu))->records[tag & 0x3FFu];
    }
    record_make_lock(record);
    return record;
}

void slot_give_back(Db_tag tag)
{
    Db_directory* directory = g_directories[tag >> 24].load(std::memory_order_relaxed);
    if (!directory)
        return;
    int p = int((tag >> 10) & 0x3FFFu);
    Db_page* page = directory->pages[p].load(std::memory_order_relaxed);
    if (!page)
        return;
    ++page->free_count;
    page->slot_hint = tag & 0x3FFu;
    if (directory->page_hint > p || directory->page_hint < 0)
        directory->page_hint = p;
}

Db_tag tag_allocate(int type, bool job, Db_record* parent, Db_record** out_record)
{
    Thread_context* context = thread_context();
    uint32_t host = context ? context->host_number : 0;

    lock_enter(g_global_lock);
    ++g_statistics.creates;
    ++g_statistics.tags;

    int d = host ? int(host | 0x80) : (job ? 64 : 0);
    int p = 0;
    int s = 0;
    Db_page* page = nullptr;
    Db_directory* directory = nullptr;
    for (;; ++d) {
        if (!directory_fits(d, host, job)) {
            lock_leave(g_global_lock);
            msg_fatal_n(16, "all tags in use, database is full");
        }
        directory = g_directories[d].load(std::memory_order_relaxed);
        if (!directory) {
            directory = directory_make(d);
            p = d == 0 ? 1 : 0;
            s = 0;
            page = page_make(directory, p);
            break;
        }
        int hint = directory->page_hint;
        if (hint < 0 || hint >= DB_PAGES_PER_DIRECTORY)
            continue;
        // Walk the pages upward from the hint; the first free record wins.
        bool found = false;
        for (p = hint; p < DB_PAGES_PER_DIRECTORY && !found; ++p) {
            page = directory->pages[p].load(std::memory_order_relaxed);
            if (!page) {
                page = page_make(directory, p);
                s = 0;
                found = true;
                break;
            }
            if (page->free_count == 0)
                continue;
            uint32_t start = page->slot_hint;
            for (int i = 0; i < DB_RECORDS_PER_PAGE; ++i) {
                uint32_t candidate = (start + uint32_t(i)) & 0x3FFu;
                if (page->records[candidate].state == DB_STATE_FREE) {
                    s = int(candidate);
                    found = true;
                    break;
                }
            }
            if (found)
                break;
        }
        if (found)
            break;
    }

    Db_tag tag = (Db_tag(d) << 24) | (Db_tag(p) << 10) | Db_tag(s);
    Db_record* record = &page->records[s];
    record_make_lock(record);
    --page->free_count;
    page->slot_hint = uint32_t(s);
    if (page->free_count == 0)
        directory->page_hint = p + 1;
    else if (directory->page_hint < p)
        directory->page_hint = p;

    record->size = 0;
    record->refs = 0;
    if (type == DB_TYPE_RCB_SPLIT_JOB) {
        record->pidx = uint16_t(tag % 1023 + DB_PIN_SHARED_SLOTS);
    } else {
        record->pidx = uint16_t(g_pidx_counter);
        g_pidx_counter = (g_pidx_counter + 1) % DB_PIN_SHARED_SLOTS;
    }
    record->type = uint8_t(type);
    record->module = 0;
    qv_db_state_store(record, DB_STATE_NORMAL);
    record->priv = 0;
    record->shared = 0;
    record->parent = parent;
    record->lru_stamp = g_clock.load(std::memory_order_relaxed);
    if (context)
        pin_chain(pins_of(context), record);
    lock_leave(g_global_lock);
    qv_db_clock_advance();
    *out_record = record;
    return tag;
}

void data_free(int type, void* data)
{
    if (!data)
        return;
    const Db_type_handler& handler = g_type_handlers[type & (DB_TYPES - 1)];
    if (handler.free_data)
        handler.free_data(data);
    else
        QV_FREE(data);
}

}  // namespace qv_db_detail

using namespace qv_db_detail;

Db_statistics& qv_db_statistics() { return statistics(); }

void qv_db_init()
{
    Module_scope scope(MOD_DB);
    lock_create(&g_global_lock);
    lock_create(&g_waiters_lock);
    lock_create(&g_delay_lock);
    lock_create(&g_table_lock);
    lock_create(&g_cluster_table_lock);
    // The exit hook keeps the database's own thread list free of ended threads.
    mod_register_context_area(MOD_DB, nullptr, thread_list_context_exit, 1);
    qv_msg_register(MOD_DB, net_dispatch);
    g_clock.store(2, std::memory_order_relaxed);
    g_pidx_counter = 0;
    g_statistics = Db_statistics{};
    g_started = true;
    mem_register_flush(MOD_DB, qv_db_memory_flush);
    mem_set_database_reports(qv_db_summary, [] { qv_db_dump(0); });
    g_debug_slave_tags = std::getenv("QV_DEBUG_SLAVE_TAGS") != nullptr && this_host() == 0;
}

bool qv_db_started() { return g_started; }

void qv_db_exit()
{
    Module_scope scope(MOD_DB);
    if (!g_started)
        return;
    mem_register_flush(MOD_DB, nullptr);
    mem_set_database_reports(nullptr, nullptr);
    uint8_t* deleting = qv_db_delete_in_progress();
    uint8_t saved = deleting ? *deleting : 0;
    if (deleting)
        *deleting = 1;
    for_each_record([](Db_tag, Db_record* record) {
        if (record->data && record->state != DB_STATE_ATTACHED && record->state != DB_STATE_FREE)
            data_free(record->type, record->data);
        qv_db_data_store(record, nullptr);
    });
    if (deleting)
        *deleting = saved;
    for_each_record([](Db_tag, Db_record* record) { lock_destroy(&record->lock); });
    for (auto& slot : g_directories) {
        Db_directory* directory = slot.load(std::memory_order_relaxed);
        if (!directory)
            continue;
        for (auto& page : directory->pages)
            mem_raw_free(__FILE__, __LINE__, page.load(std::memory_order_relaxed));
        directory->~Db_directory();
        mem_raw_free(__FILE__, __LINE__, directory);
        slot.store(nullptr, std::memory_order_relaxed);
    }
    thread_list_reset();
    lock_destroy(&g_cluster_table_lock);
    lock_destroy(&g_table_lock);
    lock_destroy(&g_delay_lock);
    lock_destroy(&g_waiters_lock);
    lock_destroy(&g_global_lock);
    g_started = false;
}

void qv_db_set_job_hooks(const Db_job_hooks& hooks) { g_job_hooks = hooks; }
const Db_job_hooks& qv_db_job_hooks() { return g_job_hooks; }
void qv_db_set_remote_hooks(const Db_remote_hooks& hooks) { g_remote_hooks = hooks; }
const Db_remote_hooks& qv_db_remote_hooks() { return g_remote_hooks; }
void qv_db_set_thread_hooks(const Db_thread_hooks& hooks) { g_thread_hooks = hooks; }

void qv_db_set_type_handler(int type, const Db_type_handler& handler)
{
    if (type >= 0 && type < DB_TYPES)
        g_type_handlers[type] = handler;
}

const Db_type_handler& qv_db_type_handler(int type) { return g_type_handlers[type & (DB_TYPES - 1)]; }
Db_type_name_fn qv_db_set_type_name_hook(Db_type_name_fn type_name)
{
    Db_type_name_fn previous = g_type_name_hook;
    g_type_name_hook = type_name;
    return previous;
}

Db_tag_name_fn qv_db_set_tag_name_hook(Db_tag_name_fn tag_name)
{
    Db_tag_name_fn previous = g_tag_name_hook;
    g_tag_name_hook = tag_name;
    return previous;
}
