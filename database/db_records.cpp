// Create and the record edits: data replaced, attached, released, aliased, copied.
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "database/host_db_protocol.h"
#include "runtime/msg.h"

namespace qv_db_detail {

Db_record* access_path(Db_tag tag, uint32_t home);  // db_access.cpp

namespace {

// Record of a tag that need not be alive yet; made if missing.
Db_record* record_get(Db_tag tag)
{
    if (tag == 0)
        msg_fatal_n(8, "attempt to access null DB tag");
    return record_make(tag);
}

void push_flush(Db_tag tag, Db_record* record)
{
    if (g_remote_hooks.push_flush) {
        g_remote_hooks.push_flush(tag, record);
        return;
    }
    // Nobody else holds a copy on a single host: the broadcast reaches no one.
    ++statistics().flushes;
    record->shared = 0;
}

}  // namespace

}  // namespace qv_db_detail

using namespace qv_db_detail;

void* qv_db_create(Db_tag* tag, int type, uint32_t size, void* data)
{
    Thread_context* context = thread_context();
    int module = context ? context->current_module : 0;
    Module_scope scope(MOD_DB);
    if (size == 0)
        size = 1;
    Db_record* record;
    Db_tag made = tag_allocate(type, false, qv_db_current_job(), &record);
    if (!data)
        data = QV_ALLOC(size);
    qv_db_data_store(record, data);
    record->size = size;
    record->module = uint8_t(module);
    if (context && !qv_db_type_tracked(type))
        unpin_chain(pins_of(context), record);
    if (tag)
        *tag = made;
    return data;
}

int qv_db_create_job_tag(Db_tag* tag, int type, int module)
{
    Module_scope scope(MOD_DB);
    Db_record* record;
    Db_tag made = tag_allocate(type, true, qv_db_current_job(), &record);
    record->module = uint8_t(module);
    if (Thread_context* context = thread_context())
        unpin_chain(pins_of(context), record);
    if (tag)
        *tag = made;
    return 1;
}

void qv_db_set_type(Db_tag tag, int type)
{
    Module_scope scope(MOD_DB);
    record_get(tag)->type = uint8_t(type);
}

void qv_db_set_parent(Db_tag tag, Db_tag parent)
{
    Module_scope scope(MOD_DB);
    if (tag == 0)
        return;
    record_get(tag)->parent = parent ? record_get(parent) : nullptr;
}

void* qv_db_realloc(Db_tag tag, uint32_t size)
{
    Module_scope scope(MOD_DB);
    Db_record* record = access_path(tag, this_host());
    if (size == 0)
        size = 1;
    Lock_holder hold(g_global_lock);
    ++statistics().reallocs;
    qv_db_data_store(record, QV_REALLOC(record->data, size));
    record->size = size;
    return record->data;
}

void* qv_db_replace(Db_tag tag, uint32_t size, void* data)
{
    Module_scope scope(MOD_DB);
    Db_record* record = access_path(tag, this_host());
    if (size == 0)
        size = 1;
    Lock_holder hold(g_global_lock);
    if (record->data != data)
        data_free(record->type, record->data);
    qv_db_data_store(record, data);
    record->size = size;
    return data;
}

void qv_db_attach(Db_tag tag, void* data, uint32_t size)
{
    Module_scope scope(MOD_DB);
    Db_record* record = record_get(tag);
    qv_db_data_store(record, data);
    record->size = size;
    qv_db_state_store(record, DB_STATE_ATTACHED);
}

void qv_db_release_data(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Db_record* record = record_get(tag);
    if (record->state == DB_STATE_NORMAL ||
        (record->state == DB_STATE_ATTACHED && record->type == DB_TYPE_SERIALIZABLE))
        data_free(record->type, record->data);
    if (record->state == DB_STATE_ATTACHED)
        qv_db_state_store(record, DB_STATE_NORMAL);
    if (record->shared == 1 && this_host() == 0)
        push_flush(tag, record);
    qv_db_data_store(record, nullptr);
    record->size = 0;
}

void qv_db_alias(Db_tag tag, Db_tag source)
{
    Module_scope scope(MOD_DB);
    Db_record* target = record_get(tag);
    const Db_record* from = record_get(source);
    target->lru_stamp = from->lru_stamp;
    target->size = from->size;
    qv_db_data_store(target, from->data);
    qv_db_state_store(target, from->state);
    target->type = from->type;
    target->module = from->module;
}

Db_tag qv_db_dup(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Db_record* source = access_path(tag, this_host());
    Db_tag copy = 0;
    void* data = qv_db_create(&copy, source->type, source->size);
    if (source->data)
        std::memcpy(data, source->data, source->size);
    Thread_context* context = thread_context();
    if (context && qv_db_tracked(tag, source->type))
        qv_db_unpin_record(source, context);
    if (context && qv_db_tracked(copy, source->type))
        qv_db_unpin(copy);
    return copy;
}

void qv_db_mark_shared(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    record_get(tag)->shared = 1;
}

void qv_db_set_flags(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    record_get(tag)->flags |= 3;
}

void qv_db_flush_tag(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    Db_record* record = tag ? record_peek(tag) : nullptr;
    if (!record || record->state == DB_STATE_FREE)
        return;
    if (record->shared)
        push_flush(tag, record);
}

void qv_db_lock(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    if (g_remote_hooks.cluster_lock) {
        g_remote_hooks.cluster_lock(tag);
        return;
    }
    // A single host is a master without slaves: its lock table holds the lock.
    record_get(tag);
    qv_db_net::master_lock(tag, 0);
}

void qv_db_unlock(Db_tag tag)
{
    Module_scope scope(MOD_DB);
    if (g_remote_hooks.cluster_unlock) {
        g_remote_hooks.cluster_unlock(tag);
        return;
    }
    record_get(tag);
    qv_db_net::master_unlock(tag, 0, false);
}
