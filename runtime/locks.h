// Locks: a recursive critical section behind a pointer-sized handle, and a reader-writer lock
// that prefers writers.
#pragma once

struct Lock_record;
using Lock = Lock_record*;

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

struct Rw_lock_record;
using Rw_lock = Rw_lock_record*;

int rw_create(Rw_lock* handle);
void rw_destroy(Rw_lock* handle);
void rw_lock(Rw_lock lock, bool write);
bool rw_try_lock(Rw_lock lock, bool write);
void rw_unlock(Rw_lock lock, bool write);
// 1 while a writer holds it, minus the number of readers while readers hold it, 0 when free.
int rw_count(Rw_lock lock);

// Below 1,001 microseconds sleeps 1 ms, otherwise microseconds / 1,000 ms.
void thread_sleep(unsigned microseconds);
