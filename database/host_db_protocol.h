// The database's protocol between hosts: one fixed 36-byte header, at most 1,364 payload bytes.
//
// Byte order is the sender's; a receiver told that it differs swaps the header with the layout
// "6i3cscc". Data moves in pieces of 1,364 bytes, eight in flight: the receiver asks for the next
// eight after each piece whose index + 1 is a multiple of 8.
//
// Thread rules: the handler runs on the reader thread of the host layer, one message at a time.
// Fetches, flush pushes and cluster locks run on any thread and sleep on an event of their own
// until the reader thread wakes them; those waits have no timeout.
#pragma once

#include <cstddef>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "database/db.h"

struct Thread_context;

constexpr size_t DB_NET_HEADER_BYTES = 36;
constexpr size_t DB_NET_PIECE_BYTES = 1364;
constexpr size_t DB_NET_MESSAGE_BYTES = DB_NET_HEADER_BYTES + DB_NET_PIECE_BYTES;
constexpr int DB_NET_WINDOW = 8;               // pieces per data request
constexpr const char* DB_NET_HEADER_LAYOUT = "6i3cscc";

enum Db_net_opcode : int32_t {
    DB_NET_TYPE_REQUEST = 0,
    DB_NET_TYPE_REPLY = 1,
    DB_NET_DATA_REQUEST = 2,
    DB_NET_DATA_PIECE = 3,
    DB_NET_FLUSH = 4,
    DB_NET_DELETE = 5,
    DB_NET_STATS = 6,
    DB_NET_PIN = 7,
    DB_NET_UNPIN = 8,
    DB_NET_LOCK_REQUEST = 9,
    DB_NET_LOCK_GRANTED = 10,
    DB_NET_UNLOCK = 11,
    DB_NET_UNLOCK_REPLY = 12,
    DB_NET_OPCODES = 13,
};

struct Db_net_header {
    int32_t opcode;     //  0: Db_net_opcode
    uint32_t total;     //  4: whole size of the element's data in bytes
    uint32_t tag;       //  8: the tag
    uint32_t piece;     // 12: index of this piece, or the first piece wanted
    uint32_t length;    // 16: payload bytes in this message
    uint32_t stamp;     // 20: sender's lru_stamp
    uint32_t reserved;  // 24: 0
    uint8_t type;       // 28: record's type
    uint8_t module;     // 29: record's module
    uint8_t flags;      // 30: record's flags; in an unlock: not 0 if a reply is wanted
    uint8_t priv;       // 31: record's priv
    uint16_t count;     // 32: pieces wanted
    uint8_t host;       // 34: sender (for requests, the requester)
    uint8_t last;       // 35: 1 in the last piece
};
static_assert(sizeof(Db_net_header) == DB_NET_HEADER_BYTES);
static_assert(offsetof(Db_net_header, total) == 4);
static_assert(offsetof(Db_net_header, stamp) == 20);
static_assert(offsetof(Db_net_header, type) == 28);
static_assert(offsetof(Db_net_header, priv) == 31);
static_assert(offsetof(Db_net_header, count) == 32);
static_assert(offsetof(Db_net_header, host) == 34);
static_assert(offsetof(Db_net_header, last) == 35);

struct Db_net_message {
    Db_net_header header;
    uint8_t payload[DB_NET_PIECE_BYTES];
};
static_assert(sizeof(Db_net_message) == DB_NET_MESSAGE_BYTES);

namespace qv_db_net {

// Handler of module 4's messages. `buffer` holds `length` bytes and may be changed. A message
// shorter than the header, with a payload length that does not match, a bad opcode or a piece
// that does not fit is reported and dropped.
void handle(Thread_context* context, void* buffer, size_t length, bool swap);

// The remote hooks of the protocol (host_db_protocol.cpp and host_db_locks.cpp).
int fetch(Db_tag tag, Db_record* record, bool type_only, uint32_t owner);
void send_pin(Db_tag tag, uint32_t owner, bool pin);
void broadcast_delete(Db_tag tag);
void push_flush(Db_tag tag, Db_record* record);
void broadcast_stats();
void cluster_lock(Db_tag tag);
void cluster_unlock(Db_tag tag);

// The lock table on the master. `host` is the holder's host; 0 means a thread of the master,
// which then is the calling thread. `on_grant` runs when a remote host gets the lock.
void master_lock(Db_tag tag, uint32_t host);
// `release` asks for the flush of the tag once the last holder is gone. Returns false (error 23
// reported) if `host`/the calling thread does not hold the tag's lock.
bool master_unlock(Db_tag tag, uint32_t host, bool release);
// Number of tags in the lock table (held or waited for).
int master_locks_in_table();

// Waking the threads that wait for `tag`: kinds 0 data, 1 type, 2 lock, 3 unlock.
enum Waiter_kind { WAIT_DATA = 0, WAIT_TYPE = 1, WAIT_LOCK = 2, WAIT_UNLOCK = 3 };
void wake(Db_tag tag, Waiter_kind kind);
// Wakes every thread that waits for an answer of `host`, whose connection is gone: their
// fetches fail as if the host had nothing. Transfers from `host` under way are dropped. Reader
// thread only.
void wake_host_lost(uint32_t host);

// A waiter node lives on the waiting thread's stack, in one list under the waiters lock.
struct Waiter {
    Waiter* next = nullptr;
    Waiter* prev = nullptr;
    std::mutex mutex;               // the node's event: `set` under `mutex`, signalled by `event`
    std::condition_variable event;
    bool set = false;
    Db_tag tag = 0;
    Waiter_kind kind = WAIT_DATA;
    uint32_t host = 0;              // the host asked
    bool active = false;            // cleared by the waker, under the waiters lock
};
// Links `waiter` in. True if another active waiter already asked for the same thing (same tag
// and kind, or data when the type is wanted), so no request needs to go out.
bool waiter_add(Waiter* waiter, Db_tag tag, Waiter_kind kind, uint32_t host);
void waiter_wait(Waiter* waiter);
void waiter_remove(Waiter* waiter);
// Sends a message of `opcode` for `tag` to `host`, with our host in the header.
bool send_request(uint32_t host, int32_t opcode, Db_tag tag, uint32_t piece, uint16_t count, uint8_t flags);

}  // namespace qv_db_net
