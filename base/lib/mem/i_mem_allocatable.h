// The memory manager's interface: zeroing allocation charged to the calling module.
//
// mem_alloc never returns null for a non-zero size: a failed allocation flushes, waits and
// retries, and after ten failed attempts ends the process with MEM's fatal 8. Inside MEM's own
// Module_scope the charge goes to previous_module, i.e. to whoever called into the manager.
// `file` and `line` are only used in messages and may be null / 0.
//
// Every pointer from mem_alloc has an 8-byte header right before it (module, from_block, size).
// Small sizes (up to MEM_BLOCK_MAX_USER_BYTES) come from a per-thread size-class allocator whose
// own-thread path takes no lock; larger ones, and all of them with QV_MEM_NOBLOCKS set, from the
// heap hook with 8 more bytes ahead so the user pointer stays 16-byte aligned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

using Mem_malloc_fn = void* (*)(size_t);
using Mem_realloc_fn = void* (*)(void*, size_t);
using Mem_free_fn = void (*)(void*);

// Largest user size served by the block allocator (its largest class, 8,160, less the header).
constexpr size_t MEM_BLOCK_MAX_USER_BYTES = 8152;

// Refused (0) when a function is null, when MEM has started, or when hooks were set already
// (an allocation before any hook puts in malloc/realloc/free and counts as setting them).
int mem_set_hooks(Mem_malloc_fn malloc_fn, Mem_realloc_fn realloc_fn, Mem_free_fn free_fn);
// MEM start and stop. A second mem_init does nothing. After mem_exit the C library functions are
// the hooks again, and frees of block-allocator memory are ignored.
void mem_init();
void mem_exit();
bool mem_started();
// Whether mem_init turned the block allocator on (QV_MEM_NOBLOCKS unset).
bool mem_blocks_enabled();

void* mem_alloc(const char* file, int line, size_t size);
void mem_free(const char* file, int line, void* p);
// New bytes are zeroed; size 0 frees and gives null; a null `p` allocates.
void* mem_realloc(const char* file, int line, void* p, size_t size);
char* mem_strdup(const char* file, int line, const char* text);
// Size asked for at allocation; 0 for null.
size_t mem_size(const void* p);

// The runtime's own records: straight to the heap hook, counted in the totals but charged to no
// module, usable before MEM has started. mem_raw_alloc never returns null for a non-zero size.
void* mem_raw_alloc(const char* file, int line, size_t size);
void* mem_raw_realloc(const char* file, int line, void* p, size_t size);
void mem_raw_free(const char* file, int line, void* p);

// Totals in bytes (kept internally in 8-byte words). Raw allocations count too.
uint64_t mem_current_bytes();
uint64_t mem_peak_bytes();
// Per-module accounts: the process-wide table plus the calling thread's unmerged changes.
uint64_t mem_module_bytes(int module);
uint64_t mem_module_peak_bytes(int module);
int64_t mem_module_allocations(int module);
// Folds the calling thread's unmerged account changes into the process-wide table.
void mem_merge_thread_accounts();

// ---- Heap limit and flushing --------------------------------------------------------------
// Sets the heap limit when `priority` is at least the priority of the current setting; returns
// the old limit in bytes, or 0 when refused. 0 bytes clears the limit. The flush target
// (heap_low) is 3/4 of the limit.
uint64_t mem_set_heap_limit(uint64_t bytes, uint32_t priority);
uint64_t mem_heap_limit_bytes();
uint64_t mem_heap_low_bytes();
// Reads "{_QV_REG_MEMORY_LIMIT}" (MB); without an entry the limit is the free physical memory.
void mem_set_limit_from_registry(uint32_t priority);

// A module's flush callback gets the number of bytes it is asked to give back and returns what
// it freed at once (a callback may also free later and return 0). Null removes it. Callbacks run
// with the flush lock held and must not start another flush.
using Mem_flush_callback = size_t (*)(size_t bytes);
void mem_register_flush(int id, Mem_flush_callback callback);
// Optional global hooks around a flush: before(MB to free); after(target bytes, total bytes, user).
using Mem_flush_before_hook = void (*)(uint64_t mb);
using Mem_flush_after_hook = void (*)(uint64_t target_bytes, uint64_t total_bytes, void* user);
void mem_set_flush_hooks(Mem_flush_before_hook before, Mem_flush_after_hook after, void* user);
// Asks modules to give memory back until the total is at or below `target_words`; returns the
// words freed. Does nothing while another flush runs (or the flush lock is busy).
uint64_t mem_flush_to(uint64_t target_words);
// Flushes `mb` MB off the current total; returns the MB freed.
uint64_t mem_flush_mb(uint64_t mb);
// A module that freed memory on its own time tells the manager; 1 when MEM has started.
int mem_report_async_flush(int id, uint64_t bytes);
// The "%d scene cache flushes freed %d MB in %.2fs" line, when any flush happened.
void mem_print_flush_totals();

// Called from the 5th failed attempt of an allocation on, with the size asked for.
using Mem_oom_callback = void (*)(size_t bytes);
void mem_set_oom_callback(Mem_oom_callback callback);
// What the post-mortem prints for the database (its summary, and its dump with MEM's "debug"
// class). The database sets them when it starts; null prints nothing.
using Mem_report_fn = void (*)();
void mem_set_database_reports(Mem_report_fn summary, Mem_report_fn dump);

// ---- Reports --------------------------------------------------------------------------------
// The memory table of every module with a peak of 1 MB or more, and the heap totals.
void mem_summary();
// Sum, in bytes, of the system memory figures picked by `mask`: 1 total physical, 2 available
// physical, 4 total page file, 8 available page file, 16 total virtual, 32 available virtual.
uint64_t mem_physical(uint32_t mask);

#define QV_ALLOC(size) mem_alloc(__FILE__, __LINE__, (size))
#define QV_FREE(p) mem_free(__FILE__, __LINE__, (p))
#define QV_REALLOC(p, size) mem_realloc(__FILE__, __LINE__, (p), (size))

namespace QV::MEM {

// Gives a class its own new and delete on top of mem_alloc / mem_free, so the object is charged
// to the module that creates it.
template <class T>
class Tallocatable {
public:
    static void* operator new(size_t size) { return mem_alloc("../..\\base/lib/mem/i_mem_allocatable", 158, size); }
    static void* operator new[](size_t size) { return mem_alloc("../..\\base/lib/mem/i_mem_allocatable", 158, size); }
    static void* operator new(size_t, void* place) noexcept { return place; }
    static void operator delete(void* p) { mem_free("../..\\base/lib/mem/i_mem_allocatable", 158, p); }
    static void operator delete[](void* p) { mem_free("../..\\base/lib/mem/i_mem_allocatable", 158, p); }
    static void operator delete(void*, void*) noexcept {}
};

// The allocator handed to outside code.
class IAllocator {
public:
    virtual void* malloc(size_t size) = 0;
    virtual void free(void* memory) = 0;
    virtual void* realloc(void* memory, size_t size) = 0;

protected:
    virtual ~IAllocator() = default;
};

// Allocation through the manager, charged to the module current at the call.
class Allocator_impl : public Tallocatable<Allocator_impl>, public IAllocator {
public:
    void* malloc(size_t size) override;
    void free(void* memory) override;
    void* realloc(void* memory, size_t size) override;
    virtual ~Allocator_impl() = default;
};

}  // namespace QV::MEM
