// The element database (module DB): every large object of the runtime lives under a 32-bit tag.
//
// A tag is read two ways. As an address: bits 31..24 pick one of 256 directory blocks, bits
// 23..10 one of 16,384 pages in it, bits 9..0 one of 1,024 records in the page. As an ownership
// statement: bit 31 set means host (bits 30..24) allocated it, clear means the master (host 0);
// bits 31..30 == 01 make a job tag, whose data is a recomputable job result.
//
// Thread rules. Directory blocks and pages are never moved or freed before qv_db_exit, so the
// tag-to-record walk and the field reads of an existing record take no lock. Pins are counters
// in the calling thread's own array (Thread_context::db_pins) and are only ever written by that
// thread. Create, delete, realloc and the table scans run under the database's global lock.
//
// Failure style: broken invariants and impossible tags end the process with the module's
// numbered fatal; wrong but survivable calls (unpin of tag 0, double delete) report a numbered
// error and return.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/locks.h"
#include "runtime/modules.h"

using Db_tag = uint32_t;

constexpr Db_tag DB_NULL_TAG = 0;
constexpr int DB_DIRECTORIES = 256;
constexpr int DB_PAGES_PER_DIRECTORY = 16384;
constexpr int DB_RECORDS_PER_PAGE = 1024;
constexpr int DB_PIN_SLOTS = 32767;            // counters per thread pin array
constexpr int DB_PIN_SHARED_SLOTS = 31744;     // pidx band of ordinary elements
constexpr int DB_TYPES = 128;
constexpr int DB_TYPE_SERIALIZABLE = 63;       // objects derived from Element_base
constexpr int DB_TYPE_RCB_SPLIT_JOB = 91;      // pinned in a pidx band of its own

// Record states.
enum Db_state : uint8_t {
    DB_STATE_FREE = 0,       // free, or nothing known about the tag on this host
    DB_STATE_NORMAL = 1,     // data, if any, belongs to the database
    DB_STATE_ARRIVING = 2,   // data is arriving piecewise from another host; readers wait
    DB_STATE_ATTACHED = 3,   // data belongs to whoever attached it
    DB_STATE_FLUSHING = 4,   // an eviction is deciding about this record right now
};

// One per tag, 48 bytes; the field order is that of the dump's columns.
struct Db_record {
    Lock lock;              //  0: per-record lock; made at first touch, destroyed at delete
    void* data;             //  8: element bytes, or the Element_base object for type 63
    Db_record* parent;      // 16: record of the job that made this element; pins walk it
    uint32_t size;          // 24: bytes of data; never 0 for a created element
    uint32_t lru_stamp;     // 28: LRU clock at the last touch
    uint32_t refs;          // 32: 0 at creation; only the dump reads it here
    uint16_t pidx;          // 36: pin-counter slot in every thread's pin array
    uint8_t type;           // 38: element type 0..127
    uint8_t module;         // 39: module current at creation
    uint8_t state;          // 40: Db_state
    uint8_t flags;          // 41: private bits carried across hosts
    uint8_t priv;           // 42: private byte carried across hosts
    uint8_t shared;         // 43: 0 local only, 1 known elsewhere, 2 flush push under way
    uint8_t reserved[4];    // 44: padding to the 48-byte stride
};
static_assert(sizeof(Db_record) == 48, "a page holds 1,024 records of 48 bytes");
static_assert(offsetof(Db_record, data) == 8);
static_assert(offsetof(Db_record, parent) == 16);
static_assert(offsetof(Db_record, size) == 24);
static_assert(offsetof(Db_record, lru_stamp) == 28);
static_assert(offsetof(Db_record, refs) == 32);
static_assert(offsetof(Db_record, pidx) == 36);
static_assert(offsetof(Db_record, type) == 38);
static_assert(offsetof(Db_record, module) == 39);
static_assert(offsetof(Db_record, state) == 40);
static_assert(offsetof(Db_record, shared) == 43);

