// The database's side of host messaging: the message handler, fetching tags from their owner,
// sending and receiving data in pieces, flush pushes, network deletes and pins, the waiters.
#include "database/host_db_protocol.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"
#include "database/host_internal.h"
#include "database/host_messaging.h"
#include "database/scene_swap.h"
#include "database/scene_types.h"
#include "runtime/msg.h"
#include "serial/element_transfer.h"
#include "serial/media_queue.h"

namespace qv_db_net {

using namespace qv_db_detail;

namespace {

// A transfer under way to this host: the bytes received so far, the size its first piece
// announced (every later piece must repeat it), the block's capacity and the sending host.
struct Arrival {
    uint64_t next_offset;
    uint32_t total;
    uint64_t capacity;
    uint32_t host;
};

Waiter* g_waiters;                                  // under g_waiters_lock
std::unordered_map<Db_tag, Arrival> g_arrivals;     // reader thread only
Db_remote_hooks g_saved_hooks;

const char* const KIND_NAMES[] = {"data", "type", "lock", "unlock"};

double now_seconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

bool debug_on() { return msg_level_enabled(MSG_DEBUG); }

uint32_t self() { return qv_msg_self(); }

// A header alone, or with `length` payload bytes behind it.
bool send(uint32_t host, Db_net_header& header, const void* payload = nullptr, size_t length = 0)
{
    header.length = uint32_t(length);
    if (!length)
        return qv_msg_send(host, MOD_DB, &header, DB_NET_HEADER_BYTES) != 0;
    Db_net_message message;
    message.header = header;
    std::memcpy(message.payload, payload, length);
    return qv_msg_send(host, MOD_DB, &message, DB_NET_HEADER_BYTES + length) != 0;
}

void fill_from_record(Db_net_header& header, const Db_record* record)
{
    header.total = record->size;
    header.stamp = record->lru_stamp;
    header.type = record->type;
    header.module = record->module;
    header.flags = record->flags;
    header.priv = record->priv;
}

// Opcode 2: `count` pieces from `piece` on go to the requester. False if nothing could be sent.
bool send_data(const Db_net_header& request)
{
    double start = now_seconds();
    const Db_tag tag = request.tag;
    const uint32_t to = request.host;
    Db_record* record = record_peek(tag);
    // A job result that the master does not hold is made here first. The reader must not run
    // the job (all traffic would wait, and the job may wait for other hosts), so it passes the
    // request on to host 0, whose local server comes back here off the reader thread.
    bool produced = false;
    // A tag unknown here, or a host without a job runner, gets the answer of error 29 below.
    if (self() == 0 && qv_db_is_job(tag) && g_job_hooks.execute && record &&
        __atomic_load_n(&record->state, __ATOMIC_ACQUIRE) != DB_STATE_FREE &&
        (!record->data || __atomic_load_n(&record->state, __ATOMIC_ACQUIRE) == DB_STATE_ARRIVING)) {
        if (qv_msg_on_reader_thread()) {
            Db_net_header forward = request;
            if (!send(0, forward))
                msg_error_n(32, "can't forward tag request to host %d", 0);
            return true;
        }
        {
            Qv_msg_handlers_unlocked others_may_run;
            qv_db_access(tag);
        }
        record = record_peek(tag);
        produced = true;
    }
    Db_net_header header{};
    header.opcode = DB_NET_DATA_PIECE;
    header.tag = tag;
    header.host = uint8_t(self());
    // An element without data (only its type known here, or flushed) has no stored form to send.
    bool valid = record && (record->state == DB_STATE_NORMAL || record->state == DB_STATE_ATTACHED) &&
                 (record->data || (record->size == 0 && record->type != DB_TYPE_SERIALIZABLE));
    if (!valid) {
        // Zeros tell the requester that nothing is known here.
        msg_error_n(29, "could not send data of db item");
        if (produced)
            qv_db_unpin(tag);
        return send(to, header);
    }
    fill_from_record(header, record);
    if (record->shared != 2)
        record->shared = 1;

    const bool serialized = record->type == DB_TYPE_SERIALIZABLE;
    const uint64_t total = record->size;
    const auto* bytes = static_cast<const uint8_t*>(record->data);
    uint64_t sent = 0;
    bool any = false;
    bool last = false;
    const uint32_t count = std::max<uint32_t>(request.count, 1);
    const bool debug = debug_on();
    // A window of pieces goes out in one write: plain data straight from the record, behind its
    // header; only the serialized form is produced into a buffer first.
    Db_net_header heads[DB_NET_WINDOW];
    Qv_msg_part parts[DB_NET_WINDOW];
    uint8_t serial_payload[DB_NET_WINDOW][DB_NET_PIECE_BYTES];
    for (uint32_t first = 0; first < count && !last; first += DB_NET_WINDOW) {
        int filled = 0;
        uint64_t window_bytes = 0;
        for (uint32_t i = first; i < count && i < first + DB_NET_WINDOW && !last; ++i) {
            Db_net_header& head = heads[filled];
            head = header;
            const uint32_t piece = request.piece + i;
            const uint64_t offset = uint64_t(piece) * DB_NET_PIECE_BYTES;
            size_t length;
            const void* body;
            if (serialized) {
                length = QV::DB::serial_send_piece(tag, serial_payload[filled], offset, DB_NET_PIECE_BYTES, &last);
                body = serial_payload[filled];
                if (debug)
                    msg_debug("sending zeuray tag %#x, offset %d filled %d to host %d", tag, int(offset), int(length),
                              int(to));
            } else {
                const uint64_t remaining = total > offset ? total - offset : 0;
                length = size_t(std::min<uint64_t>(remaining, DB_NET_PIECE_BYTES));
                last = remaining <= DB_NET_PIECE_BYTES;
                body = length ? bytes + offset : nullptr;
                if (debug)
                    msg_debug("sending tag %#x, offset %d total %d to host %d", tag, int(offset), int(total), int(to));
            }
            head.piece = piece;
            head.length = uint32_t(length);
            head.last = last ? 1 : 0;
            parts[filled] = {&head, DB_NET_HEADER_BYTES, body, length};
            window_bytes += length;
            ++filled;
        }
        if (!qv_msg_send_batch(to, MOD_DB, parts, filled)) {
            msg_error_n(31, "can't send tag data to host %d", int(to));
            continue;
        }
        any = true;
        sent += window_bytes;
    }
    if (produced)
        qv_db_unpin(tag);
    // A flush push is confirmed once its last piece went out.
    if (last && __atomic_load_n(&record->shared, __ATOMIC_ACQUIRE) == 2)
        __atomic_store_n(&record->shared, uint8_t(0), __ATOMIC_RELEASE);
    Db_statistics& stats = statistics();
    stats.kbytes_sent += double(sent) / 1024.0;
    ++stats.send_requests;
    stats.send_seconds += now_seconds() - start;
    return any;
}

// Forgets the partial data of an arrival.
void discard_partial(Db_tag tag, Db_record* record)
{
    g_arrivals.erase(tag);
    Lock_holder hold(g_global_lock);
    if (record->state == DB_STATE_ARRIVING) {
        if (record->type == DB_TYPE_SERIALIZABLE)
            delete static_cast<QV::SERIAL::Byte_queue*>(record->data);
        else
            QV_FREE(record->data);
        record->data = nullptr;
        record->size = 0;
        record->state = DB_STATE_FREE;
    }
}

// A transfer that cannot go on: the record forgets the partial data and the waiters learn it.
void transfer_broken(Db_tag tag, Db_record* record)
{
    discard_partial(tag, record);
    wake(tag, WAIT_DATA);
}

// True if a thread here waits for the data of `tag` from `host`.
bool awaited(Db_tag tag, uint32_t host)
{
    Lock_holder hold(g_waiters_lock);
    for (Waiter* node = g_waiters; node; node = node->next)
        if (node->active && node->tag == tag && node->host == host && node->kind == WAIT_DATA)
            return true;
    return false;
}

// Gives an arriving plain record a block of `capacity` bytes. Bytes already received are kept
// only if `keep`; otherwise a new block replaces the old one, made outside the global lock
// (which table scans take), since zeroing a large block takes long.
void resize_block(Db_record* record, uint64_t capacity, bool keep)
{
    if (keep) {
        Lock_holder hold(g_global_lock);
        record->data = QV_REALLOC(record->data, size_t(capacity));
        record->size = uint32_t(capacity);
        return;
    }
    void* block = QV_ALLOC(size_t(capacity));
    void* old;
    {
        Lock_holder hold(g_global_lock);
        old = record->data;
        record->data = block;
        record->size = uint32_t(capacity);
    }
    if (old)
        QV_FREE(old);
}

// Opcode 3.
void receive_piece(const Db_net_header& header, const uint8_t* payload, bool swap)
{
    const Db_tag tag = header.tag;
    if (header.length == 0 && !header.last) {
        msg_error_n(33, "host %d doesn't know tag %#x", int(header.host), tag);
        wake(tag, WAIT_DATA);
        return;
    }
    if (tag == 0) {
        msg_error_n(30, "received piece of null tag from host %d", int(header.host));
        return;
    }
    Db_record* record = record_make(tag);
    record_make_lock(record);
    const uint64_t offset = uint64_t(header.piece) * DB_NET_PIECE_BYTES;
    const bool serialized = header.type == DB_TYPE_SERIALIZABLE;
    auto arrival = g_arrivals.find(tag);
    // The record's fields change under the global lock, which the table scans hold; the bytes
    // of a piece are copied without it.
    if (header.piece == 0) {
        Lock_holder hold(g_global_lock);
        if (arrival != g_arrivals.end() && record->type != header.type) {
            discard_partial(tag, record);
            arrival = g_arrivals.end();
        }
        if (arrival == g_arrivals.end()) {
            // Data of another type, or an element, is replaced, never reused as a byte block.
            if (record->data && record->state != DB_STATE_ATTACHED &&
                (serialized || record->type == DB_TYPE_SERIALIZABLE || record->type != header.type)) {
                data_free(record->type, record->data);
                record->data = nullptr;
                record->size = 0;
            }
            if (record->state == DB_STATE_ATTACHED) {
                record->data = nullptr;
                record->size = 0;
            }
            arrival = g_arrivals.emplace(tag, Arrival{0, 0, record->data ? record->size : 0, 0}).first;
        }
        arrival->second.next_offset = 0;
        arrival->second.total = header.total;
        arrival->second.host = header.host;
        record->state = DB_STATE_ARRIVING;
        record->type = header.type;
        record->module = header.module;
        record->flags = header.flags;
        record->priv = header.priv;
        record->shared = 1;
    } else if (arrival == g_arrivals.end() || arrival->second.next_offset != offset || record->type != header.type ||
               arrival->second.total != header.total) {
        msg_error_n(30, "unexpected piece %u of tag %#x from host %d", header.piece, tag, int(header.host));
        if (arrival != g_arrivals.end())
            transfer_broken(tag, record);
        return;
    }
    if (!serialized && (offset + header.length > header.total ||
                        (header.last && offset + header.length != header.total))) {
        msg_error_n(30, "piece %u of tag %#x from host %d does not fit its %u bytes", header.piece, tag,
                    int(header.host), header.total);
        transfer_broken(tag, record);
        return;
    }

    if (!serialized) {
        // The answer to a fetch of ours gets its whole block at the first piece, from the size
        // it announces, so the reader does not stop to grow it while the owner waits. Pieces
        // nobody here asked for (a flush push, a damaged stream) grow the block with what
        // arrived (at most doubling), so a header alone cannot make a large allocation.
        Arrival& progress = arrival->second;
        const uint64_t need = offset + header.length;
        uint64_t capacity = progress.capacity;
        if (header.last || (header.piece == 0 && awaited(tag, header.host)))
            capacity = std::max<uint64_t>(header.total, 1);
        else if (need > capacity)
            capacity = std::max(need, std::min<uint64_t>(header.total, std::max<uint64_t>(capacity * 2, 65536)));
        if (capacity != progress.capacity || !record->data) {
            resize_block(record, capacity, header.piece != 0);
            progress.capacity = capacity;
        }
    }

    // Flow control: the next eight pieces are asked for when the eighth of this window arrived.
    // The request goes out before this piece is copied, so the copy overlaps its round trip.
    if (!header.last && (uint64_t(header.piece) + 1) % DB_NET_WINDOW == 0) {
        if (debug_on())
            msg_debug("requesting tag %#x, offset %d from remote host %d", tag, int(header.piece + 1), int(header.host));
        if (!send_request(header.host, DB_NET_DATA_REQUEST, tag, header.piece + 1, DB_NET_WINDOW, 0))
            msg_error_n(34, "can't request tag %#x from host %d", tag, int(header.host));
    }

    if (serialized)
        QV::DB::serial_receive_piece(record, payload, offset, header.length, header.last);
    else if (header.length)
        std::memcpy(static_cast<uint8_t*>(record->data) + offset, payload, header.length);
    arrival->second.next_offset = offset + header.length;

    if (header.last) {
        g_arrivals.erase(arrival);
        Scene_swap_fn swap_record = serialized ? nullptr : qv_scene_handlers(record->type).swap;
        if (swap && swap_record)
            swap_record(record, true);
        {
            Lock_holder hold(g_global_lock);
            record->size = serialized ? std::max<uint32_t>(header.total, 1) : header.total;
            record->state = DB_STATE_NORMAL;
        }
        wake(tag, WAIT_DATA);
    }
}

// Opcode 0.
void reply_type(const Db_net_header& request)
{
    Db_record* record = record_peek(request.tag);
    if (record && record->state != DB_STATE_FREE && record->type == 38) {
        Db_net_header data_request = request;
        data_request.piece = 0;
        data_request.count = DB_NET_WINDOW;
        send_data(data_request);
        return;
    }
    Db_net_header reply{};
    reply.opcode = DB_NET_TYPE_REPLY;
    reply.tag = request.tag;
    reply.host = uint8_t(self());
    if (!record || record->state == DB_STATE_FREE) {
        msg_error_n(27, "could not reply type of db item");
    } else {
        fill_from_record(reply, record);
        if (record->shared != 2)
            record->shared = 1;
    }
    send(request.host, reply);
}

// Opcode 1.
void receive_type(const Db_net_header& header)
{
    if (header.tag == 0)
        return;
    Db_record* record = record_make(header.tag);
    record_make_lock(record);
    Lock_holder hold(g_global_lock);
    if (record->state == DB_STATE_FREE) {
        record->type = header.type;
        record->module = header.module;
        record->flags = header.flags;
        record->priv = header.priv;
        record->state = DB_STATE_NORMAL;
    }
    record->shared = 1;
    wake(header.tag, WAIT_TYPE);
}

// Frees a record's data and clears it, keeping its lock. Global lock held.
void drop_record(Db_tag tag, Db_record* record)
{
    if (g_arrivals.count(tag)) {
        transfer_broken(tag, record);
        return;
    }
    if (record->data && record->state != DB_STATE_ATTACHED)
        data_free(record->type, record->data);
    record->data = nullptr;
    record->size = 0;
    record->state = DB_STATE_FREE;
    record->shared = 0;
}

// Opcode 4.
void network_flush(uint8_t* payload, size_t length, bool swap)
{
    size_t count = length / 4;
    if (swap)
        qv_scene_swap_32(payload, count);
    for (size_t i = 0; i < count; ++i) {
        Db_tag tag;
        std::memcpy(&tag, payload + i * 4, 4);
        Db_record* record = tag ? record_peek(tag) : nullptr;
        if (!record || record->state == DB_STATE_FREE || qv_db_tag_owner(tag) == self())
            continue;
        if (g_job_hooks.keep_on_flush && g_job_hooks.keep_on_flush(tag))
            continue;
        msg_debug("flushing tag 0x%x on network request", tag);
        Lock_holder hold(g_global_lock);
        drop_record(tag, record);
    }
}

// Opcode 5.
void network_delete(Db_tag tag)
{
    if (tag == 0)
        return;
    if (qv_db_is_job(tag) && !(g_job_hooks.consent_delete && g_job_hooks.consent_delete(tag)))
        return;
    if (delay_if_bracketed(tag, 1))
        return;
    msg_debug("deleting tag 0x%x on network request", tag);
    Lock_holder hold(g_global_lock);
    Db_record* record = record_peek(tag);
    if (!record || record->state == DB_STATE_FREE)
        return;
    ++statistics().deletes;
    drop_record(tag, record);
    lock_destroy(&record->lock);
    std::memset(static_cast<void*>(record), 0, sizeof(Db_record));
    if (qv_db_tag_owner(tag) == self())
        slot_give_back(tag);
}

// Opcodes 7 and 8, on behalf of this host's network thread.
void network_pin(Thread_context* context, Db_tag tag, bool pin)
{
    Db_record* record = tag ? record_peek(tag) : nullptr;
    if (!record || record->state == DB_STATE_FREE || !context)
        return;
    uint32_t* pins = pins_of(context);
    // Not a hot path: under the global lock, so a flush walk sees the network's pins in order.
    Lock_holder hold(g_global_lock);
    if (pin)
        pin_chain(pins, record);
    else if (pins[record->pidx] > 0)
        unpin_chain(pins, record);
    else
        msg_debug("unpin of tag %#x by network without a pin", tag);
}

}  // namespace

bool send_request(uint32_t host, int32_t opcode, Db_tag tag, uint32_t piece, uint16_t count, uint8_t flags)
{
    Db_net_header header{};
    header.opcode = opcode;
    header.tag = tag;
    header.piece = piece;
    header.count = count;
    header.flags = flags;
    header.host = uint8_t(self());
    return send(host, header);
}

// ---- Waiters ----------------------------------------------------------------------------------

bool waiter_add(Waiter* waiter, Db_tag tag, Waiter_kind kind, uint32_t host)
{
    waiter->tag = tag;
    waiter->kind = kind;
    waiter->host = host;
    waiter->set = false;
    Lock_holder hold(g_waiters_lock);
    bool others = false;
    for (Waiter* node = g_waiters; node && !others; node = node->next)
        others = node->active && node->tag == tag &&
                 (node->kind == kind || (kind == WAIT_TYPE && node->kind == WAIT_DATA));
    waiter->active = true;
    waiter->prev = nullptr;
    waiter->next = g_waiters;
    if (g_waiters)
        g_waiters->prev = waiter;
    g_waiters = waiter;
    return others;
}

void waiter_wait(Waiter* waiter)
{
    std::unique_lock<std::mutex> hold(waiter->mutex);
    waiter->event.wait(hold, [waiter] { return waiter->set; });
}

void waiter_remove(Waiter* waiter)
{
    Lock_holder hold(g_waiters_lock);
    if (waiter->prev)
        waiter->prev->next = waiter->next;
    else if (g_waiters == waiter)
        g_waiters = waiter->next;
    if (waiter->next)
        waiter->next->prev = waiter->prev;
    waiter->next = waiter->prev = nullptr;
    waiter->active = false;
}

void wake(Db_tag tag, Waiter_kind kind)
{
    msg_debug("remote host sent %s of tag %#x", KIND_NAMES[kind], tag);
    int woken = 0;
    {
        Lock_holder hold(g_waiters_lock);
        for (Waiter* node = g_waiters; node; node = node->next) {
            if (!node->active || node->tag != tag ||
                !(node->kind == kind || (kind == WAIT_DATA && node->kind == WAIT_TYPE)))
                continue;
            node->active = false;
            {
                std::lock_guard<std::mutex> set(node->mutex);
                node->set = true;
                node->event.notify_one();
            }
            ++woken;
            if (kind == WAIT_LOCK || kind == WAIT_UNLOCK)
                break;
        }
    }
    if (woken)
        return;
    if (kind == WAIT_TYPE)
        msg_error_n(22, "got tag %#x type reply but nobody wants it", tag);
    else
        msg_debug("got tag %#x %s reply but nobody wants it", tag, KIND_NAMES[kind]);
}

void wake_host_lost(uint32_t host)
{
    // What that host had sent of a transfer will not be completed: the records forget it, so
    // they hold no half block and a later access asks again.
    std::vector<Db_tag> broken;
    for (const auto& [tag, arrival] : g_arrivals)
        if (arrival.host == host)
            broken.push_back(tag);
    for (Db_tag tag : broken) {
        if (Db_record* record = record_peek(tag))
            discard_partial(tag, record);
        else
            g_arrivals.erase(tag);
    }
    Lock_holder hold(g_waiters_lock);
    for (Waiter* node = g_waiters; node; node = node->next) {
        if (!node->active || node->host != host)
            continue;
        node->active = false;
        std::lock_guard<std::mutex> set(node->mutex);
        node->set = true;
        node->event.notify_one();
    }
}

// ---- Handler ----------------------------------------------------------------------------------

void handle(Thread_context* context, void* buffer, size_t length, bool swap)
{
    Module_scope scope(MOD_DB);
    double start = now_seconds();
    Db_statistics& stats = statistics();
    ++stats.server_ops;
    stats.kbytes_received += double(length / 1024);
    auto* bytes = static_cast<uint8_t*>(buffer);
    if (length < DB_NET_HEADER_BYTES) {
        msg_error_n(28, "received net msg of %zu bytes, shorter than its header", length);
        return;
    }
    Db_net_header header;
    std::memcpy(&header, bytes, sizeof header);
    if (swap)
        qv_scene_swap_layout(&header, DB_NET_HEADER_LAYOUT);
    if (header.opcode < 0 || header.opcode >= DB_NET_OPCODES) {
        msg_error_n(26, "received net msg with bad opcode %d", header.opcode);
        return;
    }
    if (header.length != length - DB_NET_HEADER_BYTES || header.length > DB_NET_PIECE_BYTES) {
        msg_error_n(28, "received net msg with payload length %u in %zu bytes", header.length, length);
        return;
    }
    // Type numbers index the handler tables: one out of range would pick another type's.
    if (header.type >= DB_TYPES) {
        msg_error_n(28, "received net msg for tag %#x with bad type %d", header.tag, int(header.type));
        return;
    }
    uint8_t* payload = bytes + DB_NET_HEADER_BYTES;
    switch (header.opcode) {
    case DB_NET_TYPE_REQUEST: reply_type(header); break;
    case DB_NET_TYPE_REPLY: receive_type(header); break;
    case DB_NET_DATA_REQUEST: send_data(header); break;
    case DB_NET_DATA_PIECE: receive_piece(header, payload, swap); break;
    case DB_NET_FLUSH: network_flush(payload, header.length, swap); break;
    case DB_NET_DELETE: network_delete(header.tag); break;
    case DB_NET_STATS: qv_db_stats(); break;
    case DB_NET_PIN: network_pin(context, header.tag, true); break;
    case DB_NET_UNPIN: network_pin(context, header.tag, false); break;
    case DB_NET_LOCK_REQUEST:
        if (self() != 0 || header.host == 0)
            msg_error_n(28, "lock request for tag %#x from host %d not on the master", header.tag, int(header.host));
        else
            master_lock(header.tag, header.host);
        break;
    case DB_NET_LOCK_GRANTED: wake(header.tag, WAIT_LOCK); break;
    case DB_NET_UNLOCK:
        if (self() != 0 || header.host == 0) {
            msg_error_n(28, "unlock of tag %#x from host %d not on the master", header.tag, int(header.host));
            break;
        }
        master_unlock(header.tag, header.host, false);
        if (header.flags)
            send_request(header.host, DB_NET_UNLOCK_REPLY, header.tag, 0, 0, 0);
        break;
    case DB_NET_UNLOCK_REPLY: wake(header.tag, WAIT_UNLOCK); break;
    default: break;
    }
    stats.server_seconds += now_seconds() - start;
}

// ---- Remote hooks -----------------------------------------------------------------------------

int fetch(Db_tag tag, Db_record* record, bool type_only, uint32_t owner)
{
    double start = now_seconds();
    Db_statistics& stats = statistics();
    const Waiter_kind kind = type_only ? WAIT_TYPE : WAIT_DATA;
    Waiter waiter;
    bool others = waiter_add(&waiter, tag, kind, owner);
    ++stats.requests;
    ++stats.request_errors;
    if (others) {
        msg_debug("waiting for tag %s %#x too", KIND_NAMES[kind], tag);
    } else if (record->state == DB_STATE_NORMAL && (record->data || type_only)) {
        // It arrived meanwhile: nothing was asked for.
        waiter_remove(&waiter);
        --stats.requests;
        --stats.request_errors;
        return 1;
    } else {
        msg_debug("sending request for tag %s %#x to host %d", KIND_NAMES[kind], tag, int(owner));
        if (!qv_msg_host_live(owner))
            msg_fatal_n(60, "invalid tag value %#x requested", tag);
        bool sent = type_only ? send_request(owner, DB_NET_TYPE_REQUEST, tag, 0, 0, 0)
                              : send_request(owner, DB_NET_DATA_REQUEST, tag, 0, DB_NET_WINDOW, 0);
        if (!sent) {
            msg_error_n(24, "can't request tag %#x from host %d", tag, int(owner));
            waiter_remove(&waiter);
            stats.request_seconds += now_seconds() - start;
            return 0;
        }
    }
    waiter_wait(&waiter);
    msg_debug("wakeup on tag %#x %s", tag, KIND_NAMES[kind]);
    bool good = type_only ? record->state != DB_STATE_FREE
                          : record->data != nullptr && record->state != DB_STATE_ARRIVING;
    if (!type_only && !good)
        msg_error_n(25, "failed to read tag %x data from host %d", tag, int(owner));
    if (good) {
        record->shared = 1;
        --stats.request_errors;
    }
    waiter_remove(&waiter);
    stats.request_seconds += now_seconds() - start;
    return good ? 1 : 0;
}

void send_pin(Db_tag tag, uint32_t owner, bool pin)
{
    if (!send_request(owner, pin ? DB_NET_PIN : DB_NET_UNPIN, tag, 0, 0, 0))
        msg_warn_n(4, "can't send pin of tag %#x", tag);
}

void broadcast_delete(Db_tag tag)
{
    ++statistics().deletes;
    if (!send_request((tag & 0xFFFFFF00u) | QV_MSG_ALL_HOSTS, DB_NET_DELETE, tag, 0, 0, 0))
        msg_warn_n(1, "can't broadcast delete of tag %#x", tag);
}

void broadcast_stats() { send_request(QV_MSG_ALL_HOSTS, DB_NET_STATS, 0, 0, 0, 0); }

void push_flush(Db_tag tag, Db_record* record)
{
    ++statistics().flushes;
    Db_net_header header{};
    header.opcode = DB_NET_FLUSH;
    header.tag = tag;
    header.total = 4;
    header.host = uint8_t(self());
    msg_debug("broadcast flushing tag 0x%x", tag);
    if (!send(QV_MSG_ALL_HOSTS, header, &tag, 4))
        msg_warn_n(2, "can't broadcast flush of tag 0x%x", tag);
    record->shared = 0;

    const uint32_t owner = qv_db_tag_owner(tag);
    if (owner == self())
        return;
    {
        Lock_holder hold(record->lock);
        __atomic_store_n(&record->shared, uint8_t(2), __ATOMIC_RELEASE);
    }
    msg_debug("push flushing data of tag 0x%x, size %d", tag, int(record->size));
    // Our own handler serves the request as if the owner had asked for the data.
    Db_net_header request{};
    request.opcode = DB_NET_DATA_REQUEST;
    request.tag = tag;
    request.count = DB_NET_WINDOW;
    request.host = uint8_t(owner);
    if (!send_data(request)) {
        msg_error_n(21, "can't initiate flush send for tag %#x on host %d", tag, int(owner));
        record->shared = 0;
        return;
    }
    while (__atomic_load_n(&record->shared, __ATOMIC_ACQUIRE) == 2 && qv_msg_host_live(owner)) {
        msg_debug("waiting for flush of tag 0x%x", tag);
        thread_sleep(1000);
    }
    msg_debug("flush of tag 0x%x confirmed", tag);
}

void install_hooks()
{
    g_saved_hooks = qv_db_remote_hooks();
    Db_remote_hooks hooks{};
    hooks.host_live = qv_msg_host_live;
    hooks.fetch = fetch;
    hooks.send_pin = send_pin;
    hooks.broadcast_delete = broadcast_delete;
    hooks.push_flush = push_flush;
    hooks.broadcast_stats = broadcast_stats;
    hooks.cluster_lock = cluster_lock;
    hooks.cluster_unlock = cluster_unlock;
    hooks.net_handler = handle;
    qv_db_set_remote_hooks(hooks);
}

void remove_hooks() { qv_db_set_remote_hooks(g_saved_hooks); }

}  // namespace qv_db_net
