#include "runtime/locks.h"

#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <chrono>

#include "base/lib/mem/i_mem_allocatable.h"

int lock_create(Lock* handle)
{
    void* memory = mem_alloc("lock", 0, sizeof(Lock_record));
    *handle = memory ? new (memory) Lock_record() : nullptr;
    return 1;
}

void lock_destroy(Lock* handle)
{
    if (!handle || !*handle)
        return;
    Lock lock = *handle;
    *handle = nullptr;
    lock->~Lock_record();
    mem_free("lock", 0, lock);
}

void lock_init_in_place(Lock_record* section) { new (section) Lock_record(); }
void lock_delete_in_place(Lock_record* section) { section->~Lock_record(); }

Lock_guard::Lock_guard(Lock lock)
{
    if (lock && mem_started()) {
        lock_enter(lock);
        held_ = lock;
    }
}

void lock_enter(Lock lock) { lock->mutex.lock(); }
void lock_leave(Lock lock) { lock->mutex.unlock(); }
bool lock_try_enter(Lock lock) { return lock->mutex.try_lock(); }

// Writers are preferred: a reader waits while a writer holds the lock or waits for it.
struct Rw_lock_record {
    std::mutex guard;
    std::condition_variable readers_event;
    std::condition_variable writers_event;
    int count = 0;  // 1 writer, -n readers, 0 free
    int waiting_readers = 0;
    int waiting_writers = 0;
};

int rw_create(Rw_lock* handle)
{
    void* memory = mem_alloc("rwlock", 0, sizeof(Rw_lock_record));
    *handle = new (memory) Rw_lock_record();
    return 1;
}

void rw_destroy(Rw_lock* handle)
{
    if (!handle || !*handle)
        return;
    Rw_lock lock = *handle;
    *handle = nullptr;
    lock->~Rw_lock_record();
    mem_free("rwlock", 0, lock);
}

void rw_lock(Rw_lock lock, bool write)
{
    std::unique_lock<std::mutex> hold(lock->guard);
    if (write) {
        ++lock->waiting_writers;
        lock->writers_event.wait(hold, [lock] { return lock->count == 0; });
        --lock->waiting_writers;
        lock->count = 1;
    } else {
        ++lock->waiting_readers;
        lock->readers_event.wait(hold, [lock] { return lock->count <= 0 && lock->waiting_writers == 0; });
        --lock->waiting_readers;
        --lock->count;
    }
}

bool rw_try_lock(Rw_lock lock, bool write)
{
    std::lock_guard<std::mutex> hold(lock->guard);
    if (write) {
        if (lock->count != 0)
            return false;
        lock->count = 1;
        return true;
    }
    if (lock->count > 0 || lock->waiting_writers > 0)
        return false;
    --lock->count;
    return true;
}

void rw_unlock(Rw_lock lock, bool write)
{
    std::lock_guard<std::mutex> hold(lock->guard);
    if (write)
        lock->count = 0;
    else
        ++lock->count;
    if (lock->count == 0) {
        if (lock->waiting_writers > 0)
            lock->writers_event.notify_one();
        else if (lock->waiting_readers > 0)
            lock->readers_event.notify_all();
    }
}

int rw_count(Rw_lock lock)
{
    std::lock_guard<std::mutex> hold(lock->guard);
    return lock->count;
}

void rw_waiting_counts(Rw_lock lock, int* readers, int* writers)
{
    std::lock_guard<std::mutex> hold(lock->guard);
    *readers = lock->waiting_readers;
    *writers = lock->waiting_writers;
}

void thread_sleep(unsigned microseconds)
{
    unsigned ms = microseconds < 1001 ? 1 : microseconds / 1000;
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