// The access path looks at a record's data and state without its lock (it waits out an arriving
// or flushing element by looking again), so every store of either field and those looks are atomic.
inline void* qv_db_data_peek(const Db_record* record)
{
    return __atomic_load_n(&record->data, __ATOMIC_ACQUIRE);
}
inline void qv_db_data_store(Db_record* record, void* data)
{
    __atomic_store_n(&record->data, data, __ATOMIC_RELEASE);
}
inline uint8_t qv_db_state_peek(const Db_record* record)
{
    return __atomic_load_n(&record->state, __ATOMIC_ACQUIRE);
}
inline void qv_db_state_store(Db_record* record, uint8_t state)
{
    __atomic_store_n(&record->state, state, __ATOMIC_RELEASE);
}

// ---- Tag arithmetic (no record is touched) ---------------------------------------------------
inline bool qv_db_is_job(Db_tag tag) { return (tag & 0xC0000000u) == 0x40000000u; }
// Host that allocated the tag: bits 30..24 when bit 31 is set, else the master.
inline uint32_t qv_db_tag_owner(Db_tag tag) { return (tag & 0x80000000u) ? (tag >> 24) & 0x7Fu : 0u; }
inline int qv_db_tag_directory(Db_tag tag) { return int(tag >> 24); }
inline int qv_db_tag_page(Db_tag tag) { return int((tag >> 10) & 0x3FFFu); }
inline int qv_db_tag_slot(Db_tag tag) { return int(tag & 0x3FFu); }

// The 128-character type flag string; only 'y' means anything.
extern const char DB_TYPE_FLAGS[DB_TYPES + 1];
// True for a tracked type: its elements are pinned and may be dropped under memory pressure.
inline bool qv_db_type_tracked(int type) { return type >= 0 && type < DB_TYPES && DB_TYPE_FLAGS[type] == 'y'; }
// A tag is tracked when it is a job tag or its type is tracked.
inline bool qv_db_tracked(Db_tag tag, int type) { return qv_db_is_job(tag) || qv_db_type_tracked(type); }

// ---- Start and stop ------------------------------------------------------------------------
// Creates the global locks, registers DB's 1-byte context area (the delete-in-progress byte) and
// the network handler of module 4, reads QV_DEBUG_SLAVE_TAGS. Call once on the main thread.
void qv_db_init();
bool qv_db_started();
// Frees every element (type 63 through its type handler with the delete-in-progress byte set,
// except attached data), every record lock, page and directory, and the global locks.
void qv_db_exit();

// ---- Create ----------------------------------------------------------------------------------
// Allocates a tag of `type` and returns its data. Without `data`, `size` bytes (0 becomes 1) are
// allocated zeroed from module DB; with `data`, the database takes ownership of it. `module` is
// the caller's current module. A tracked type stays pinned by the creating thread (unpin it when
// done); other types hold no pin. `parent` is the thread's current job record.
void* qv_db_create(Db_tag* tag, int type, uint32_t size, void* data = nullptr);
// Allocates a job tag without data; the creation pin is released. Returns 1.
int qv_db_create_job_tag(Db_tag* tag, int type, int module);

// ---- Access and pins -------------------------------------------------------------------------
// Access of a tracked element pins it (and its parent chain) for the calling thread: pair each
// with qv_db_unpin. Untracked elements (type 63, maps) are never pinned and need no unpin.
// The hot path (existing local tag) takes no lock and allocates nothing.
void* qv_db_access(Db_tag tag);
Db_record* qv_db_access_record(Db_tag tag);
void* qv_db_access_typed(Db_tag tag, int* type);
// Record lookup without running a job; pins if tracked.
Db_record* qv_db_pin(Db_tag tag);
// Error 12 for tag 0. Tracked: unpins the chain and stamps the record. Untracked: nothing.
void qv_db_unpin(Db_tag tag);
// Pin and unpin on an already looked-up record, for the given thread (its own thread only).
void qv_db_pin_record(Db_record* record, Thread_context* context);
void qv_db_unpin_record(Db_record* record, Thread_context* context);
uint32_t qv_db_size(Db_tag tag);
// Type through the type-only lookup; no pin.
uint8_t qv_db_type(Db_tag tag);
// The record if its directory and page exist, else null: no lock, no creation, no checks.
Db_record* qv_db_peek(Db_tag tag);

