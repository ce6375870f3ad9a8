// The kd-tree store's handles: creation, opening, collecting records, writing chunks on close,
// walking the tree and deleting it.
#include "containers/kdtree.h"

#include <algorithm>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "containers/kdtree_internal.h"
#include "containers/paged_array.h"
#include "database/db.h"
#include "database/transaction.h"
#include "runtime/locks.h"
#include "runtime/msg.h"

using QV::LIB::Paged_array;

namespace {

constexpr uint32_t POSITION_BYTES = 3 * sizeof(float);

// Every open handle, so that module shutdown can close what callers left open. Handles open and
// close rarely compared with adds and lookups, so one lock for the list is enough.
struct Handle_list {
    Lock lock = nullptr;
    Kdtree_handle* head = nullptr;

    Handle_list() { lock_create(&lock); }
};

Handle_list& handle_list()
{
    static Handle_list list;
    return list;
}

void list_insert(Kdtree_handle* handle)
{
    Handle_list& list = handle_list();
    Lock_holder hold(list.lock);
    handle->list_next = list.head;
    list.head = handle;
}

void list_remove(Kdtree_handle* handle)
{
    Handle_list& list = handle_list();
    Lock_holder hold(list.lock);
    for (Kdtree_handle** link = &list.head; *link; link = &(*link)->list_next) {
        if (*link == handle) {
            *link = handle->list_next;
            break;
        }
    }
}

Kdtree_progress progress_function = nullptr;
void* progress_argument = nullptr;

Kdtree_handle* new_handle(uint32_t tag, bool writing)
{
    auto* handle = static_cast<Kdtree_handle*>(QV_ALLOC(sizeof(Kdtree_handle)));
    handle->tag = tag;
    handle->thread_context = thread_context();
    handle->writing = writing;
    auto* header = static_cast<const Kdtree_header*>(qv_db_access(tag));
    handle->element_size = header->element_size;
    qv_db_unpin(tag);
    return handle;
}

void pin_read_state(Kdtree_handle* handle)
{
    handle->header = static_cast<Kdtree_header*>(qv_db_access(handle->tag));
    handle->positions = static_cast<float*>(qv_db_access(handle->header->positions));
    handle->data_access = static_cast<Paged_array*>(qv_db_access(handle->header->data));
    handle->axes = static_cast<uint8_t*>(qv_db_access(handle->header->axes));
}

void drop_read_state(Kdtree_handle* handle)
{
    if (!handle->header)
        return;
    qv_db_unpin(handle->header->axes);
    qv_db_unpin(handle->header->data);
    qv_db_unpin(handle->header->positions);
    qv_db_unpin(handle->tag);
    handle->header = nullptr;
    handle->positions = nullptr;
    handle->data_access = nullptr;
    handle->axes = nullptr;
}

// Turns the handle's collected records into one pending chunk of the header.
void write_chunk(Kdtree_handle* handle)
{
    const uint32_t added = handle->added;
    qv_db_lock(handle->tag);

    auto* header = static_cast<Kdtree_header*>(qv_db_access(handle->tag));
    const uint32_t index = header->chunk_count;
    header = static_cast<Kdtree_header*>(qv_db_realloc(handle->tag, kdtree_header_bytes(index + 1)));

    // Positions leave their paged array for one contiguous element, block by block.
    Db_tag positions_tag = 0;
    auto* positions = static_cast<uint8_t*>(qv_db_create(&positions_tag, KDTREE_TYPE_POSITIONS, added * POSITION_BYTES));
    for (uint32_t first = 0; first < added; first += QV::LIB::PAGED_ARRAY_BLOCK_RECORDS) {
        const uint32_t n = std::min(added - first, QV::LIB::PAGED_ARRAY_BLOCK_RECORDS);
        std::memcpy(positions + size_t(first) * POSITION_BYTES, handle->position_array->at(first), size_t(n) * POSITION_BYTES);
    }
    delete handle->position_array;
    handle->position_array = nullptr;

    const char* blob_swap = handle->blob_swap_tag
                                ? static_cast<const char*>(qv_db_access(handle->blob_swap_tag))
                                : nullptr;
    Paged_array* data = handle->data_array;
    data->resize(added);
    data->set_extra(nullptr, handle->blob, handle->blob_size, blob_swap);
    if (handle->blob_swap_tag)
        qv_db_unpin(handle->blob_swap_tag);
    char name[sizeof header->name + 1] = {};
    std::memcpy(name, header->name, sizeof header->name);
    Db_tag data_tag = 0;
    QV::DB::get_transaction()->store(&data_tag, data, name[0] ? name : nullptr);
    handle->data_array = nullptr;

    header->chunks()[index] = Kdtree_chunk{added, positions_tag, data_tag};
    header->chunk_count = index + 1;
    handle->added = 0;
    qv_db_unlock(handle->tag);
}

}  // namespace

uint32_t kdtree_create(int type, uint32_t element_size)
{
    Module_scope scope(MOD_LIB);
    if (type != 1) {
        msg_error_n(41, "Cannot create kdtree of unknown type %i", type);
        return 0;
    }
    Db_tag positions_tag = 0;
    qv_db_create(&positions_tag, KDTREE_TYPE_POSITIONS, 0);
    Db_tag data_tag = 0;
    QV::DB::get_transaction()->store(&data_tag, new Paged_array(element_size));

    Db_tag tag = 0;
    auto* header = static_cast<Kdtree_header*>(qv_db_create(&tag, KDTREE_TYPE_HEADER, kdtree_header_bytes(0)));
    std::memset(header, 0, sizeof *header);
    header->type = type;
    header->element_size = element_size;
    header->positions = positions_tag;
    header->data = data_tag;
    msg_debug("creating kdtree 0x%x", tag);
    return tag;
}

