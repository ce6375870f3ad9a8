// Tag to record: lookup, the access path with its job and host branches, pins and the LRU clock.
#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "runtime/msg.h"

namespace qv_db_detail {

namespace {

// Another thread or the network reader may change the state while we wait for it.
inline uint8_t state_now(const Db_record* record) { return qv_db_state_peek(record); }

bool host_live(uint32_t host) { return g_remote_hooks.host_live && g_remote_hooks.host_live(host); }

int remote_fetch(Db_tag tag, Db_record* record, bool type_only, uint32_t owner)
{
    return g_remote_hooks.fetch ? g_remote_hooks.fetch(tag, record, type_only, owner) : 0;
}

void remote_pin(Db_tag tag, uint32_t owner, bool pin)
{
    if (g_remote_hooks.send_pin)
        g_remote_hooks.send_pin(tag, owner, pin);
}

// Types whose remote pin outlives the access: their users keep the owner's copy alive.
bool keeps_remote_pin(int type)
{
    return type == 8 || type == 13 || type == 40 || type == 41 || type == 65 || type == 82 || type == 83;
}

// All stamps shrink by 16 and the clock restarts above them: relative order survives the wrap.
void timewarp()
{
    Lock_holder hold(g_global_lock);
    msg_debug("LRU timestamps overflowed, running timewarp to make room");
    for_each_record([](Db_tag, Db_record* record) {
        if (record->state != DB_STATE_FREE)
            record->lru_stamp >>= 4;
    });
    g_clock.store(0x10000000u, std::memory_order_relaxed);
}

inline void stamp(Db_record* record)
{
    uint32_t now = g_clock.load(std::memory_order_relaxed);
    // Readers of one tag stamp it side by side; any of their clock values will do.
    if (__atomic_load_n(&record->lru_stamp, __ATOMIC_RELAXED) != now)
        __atomic_store_n(&record->lru_stamp, now, __ATOMIC_RELAXED);
}

}  // namespace

// Lookup without job execution.
Db_record* lookup(Db_tag tag, bool type_only)
{
    Db_record* record = tag ? record_peek(tag) : nullptr;
    if (!record) {
        lock_enter(g_global_lock);
        if (tag == 0) {
            lock_leave(g_global_lock);
            msg_fatal_n(8, "attempt to access null DB tag");
        }
        record = record_make(tag);
        lock_leave(g_global_lock);
    }
    if (record->state == DB_STATE_FREE) {
        uint32_t owner = qv_db_tag_owner(tag);
        if (owner == this_host())
            msg_fatal_n(52, "accessing unknown tag %#x", tag);
        if (owner != 0 && !host_live(owner))
            msg_fatal_n(61, "invalid tag value %#x requested", tag);
        if (!remote_fetch(tag, record, type_only, owner))
            msg_fatal_n(51, "database network access failed");
    }
    if (!record->lock)
        record_make_lock(record);
    return record;
}

Db_record* access_path(Db_tag tag, uint32_t home)
{
    Thread_context* context = thread_context();
    uint32_t owner = qv_db_tag_owner(tag);
    bool remote_pinned = false;
    Db_record* record;

    if (!qv_db_is_job(tag)) {
        record = lookup(tag, false);
        if (qv_db_type_tracked(record->type)) {
            if (context)
                pin_chain(pins_of(context), record);
            qv_db_clock_advance();
            __atomic_store_n(&record->lru_stamp, g_clock.load(std::memory_order_relaxed), __ATOMIC_RELAXED);
        }
    } else {
        record = record_make(tag);
        if (context)
            pin_chain(pins_of(context), record);
        stamp(record);
        // Taking the record's lock waits out an eviction or a producer that holds it.
        if (!qv_db_data_peek(record) || state_now(record) == DB_STATE_FLUSHING) {
            lock_enter(record->lock);
            lock_leave(record->lock);
        }
        if (!qv_db_data_peek(record) && owner != home) {
            remote_pin(tag, owner, true);
            remote_pinned = true;
        }
        if (!qv_db_data_peek(record)) {
            if (!g_job_hooks.execute || !g_job_hooks.execute(tag))
                msg_fatal_n(37, "database job execution failed");
            if (this_host() == 0)
                owner = 0;
            if (!qv_db_data_peek(record))
                msg_debug("job execution for tag %#x type %d yields nothing, trying network.", tag,
                          int(record->type));
        }
    }

    if (owner == home)
        while (state_now(record) == DB_STATE_ARRIVING)
            thread_sleep(50000);

    uint8_t state = state_now(record);
    if (qv_db_data_peek(record) && state != DB_STATE_ARRIVING) {
        if (state == DB_STATE_FREE)
            msg_fatal_n(11, "accessed invalid (deleted?) DB tag %#x", tag);
    } else if (state != DB_STATE_ARRIVING && owner == home &&
               !((state == DB_STATE_NORMAL || state == DB_STATE_ATTACHED) && !qv_db_data_peek(record) &&
                 owner != this_host())) {
        msg_fatal_n(0, "accessing unknown tag %#x", tag);
    } else {
        lock_enter(record->lock);
        bool missing = state_now(record) == DB_STATE_ARRIVING || !qv_db_data_peek(record);
        lock_leave(record->lock);
        if (missing) {
            if (owner != 0 && !host_live(owner))
                msg_fatal_n(63, "invalid tag value %#x requested", tag);
            if (!remote_fetch(tag, record, false, owner))
                msg_fatal_n(10, "database network access failed");
        }
    }

    if (remote_pinned && !keeps_remote_pin(record->type))
        remote_pin(tag, owner, false);
    return record;
}

}  // namespace qv_db_detail

