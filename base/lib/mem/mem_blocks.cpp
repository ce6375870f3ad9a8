// The size-class block allocator: per-thread heaps of 16 KB slabs cut from 1 MB chunks.
//
// A thread allocates and frees its own blocks without any lock: the slab of a block is found by
// masking its address, and the slab's owner row tells whether the caller owns it. Frees from
// other threads are pushed on the slab's remote list with a compare-exchange, and the owner takes
// them back when its slabs run out; a slab parked as full is linked on its row's deferred list
// by the first such free, so the owner finds it without walking its full slabs. Slabs of ended
// threads wait in the orphan heap (under the remote lock) until a thread adopts them.
#include <array>
#include <cstring>
#include <thread>

#include "base/lib/mem/mem_blocks.h"

namespace qv_mem_detail {

constinit thread_local Thread_cache t_cache = {nullptr, nullptr, nullptr};

namespace {

std::mutex g_remote_lock;
Thread_heap g_orphan;                 // thread id 0: slabs of ended threads
std::atomic<int> g_orphan_slabs[CLASS_COUNT];

std::mutex g_pool_lock;
Chunk* g_chunks = nullptr;
uint32_t g_chunk_count = 0;
uint32_t g_free_slab_count = 0;
Slab* g_free_slabs = nullptr;
// Wholly free chunks stay in the pool up to this number, so that a thread that allocates and
// frees large blocks in waves does not send 1 MB to the heap and back each time; a flush or the
// stop gives them back.
constexpr uint32_t IDLE_CHUNKS_KEPT = 8;
uint32_t g_idle_chunks = 0;

std::atomic<uint32_t> g_next_thread_id{1};

void thread_heap_end();

struct Heap_guard {
    bool armed = false;
    ~Heap_guard()
    {
        if (armed)
            thread_heap_end();
    }
};
thread_local Heap_guard t_guard;

char* slab_top(Slab* slab) { return reinterpret_cast<char*>(slab) + SLAB_BYTES; }
char* slab_floor(Slab* slab) { return reinterpret_cast<char*>(slab) + SLAB_HEADER_BYTES; }

void init_rows(Thread_heap* heap, uint32_t thread_id)
{
    for (int i = 0; i < CLASS_COUNT; ++i) {
        Class_row& row = heap->rows[i];
        row.thread_id = thread_id;
        row.block_size = k_class_bytes[i];
        row.current_slab = nullptr;
        row.tail = nullptr;
        row.deferred.store(nullptr, std::memory_order_relaxed);
    }
}

void row_unlink(Class_row& row, Slab* slab)
{
    if (slab->prev)
        slab->prev->next = slab->next;
    else
        row.current_slab = slab->next;
    if (slab->next)
        slab->next->prev = slab->prev;
    else
        row.tail = slab->prev;
    slab->next = slab->prev = nullptr;
}

void row_push_front(Class_row& row, Slab* slab)
{
    slab->prev = nullptr;
    slab->next = row.current_slab;
    if (row.current_slab)
        row.current_slab->prev = slab;
    else
        row.tail = slab;
    row.current_slab = slab;
}

void row_push_back(Class_row& row, Slab* slab)
{
    slab->next = nullptr;
    slab->prev = row.tail;
    if (row.tail)
        row.tail->next = slab;
    else
        row.current_slab = slab;
    row.tail = slab;
}

void move_front(Class_row& row, Slab* slab)
{
    if (row.current_slab == slab)
        return;
    row_unlink(row, slab);
    row_push_front(row, slab);
}

// Moves the remote frees onto the owner's list; the state bits stay. Only the owner calls it
// (or the remote lock's holder for an orphan slab).
void drain_remote(Slab* slab)
{
    uintptr_t taken = slab->remote_list.fetch_and(REMOTE_STATE, std::memory_order_acquire);
    auto* block = reinterpret_cast<void*>(taken & ~REMOTE_STATE);
    while (block) {
        void* next = *static_cast<void**>(block);
        *static_cast<void**>(block) = slab->free_list;
        slab->free_list = block;
        --slab->used;
        block = next;
    }
}

// Waits out a free that is linking the slab on the deferred list, then leaves NORMAL: after
// this no other thread reaches the owner's row through the slab.
void disarm(Slab* slab)
{
    uintptr_t old = slab->remote_list.load(std::memory_order_acquire);
    // Not armed: a remote free that comes now sees no state and links nothing, so there is
    // nothing to clear (and a slab that empties pays no compare-exchange).
    while (old & REMOTE_STATE) {
        if (old & REMOTE_NOTIFYING) {
            std::this_thread::yield();
            old = slab->remote_list.load(std::memory_order_acquire);
            continue;
        }
        if (slab->remote_list.compare_exchange_weak(old, old & ~REMOTE_STATE, std::memory_order_acq_rel,
                                                    std::memory_order_acquire))
            break;
    }
    slab->armed = 0;
    slab->deferred_next = nullptr;
}

// Asks to be told of the next remote free into a slab about to be parked. False when remote
// frees came in meanwhile: they were taken back, and the slab has room again.
bool arm(Slab* slab)
{
    if (slab->armed)
        return true;
    uintptr_t old = slab->remote_list.load(std::memory_order_acquire);
    for (;;) {
        if (old & ~REMOTE_STATE) {
            drain_remote(slab);
            return false;
        }
        if (old & REMOTE_NOTIFYING) {
            // Left from the slab's previous time on the deferred list; the freer is about done.
            std::this_thread::yield();
            old = slab->remote_list.load(std::memory_order_acquire);
            continue;
        }
        if (slab->remote_list.compare_exchange_weak(old, REMOTE_NOTIFY, std::memory_order_acq_rel,
                                                    std::memory_order_acquire)) {
            slab->armed = 1;
            return true;
        }
    }
}

// An empty slab: no block of it is out anywhere, so no remote free can come. What its blocks
// left is cleared in one go, so that the slab is all zero below the bump pointer again and the
// blocks carved from it next need no zeroing.
void reset_slab(Slab* slab)
{
    disarm(slab);
    slab->remote_list.store(0, std::memory_order_relaxed);
    std::memset(slab->bump, 0, size_t(slab_top(slab) - slab->bump));
    slab->bump = slab_top(slab);
    slab->free_list = nullptr;
    slab->used = 0;
    slab->full = 0;
}

// ---- Global slab pool ----------------------------------------------------------------------

void pool_unlink(Slab* slab)
{
    if (slab->prev)
        slab->prev->next = slab->next;
    else
        g_free_slabs = slab->next;
    if (slab->next)
        slab->next->prev = slab->prev;
    slab->next = slab->prev = nullptr;
    --g_free_slab_count;
}

void pool_push(Slab* slab)
{
    slab->prev = nullptr;
    slab->next = g_free_slabs;
    if (g_free_slabs)
        g_free_slabs->prev = slab;
    g_free_slabs = slab;
    ++g_free_slab_count;
}

Slab* pool_pop_locked()
{
    Slab* slab = g_free_slabs;
    if (!slab)
        return nullptr;
    pool_unlink(slab);
    if (slab->chunk->slabs_in_use++ == 0)
        --g_idle_chunks;
    return slab;
}

// Unlinks a chunk whose slabs are all in the pool; the caller frees it outside the lock.
void chunk_unlink_locked(Chunk* chunk)
{
    for (uint32_t i = 0; i < chunk->slab_count; ++i)
        pool_unlink(reinterpret_cast<Slab*>(reinterpret_cast<char*>(chunk->first_slab) + i * SLAB_BYTES));
    if (chunk->prev)
        chunk->prev->next = chunk->next;
    else
        g_chunks = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
    --g_chunk_count;
}

Slab* pool_take()
{
    {
        std::lock_guard<std::mutex> hold(g_pool_lock);
        if (Slab* slab = pool_pop_locked())
            return slab;
    }
    // A new chunk, got outside the lock: raw allocation may flush, and flushing may free blocks.
    // It comes zeroed (mostly fresh from the system, so without a write), which is what lets
    // bump blocks go out without zeroing.
    void* memory = raw_alloc_try(CHUNK_BYTES);
    if (!memory)
        return nullptr;
    auto* chunk = static_cast<Chunk*>(memory);
    uintptr_t first = (reinterpret_cast<uintptr_t>(chunk + 1) + SLAB_BYTES - 1) & ~(SLAB_BYTES - 1);
    uintptr_t end = reinterpret_cast<uintptr_t>(memory) + CHUNK_BYTES;
    chunk->first_slab = reinterpret_cast<Slab*>(first);
    chunk->slab_count = uint32_t((end - first) / SLAB_BYTES);
    chunk->slabs_in_use = 0;
    std::lock_guard<std::mutex> hold(g_pool_lock);
    ++g_idle_chunks;
    chunk->prev = nullptr;
    chunk->next = g_chunks;
    if (g_chunks)
        g_chunks->prev = chunk;
    g_chunks = chunk;
    ++g_chunk_count;
    for (uint32_t i = chunk->slab_count; i-- > 0;) {
        auto* slab = reinterpret_cast<Slab*>(first + i * SLAB_BYTES);
        slab->magic = SLAB_MAGIC;
        slab->chunk = chunk;
        slab->owner.store(nullptr, std::memory_order_relaxed);
        slab->remote_list.store(0, std::memory_order_relaxed);
        slab->armed = 0;
        slab->bump = slab_top(slab);
        pool_push(slab);
    }
    return pool_pop_locked();
}

void pool_give(Slab* slab)
{
    Chunk* release = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_pool_lock);
        slab->owner.store(nullptr, std::memory_order_relaxed);
        pool_push(slab);
        if (--slab->chunk->slabs_in_use == 0) {
            if (g_idle_chunks < IDLE_CHUNKS_KEPT) {
                ++g_idle_chunks;
            } else {
                release = slab->chunk;
                chunk_unlink_locked(release);
            }
        }
    }
    if (release)
        mem_raw_free("mem blocks", 0, release);
}

