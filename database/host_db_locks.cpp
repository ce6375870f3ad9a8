// Cluster-wide tag locks. Every lock lives on the master, in a table from tag to a lock object;
// slaves ask for it by message and sleep until it is granted. A single host is a master without
// slaves and uses the same table.
//
// The extended lock of an object is held by one thread of the master (re-entrant for it) or by
// one slave. Remote requests never block the reader thread: they are queued and granted by the
// unlock that frees the lock, which then sends the grant.
#include <list>
#include <thread>
#include <unordered_map>

#include "database/db_internal.h"
#include "database/host_db_protocol.h"
#include "database/host_messaging.h"
#include "runtime/msg.h"

namespace qv_db_net {

using namespace qv_db_detail;

namespace {

struct Pending {
    bool local;
    std::thread::id thread;   // local: the waiting thread
    uint32_t host;            // remote: the waiting slave
    bool granted = false;     // local: set under the extended lock's mutex
};

enum class Holder { FREE, LOCAL, REMOTE };

struct Extended_lock {
    std::mutex mutex;
    std::condition_variable event;    // local waiters sleep here
    int busy = 0;                     // holders (with depth) and waiters
    Holder holder = Holder::FREE;
    std::thread::id thread;
    uint32_t host = 0;
    int depth = 0;
    std::list<Pending*> queue;        // callbacks in arrival order
};

struct Lock_object {
    int count = 0;                    // lock calls not yet matched by an unlock
    bool release_pending = false;     // flush the tag once it is free
    Extended_lock lock;
};

std::unordered_map<Db_tag, Lock_object*> g_locks;   // under g_cluster_table_lock

void destroy(Lock_object* object)
{
    if (object->lock.busy != 0)
        msg_error_n(444, "extended lock is busy, count %i", object->lock.busy);
    delete object;
}

// The flush a release asked for, run by the next holder before it goes on.
void flush_if_pending(Db_tag tag, Lock_object* object)
{
    Db_record* record = record_peek(tag);
    bool pending;
    {
        std::lock_guard<std::mutex> hold(object->lock.mutex);
        pending = object->release_pending && record && record->shared;
        if (pending)
            object->release_pending = false;
    }
    if (pending && g_remote_hooks.push_flush)
        g_remote_hooks.push_flush(tag, record);
}

// Runs when a slave gets the lock: the pending flush first, then the grant.
void grant_remote(Db_tag tag, Lock_object* object, uint32_t host)
{
    flush_if_pending(tag, object);
    if (!send_request(host, DB_NET_LOCK_GRANTED, tag, 0, 0, 0))
        msg_error_n(14, "can't send lock confirm of tag %#x to host %#x", tag, host);
}

void slave_lock(Db_tag tag)
{
    Waiter waiter;
    waiter_add(&waiter, tag, WAIT_LOCK, 0);
    msg_debug("sending request for tag lock %#x", tag);
    if (!send_request(0, DB_NET_LOCK_REQUEST, tag, 0, 0, 0)) {
        msg_error_n(20, "can't request tag lock %#x from master", tag);
        waiter_remove(&waiter);
        return;
    }
    waiter_wait(&waiter);
    msg_debug("wakeup on tag %#x lock", tag);
    waiter_remove(&waiter);
}

void slave_unlock(Db_tag tag)
{
    // The reply is always asked for: the caller returns when the master has let the lock go.
    Waiter waiter;
    waiter_add(&waiter, tag, WAIT_UNLOCK, 0);
    if (!send_request(0, DB_NET_UNLOCK, tag, 0, DB_NET_WINDOW, 1)) {
        msg_error_n(19, "can't send tag %#x unlock to master", tag);
        waiter_remove(&waiter);
        return;
    }
    waiter_wait(&waiter);
    msg_debug("wakeup on tag %#x unlock", tag);
    waiter_remove(&waiter);
}

}  // namespace

void master_lock(Db_tag tag, uint32_t host)
{
    Lock_object* object;
    {
        Lock_holder hold(g_cluster_table_lock);
        Lock_object*& slot = g_locks[tag];
        if (!slot)
            slot = new Lock_object();
        object = slot;
        ++object->count;
    }
    Extended_lock& lock = object->lock;
    if (host == 0) {
        const std::thread::id me = std::this_thread::get_id();
        std::unique_lock<std::mutex> hold(lock.mutex);
        ++lock.busy;
        if (lock.holder == Holder::LOCAL && lock.thread == me) {
            ++lock.depth;
        } else if (lock.holder == Holder::FREE) {
            lock.holder = Holder::LOCAL;
            lock.thread = me;
            lock.depth = 1;
        } else {
            Pending pending{true, me, 0};
            lock.queue.push_back(&pending);
            lock.event.wait(hold, [&pending] { return pending.granted; });
        }
        hold.unlock();
        flush_if_pending(tag, object);
        return;
    }
    bool granted = false;
    {
        std::lock_guard<std::mutex> hold(lock.mutex);
        ++lock.busy;
        if (lock.holder == Holder::FREE) {
            lock.holder = Holder::REMOTE;
            lock.host = host;
            lock.depth = 1;
            granted = true;
        } else {
            lock.queue.push_back(new Pending{false, {}, host});
        }
    }
    if (granted)
        grant_remote(tag, object, host);
}

bool master_unlock(Db_tag tag, uint32_t host, bool release)
{
    uint32_t next_remote = 0;
    Lock_object* object;
    {
        Lock_holder hold(g_cluster_table_lock);
        auto found = g_locks.find(tag);
        if (found == g_locks.end()) {
            msg_error_n(23, "globally unlocking non-locked tag 0x%x", tag);
            return false;
        }
        object = found->second;
        Extended_lock& lock = object->lock;
        {
            std::lock_guard<std::mutex> guard(lock.mutex);
            bool holds = host == 0 ? lock.holder == Holder::LOCAL && lock.thread == std::this_thread::get_id()
                                   : lock.holder == Holder::REMOTE && lock.host == host;
            if (!holds) {
                msg_error_n(23, "globally unlocking non-locked tag 0x%x", tag);
                return false;
            }
            object->release_pending = object->release_pending || release;
            --lock.busy;
            if (--lock.depth == 0) {
                if (lock.queue.empty()) {
                    lock.holder = Holder::FREE;
                } else {
                    Pending* next = lock.queue.front();
                    lock.queue.pop_front();
                    lock.depth = 1;
                    if (next->local) {
                        lock.holder = Holder::LOCAL;
                        lock.thread = next->thread;
                        next->granted = true;
                        lock.event.notify_all();
                    } else {
                        lock.holder = Holder::REMOTE;
                        lock.host = next->host;
                        next_remote = next->host;
                        delete next;
                    }
                }
            }
        }
        Db_record* record = record_peek(tag);
        bool keep;
        {
            std::lock_guard<std::mutex> guard(lock.mutex);
            keep = object->release_pending && record && record->shared;
        }
        if (--object->count == 0 && !keep) {
            g_locks.erase(found);
            destroy(object);
            return true;
        }
    }
    if (next_remote)
        grant_remote(tag, object, next_remote);
    return true;
}

int master_locks_in_table()
{
    Lock_holder hold(g_cluster_table_lock);
    return int(g_locks.size());
}

void cluster_lock(Db_tag tag)
{
    if (qv_msg_self() == 0)
        master_lock(tag, 0);
    else
        slave_lock(tag);
}

void cluster_unlock(Db_tag tag)
{
    if (qv_msg_self() == 0)
        master_unlock(tag, 0, false);
    else
        slave_unlock(tag);
}

}  // namespace qv_db_net