using namespace qv_db_detail;

uint32_t qv_db_clock() { return g_clock.load(std::memory_order_relaxed); }
void qv_db_set_clock(uint32_t value) { g_clock.store(value, std::memory_order_relaxed); }

void qv_db_clock_advance()
{
    // Lost increments between threads do no harm; only the wrap needs the lock.
    uint32_t next = g_clock.load(std::memory_order_relaxed) + 1;
    g_clock.store(next, std::memory_order_relaxed);
    if (next == 0)
        timewarp();
}

void* qv_db_access(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    return access_path(tag, this_host())->data;
}

Db_record* qv_db_access_record(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    return access_path(tag, this_host());
}

void* qv_db_access_typed(Db_tag tag, int* type)
{
    Module_scope scope(MOD_DB);
    Db_record* record = access_path(tag, this_host());
    if (type)
        *type = record->type;
    return record->data;
}

Db_record* qv_db_pin(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Db_record* record = lookup(tag, false);
    Thread_context* context = thread_context();
    if (context && qv_db_tracked(tag, record->type))
        pin_chain(pins_of(context), record);
    return record;
}

void qv_db_unpin(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    if (tag == 0) {
        msg_error_n(12, "attempt to unpin null tag");
        return;
    }
    Db_record* record = lookup(tag, false);
    Thread_context* context = thread_context();
    if (context && qv_db_tracked(tag, record->type)) {
        unpin_chain(pins_of(context), record);
        stamp(record);
    }
}

void qv_db_pin_record(Db_record* record, Thread_context* context)
{
    if (record && context)
        pin_chain(pins_of(context), record);
}

void qv_db_unpin_record(Db_record* record, Thread_context* context)
{
    if (!record || !context)
        return;
    unpin_chain(pins_of(context), record);
    stamp(record);
}

uint32_t qv_db_size(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Db_record* record = access_path(tag, this_host());
    uint32_t size = record->size;
    Thread_context* context = thread_context();
    if (context && qv_db_tracked(tag, record->type)) {
        unpin_chain(pins_of(context), record);
        stamp(record);
    }
    return size;
}

uint8_t qv_db_type(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    return lookup(tag, true)->type;
}

Db_record* qv_db_peek(Db_tag tag) { return record_peek(tag); }

Db_record* qv_db_current_job()
{
    Thread_context* context = thread_context();
    return context ? static_cast<Db_record*>(context->db_held) : nullptr;
}

Db_record* qv_db_set_current_job(Db_tag job_tag)
{
    Thread_context* context = thread_context();
    if (!context)
        return nullptr;
    Db_record* previous = static_cast<Db_record*>(context->db_held);
    context->db_held = job_tag ? record_make(job_tag) : nullptr;
    return previous;
}

void qv_db_restore_current_job(Db_record* previous)
{
    if (Thread_context* context = thread_context())
        context->db_held = previous;
}
