// The block allocator's records, and the own-thread fast paths inlined into mem_alloc and
// mem_free. Not for use outside base/lib/mem.
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

struct Slab {
    uint32_t magic;                   // SLAB_MAGIC once the chunk was cut
    uint32_t block_size;              // bytes of each block; readable by any thread
    Chunk* chunk;
    std::atomic<Class_row*> owner;    // class row that owns the slab; null while in the pool
    Slab* next;                       // row list while owned, free list while pooled
    Slab* prev;
    Slab* deferred_next;              // link in the owner's list of slabs with remote frees
    char* bump;                       // blocks are carved from the end downwards
    void* free_list;                  // owner's freed blocks
    void* remote_list;                // other threads' frees; under the remote lock
    uint32_t used;                    // blocks out, remote frees included until taken back
    uint32_t full;                    // 1: found without room and parked at the row's tail
};
static_assert(sizeof(Slab) <= SLAB_HEADER_BYTES, "the slab header fits in 80 bytes");

struct Chunk {
    Chunk* next;
    Chunk* prev;
    uint32_t slabs_in_use;
    uint32_t slab_count;
    Slab* first_slab;
};

struct Class_row {
    uint32_t thread_id;
    uint32_t block_size;
    uint32_t class_index;
    Slab* current_slab;               // head of the row's list
    std::atomic<Slab*> deferred;      // slabs with remote frees; written under the remote lock
    Slab* tail;                       // last of the row's list; full slabs gather behind the rest
};

struct Thread_heap {
    Class_row rows[CLASS_COUNT];
};

// The calling thread's heap; null until its first block allocation.
extern constinit thread_local Thread_heap* t_heap;

inline Slab* slab_of(const void* block)
{
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(block) & ~(SLAB_BYTES - 1));
}

// A block from the current slab of the thread's row, without a call; the rest in block_alloc.
inline void* block_alloc_fast(size_t bytes)
{
    if (Thread_heap* heap = t_heap) {
        Class_row& row = heap->rows[k_class_of_words[(bytes + 7) >> 3]];
        if (Slab* slab = row.current_slab) {
            if (void* block = slab->free_list) {
                slab->free_list = *static_cast<void**>(block);
                ++slab->used;
                return block;
            }
            char* bump = slab->bump - row.block_size;
            if (bump >= reinterpret_cast<char*>(slab) + SLAB_HEADER_BYTES) {
                slab->bump = bump;
                ++slab->used;
                return bump;
            }
        }
    }
    return block_alloc(bytes);
}

// An own block that does not empty its slab goes straight on the free list; the rest in
// block_free.
inline void block_free_fast(void* block)
{
    Slab* slab = slab_of(block);
    Class_row* owner = slab->owner.load(std::memory_order_acquire);
    Thread_heap* heap = t_heap;
    if (heap && owner >= heap->rows && owner < heap->rows + CLASS_COUNT && slab->used > 1 && !slab->full) {
        *static_cast<void**>(block) = slab->free_list;
        slab->free_list = block;
        --slab->used;
        return;
    }
    block_free(block);
}

}  // namespace qv_mem_detail