// ---- Thread heaps --------------------------------------------------------------------------

Thread_heap* create_heap()
{
    auto* heap = static_cast<Thread_heap*>(mem_raw_alloc("mem blocks", 0, sizeof(Thread_heap)));
    init_rows(heap, g_next_thread_id.fetch_add(1, std::memory_order_relaxed));
    t_cache.heap = heap;
    t_guard.armed = true;
    return heap;
}

bool has_room(Slab* slab)
{
    return slab->free_list || slab->bump - slab->block_size >= slab_floor(slab);
}

// Hands every slab of the calling thread to the orphan heap or the pool, and frees the heap.
void thread_heap_end()
{
    Thread_heap* heap = t_cache.heap;
    if (!heap)
        return;
    t_cache.heap = nullptr;
    Slab* to_pool = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_remote_lock);
        for (int cls = 0; cls < CLASS_COUNT; ++cls) {
            Class_row& row = heap->rows[cls];
            Class_row& orphan = g_orphan.rows[cls];
            for (Slab* slab = row.tail; slab;) {
                Slab* previous = slab->prev;
                // Orphan slabs are never armed: their remote frees wait for the adopter.
                disarm(slab);
                drain_remote(slab);
                slab->full = 0;
                slab->next = slab->prev = nullptr;
                if (slab->used == 0) {
                    slab->next = to_pool;
                    to_pool = slab;
                } else {
                    slab->owner.store(&orphan, std::memory_order_release);
                    if (has_room(slab) || !orphan.current_slab) {
                        row_push_front(orphan, slab);
                    } else {
                        // Full slabs go behind the current one, so adoption finds room first.
                        Slab* current = orphan.current_slab;
                        slab->prev = current;
                        slab->next = current->next;
                        if (current->next)
                            current->next->prev = slab;
                        else
                            orphan.tail = slab;
                        current->next = slab;
                    }
                    g_orphan_slabs[cls].fetch_add(1, std::memory_order_relaxed);
                }
                slab = previous;
            }
            row.current_slab = nullptr;
            row.tail = nullptr;
            row.deferred.store(nullptr, std::memory_order_relaxed);
        }
    }
    while (to_pool) {
        Slab* next = to_pool->next;
        reset_slab(to_pool);
        pool_give(to_pool);
        to_pool = next;
    }
    mem_raw_free("mem blocks", 0, heap);
}

