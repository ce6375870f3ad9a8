// The front layer: hooks, start and stop, and the mem_alloc family on top of the block allocator
// and the heap hook.
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

#include "base/lib/mem/mem_blocks.h"
#include "runtime/msg.h"

namespace qv_mem_detail {

Mem_malloc_fn g_malloc = nullptr;
Mem_realloc_fn g_realloc = nullptr;
Mem_free_fn g_free = nullptr;
std::atomic<bool> g_started{false};
bool g_blocks_on = false;
std::atomic<bool> g_block_path{false};
std::atomic<uint64_t> g_current_words{0};
std::atomic<uint64_t> g_peak_words{0};

namespace {
int g_hook_count = 0;
constexpr uintptr_t HUGE_PAGE_BYTES = uintptr_t(2) << 20;
}

void ensure_hooks()
{
    if (!g_malloc) {
        g_malloc = malloc;
        g_realloc = realloc;
        g_free = free;
        g_hook_count = 1;
    }
}

void totals_add(uint64_t words)
{
    uint64_t now = g_current_words.fetch_add(words, std::memory_order_relaxed) + words;
    uint64_t peak = g_peak_words.load(std::memory_order_relaxed);
    while (now > peak && !g_peak_words.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void totals_sub(uint64_t words)
{
    // Never below zero: frees of memory counted before a reset must not wrap the total.
    uint64_t now = g_current_words.load(std::memory_order_relaxed);
    uint64_t next;
    do {
        next = now > words ? now - words : 0;
    } while (!g_current_words.compare_exchange_weak(now, next, std::memory_order_relaxed));
}

[[noreturn]] void fatal_size(size_t size)
{
    Module_scope scope(MOD_MEM);
    msg_fatal_n(8, "can't allocate %zu bytes.", size);
}

void* zeroed_from_hook(size_t total)
{
    if (g_malloc != malloc) {
        void* raw = g_malloc(total);
        if (raw)
            std::memset(raw, 0, total);
        return raw;
    }
    // calloc does not clear memory it maps fresh from the system, so a large block is not
    // written (and faulted in) twice.
    void* raw = calloc(1, total);
    if (raw && total >= HUGE_PAGE_BYTES) {
        // Huge pages on the aligned interior: a 100 MB buffer then faults in 2 MB at a time. Only
        // advice; where the system says no the block works the same.
        uintptr_t begin = (reinterpret_cast<uintptr_t>(raw) + HUGE_PAGE_BYTES - 1) & ~(HUGE_PAGE_BYTES - 1);
        uintptr_t end = (reinterpret_cast<uintptr_t>(raw) + total) & ~(HUGE_PAGE_BYTES - 1);
        if (end > begin)
            madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    }
    return raw;
}

void* raw_alloc_try(size_t size)
{
    if (size > SIZE_MAX - sizeof(Raw_header))
        fatal_size(size);
    ensure_hooks();
    size_t total = sizeof(Raw_header) + size;
    if (g_started.load(std::memory_order_relaxed))
        check_limit();
    void* raw = zeroed_from_hook(total);
    if (!raw)
        return nullptr;
    auto* header = static_cast<Raw_header*>(raw);
    header->total_size = total > UINT32_MAX ? UINT32_MAX : uint32_t(total);
    header->full_total = total;
    totals_add(words_of(total));
    return header + 1;
}

}  // namespace qv_mem_detail

using namespace qv_mem_detail;

namespace {

// The heap path: the hook for size + 16, zeroed, charged. Null when the hook gave nothing.
void* heap_alloc(size_t size, int module)
{
    if (size > SIZE_MAX - sizeof(Heap_prefix))
        fatal_size(size);
    ensure_hooks();
    if (g_started.load(std::memory_order_relaxed))
        check_limit();
    void* raw = zeroed_from_hook(sizeof(Heap_prefix) + size);
    if (!raw)
        return nullptr;
    auto* prefix = static_cast<Heap_prefix*>(raw);
    prefix->full_size = size;
    prefix->header.module = uint16_t(module);
    prefix->header.from_block = 0;
    prefix->header.size = size > UINT32_MAX ? UINT32_MAX : uint32_t(size);
    totals_add(words_of(sizeof(Heap_prefix) + size));
    charge(module, int64_t(words_of(size)), 1);
    return prefix + 1;
}

// Zeroes the user bytes of a block, rounded up to whole words (blocks hold them). Up to 256
// bytes in aligned 16-byte stores without a call, which for these sizes costs less than memset
// (user pointers sit 8 past a 16-byte boundary in most classes, so one word goes first); the
// empty asm keeps the compiler from turning the loop back into a memset call.
inline void zero_user_bytes(void* p, size_t size)
{
    size_t words = (size + 7) >> 3;
    if (words > 32) {
        std::memset(p, 0, words * 8);
        return;
    }
    using Pair = uint64_t __attribute__((vector_size(16), may_alias));
    auto* out = static_cast<char*>(p);
    char* end = out + words * 8;
    if (reinterpret_cast<uintptr_t>(out) & 8) {
        __builtin_memset(out, 0, 8);
        out += 8;
    }
    for (; out + 16 <= end; out += 16) {
        *reinterpret_cast<Pair*>(out) = Pair{0, 0};
        asm("" : "+r"(out));
    }
    if (out < end)
        __builtin_memset(out, 0, 8);
}

// The header as one store (little-endian field order).
inline void write_header(Block_header* header, int module, size_t size)
{
    uint64_t fields = uint64_t(uint16_t(module)) | uint64_t(1) << 16 | uint64_t(size) << 32;
    std::memcpy(header, &fields, sizeof fields);
}

inline void charge_fast(int module, int64_t words, int64_t allocations)
{
    if (Mem_context* area = thread_area())
        charge_area(area, module, words, allocations);
    else
        charge(module, words, allocations);
}

inline void* block_path_alloc(size_t size, int module)
{
    bool zeroed = false;
    void* block = block_alloc(size + sizeof(Block_header), &zeroed);
    if (!block)
        return nullptr;
    auto* header = static_cast<Block_header*>(block);
    header->module = uint16_t(module);
    header->from_block = 1;
    header->size = uint32_t(size);
    if (!zeroed)
        zero_user_bytes(header + 1, size);
    charge_fast(module, int64_t(words_of(size)), 1);
    return header + 1;
}

bool takes_block(size_t size)
{
    return size <= MEM_BLOCK_MAX_USER_BYTES && g_blocks_on && g_started.load(std::memory_order_relaxed);
}

inline void* alloc_once(size_t size, int module)
{
    return takes_block(size) ? block_path_alloc(size, module) : heap_alloc(size, module);
}

// Attempts until something comes back; the failure step ends the process at the tenth.
void* alloc_retrying(const char* file, int line, size_t size, int module)
{
    void* p = nullptr;
    for (int attempt = 1; !p; ++attempt) {
        failure_step(file, line, size, attempt);
        p = alloc_once(size, module);
    }
    restore_low_limit();
    return p;
}

void heap_free(void* p)
{
    auto* prefix = reinterpret_cast<Heap_prefix*>(static_cast<char*>(p) - sizeof(Heap_prefix));
    charge(prefix->header.module, -int64_t(words_of(prefix->full_size)), -1);
    uint64_t words = words_of(sizeof(Heap_prefix) + prefix->full_size);
    g_free(prefix);
    totals_sub(words);
}

Heap_prefix* prefix_of(void* p)
{
    return reinterpret_cast<Heap_prefix*>(static_cast<char*>(p) - sizeof(Heap_prefix));
}

}  // namespace

void* qv_mem_detail::alloc_charged_to(const char* file, int line, size_t size, int module)
{
    if (size == 0)
        return nullptr;
    if (void* p = alloc_once(size, module))
        return p;
    Module_scope scope(MOD_MEM);
    return alloc_retrying(file, line, size, module);
}

int mem_set_hooks(Mem_malloc_fn malloc_fn, Mem_realloc_fn realloc_fn, Mem_free_fn free_fn)
{
    if (!malloc_fn || !realloc_fn || !free_fn || g_started || g_hook_count > 0)
        return 0;
    g_malloc = malloc_fn;
    g_realloc = realloc_fn;
    g_free = free_fn;
    g_hook_count = 1;
    return 1;
}

void mem_init()
{
    if (g_started)
        return;
    ensure_hooks();
    const char* noblocks = getenv("QV_MEM_NOBLOCKS");
    g_blocks_on = !noblocks;
    if (g_blocks_on)
        blocks_init();
    mapped_init();
    accounts_register_area();
    // Last, so that every lock and table exists before another thread sees MEM as started.
    g_started.store(true, std::memory_order_release);
    g_block_path.store(g_blocks_on, std::memory_order_release);
}

void mem_exit()
{
    if (!g_started)
        return;
    Module_scope scope(MOD_MEM);
    mapped_exit();
    pages_exit();
    if (g_blocks_on)
        blocks_exit();
    pools_report_leaks();
    g_block_path.store(false, std::memory_order_release);
    g_started.store(false, std::memory_order_release);
    g_malloc = malloc;
    g_realloc = realloc;
    g_free = free;
    g_hook_count = 1;
}

bool mem_started() { return g_started.load(std::memory_order_relaxed); }
bool mem_blocks_enabled() { return g_blocks_on && mem_started(); }

namespace {

[[gnu::cold, gnu::noinline]] void* alloc_slow(const char* file, int line, size_t size)
{
    if (size == 0)
        return nullptr;
    if (!g_started.load(std::memory_order_relaxed)) {
        if (void* p = heap_alloc(size, 0))
            return p;
        return alloc_retrying(file, line, size, 0);
    }
    int module = charged_module();
    if (void* p = alloc_once(size, module))
        return p;
    Module_scope scope(MOD_MEM);
    return alloc_retrying(file, line, size, module);
}

[[gnu::cold, gnu::noinline]] void free_slow(Block_header* header)
{
    if (!header->from_block) {
        heap_free(header + 1);
        return;
    }
    // Before start or after stop there is no block allocator to give it to.
    if (!g_block_path.load(std::memory_order_relaxed))
        return;
    charge_fast(header->module, -int64_t(words_of(header->size)), -1);
    block_free(header);
}

}  // namespace

// Not vectorised: the paired account update in SSE registers cost more than two adds.
[[gnu::optimize("no-tree-slp-vectorize")]] void* mem_alloc(const char* file, int line, size_t size)
{
    // The common case: a block of the current slab of the thread's row, charged to its cached
    // area. Everything else (first use, no room, no area, the heap path) goes the long way.
    if (size - 1 < MEM_BLOCK_MAX_USER_BYTES && g_block_path.load(std::memory_order_relaxed)) [[likely]] {
        Thread_cache& cache = t_cache;
        Thread_context* context = thread_context();
        if (cache.heap && cache.context == context && cache.area) [[likely]] {
            Class_row& row = cache.heap->rows[class_of(size + sizeof(Block_header))];
            Slab* slab = row.current_slab;
            if (slab) [[likely]] {
                Block_header* header = static_cast<Block_header*>(slab->free_list);
                if (header) {
                    slab->free_list = *reinterpret_cast<void**>(header);
                    zero_user_bytes(header + 1, size);
                } else {
                    // Below the bump pointer a slab is all zero: it came zeroed from the system,
                    // or was cleared when it last emptied.
                    char* bump = slab->bump - row.block_size;
                    if (bump < reinterpret_cast<char*>(slab) + SLAB_HEADER_BYTES) [[unlikely]]
                        return alloc_slow(file, line, size);
                    slab->bump = bump;
                    header = reinterpret_cast<Block_header*>(bump);
                }
                ++slab->used;
                int module = context->current_module == MOD_MEM ? context->previous_module : context->current_module;
                if (unsigned(module) >= unsigned(MODULE_TABLE_ROWS)) [[unlikely]]
                    module = 0;
                write_header(header, module, size);
                Module_account& account = cache.area->accounts[module];
                int64_t words = account.words + int64_t(words_of(size));
                int64_t count = account.allocations + 1;
                account.words = words;
                account.allocations = count;
                if (words > account.peak_words || count > account.peak_allocations) [[unlikely]]
                    raise_peaks(account);
                return header + 1;
            }
        }
    }
    return alloc_slow(file, line, size);
}

[[gnu::optimize("no-tree-slp-vectorize")]] void mem_free(const char*, int, void* p)
{
    if (!p)
        return;
    Block_header* header = header_of(p);
    // An own block that does not empty its slab goes straight on the free list. The slab is ours
    // exactly when its owner row lies in the caller's heap: one load and one compare.
    Thread_cache& cache = t_cache;
    if (header->from_block && cache.heap && cache.area && g_block_path.load(std::memory_order_relaxed)) {
        uint32_t size = header->size;
        int module = header->module;
        Slab* slab = slab_of(header);
        uintptr_t row_offset = reinterpret_cast<uintptr_t>(slab->owner.load(std::memory_order_relaxed)) -
                               reinterpret_cast<uintptr_t>(cache.heap);
        if (row_offset < sizeof(Thread_heap) && slab->used > 1 && !slab->full) {
            *reinterpret_cast<void**>(header) = slab->free_list;
            slab->free_list = header;
            --slab->used;
            Module_account& account = cache.area->accounts[module];
            account.words -= int64_t(words_of(size));
            account.allocations -= 1;
            return;
        }
    }
    free_slow(header);
}

void* mem_realloc(const char* file, int line, void* p, size_t size)
{
    if (!p)
        return mem_alloc(file, line, size);
    if (size == 0) {
        mem_free(file, line, p);
        return nullptr;
    }
    Block_header* header = header_of(p);
    bool in_block = header->from_block != 0;
    bool to_block = takes_block(size);
    int module = header->module;

    if (in_block && to_block) {
        // Same class: the block stays where it is.
        if (block_class_bytes(size + sizeof(Block_header)) == block_capacity(header)) {
            if (size > header->size)
                std::memset(static_cast<char*>(p) + header->size, 0, size - header->size);
            charge(module, int64_t(words_of(size)) - int64_t(words_of(header->size)), 0);
            header->size = uint32_t(size);
            return p;
        }
    }
    if (!in_block && !to_block) {
        if (size > SIZE_MAX - sizeof(Heap_prefix))
            fatal_size(size);
        if (g_started.load(std::memory_order_relaxed))
            check_limit();
        Heap_prefix* prefix = prefix_of(p);
        uint64_t old_size = prefix->full_size;
        void* raw = g_realloc(prefix, sizeof(Heap_prefix) + size);
        for (int attempt = 1; !raw; ++attempt) {
            Module_scope scope(MOD_MEM);
            failure_step(file, line, size, attempt);
            raw = g_realloc(prefix, sizeof(Heap_prefix) + size);
            if (raw)
                restore_low_limit();
        }
        prefix = static_cast<Heap_prefix*>(raw);
        if (size > old_size)
            std::memset(reinterpret_cast<char*>(prefix + 1) + old_size, 0, size - old_size);
        prefix->full_size = size;
        prefix->header.size = size > UINT32_MAX ? UINT32_MAX : uint32_t(size);
        uint64_t old_words = words_of(sizeof(Heap_prefix) + old_size);
        uint64_t new_words = words_of(sizeof(Heap_prefix) + size);
        if (new_words > old_words)
            totals_add(new_words - old_words);
        else
            totals_sub(old_words - new_words);
        charge(module, int64_t(words_of(size)) - int64_t(words_of(old_size)), 0);
        return prefix + 1;
    }
    // Across allocators, or to another class: a new block, the smaller size copied.
    size_t old_size = in_block ? header->size : size_t(prefix_of(p)->full_size);
    void* fresh = mem_alloc(file, line, size);
    std::memcpy(fresh, p, old_size < size ? old_size : size);
    // The copy keeps the original owner of the memory.
    if (header_of(fresh)->module != module) {
        Block_header* fresh_header = header_of(fresh);
        int64_t words = int64_t(words_of(size));
        charge(fresh_header->module, -words, -1);
        charge(module, words, 1);
        fresh_header->module = uint16_t(module);
    }
    mem_free(file, line, p);
    return fresh;
}

char* mem_strdup(const char* file, int line, const char* text)
{
    if (!text)
        return nullptr;
    size_t length = std::strlen(text);
    char* copy = static_cast<char*>(mem_alloc(file, line, length + 1));
    std::memcpy(copy, text, length);
    return copy;
}

size_t mem_size(const void* p)
{
    if (!p)
        return 0;
    const Block_header* header = header_of(p);
    if (!header->from_block)
        return size_t(reinterpret_cast<const Heap_prefix*>(static_cast<const char*>(p) - sizeof(Heap_prefix))->full_size);
    return header->size;
}

void* mem_raw_alloc(const char* file, int line, size_t size)
{
    if (void* p = raw_alloc_try(size))
        return p;
    Module_scope scope(MOD_MEM);
    void* p = nullptr;
    for (int attempt = 1; !p; ++attempt) {
        failure_step(file, line, size, attempt);
        p = raw_alloc_try(size);
    }
    restore_low_limit();
    return p;
}

void* mem_raw_realloc(const char* file, int line, void* p, size_t size)
{
    if (!p)
        return mem_raw_alloc(file, line, size);
    if (size > SIZE_MAX - sizeof(Raw_header))
        fatal_size(size);
    auto* header = static_cast<Raw_header*>(p) - 1;
    uint64_t old_total = header->full_total;
    uint64_t new_total = sizeof(Raw_header) + size;
    void* raw = g_realloc(header, new_total);
    for (int attempt = 1; !raw; ++attempt) {
        Module_scope scope(MOD_MEM);
        failure_step(file, line, size, attempt);
        raw = g_realloc(header, new_total);
        if (raw)
            restore_low_limit();
    }
    header = static_cast<Raw_header*>(raw);
    if (new_total > old_total)
        std::memset(reinterpret_cast<char*>(header) + old_total, 0, new_total - old_total);
    header->total_size = new_total > UINT32_MAX ? UINT32_MAX : uint32_t(new_total);
    header->full_total = new_total;
    if (words_of(new_total) > words_of(old_total))
        totals_add(words_of(new_total) - words_of(old_total));
    else
        totals_sub(words_of(old_total) - words_of(new_total));
    return header + 1;
}

void mem_raw_free(const char*, int, void* p)
{
    if (!p)
        return;
    auto* header = static_cast<Raw_header*>(p) - 1;
    uint64_t words = words_of(header->full_total);
    g_free(header);
    totals_sub(words);
}

uint64_t mem_current_bytes() { return g_current_words.load(std::memory_order_relaxed) * 8; }
uint64_t mem_peak_bytes() { return g_peak_words.load(std::memory_order_relaxed) * 8; }

namespace QV::MEM {

void* Allocator_impl::malloc(size_t size) { return mem_alloc("allocate", 0, size); }
void Allocator_impl::free(void* memory) { mem_free("allocate", 0, memory); }
void* Allocator_impl::realloc(void* memory, size_t size) { return mem_realloc("allocate", 0, memory, size); }

}  // namespace QV::MEM
