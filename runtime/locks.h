// Locks: a recursive critical section behind a pointer-sized handle, and a reader-writer lock
// that prefers writers.
#pragma once

#include <mutex>

// A critical section: recursive for its owner. Usually reached through a Lock handle; a record
// that embeds one uses lock_init_in_place / lock_delete_in_place.
struct Lock_record {
    std::recursive_mutex mutex;
};
using Lock = Lock_record*;

// Constructs / destroys a critical section that is a member of a larger record; `section`
// points at raw storage of sizeof(Lock_record) bytes, suitably aligned.
void lock_init_in_place(Lock_record* section);
void lock_delete_in_place(Lock_record* section);

// Always returns 1; the handle is null only if allocation gave nothing.
int lock_create(Lock* handle);
// Nulls the handle first, then deletes; a null handle is accepted.
void lock_destroy(Lock* handle);
void lock_enter(Lock lock);
void lock_leave(Lock lock);
bool lock_try_enter(Lock lock);

// Scope holder for a Lock.
class Lock_holder {
public:
    explicit Lock_holder(Lock lock) : lock_(lock) { lock_enter(lock_); }
    ~Lock_holder() { lock_leave(lock_); }
    Lock_holder(const Lock_holder&) = delete;
    Lock_holder& operator=(const Lock_holder&) = delete;

private:
    Lock lock_;
};

// Scope object of the memory manager's accounting: takes the lock only if MEM has started and
// remembers that, so the same code runs before the locks exist. A null lock is never taken.
class Lock_guard {
public:
    explicit Lock_guard(Lock lock);
    ~Lock_guard()
    {
        if (held_)
            lock_leave(held_);
    }
    Lock_guard(const Lock_guard&) = delete;
    Lock_guard& operator=(const Lock_guard&) = delete;

private:
    Lock held_ = nullptr;
};

struct Rw_lock_record;
using Rw_lock = Rw_lock_record*;

// Writers before readers: a reader that arrives while a writer holds or waits for the lock
// blocks until the writer has been and gone. The try forms never wait; a failed try leaves the
// waiting counts as they were.
int rw_create(Rw_lock* handle);
void rw_destroy(Rw_lock* handle);
void rw_lock(Rw_lock lock, bool write);
bool rw_try_lock(Rw_lock lock, bool write);
void rw_unlock(Rw_lock lock, bool write);
// 1 while a writer holds it, minus the number of readers while readers hold it, 0 when free.
int rw_count(Rw_lock lock);
// Threads now blocked in rw_lock, by kind (for reports and tests).
void rw_waiting_counts(Rw_lock lock, int* readers, int* writers);

// Below 1,001 microseconds sleeps 1 ms, otherwise microseconds / 1,000 ms.
void thread_sleep(unsigned microseconds);
