// The block allocator's records and the thread's slot, which the own-thread fast paths in
// mem_alloc and mem_free read directly. Not for use outside base/lib/mem.
#pragma once

#include <array>

#include "base/lib/mem/mem_internal.h"

namespace qv_mem_detail {

constexpr uintptr_t SLAB_BYTES = 16384;
constexpr size_t CHUNK_BYTES = 1048576;
constexpr size_t SLAB_HEADER_BYTES = 80;
constexpr uint32_t SLAB_MAGIC = 0x11223344;
constexpr int CLASS_COUNT = 32;

constexpr uint32_t k_class_bytes[CLASS_COUNT] = {
    8,   16,  24,  32,  40,  48,  56,   64,   80,   96,   112,  128,  160,  192,  224,  256,
    320, 384, 448, 512, 640, 768, 896, 1024, 1536, 2048, 3072, 4096, 5120, 6144, 7168, 8160,
};
constexpr uint32_t MAX_BLOCK_BYTES = 8160;

// Class by size in words: the same answer as a binary search over k_class_bytes, in one load.
constexpr std::array<uint8_t, MAX_BLOCK_BYTES / 8 + 1> k_class_of_words = [] {
    std::array<uint8_t, MAX_BLOCK_BYTES / 8 + 1> table{};
    int cls = 0;
    for (uint32_t words = 0; words <= MAX_BLOCK_BYTES / 8; ++words) {
        while (k_class_bytes[cls] < words * 8)
            ++cls;
        table[words] = uint8_t(cls);
    }
    return table;
}();

struct Chunk;
struct Class_row;

// States kept in the low bits of Slab::remote_list (blocks are 8-byte aligned, so the bits are
// free). NOTIFY: the owner parked the slab as full and wants to hear of the next remote free.
// NOTIFYING: the thread whose free saw NOTIFY is linking the slab on the owner's deferred list;
// the owner does not give the slab up, nor end, until that is done, so the row it links into
// is alive.
constexpr uintptr_t REMOTE_NOTIFY = 1;
constexpr uintptr_t REMOTE_NOTIFYING = 2;
constexpr uintptr_t REMOTE_STATE = 3;

// The fields both fast paths read (owner, used, full, free list, bump) share the slab's first
// cache line.
struct Slab {
    uint32_t magic;                   // SLAB_MAGIC once the chunk was cut
    uint32_t block_size;              // bytes of each block; readable by any thread
    uint32_t used;                    // blocks out, remote frees included until taken back
    uint16_t full;                    // 1: found without room and parked at the row's tail
    uint16_t armed;                   // 1: NOTIFY set, or the slab is on the deferred list
    std::atomic<Class_row*> owner;    // class row that owns the slab; null while in the pool
    void* free_list;                  // owner's freed blocks
    char* bump;                       // blocks are carved from the end downwards
    Chunk* chunk;
    Slab* next;                       // row list while owned, free list while pooled
    Slab* prev;
    Slab* deferred_next;              // link in the owner's list of slabs with remote frees
    std::atomic<uintptr_t> remote_list;  // other threads' frees, pushed without a lock; state bits
};
static_assert(sizeof(Slab) <= SLAB_HEADER_BYTES, "the slab header fits in 80 bytes");

struct Chunk {
    Chunk* next;
    Chunk* prev;
    uint32_t slabs_in_use;
    uint32_t slab_count;
    Slab* first_slab;
};

// 32 bytes, so that no row straddles two cache lines.
struct Class_row {
    uint32_t thread_id;
    uint32_t block_size;
    Slab* current_slab;               // head of the row's list
    std::atomic<Slab*> deferred;      // slabs with remote frees: pushed by freeing threads, taken whole by the owner
    Slab* tail;                       // last of the row's list; full slabs gather behind the rest
};

static_assert(sizeof(Class_row) == 32);

struct Thread_heap {
    Class_row rows[CLASS_COUNT];
};

// The thread's own slot of the manager: its heap (null until its first block allocation) and
// its MEM context area with the Thread_context that holds it. Both hot paths reach everything
// they need through this one initial-exec access. `area` is dropped whenever the area is merged
// (which happens on its thread before the area is detached or freed), so it never outlives it.
struct Thread_cache {
    Thread_heap* heap;
    Mem_context* area;
    Thread_context* context;
};
extern constinit thread_local Thread_cache t_cache __attribute__((tls_model("initial-exec")));

// True while blocks are handed out: MEM started, and not with QV_MEM_NOBLOCKS.
extern std::atomic<bool> g_block_path;

inline Slab* slab_of(const void* block)
{
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(block) & ~(SLAB_BYTES - 1));
}

inline int class_of(size_t bytes) { return k_class_of_words[(bytes + 7) >> 3]; }

// The MEM area of the calling thread, cached; null without a Thread_context.
Mem_context* thread_area();

}  // namespace qv_mem_detail