// ---- Record edits ----------------------------------------------------------------------------
void qv_db_set_type(Db_tag tag, int type);
// Tag 0 has no effect; a parent of 0 clears the link.
void qv_db_set_parent(Db_tag tag, Db_tag parent);
void* qv_db_realloc(Db_tag tag, uint32_t size);
// Frees the old data (type handler for type 63) and stores `data`, which the database now owns.
void* qv_db_replace(Db_tag tag, uint32_t size, void* data);
// Stores caller-owned data (state 3): the database never frees it on delete.
void qv_db_attach(Db_tag tag, void* data, uint32_t size);
// Drops the data but keeps the tag (state 1, data null, size 0).
void qv_db_release_data(Db_tag tag);
// `tag` shares `source`'s data block from now on.
void qv_db_alias(Db_tag tag, Db_tag source);
// A new tag with a byte copy of `tag`'s data; neither is left pinned.
Db_tag qv_db_dup(Db_tag tag);
void qv_db_mark_shared(Db_tag tag);
void qv_db_set_flags(Db_tag tag);
void qv_db_flush_tag(Db_tag tag);
// The cluster-wide lock of a tag; through the remote hooks, else the record's own lock.
void qv_db_lock(Db_tag tag);
void qv_db_unlock(Db_tag tag);

// ---- Delete ----------------------------------------------------------------------------------
// Frees the data and the tag. Queued instead while deletes are delayed (see below). Deleting a
// tag that is not alive on its owner reports error 38 once and changes nothing else.
void qv_db_delete(Db_tag tag);
// Frees locally, without telling other hosts.
void qv_db_delete_local(Db_tag tag);
// Clears the record without freeing its data.
void qv_db_forget(Db_tag tag);
// Delay bracket: deletes made inside it queue up and run at qv_db_run_delayed_deletes.
void qv_db_delay_deletes();
void qv_db_run_delayed_deletes();
// The calling thread's delete-in-progress byte (DB's context area); null without a context.
uint8_t* qv_db_delete_in_progress();

// ---- Jobs ------------------------------------------------------------------------------------
// The record of the job the calling thread runs now (held in Thread_context::db_held), or null.
// Elements made meanwhile get it as `parent`, so pinning them pins the job result too.
Db_record* qv_db_current_job();
// Tag 0 clears it. Returns the previous record so callers can nest.
Db_record* qv_db_set_current_job(Db_tag job_tag);
void qv_db_restore_current_job(Db_record* previous);

// Job runner hooks, filled by the job module. Null members behave as in a run without jobs:
// execute fails (fatal 37 on access of a job tag without data), consent and keep say 0.
struct Db_job_hooks {
    int (*execute)(Db_tag tag);         // makes the tag's data; not 0 on success
    int (*consent_delete)(Db_tag tag);  // not 0 if the job tag may be deleted
    int (*keep_on_flush)(Db_tag tag);   // not 0 if a network flush/delete must leave it
};
void qv_db_set_job_hooks(const Db_job_hooks& hooks);
const Db_job_hooks& qv_db_job_hooks();

// ---- Remote hooks ----------------------------------------------------------------------------
// The database's side of host messaging. Every member may be null; a null member acts as in a
// single-host run: no host is live, fetches fail, pins/broadcasts/flush pushes send nothing.
struct Db_remote_hooks {
    bool (*host_live)(uint32_t host);
    // Asks `owner` for the record (type_only) or the data of `tag`; waits for the reply.
    // Returns not 0 on success.
    int (*fetch)(Db_tag tag, Db_record* record, bool type_only, uint32_t owner);
    // Opcode 7 (pin true) or 8 to the owner.
    void (*send_pin)(Db_tag tag, uint32_t owner, bool pin);
    void (*broadcast_delete)(Db_tag tag);
    // The flush push of a shared record; returns when it has been confirmed.
    void (*push_flush)(Db_tag tag, Db_record* record);
    // Opcode 6 to all hosts after the master printed its statistics.
    void (*broadcast_stats)();
    void (*cluster_lock)(Db_tag tag);
    void (*cluster_unlock)(Db_tag tag);
    // Handler of module 4's network messages; qv_db_init registers a dispatcher to it.
    void (*net_handler)(Thread_context* context, void* buffer, size_t length, bool swap);
};
void qv_db_set_remote_hooks(const Db_remote_hooks& hooks);
const Db_remote_hooks& qv_db_remote_hooks();
// The host connect/disconnect check of QV_DEBUG_SLAVE_TAGS; the host layer calls it when the
// variable was set at init (qv_db_debug_slave_tags()). Host 0 is ignored.
void qv_db_host_event(uint32_t host, bool connecting);
bool qv_db_debug_slave_tags();
// Records with a state in directories 0x80|host and the next one.
int qv_db_count_host_tags(uint32_t host);

