// Delete, its local and forgetful forms, and the delayed-delete bracket.
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "runtime/msg.h"

namespace qv_db_detail {

namespace {

struct Delayed_delete {
    Delayed_delete* next;
    Db_tag tag;
    uint8_t from_network;
};

int g_delay_count;
Delayed_delete* g_delayed;

}  // namespace

bool delay_if_bracketed(Db_tag tag, uint8_t from_network)
{
    if (!g_delay_lock)
        return false;
    // Allocate outside the delay lock, which is held only for a few instructions.
    auto* node = static_cast<Delayed_delete*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(Delayed_delete)));
    lock_enter(g_delay_lock);
    if (g_delay_count <= 0) {
        lock_leave(g_delay_lock);
        mem_raw_free(__FILE__, __LINE__, node);
        return false;
    }
    node->tag = tag;
    node->from_network = from_network;
    node->next = g_delayed;
    g_delayed = node;
    lock_leave(g_delay_lock);
    msg_debug("entering delete delayed tag %#x", tag);
    return true;
}

namespace {

void record_clear(Db_record* record)
{
    lock_destroy(&record->lock);
    std::memset(static_cast<void*>(record), 0, sizeof(Db_record));
}

void broadcast_delete(Db_tag tag)
{
    if (g_remote_hooks.broadcast_delete)
        g_remote_hooks.broadcast_delete(tag);
}

}  // namespace

}  // namespace qv_db_detail

using namespace qv_db_detail;

uint8_t* qv_db_delete_in_progress() { return static_cast<uint8_t*>(mod_context_area(MOD_DB)); }

void qv_db_delay_deletes()
{
    Module_scope scope(MOD_DB);
    Lock_holder hold(g_delay_lock);
    ++g_delay_count;
}

void qv_db_run_delayed_deletes()
{
    Module_scope scope(MOD_DB);
    lock_enter(g_delay_lock);
    --g_delay_count;
    Delayed_delete* node = g_delayed;
    g_delayed = nullptr;
    lock_leave(g_delay_lock);

    uint8_t* deleting = qv_db_delete_in_progress();
    while (node) {
        Delayed_delete* next = node->next;
        uint8_t saved = deleting ? *deleting : 0;
        if (deleting)
            *deleting = node->from_network;
        qv_db_delete(node->tag);
        msg_debug("delete delayed tag %#x", node->tag);
        mem_raw_free(__FILE__, __LINE__, node);
        if (deleting)
            *deleting = saved;
        node = next;
    }
}

void qv_db_delete(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    uint8_t* deleting = qv_db_delete_in_progress();
    bool in_delete = deleting && *deleting;
    if (!in_delete && delay_if_bracketed(tag, 0))
        return;

    uint32_t host = this_host();
    bool owned_here = qv_db_tag_owner(tag) == host;
    if (tag == 0) {
        // No record ever lives under the null tag: it is simply not alive here.
        msg_error_n(38, "attempt to delete invalid tag 0x%x, ignoring", tag);
        return;
    }
    Db_record* record = record_make(tag);
    if (qv_db_is_job(tag) && !(g_job_hooks.consent_delete && g_job_hooks.consent_delete(tag)))
        return;

    // Step under the global lock: count, give the slot back, tell the hosts, free the data.
    bool bracket = false;
    lock_enter(g_global_lock);
    ++statistics().deletes;
    uint8_t state = record->state;
    if (state != DB_STATE_FREE)
        slot_give_back(tag);
    if (record->shared || !owned_here)
        broadcast_delete(tag);
    if ((state == DB_STATE_NORMAL || state == DB_STATE_ARRIVING) && record->data) {
        void* data = record->data;
        qv_db_data_store(record, nullptr);
        if (record->type == DB_TYPE_SERIALIZABLE && !in_delete) {
            // The element's destructor may delete further tags: they queue until the lock is left.
            qv_db_delay_deletes();
            bracket = true;
        }
        data_free(record->type, data);
    }
    if (state != DB_STATE_FREE)
        --statistics().tags;
    lock_leave(g_global_lock);

    if (state == DB_STATE_FREE && owned_here)
        msg_error_n(38, "attempt to delete invalid tag 0x%x, ignoring", tag);
    if (bracket)
        qv_db_run_delayed_deletes();
    if (state == DB_STATE_FREE)
        return;
    Lock_holder hold(g_global_lock);
    record_clear(record);
}

void qv_db_delete_local(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Lock_holder hold(g_global_lock);
    ++statistics().deletes;
    Db_record* record = tag ? record_peek(tag) : nullptr;
    if (!record || record->state == DB_STATE_FREE)
        return;
    slot_give_back(tag);
    --statistics().tags;
    if ((record->state == DB_STATE_NORMAL || record->state == DB_STATE_ARRIVING) && record->data)
        data_free(record->type, record->data);
    record_clear(record);
}

void qv_db_forget(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Lock_holder hold(g_global_lock);
    Db_record* record = tag ? record_peek(tag) : nullptr;
    if (!record)
        return;
    bool shared = record->shared != 0;
    if (record->state != DB_STATE_FREE) {
        slot_give_back(tag);
        --statistics().tags;
    }
    record_clear(record);
    if (shared)
        broadcast_delete(tag);
}
