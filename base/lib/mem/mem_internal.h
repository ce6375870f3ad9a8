// State shared by the memory manager's files. Not for use outside base/lib/mem.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"

namespace qv_mem_detail {

// Header right before every pointer from mem_alloc.
struct Block_header {
    uint16_t module;      // module charged
    uint16_t from_block;  // 1: block allocator, 0: heap hook
    uint32_t size;        // bytes asked for (clipped to 32 bits past 4 GiB; see Heap_prefix)
};
static_assert(sizeof(Block_header) == 8, "the block header is 8 bytes");

// Heap allocations have this ahead of the header, so the user pointer stays 16-byte aligned.
// It keeps the full 64-bit size, which the 32-bit header field cannot hold past 4 GiB.
struct Heap_prefix {
    uint64_t full_size;
    Block_header header;
};
static_assert(sizeof(Heap_prefix) == 16, "heap allocations carry 16 bytes ahead of the user pointer");

// Header ahead of mem_raw_alloc memory: total size in the first 32 bits, as the runtime's records
// expect; the full size beside it for sizes past 4 GiB. 16 bytes keep the pointer aligned.
struct Raw_header {
    uint32_t total_size;     // bytes including this header, clipped to 32 bits
    uint32_t unused;
    uint64_t full_total;     // bytes including this header
};
static_assert(sizeof(Raw_header) == 16);

inline Block_header* header_of(void* p) { return static_cast<Block_header*>(p) - 1; }
inline const Block_header* header_of(const void* p) { return static_cast<const Block_header*>(p) - 1; }

constexpr uint64_t words_of(uint64_t bytes) { return (bytes + 7) >> 3; }
constexpr int64_t mb_of_words(uint64_t words) { return int64_t(words >> 17); }
constexpr uint64_t WORDS_PER_MB = uint64_t(1) << 17;

// ---- Hooks and state ------------------------------------------------------------------------
extern Mem_malloc_fn g_malloc;
extern Mem_realloc_fn g_realloc;
extern Mem_free_fn g_free;
extern std::atomic<bool> g_started;
extern bool g_blocks_on;
void ensure_hooks();

// Process totals in words. Kept as atomics: the accounting lock's only job was to keep them
// consistent, and a fetch-add does that without blocking the heap path.
extern std::atomic<uint64_t> g_current_words;
extern std::atomic<uint64_t> g_peak_words;
void totals_add(uint64_t words);
void totals_sub(uint64_t words);

// Heap limits in words; 0 = none.
extern std::atomic<uint64_t> g_heap_limit;
extern std::atomic<uint64_t> g_heap_low;

// ---- Per-module accounts --------------------------------------------------------------------
// The two current values sit together, so that a charge touches them with one line and tests
// both peaks with one branch.
struct Module_account {
    int64_t words;          // in use
    int64_t allocations;    // live allocations
    int64_t peak_words;
    int64_t peak_allocations;
};

// The MEM context area of a thread: its view of every module, and the table's values when the
// view was last merged (what is not merged yet is the difference).
struct Mem_context {
    Module_account accounts[MODULE_TABLE_ROWS];
    int64_t base_words[MODULE_TABLE_ROWS];
    int64_t base_allocations[MODULE_TABLE_ROWS];
    bool dirty;
};

// Charges `words` and `allocations` (either may be negative) to `module`: into the calling
// thread's MEM area once MEM has started, otherwise straight into the process-wide table.
void charge(int module, int64_t words, int64_t allocations);

// Lifts the peaks of an account to its current values; called only when one of them passed.
[[gnu::cold, gnu::noinline]] void raise_peaks(Module_account& account);

// The hot path's charge into an area the caller already has.
inline void charge_area(Mem_context* context, int module, int64_t words, int64_t allocations)
{
    Module_account& account = context->accounts[module];
    account.words += words;
    account.allocations += allocations;
    if (account.words > account.peak_words || account.allocations > account.peak_allocations) [[unlikely]]
        raise_peaks(account);
    context->dirty = true;
}

// The module an allocation is charged to: the caller of the manager.
inline int charged_module()
{
    Thread_context* context = thread_context();
    if (!context)
        return 0;
    int module = context->current_module == MOD_MEM ? context->previous_module : context->current_module;
    return module >= 0 && module < MODULE_TABLE_ROWS ? module : 0;
}
void accounts_register_area();
// Snapshot of the process table after merging the calling thread.
void accounts_snapshot(Module_account* out);

// ---- Block allocator ------------------------------------------------------------------------
void blocks_init();
void blocks_exit();
// A block of at least `bytes` (header included), or null when no chunk could be had. `*zeroed`
// tells whether its bytes after the header are all zero already (fresh bump memory).
void* block_alloc(size_t bytes, bool* zeroed);
void block_free(void* block);
// Capacity of the block that holds `block`, in bytes (its class size).
uint32_t block_capacity(const void* block);
uint32_t block_class_bytes(size_t bytes);

// mem_alloc charged to `module` whoever calls.
void* alloc_charged_to(const char* file, int line, size_t size, int module);

// ---- Heap helpers ---------------------------------------------------------------------------
// Raw allocation that may give null (the block allocator's chunks use it, so that mem_alloc runs
// the failure loop with the caller's file and size). Always zeroed.
void* raw_alloc_try(size_t size);
// `total` zeroed bytes from the heap hook, or null. With the default hook, calloc: memory that
// comes fresh from the system is not written again, and blocks of 2 MB or more ask for huge
// pages on their aligned interior.
void* zeroed_from_hook(size_t total);

// ---- Limits and failures --------------------------------------------------------------------
// Runs one failure step for attempt `attempt` of an allocation of `size` bytes.
void failure_step(const char* file, int line, size_t size, int attempt);
void restore_low_limit();
// Flushes to heap_low when the heap limit is set and passed.
void check_limit();
[[noreturn]] void fatal_size(size_t size);
uint32_t mem_classes();
void regions_release_free();
// Gives the wholly free chunks that the block allocator keeps for reuse back to the heap.
void blocks_release_idle();
void pools_report_leaks();
void pages_exit();
void mapped_exit();
void mapped_init();

}  // namespace qv_mem_detail