Kdtree_handle* kdtree_open_for_writing(uint32_t tag, const void* blob, uint32_t blob_size)
{
    Module_scope scope(MOD_LIB);
    if (!tag)
        return nullptr;
    msg_debug("accessing kdtree 0x%x for %s", tag, "writing");
    Kdtree_handle* handle = new_handle(tag, true);
    if (blob && blob_size) {
        handle->blob = QV_ALLOC(blob_size);
        std::memcpy(handle->blob, blob, blob_size);
        handle->blob_size = blob_size;
    }
    list_insert(handle);
    return handle;
}

Kdtree_handle* kdtree_open_for_reading(uint32_t tag, Kdtree_filter filter, void* filter_argument)
{
    Module_scope scope(MOD_LIB);
    if (!tag)
        return nullptr;
    msg_debug("accessing kdtree 0x%x for %s", tag, "reading");
    Kdtree_handle* handle = new_handle(tag, false);
    {
        const auto* header = static_cast<const Kdtree_header*>(qv_db_access(tag));
        const bool unbalanced = header->chunk_count != 0 || header->axes == 0;
        qv_db_unpin(tag);
        if (unbalanced)
            QV::LIB::detail::balance(tag, filter, filter_argument);
    }
    pin_read_state(handle);
    list_insert(handle);
    return handle;
}

int kdtree_add(Kdtree_handle* handle, const void* record, const float* position)
{
    Module_scope scope(MOD_LIB);
    if (!handle->writing) {
        msg_error_n(53, "cannot add elements to kdtree 0x%x: it is not opened for writing", handle->tag);
        return 0;
    }
    drop_read_state(handle);
    if (!handle->data_array) {
        handle->data_array = new Paged_array(handle->element_size);
        handle->position_array = new Paged_array(POSITION_BYTES);
    }
    const uint32_t index = handle->added;
    handle->data_array->resize(index + 1);
    handle->position_array->resize(index + 1);
    std::memcpy(handle->data_array->at(index), record, handle->element_size);
    std::memcpy(handle->position_array->at(index), position, POSITION_BYTES);
    handle->added = index + 1;
    if (progress_function)
        progress_function(progress_argument);
    return 1;
}

uint32_t kdtree_count(Kdtree_handle* handle)
{
    Module_scope scope(MOD_LIB);
    if (handle->writing) {
        // The missing blank is the message as it has always been printed.
        msg_error_n(55, "cannot get number elements to kdtree 0x%xwhile it is opened for writing", handle->tag);
        return 0;
    }
    return handle->header ? handle->header->count : 0;
}

int kdtree_iterate(Kdtree_handle* handle, Kdtree_callback callback, void* argument)
{
    Module_scope scope(MOD_LIB);
    if (handle->writing) {
        // Worded like the add error since ever; log scanners match on it, so it stays.
        msg_error_n(54, "cannot add elements to kdtree 0x%x: it is not opened for writing", handle->tag);
        return 0;
    }
    if (!handle->header)
        return 1;
    const uint32_t count = handle->header->count;
    const Paged_array* data = handle->data_access;
    for (uint32_t i = 0; i < count; ++i)
        if (!callback(argument, data->at(i), handle->positions + 3 * size_t(i)))
            return 0;
    return 1;
}

int kdtree_close(Kdtree_handle* handle)
{
    Module_scope scope(MOD_LIB);
    if (handle->writing && handle->added > 0)
        write_chunk(handle);
    drop_read_state(handle);
    list_remove(handle);
    delete handle->data_array;
    delete handle->position_array;
    if (handle->heap_distance_squared) {
        QV_FREE(handle->heap_distance_squared);
        QV_FREE(handle->heap_position);
        QV_FREE(handle->heap_record);
    }
    if (handle->blob)
        QV_FREE(handle->blob);
    QV_FREE(handle);
    return 1;
}

void kdtree_set_progress(Kdtree_progress function, void* argument)
{
    progress_function = function;
    progress_argument = argument;
}

void kdtree_delete(uint32_t tag)
{
    Module_scope scope(MOD_LIB);
    if (!tag)
        return;
    qv_db_lock(tag);
    auto* header = static_cast<Kdtree_header*>(qv_db_access(tag));
    for (uint32_t c = 0; c < header->chunk_count; ++c)
        QV::LIB::detail::delete_chunk(header->chunks()[c]);
    if (header->axes)
        qv_db_delete(header->axes);
    if (header->positions)
        qv_db_delete(header->positions);
    if (header->data)
        QV::DB::get_transaction()->remove(header->data);
    qv_db_unlock(tag);
    qv_db_delete(tag);
}

void kdtree_shutdown()
{
    Module_scope scope(MOD_LIB);
    for (;;) {
        Kdtree_handle* handle;
        {
            Handle_list& list = handle_list();
            Lock_holder hold(list.lock);
            handle = list.head;
        }
        if (!handle)
            break;
        kdtree_close(handle);
    }
}