bool is_own(const Thread_heap* heap, const Class_row* owner)
{
    return heap && owner >= heap->rows && owner < heap->rows + CLASS_COUNT;
}

// Another thread's free: a lock-free push. The free that finds the slab armed links it on the
// owner's deferred list; the owner waits for that link before it lets the slab or its heap go.
void remote_free(Slab* slab, void* block)
{
    uintptr_t old = slab->remote_list.load(std::memory_order_relaxed);
    uintptr_t state;
    do {
        state = old & REMOTE_STATE;
        *static_cast<uintptr_t*>(block) = old & ~REMOTE_STATE;
    } while (!slab->remote_list.compare_exchange_weak(
        old, reinterpret_cast<uintptr_t>(block) | (state == REMOTE_NOTIFY ? REMOTE_NOTIFYING : state),
        std::memory_order_acq_rel, std::memory_order_relaxed));
    if (state != REMOTE_NOTIFY)
        return;
    Class_row* row = slab->owner.load(std::memory_order_acquire);
    Slab* head = row->deferred.load(std::memory_order_relaxed);
    do {
        slab->deferred_next = head;
    } while (!row->deferred.compare_exchange_weak(head, slab, std::memory_order_release, std::memory_order_relaxed));
    slab->remote_list.fetch_and(~REMOTE_NOTIFYING, std::memory_order_release);
}

}  // namespace

