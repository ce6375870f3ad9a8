// The page allocator on the system's virtual memory, memory-mapped file blocks, and the system's
// memory figures.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <fcntl.h>
#include <unistd.h>
#include <unordered_map>

#include "base/lib/mem/mem_internal.h"
#include "base/lib/mem/mem_pools.h"
#include "runtime/msg.h"

using namespace qv_mem_detail;

namespace {

constexpr size_t RECORD_BYTES = 262144;
constexpr uintptr_t PAGE_BYTES = PAGE_ALLOC_BYTES;

struct Page_record {
    Page_record* next;
    char* address;          // what the system (or the heap) gave
    size_t size;
    uint32_t page_count;
    uint32_t pages_free;
    bool is_virtual;        // false: the heap fallback
    void* free_pages;       // linked through their second word
};

std::mutex g_page_lock;
Page_record* g_records = nullptr;
bool g_mmap_warned = false;

void* first_free_page(Page_record* record)
{
    void* page = record->free_pages;
    record->free_pages = static_cast<void**>(page)[1];
    --record->pages_free;
    return page;
}

// A new record of 32 pages (31 when the base is not 8 KB aligned); never null.
Page_record* new_record()
{
    char* address = nullptr;
    bool is_virtual = true;
    for (int attempt = 1; !address; ++attempt) {
        void* mapped = mmap(nullptr, RECORD_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped != MAP_FAILED) {
            address = static_cast<char*>(mapped);
            is_virtual = true;
            break;
        }
        if (!g_mmap_warned) {
            g_mmap_warned = true;
            msg_warn_n(15, "can't VirtualAlloc %d bytes: %s", int(PAGE_BYTES), msg_os_error_text());
        }
        if (void* heap = raw_alloc_try(RECORD_BYTES)) {
            address = static_cast<char*>(heap);
            is_virtual = false;
            break;
        }
        failure_step(nullptr, 0, RECORD_BYTES, attempt);
    }
    if (is_virtual) {
        totals_add(RECORD_BYTES >> 3);
        charge(MOD_MEM, int64_t(RECORD_BYTES >> 3), 1);
    }
    auto* record = static_cast<Page_record*>(mem_raw_alloc("page_alloc", 0, sizeof(Page_record)));
    record->address = address;
    record->size = RECORD_BYTES;
    record->is_virtual = is_virtual;
    uintptr_t first = (reinterpret_cast<uintptr_t>(address) + PAGE_BYTES - 1) & ~(PAGE_BYTES - 1);
    record->page_count = uint32_t((reinterpret_cast<uintptr_t>(address) + RECORD_BYTES - first) / PAGE_BYTES);
    for (uint32_t i = record->page_count; i-- > 0;) {
        void** page = reinterpret_cast<void**>(first + i * PAGE_BYTES);
        page[0] = record;
        page[1] = record->free_pages;
        record->free_pages = page;
    }
    record->pages_free = record->page_count;
    return record;
}

void release_record(Page_record* record)
{
    if (record->is_virtual) {
        if (munmap(record->address, record->size) != 0) {
            msg_warn_n(17, "VirtualFree failed: %s", msg_os_error_text());
        } else {
            totals_sub(RECORD_BYTES >> 3);
            charge(MOD_MEM, -int64_t(RECORD_BYTES >> 3), -1);
        }
    } else {
        mem_raw_free("page_alloc", 0, record->address);
    }
    mem_raw_free("page_alloc", 0, record);
}

struct Mapped_record {
    uint32_t size;
    int32_t module;
    uint32_t writable;
    size_t full_size;
};

std::mutex g_mapped_lock;
std::unordered_map<void*, Mapped_record>* g_mapped = nullptr;

// Reads one "Name:  value kB" field of a /proc file; 0 when missing.
uint64_t proc_kb(const char* path, const char* name)
{
    FILE* file = std::fopen(path, "r");
    if (!file)
        return 0;
    char line[256];
    uint64_t kb = 0;
    size_t length = std::strlen(name);
    while (std::fgets(line, sizeof line, file)) {
        if (std::strncmp(line, name, length) == 0 && line[length] == ':') {
            kb = std::strtoull(line + length + 1, nullptr, 10);
            break;
        }
    }
    std::fclose(file);
    return kb;
}

}  // namespace

