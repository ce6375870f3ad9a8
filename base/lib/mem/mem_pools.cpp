// Fixed-size block pools in 8 KB pages, the regions they take their pages from, and
// Block_memory_pool.
#include <cstring>
#include <thread>

#include "base/lib/mem/mem_internal.h"
#include "base/lib/mem/mem_pools.h"
#include "runtime/msg.h"

using namespace qv_mem_detail;

namespace {

constexpr uintptr_t POOL_PAGE_BYTES = 8192;
constexpr uint32_t POOL_PAGE_HEADER_BYTES = 80;
constexpr uint32_t POOL_PAGE_PAYLOAD = 8104;
constexpr size_t REGION_BYTES = 524000;
constexpr int64_t PAGE_WORDS = 1024;
constexpr int SIZE_ROWS = int(MEMBLOCK_MAX_ELEMENT_BYTES / 16) + 1;

struct Region;

// Small lock that fits the pool's page header.
class Spin_lock {
public:
    void lock()
    {
        while (flag_.exchange(true, std::memory_order_acquire))
            std::this_thread::yield();
    }
    void unlock() { flag_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> flag_{false};
};

struct Pool_page {
    void* free_list;        // free elements of this page
    uint32_t free_count;    // elements on free_list
    uint32_t carved;        // elements handed out from the page's fresh area so far
    Pool_page* next_page;
    Pool_page* prev_page;
    Memblock* pool;
    Region* region;
};

}  // namespace

// The pool's own first page: its header carries the pool's fields after the page's.
struct Memblock : Pool_page {
    Pool_page* full_pages;  // pages with no free element
    uint32_t capacity;      // elements per page
    uint32_t element_size;  // bytes, a multiple of 16
    Spin_lock lock;
    int32_t module;         // charged for the pages
    uint32_t live;          // elements in use
};
static_assert(sizeof(Memblock) <= POOL_PAGE_HEADER_BYTES, "pool header fits the page's 80 bytes");

namespace {

struct Region {
    Region* next;
    Region* prev;
    void* memory;           // from mem_alloc
    void* free_pages;       // linked through their first word
    uint32_t free_count;
    uint32_t page_count;
    int list;               // which of the three lists holds it
};

enum { REGION_PARTIAL, REGION_FULL, REGION_EMPTY, REGION_LISTS };

std::mutex g_region_lock;
Region* g_regions[REGION_LISTS];

std::mutex g_size_lock;
uint32_t g_pools_by_size[SIZE_ROWS];

void region_unlink(Region* region)
{
    if (region->prev)
        region->prev->next = region->next;
    else
        g_regions[region->list] = region->next;
    if (region->next)
        region->next->prev = region->prev;
    region->next = region->prev = nullptr;
}

void region_link(Region* region, int list)
{
    region->list = list;
    region->prev = nullptr;
    region->next = g_regions[list];
    if (region->next)
        region->next->prev = region;
    g_regions[list] = region;
}

void region_file(Region* region)
{
    int list = region->free_count == region->page_count ? REGION_EMPTY
               : region->free_count == 0                  ? REGION_FULL
                                                          : REGION_PARTIAL;
    if (list == region->list)
        return;
    region_unlink(region);
    region_link(region, list);
}

Pool_page* region_page_take(int module)
{
    std::unique_lock<std::mutex> hold(g_region_lock);
    Region* region = g_regions[REGION_PARTIAL] ? g_regions[REGION_PARTIAL] : g_regions[REGION_EMPTY];
    if (!region) {
        // Dropped while the region is allocated: mem_alloc may flush, and a flush frees regions.
        hold.unlock();
        void* memory = alloc_charged_to("memblock region", 0, REGION_BYTES, MOD_MEM);
        auto* fresh = static_cast<Region*>(mem_raw_alloc("memblock region", 0, sizeof(Region)));
        fresh->memory = memory;
        uintptr_t first = (reinterpret_cast<uintptr_t>(memory) + POOL_PAGE_BYTES - 1) & ~(POOL_PAGE_BYTES - 1);
        uintptr_t end = reinterpret_cast<uintptr_t>(memory) + REGION_BYTES;
        fresh->page_count = uint32_t((end - first) / POOL_PAGE_BYTES);
        for (uint32_t i = fresh->page_count; i-- > 0;) {
            void* page = reinterpret_cast<void*>(first + i * POOL_PAGE_BYTES);
            *static_cast<void**>(page) = fresh->free_pages;
            fresh->free_pages = page;
        }
        fresh->free_count = fresh->page_count;
        hold.lock();
        region_link(fresh, REGION_EMPTY);
        region = fresh;
    }
    void* page = region->free_pages;
    region->free_pages = *static_cast<void**>(page);
    --region->free_count;
    region_file(region);
    hold.unlock();
    std::memset(page, 0, POOL_PAGE_BYTES);
    auto* pool_page = static_cast<Pool_page*>(page);
    pool_page->region = region;
    // The region was charged to MEM; its pages belong to the pool's module.
    if (module != MOD_MEM) {
        charge(MOD_MEM, -PAGE_WORDS, 0);
        charge(module, PAGE_WORDS, 0);
    }
    return pool_page;
}

void region_page_give(Pool_page* page, int module)
{
    if (module != MOD_MEM) {
        charge(module, -PAGE_WORDS, 0);
        charge(MOD_MEM, PAGE_WORDS, 0);
    }
    std::lock_guard<std::mutex> hold(g_region_lock);
    Region* region = page->region;
    *reinterpret_cast<void**>(page) = region->free_pages;
    region->free_pages = page;
    ++region->free_count;
    region_file(region);
}

void page_list_unlink(Pool_page*& head, Pool_page* page)
{
    if (page->prev_page)
        page->prev_page->next_page = page->next_page;
    else
        head = page->next_page;
    if (page->next_page)
        page->next_page->prev_page = page->prev_page;
    page->next_page = page->prev_page = nullptr;
}

void page_list_push(Pool_page*& head, Pool_page* page)
{
    page->prev_page = nullptr;
    page->next_page = head;
    if (head)
        head->prev_page = page;
    head = page;
}

char* elements_of(Pool_page* page) { return reinterpret_cast<char*>(page) + POOL_PAGE_HEADER_BYTES; }

// The pool's pages with free elements are linked from the pool's own next_page; the pool page
// itself is always the first of them or on the full list.
Pool_page*& avail_head(Memblock* pool) { return pool->next_page; }

void init_page(Memblock* pool, Pool_page* page)
{
    page->pool = pool;
    page->free_list = nullptr;
    page->free_count = 0;
    page->carved = 0;
}

uint32_t page_free_elements(Memblock* pool, Pool_page* page) { return page->free_count + pool->capacity - page->carved; }

void* pop_element(Memblock* pool, Pool_page* page)
{
    void* element;
    if (page->free_list) {
        element = page->free_list;
        page->free_list = *static_cast<void**>(element);
        --page->free_count;
    } else {
        element = elements_of(page) + size_t(page->carved) * pool->element_size;
        ++page->carved;
    }
    return element;
}

// Pages are either on the pool's available list (which does not include the pool page itself;
// see pool_pages_begin) or on full_pages.
bool pool_page_full(Memblock* pool, Pool_page* page) { return page_free_elements(pool, page) == 0; }

void* alloc_element(Memblock* pool)
{
    Pool_page* page = pool_page_full(pool, pool) ? avail_head(pool) : pool;
    if (!page) {
        page = region_page_take(pool->module);
        init_page(pool, page);
        page_list_push(avail_head(pool), page);
    }
    void* element = pop_element(pool, page);
    if (page != pool && pool_page_full(pool, page)) {
        page_list_unlink(avail_head(pool), page);
        page_list_push(pool->full_pages, page);
    }
    ++pool->live;
    std::memset(element, 0, pool->element_size);
    return element;
}

void free_element(Memblock* pool, void* element)
{
    auto* page = reinterpret_cast<Pool_page*>(reinterpret_cast<uintptr_t>(element) & ~(POOL_PAGE_BYTES - 1));
    bool was_full = pool_page_full(pool, page);
    *static_cast<void**>(element) = page->free_list;
    page->free_list = element;
    ++page->free_count;
    --pool->live;
    if (page == pool)
        return;
    if (was_full) {
        page_list_unlink(pool->full_pages, page);
        page_list_push(avail_head(pool), page);
    }
    // A wholly free page other than the pool's own goes back to its region at once.
    if (page_free_elements(pool, page) == pool->capacity) {
        page_list_unlink(avail_head(pool), page);
        region_page_give(page, pool->module);
    }
}

void release_pages(Memblock* pool)
{
    for (Pool_page** list : {&avail_head(pool), &pool->full_pages}) {
        while (Pool_page* page = *list) {
            page_list_unlink(*list, page);
            region_page_give(page, pool->module);
        }
    }
}

Memblock* create_pool(size_t element_size, int module)
{
    size_t rounded = (element_size + 15) & ~size_t(15);
    if (element_size == 0 || rounded > POOL_PAGE_PAYLOAD || POOL_PAGE_PAYLOAD / rounded < 2) {
        msg_error_n(7, "requested block size larger than %d", int(MEMBLOCK_MAX_ELEMENT_BYTES));
        return nullptr;
    }
    Pool_page* page = region_page_take(module);
    auto* pool = static_cast<Memblock*>(page);
    new (&pool->lock) Spin_lock();
    init_page(pool, pool);
    pool->next_page = pool->prev_page = nullptr;
    pool->full_pages = nullptr;
    pool->element_size = uint32_t(rounded);
    pool->capacity = uint32_t(POOL_PAGE_PAYLOAD / rounded);
    pool->module = module;
    pool->live = 0;
    std::lock_guard<std::mutex> hold(g_size_lock);
    ++g_pools_by_size[rounded / 16];
    return pool;
}

}  // namespace

Memblock* memblock_create(const char*, int, size_t element_size)
{
    int module = charged_module();
    Module_scope scope(MOD_MEM);
    return create_pool(element_size, module);
}

Memblock* memblock_create_noscope(const char*, int, size_t element_size)
{
    return create_pool(element_size, charged_module());
}

void* memblock_alloc_unlocked(Memblock* pool) { return alloc_element(pool); }

void* memblock_alloc_noscope(Memblock* pool)
{
    std::lock_guard<Spin_lock> hold(pool->lock);
    return alloc_element(pool);
}

void* memblock_alloc(Memblock* pool)
{
    Module_scope scope(MOD_MEM);
    return memblock_alloc_noscope(pool);
}

void memblock_free_unlocked(Memblock* pool, void* element)
{
    if (element)
        free_element(pool, element);
}

void memblock_free_noscope(Memblock* pool, void* element)
{
    if (!element)
        return;
    std::lock_guard<Spin_lock> hold(pool->lock);
    free_element(pool, element);
}

void memblock_free(Memblock* pool, void* element)
{
    Module_scope scope(MOD_MEM);
    memblock_free_noscope(pool, element);
}

void memblock_clear(Memblock* pool)
{
    if (!pool)
        return;
    Module_scope scope(MOD_MEM);
    std::lock_guard<Spin_lock> hold(pool->lock);
    release_pages(pool);
    init_page(pool, pool);
    pool->live = 0;
}

void memblock_destroy(Memblock* pool)
{
    if (!pool)
        return;
    Module_scope scope(MOD_MEM);
    release_pages(pool);
    {
        std::lock_guard<std::mutex> hold(g_size_lock);
        --g_pools_by_size[pool->element_size / 16];
    }
    region_page_give(pool, pool->module);
}

namespace {

template <class Visit>
void for_each_live(Memblock* pool, Visit visit)
{
    std::lock_guard<Spin_lock> hold(pool->lock);
    auto walk = [&](Pool_page* page) {
        // One byte per 16-byte slot of the page: set where a free element starts.
        uint8_t free_marks[514] = {};
        for (void* element = page->free_list; element; element = *static_cast<void**>(element))
            free_marks[(static_cast<char*>(element) - reinterpret_cast<char*>(page)) / 16] = 1;
        for (uint32_t i = 0; i < page->carved; ++i) {
            char* element = elements_of(page) + size_t(i) * pool->element_size;
            if (!free_marks[(element - reinterpret_cast<char*>(page)) / 16])
                visit(element);
        }
    };
    walk(pool);
    for (Pool_page* list : {avail_head(pool), pool->full_pages})
        for (Pool_page* page = list; page; page = page->next_page)
            if (page != pool)
                walk(page);
}

}  // namespace

void memblock_for_each(Memblock* pool, void (*callback)(void* element))
{
    for_each_live(pool, [&](void* element) { callback(element); });
}

void memblock_for_each(Memblock* pool, void (*callback)(void* element, void* argument), void* argument)
{
    for_each_live(pool, [&](void* element) { callback(element, argument); });
}

uint32_t memblock_live_count(Memblock* pool) { return pool->live; }
uint32_t memblock_element_size(const Memblock* pool) { return pool->element_size; }

namespace qv_mem_detail {

void regions_release_free()
{
    Region* release = nullptr;
    {
        std::lock_guard<std::mutex> hold(g_region_lock);
        while (Region* region = g_regions[REGION_EMPTY]) {
            region_unlink(region);
            region->next = release;
            release = region;
        }
    }
    while (release) {
        Region* next = release->next;
        mem_free("memblock region", 0, release->memory);
        mem_raw_free("memblock region", 0, release);
        release = next;
    }
}

void pools_report_leaks()
{
    bool any = false;
    std::lock_guard<std::mutex> hold(g_size_lock);
    for (int row = 0; row < SIZE_ROWS; ++row) {
        if (!g_pools_by_size[row])
            continue;
        msg_debug("memory blocks of size %d are still in use", row * 16);
        any = true;
    }
    if (any)
        msg_debug("leaks: some memory is still left in memblocks.");
}

}  // namespace qv_mem_detail

// ---- Block_memory_pool ----------------------------------------------------------------------

Block_memory_pool::Block_memory_pool(size_t block_count, size_t block_bytes)
    : block_count_(block_count ? block_count : 1), block_bytes_(block_bytes)
{
}

Block_memory_pool::~Block_memory_pool() { clear(); }

void* Block_memory_pool::allocate(size_t bytes)
{
    if (block_bytes_ == 0)
        block_bytes_ = bytes < sizeof(void*) ? sizeof(void*) : (bytes + 7) & ~size_t(7);
    if (bytes > block_bytes_)
        return nullptr;
    ++live_;
    if (void* block = free_list_) {
        free_list_ = *static_cast<void**>(block);
        std::memset(block, 0, block_bytes_);
        return block;
    }
    if (arrays_.empty() || arrays_.back().used == block_count_) {
        if (block_count_ > SIZE_MAX / block_bytes_)
            fatal_size(SIZE_MAX);
        arrays_.push_back(Array{static_cast<char*>(mem_alloc("allocate", 0, block_count_ * block_bytes_)), 0});
    }
    Array& array = arrays_.back();
    return array.memory + block_bytes_ * array.used++;
}

void Block_memory_pool::deallocate(void* block)
{
    if (!block)
        return;
    *static_cast<void**>(block) = free_list_;
    free_list_ = block;
    --live_;
}

void Block_memory_pool::clear()
{
    for (Array& array : arrays_)
        mem_free("allocate", 0, array.memory);
    arrays_.clear();
    free_list_ = nullptr;
    if (live_ != 0)
        msg_error_n(28, "Block_memory_pool::clear(): not all blocks have been deallocated");
    live_ = 0;
}