uint32_t block_class_bytes(size_t bytes) { return k_class_bytes[class_of(bytes)]; }

uint32_t block_capacity(const void* block) { return slab_of(block)->block_size; }

void blocks_init() { init_rows(&g_orphan, 0); }

void blocks_release_idle()
{
    Chunk* release = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_pool_lock);
        if (g_idle_chunks == 0)
            return;
        for (Chunk* chunk = g_chunks; chunk;) {
            Chunk* next = chunk->next;
            if (chunk->slabs_in_use == 0) {
                chunk_unlink_locked(chunk);
                --g_idle_chunks;
                chunk->next = release;
                release = chunk;
            }
            chunk = next;
        }
    }
    while (release) {
        Chunk* next = release->next;
        mem_raw_free("mem blocks", 0, release);
        release = next;
    }
}

void blocks_exit()
{
    thread_heap_end();
    // Chunks with slabs still out stay: their blocks may yet be freed (which is then ignored).
    blocks_release_idle();
}

void* block_alloc(size_t bytes, bool* zeroed)
{
    int cls = class_of(bytes);
    Thread_heap* heap = t_cache.heap ? t_cache.heap : create_heap();
    Class_row& row = heap->rows[cls];
    uint32_t block_size = row.block_size;
    for (;;) {
        // Slabs found without room are parked at the tail, so the walk stops at the first of
        // them instead of passing every full slab on each call.
        for (Slab* slab = row.current_slab; slab && !slab->full;) {
            Slab* next = slab->next;
            if (void* block = slab->free_list) {
                slab->free_list = *static_cast<void**>(block);
                ++slab->used;
                move_front(row, slab);
                *zeroed = false;
                return block;
            }
            if (slab->bump - block_size >= slab_floor(slab)) {
                slab->bump -= block_size;
                ++slab->used;
                move_front(row, slab);
                *zeroed = true;
                return slab->bump;
            }
            if (!arm(slab))
                continue;
            slab->full = 1;
            if (slab != row.tail) {
                row_unlink(row, slab);
                row_push_back(row, slab);
            }
            slab = next;
        }
        // Take back what other threads freed into parked slabs.
        if (row.deferred.load(std::memory_order_relaxed)) {
            Slab* slab = row.deferred.exchange(nullptr, std::memory_order_acquire);
            while (slab) {
                Slab* next = slab->deferred_next;
                slab->deferred_next = nullptr;
                slab->armed = 0;
                drain_remote(slab);
                slab->full = 0;
                move_front(row, slab);
                slab = next;
            }
            continue;
        }
        // Adopt a slab of an ended thread.
        if (g_orphan_slabs[cls].load(std::memory_order_relaxed) > 0) {
            std::lock_guard<std::mutex> hold(g_remote_lock);
            Class_row& orphan = g_orphan.rows[cls];
            if (Slab* slab = orphan.current_slab) {
                row_unlink(orphan, slab);
                g_orphan_slabs[cls].fetch_sub(1, std::memory_order_relaxed);
                drain_remote(slab);
                slab->full = 0;
                slab->owner.store(&row, std::memory_order_release);
                row_push_front(row, slab);
                continue;
            }
        }
        Slab* slab = pool_take();
        if (!slab)
            return nullptr;
        reset_slab(slab);
        slab->block_size = block_size;
        slab->owner.store(&row, std::memory_order_release);
        row_push_front(row, slab);
    }
}

void block_free(void* block)
{
    Slab* slab = slab_of(block);
    Class_row* owner = slab->owner.load(std::memory_order_acquire);
    if (is_own(t_cache.heap, owner)) {
        *static_cast<void**>(block) = slab->free_list;
        slab->free_list = block;
        if (--slab->used != 0) {
            if (slab->full) {
                slab->full = 0;
                move_front(*owner, slab);
            }
            return;
        }
        Slab* current = owner->current_slab;
        reset_slab(slab);
        // The current slab and the one after it stay, so that a thread that allocates and frees
        // in turn does not send a slab back and forth to the pool.
        if (slab == current || (current && slab == current->next))
            return;
        row_unlink(*owner, slab);
        pool_give(slab);
        return;
    }
    // A block of a slab in the pool was freed twice, or after the stop: nothing owns it.
    if (!owner)
        return;
    remote_free(slab, block);
}

}  // namespace qv_mem_detail
