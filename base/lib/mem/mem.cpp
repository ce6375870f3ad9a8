// Heap allocation with a per-block header and per-module accounts.
//
// Every block has 16 bytes ahead of the user pointer, so the pointer stays 16-byte aligned:
// the first 8 hold the full 64-bit size (the 32-bit field of the header cannot hold sizes past
// 4 GiB), the next 8 are the header proper (module, from_block, size).
#include "base/lib/mem/i_mem_allocatable.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {

struct Block_header {
    uint64_t full_size;   // bytes asked for, 64-bit
    uint16_t module;      // module charged
    uint16_t from_block;  // always 0 here: the heap hook served it
    uint32_t size;        // bytes asked for, clipped to 32 bits
};
static_assert(sizeof(Block_header) == 16, "16 bytes keep the user pointer 16-byte aligned");

struct Raw_header {
    uint64_t total_size;  // bytes including this header
    uint64_t unused;
};
static_assert(sizeof(Raw_header) == 16);

Mem_malloc_fn g_malloc = nullptr;
Mem_realloc_fn g_realloc = nullptr;
Mem_free_fn g_free = nullptr;
int g_hook_count = 0;
bool g_started = false;

// Accounts in 8-byte words.
std::atomic<uint64_t> g_current_words{0};
std::atomic<uint64_t> g_peak_words{0};
std::atomic<int64_t> g_module_words[MODULE_TABLE_ROWS];
Mem_flush_callback g_flush[MODULE_TABLE_ROWS];

void ensure_hooks()
{
    if (!g_malloc) {
        g_malloc = malloc;
        g_realloc = realloc;
        g_free = free;
        g_hook_count = 1;
    }
}

uint64_t words_of(uint64_t bytes) { return (bytes + 7) / 8; }

void account(int module, int64_t words)
{
    if (module < 0 || module >= MODULE_TABLE_ROWS)
        module = 0;
    g_module_words[module].fetch_add(words, std::memory_order_relaxed);
    uint64_t now = g_current_words.fetch_add(uint64_t(words), std::memory_order_relaxed) + uint64_t(words);
    uint64_t peak = g_peak_words.load(std::memory_order_relaxed);
    while (int64_t(words) > 0 && now > peak &&
           !g_peak_words.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

// The module an allocation is charged to: inside MEM's own scope, the caller of the manager.
int charged_module()
{
    Thread_context* context = thread_context();
    if (!context)
        return 0;
    return context->current_module == MOD_MEM ? context->previous_module : context->current_module;
}

[[noreturn]] void out_of_memory(size_t size)
{
    msg_fatal_n(1, "out of memory: cannot allocate %zu bytes", size);
}

Block_header* header_of(void* p) { return reinterpret_cast<Block_header*>(p) - 1; }

}  // namespace

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
    g_started = true;
}

void mem_exit()
{
    g_started = false;
    g_malloc = malloc;
    g_realloc = realloc;
    g_free = free;
    g_hook_count = 1;
}

bool mem_started() { return g_started; }

void* mem_alloc(const char*, int, size_t size)
{
    if (size == 0)
        return nullptr;
    ensure_hooks();
    void* raw = g_malloc(sizeof(Block_header) + size);
    if (!raw)
        out_of_memory(size);
    std::memset(raw, 0, sizeof(Block_header) + size);
    auto* header = static_cast<Block_header*>(raw);
    int module = charged_module();
    header->full_size = size;
    header->module = uint16_t(module);
    header->from_block = 0;
    header->size = size > UINT32_MAX ? UINT32_MAX : uint32_t(size);
    account(module, int64_t(words_of(size)));
    return header + 1;
}

void mem_free(const char*, int, void* p)
{
    if (!p)
        return;
    Block_header* header = header_of(p);
    account(header->module, -int64_t(words_of(header->full_size)));
    g_free(header);
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
    uint64_t old_size = header->full_size;
    int module = header->module;
    void* raw = g_realloc(header, sizeof(Block_header) + size);
    if (!raw)
        out_of_memory(size);
    header = static_cast<Block_header*>(raw);
    if (size > old_size)
        std::memset(reinterpret_cast<char*>(header + 1) + old_size, 0, size - old_size);
    header->full_size = size;
    header->size = size > UINT32_MAX ? UINT32_MAX : uint32_t(size);
    account(module, int64_t(words_of(size)) - int64_t(words_of(old_size)));
    return header + 1;
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
    return reinterpret_cast<const Block_header*>(p)[-1].size;
}

void* mem_raw_alloc(const char*, int, size_t size)
{
    ensure_hooks();
    void* raw = g_malloc(sizeof(Raw_header) + size);
    if (!raw)
        out_of_memory(size);
    std::memset(raw, 0, sizeof(Raw_header) + size);
    auto* header = static_cast<Raw_header*>(raw);
    header->total_size = sizeof(Raw_header) + size;
    g_current_words.fetch_add(words_of(header->total_size), std::memory_order_relaxed);
    return header + 1;
}

void* mem_raw_realloc(const char* file, int line, void* p, size_t size)
{
    if (!p)
        return mem_raw_alloc(file, line, size);
    auto* header = static_cast<Raw_header*>(p) - 1;
    uint64_t old_total = header->total_size;
    void* raw = g_realloc(header, sizeof(Raw_header) + size);
    if (!raw)
        out_of_memory(size);
    header = static_cast<Raw_header*>(raw);
    uint64_t new_total = sizeof(Raw_header) + size;
    if (new_total > old_total)
        std::memset(reinterpret_cast<char*>(header) + old_total, 0, new_total - old_total);
    header->total_size = new_total;
    g_current_words.fetch_add(words_of(new_total) - words_of(old_total), std::memory_order_relaxed);
    return header + 1;
}

void mem_raw_free(const char*, int, void* p)
{
    if (!p)
        return;
    auto* header = static_cast<Raw_header*>(p) - 1;
    g_current_words.fetch_sub(words_of(header->total_size), std::memory_order_relaxed);
    g_free(header);
}

uint64_t mem_current_bytes() { return g_current_words.load(std::memory_order_relaxed) * 8; }
uint64_t mem_peak_bytes() { return g_peak_words.load(std::memory_order_relaxed) * 8; }
uint64_t mem_module_bytes(int module)
{
    if (module < 0 || module >= MODULE_TABLE_ROWS)
        return 0;
    int64_t words = g_module_words[module].load(std::memory_order_relaxed);
    return words > 0 ? uint64_t(words) * 8 : 0;
}

void mem_register_flush(int id, Mem_flush_callback callback)
{
    if (id >= 0 && id < MODULE_TABLE_ROWS)
        g_flush[id] = callback;
}