void* page_alloc()
{
    Module_scope scope(MOD_MEM);
    std::unique_lock<std::mutex> hold(g_page_lock);
    Page_record* record = g_records;
    while (record && record->pages_free == 0)
        record = record->next;
    if (!record) {
        hold.unlock();
        Page_record* fresh = new_record();
        hold.lock();
        fresh->next = g_records;
        g_records = fresh;
        record = fresh;
    }
    void** page = static_cast<void**>(first_free_page(record));
    hold.unlock();
    // The owner word stays; the rest is zeroed for reuse (fresh pages are zero already).
    std::memset(page + 1, 0, PAGE_BYTES - sizeof(void*));
    return page;
}

void page_free(void* page)
{
    if (!page)
        return;
    Module_scope scope(MOD_MEM);
    auto** words = static_cast<void**>(page);
    auto* record = static_cast<Page_record*>(words[0]);
    Page_record* release = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_page_lock);
        words[1] = record->free_pages;
        record->free_pages = page;
        if (++record->pages_free == record->page_count) {
            for (Page_record** link = &g_records; *link; link = &(*link)->next) {
                if (*link == record) {
                    *link = record->next;
                    break;
                }
            }
            release = record;
        }
    }
    if (release)
        release_record(release);
}

void* mem_map_file(int fd, size_t size, bool writable)
{
    if (!mem_started() || fd < 0 || fcntl(fd, F_GETFD) == -1 || size == 0)
        return nullptr;
    int module = charged_module();
    void* address = mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED)
        return nullptr;
    {
        std::lock_guard<std::mutex> hold(g_mapped_lock);
        (*g_mapped)[address] = Mapped_record{size > UINT32_MAX ? UINT32_MAX : uint32_t(size), module,
                                             writable ? 1u : 0u, size};
    }
    totals_add(words_of(size));
    charge(module, int64_t(words_of(size)), 1);
    return address;
}

void mem_unmap(void* address)
{
    if (!address)
        return;
    Module_scope scope(MOD_MEM);
    if (!mem_started())
        return;
    Mapped_record record;
    {
        std::lock_guard<std::mutex> hold(g_mapped_lock);
        auto found = g_mapped->find(address);
        if (found == g_mapped->end()) {
            msg_error("trying to unmap not mmaped block %p", address);
            return;
        }
        record = found->second;
        g_mapped->erase(found);
    }
    if (munmap(address, record.full_size) != 0) {
        msg_error("failed to munmap block %p: %s", address, msg_os_error_text());
        return;
    }
    totals_sub(words_of(record.full_size));
    charge(record.module, -int64_t(words_of(record.full_size)), -1);
}

uint64_t mem_physical(uint32_t mask)
{
    uint64_t sum = 0;
    if (mask & 1)
        sum += proc_kb("/proc/meminfo", "MemTotal") << 10;
    if (mask & 2)
        sum += proc_kb("/proc/meminfo", "MemAvailable") << 10;
    if (mask & 4)
        sum += proc_kb("/proc/meminfo", "SwapTotal") << 10;
    if (mask & 8)
        sum += proc_kb("/proc/meminfo", "SwapFree") << 10;
    // The user address space of this platform is 47 bits.
    constexpr uint64_t VIRTUAL_BYTES = uint64_t(1) << 47;
    if (mask & 16)
        sum += VIRTUAL_BYTES;
    if (mask & 32) {
        uint64_t used = proc_kb("/proc/self/status", "VmSize") << 10;
        sum += used < VIRTUAL_BYTES ? VIRTUAL_BYTES - used : 0;
    }
    return sum;
}

namespace qv_mem_detail {

void mapped_init()
{
    std::lock_guard<std::mutex> hold(g_mapped_lock);
    if (!g_mapped)
        g_mapped = new std::unordered_map<void*, Mapped_record>();
}

void mapped_exit()
{
    std::unordered_map<void*, Mapped_record> left;
    {
        std::lock_guard<std::mutex> hold(g_mapped_lock);
        if (g_mapped)
            left.swap(*g_mapped);
    }
    if (left.empty())
        return;
    msg_warn_n(13, "%i memory-mapped blocks are not unmapped, cleaning now", int(left.size()));
    for (auto& [address, record] : left) {
        if (munmap(address, record.full_size) != 0) {
            msg_error_n(18, "failed to clean up memory mapped blocks: %s", msg_os_error_text());
            continue;
        }
        totals_sub(words_of(record.full_size));
        charge(record.module, -int64_t(words_of(record.full_size)), -1);
    }
}

void pages_exit()
{
    std::lock_guard<std::mutex> hold(g_page_lock);
    for (Page_record* record = g_records; record; record = record->next)
        msg_debug("cannot free memory page 0x%p, memory still in use", static_cast<void*>(record->address));
}

}  // namespace qv_mem_detail
