// Thread table, thread start, capabilities and the message layer's close.
//
// Every thread the engine runs has a row in the thread table and a Thread_context in the
// thread-local slot. Rows 0..1023 are ordinary rows (row 0 is the main thread); row 1024 is
// reserved for contexts that left the table (thread_detach_current). Two locks guard the table:
// the start lock, then the table lock, always in this order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/modules.h"

constexpr int THREAD_TABLE_ROWS = 1024;
constexpr int THREAD_RESERVED_ROW = 1024;         // also the thread number of a detached context
constexpr int THREAD_ENDED_PIN_SLOTS = 32767;     // counters of the process-wide pin table
constexpr size_t THREAD_DEFAULT_STACK_BYTES = 2097152;
constexpr size_t THREAD_STACK_PAD_BYTES = 65536;  // room for the stagger of each thread's stack

// ---- Process start and the calling thread --------------------------------------------------

// Process start, right after the memory hooks: saves the main thread's scheduling priority
// (fatal 19 if unreadable), installs the default context in the thread-local slot, then runs
// thread_init_current. Returns non-zero on success. A second call does nothing and returns 1.
int thread_system_init();
// Gives the calling thread a row and a Thread_context (error 103 when no row is free).
// Returns the row or -1. Used for the main thread and for threads the system did not start; a
// thread that already has a row keeps it.
int thread_init_current();
// Clean-up of the calling thread: context areas destroyed, its pins folded into the process
// table, error text and block heap freed, row cleared, context freed, slot nulled.
void thread_end_current();
// Moves the calling thread's context to the reserved row; its thread number becomes 1024 and
// its old row is free for thread_alloc. The context stays installed in the slot.
void thread_detach_current();
// The calling thread's row from its context; 0 without a context.
int thread_number();
int processor_count();

// ---- Starting threads ----------------------------------------------------------------------

// Runs on the new thread with its own context installed and MSG as current module.
using Thread_function = void (*)(void* argument);

// Takes the first free row (error 100 "too many threads" and -1 when none is) and makes its
// zeroed context. A `counted` thread adds to thread_running_count while its function runs.
// The table lock is taken only once the host layer has started (before that one thread exists).
int thread_alloc(Thread_function function, void* argument, bool counted);
// Starts the thread of a row from thread_alloc. Returns 1 on success; on failure error 105 and
// the row is released. Threads are not joined: the thread ends itself through
// thread_end_current when its function returns.
int thread_start(int number);
// Asks the thread of a row (before thread_start) to call done(argument) as its very last act,
// after thread_end_current and the running count: a starter that waits for this knows the
// thread touches nothing of the system any more.
void thread_notify_end(int number, void (*done)(void* argument), void* argument);
// Gives back a row from thread_alloc whose thread was never started (its context is freed).
void thread_release(int number);
// Stack size of threads started from now on; 0 returns to QV_STACKSIZE (KB) or the default.
void thread_set_stack_size(size_t bytes);
// The stack size thread_start asks for, without the THREAD_STACK_PAD_BYTES it adds.
size_t thread_stack_size();
// Number of `counted` threads whose function is running (read under its own lock).
int thread_running_count();

// ---- Snapshot of all contexts ---------------------------------------------------------------

struct Thread_snapshot {
    Thread_context** contexts;   // newest row first (reserved row, then 1023 down to 0)
    int count;
    const uint32_t* ended_pins;  // THREAD_ENDED_PIN_SLOTS pins of ended threads, or null
};
// Try-locks the start lock and the table lock; on success fills the snapshot and returns it
// with the start lock still held (no thread can end meanwhile). Null when a lock was busy.
// The result stays valid until thread_snapshot_release, which the same thread must call.
const Thread_snapshot* thread_snapshot();
void thread_snapshot_release();

// ---- Host layer state as the message layer's close sees it ------------------------------------------

// The host layer's start flips this on (the host layer's qv_msg_exit and abort route read their
// own state; threads started before it exist on one host only).
void thread_set_host_layer_started(bool started);
bool thread_host_layer_started();


// ---- Capabilities ----------------------------------------------------------------------------

constexpr int CAPABILITY_LIST_CHARS = 450;
// Appends |name (each | in the name stored as #); error 20 when the list would reach 450.
void capability_register(const char* name);
// 1 when every local name occurs in `list`; otherwise error 21 for the first missing one and 0.
int capability_check_remote(const char* list);
// True when |name is in the remote list.
bool capability_has_remote(const char* name);
// The remote list as received from the other side (cut to 449 characters).
void capability_set_remote(const char* list);
// On a master: the remote list becomes a copy of the local one.
void capability_copy_local_to_remote();
const char* capability_local_list();
const char* capability_remote_list();

// ---- Small process-wide answers ---------------------------------------------------------------

// False when QV_NO_SSE is set; read once and cached.
bool sse_allowed();
// Splits a command string at blanks and tabs, honouring single and double quotes (a quote
// becomes a blank and toggles the quoted stretch). Returns the next token, zero-terminated in
// place, and moves *cursor behind it; null at the end.
char* option_token(char** cursor);
// Finds "-threads N" in `command` (modified in place by option_token); stores N in *threads
// only when it is at least 1. Returns true when a value was taken.
bool option_scan_threads(char* command, int* threads);
