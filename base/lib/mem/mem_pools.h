// Fixed-size block pools, the page allocator and memory-mapped file blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// ---- Block pools ----------------------------------------------------------------------------
// Many objects of one size, in 8,192-byte pages taken from shared regions. The pool is charged
// to the module that creates it (1,024 words per page). Elements are zeroed when handed out.
struct Memblock;

// Largest element size a pool takes (two elements per page).
constexpr uint32_t MEMBLOCK_MAX_ELEMENT_BYTES = 4052;

// `element_size` is rounded up to a multiple of 16; a size for which a page would hold fewer
// than 2 elements gives error 7 and null.
Memblock* memblock_create(const char* file, int line, size_t element_size);
Memblock* memblock_create_noscope(const char* file, int line, size_t element_size);
// Locked forms take the pool's lock; unlocked ones leave that to the caller; _noscope forms are
// locked but do not enter MEM's Module_scope (for callers already on the hot path).
void* memblock_alloc(Memblock* pool);
void* memblock_alloc_unlocked(Memblock* pool);
void* memblock_alloc_noscope(Memblock* pool);
void memblock_free(Memblock* pool, void* element);
void memblock_free_unlocked(Memblock* pool, void* element);
void memblock_free_noscope(Memblock* pool, void* element);
// Gives back every element; the pool stays usable.
void memblock_clear(Memblock* pool);
void memblock_destroy(Memblock* pool);
// Calls `callback` for every element in use.
void memblock_for_each(Memblock* pool, void (*callback)(void* element));
void memblock_for_each(Memblock* pool, void (*callback)(void* element, void* argument), void* argument);
// Elements in use, and the rounded element size.
uint32_t memblock_live_count(Memblock* pool);
uint32_t memblock_element_size(const Memblock* pool);

// ---- Page allocator ---------------------------------------------------------------------------
// 8,192-byte pages from the system's virtual memory, charged to MEM. The first three words are
// the header (the first holds the owner record); the rest is zeroed when a page is reused.
constexpr size_t PAGE_ALLOC_BYTES = 8192;
constexpr size_t PAGE_ALLOC_HEADER_BYTES = 24;
void* page_alloc();
void page_free(void* page);

// ---- Memory-mapped file blocks ----------------------------------------------------------------
// Maps `size` bytes of the open file `fd`, read-write or read-only, charged to the caller's
// module. Null (no message) when MEM has not started, `fd` is not open, or the mapping fails.
void* mem_map_file(int fd, size_t size, bool writable);
// Null is ignored; an address that mem_map_file did not give is reported with an error.
void mem_unmap(void* address);

// ---- Block_memory_pool ------------------------------------------------------------------------
// Blocks of one size handed out in arrays of `block_count`; clear() gives all arrays back and
// reports blocks that were not deallocated.
class Block_memory_pool {
public:
    Block_memory_pool(size_t block_count, size_t block_bytes);
    ~Block_memory_pool();
    Block_memory_pool(const Block_memory_pool&) = delete;
    Block_memory_pool& operator=(const Block_memory_pool&) = delete;

    // A block of `block_bytes` (zeroed), or of the size first asked for when built with 0.
    void* allocate(size_t bytes);
    void deallocate(void* block);
    void clear();
    size_t live_blocks() const { return live_; }

private:
    struct Array {
        char* memory;
        size_t used;  // blocks handed out from this array so far
    };
    size_t block_count_;
    size_t block_bytes_;
    std::vector<Array> arrays_;
    void* free_list_ = nullptr;
    size_t live_ = 0;
};