// ---- Per-type handlers -----------------------------------------------------------------------
// Filled by the scene type table and the element layer. A type without free_data has plain
// memory-manager data.
struct Db_type_handler {
    // Releases data owned by the database (type 63: the element's virtual destructor).
    void (*free_data)(void* data);
    // Class id shown by the dump for type 63; null gives plain "ser ".
    uint32_t (*class_id)(const void* data);
};
void qv_db_set_type_handler(int type, const Db_type_handler& handler);
const Db_type_handler& qv_db_type_handler(int type);
// Names for the dump and summary; null hooks print "". Each setter returns the hook it replaced.
using Db_type_name_fn = const char* (*)(int type);
using Db_tag_name_fn = const char* (*)(Db_tag tag);
Db_type_name_fn qv_db_set_type_name_hook(Db_type_name_fn type_name);
Db_tag_name_fn qv_db_set_tag_name_hook(Db_tag_name_fn tag_name);

// ---- Thread list ------------------------------------------------------------------------------
// What the flush needs from the thread table: every live thread's pin array, stable while held,
// plus the process-wide sum of ended threads' pins.
struct Db_thread_list {
    Thread_context** contexts;
    int count;
    const uint32_t* ended_pins;  // may be null
};
// Thread table hooks; when not set the database keeps its own list of threads with pin arrays
// (threads leave it through DB's context-area exit, before the thread table frees the array).
struct Db_thread_hooks {
    // Try-lock and fill; false if the list is busy.
    bool (*snapshot)(Db_thread_list* list);
    void (*release)(Db_thread_list* list);
};
void qv_db_set_thread_hooks(const Db_thread_hooks& hooks);
// Sum, modulo 2^32, of pin counter `pidx` over the list; not 0 means pinned.
uint32_t qv_db_pin_sum(const Db_thread_list* list, int pidx);

// ---- Memory pressure -------------------------------------------------------------------------
struct Db_flush_entry {
    Db_record* record;
    Db_tag tag;
    uint32_t stamp;  // lru_stamp when collected: readers go on stamping while the walk sorts
};
// Called under the global lock with unpinned tracked candidates, oldest lru_stamp first.
using Db_flush_fn = void (*)(void* user1, void* user2, Db_flush_entry* entries, int count,
                             Db_thread_list* threads);
// Returns at once, without calling `fn`, when the thread list is busy.
void qv_db_flush_walk(Db_flush_fn fn, void* user1, void* user2);
// Takes the data out of an unpinned record and returns it with the record's lock HELD: the
// caller disposes of the data, then lock_leave(record->lock). Null (lock left) when pinned.
void* qv_db_evict(uint32_t* out_size, Db_record* record, Db_thread_list* threads);
// The memory manager's flush callback: evicts the oldest unpinned droppable data until `bytes`
// are freed; returns the bytes freed.
size_t qv_db_memory_flush(size_t bytes);
// Last-resort walk before an out-of-memory end: frees all unpinned tracked plain data.
void qv_db_emergency_free();

// ---- LRU clock -------------------------------------------------------------------------------
uint32_t qv_db_clock();
// Adds 1; on wrap to 0 runs the timewarp (stamps >> 4, clock 0x10000000).
void qv_db_clock_advance();
// For tests and tools that need to place the clock.
void qv_db_set_clock(uint32_t value);

// ---- Reports ---------------------------------------------------------------------------------
// Tag list at info level; module 0 lists all.
void qv_db_dump(int module);
void qv_db_summary();
void qv_db_stats();

struct Db_statistics {
    int32_t tags;               // live tags
    int32_t creates;
    int32_t reallocs;
    int32_t deletes;
    int32_t flushes;
    int32_t requests;           // data/type requests
    int32_t request_errors;
    int32_t server_ops;
    double request_seconds;
    double server_seconds;
    double kbytes_received;
    double kbytes_sent;
    int32_t send_requests;
    double send_seconds;
};
// The live counters; the network layer adds to them directly (plain, unsynchronised).
Db_statistics& qv_db_statistics();
