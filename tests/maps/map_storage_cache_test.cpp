// The two-level cache under pressure: out-of-core maps, several readers, flushes, statistics.
#include <memory>

#include "maps/map_page_table.h"
#include "tests/maps/map_storage_support.h"

using namespace QV::RCMAP;
using namespace map_storage_test;

namespace {

class Map_storage_cache : public Map_storage_test {
protected:
    // Appends and commits enough elements for `pages` file pages.
    static void fill_pages(Map_impl& map, uint32_t pages) { fill(map, 0, pages * map.page_store().elements_per_page); }
};

constexpr float SMALL_LIMIT_MB = 1.0f;                        // 32 cache pages
constexpr uint32_t SMALL_LIMIT_PAGES = 32;

} // namespace

TEST_F(Map_storage_cache, TenTimesTheCacheGoesThroughTheSwapFileIntact)
{
    Map_manager& manager = Map_manager::instance();
    manager.flush(0);
    manager.set_size_limit_mb(SMALL_LIMIT_MB);
    const uint32_t buffers_before = manager.max_pages();
    {
        Map_impl map(small_declaration());
        fill_pages(map, SMALL_LIMIT_PAGES * 10);
        const uint32_t count = map.size();
        ASSERT_EQ(count, SMALL_LIMIT_PAGES * 10 * map.page_store().elements_per_page);

        EXPECT_LE(manager.resident_pages(), SMALL_LIMIT_PAGES);
        EXPECT_LE(manager.used_mb(), SMALL_LIMIT_MB);
        EXPECT_LE(manager.resident_pages() + manager.free_buffers(), SMALL_LIMIT_PAGES);
        // Everything that is not resident went to the swap file.
        EXPECT_GE(map.page_store().swap.slot_count(), SMALL_LIMIT_PAGES * 10 - SMALL_LIMIT_PAGES);

        // Two passes, the second one in reverse, so pages leave and return more than once.
        for (int pass = 0; pass < 2; ++pass) {
            for (uint32_t k = 0; k < count; ++k) {
                const uint32_t i = pass == 0 ? k : count - 1 - k;
                ASSERT_TRUE(same(element_of(map, i), small_element(i))) << "element " << i << " pass " << pass;
            }
            EXPECT_LE(manager.resident_pages(), SMALL_LIMIT_PAGES);
        }
        const Map_cache_statistics statistics = manager.map_statistics(map.page_store().map_id);
        EXPECT_GT(statistics.swaps, 0u);
        EXPECT_GT(statistics.loads, uint64_t(SMALL_LIMIT_PAGES * 10));
    }
    // The map's pages went back to the free list, none left in use.
    EXPECT_EQ(manager.resident_pages(), 0u);
    EXPECT_EQ(manager.used_mb(), 0.0f);
    EXPECT_LE(manager.max_pages() - buffers_before, SMALL_LIMIT_PAGES);
}

TEST_F(Map_storage_cache, FlushesGiveMemoryBackAndKeepChanges)
{
    Map_manager& manager = Map_manager::instance();
    Map_impl map(small_declaration());
    fill_pages(map, 8);
    EXPECT_GE(manager.resident_pages(), 8u);

    manager.flush(0);
    // Only the newest entry of this thread's table may stay.
    EXPECT_LE(manager.resident_pages(), 1u);
    EXPECT_EQ(manager.free_buffers(), 0u);
    EXPECT_TRUE(holds_elements(map, map.size()));

    // A flush of one map takes every page of it out of memory.
    map.flush();
    EXPECT_EQ(manager.resident_pages(), 0u);
    manager.flush(0);
    for (uint32_t i = 0; i < 8 * map.page_store().elements_per_page; i += map.page_store().elements_per_page)
        ASSERT_TRUE(same(element_of(map, i), small_element(i))) << "element " << i;
    const uint32_t resident = manager.resident_pages();
    ASSERT_EQ(resident, 8u);
    // The memory manager's callback only notes the request; it may run inside any allocation.
    EXPECT_EQ(Map_manager::flush_callback(2 * 32768), 0u);
    EXPECT_EQ(manager.resident_pages(), resident);
    captured().clear();
    // The next miss serves it: the table gives back its oldest pages, which are clean.
    Map_impl other(small_declaration());
    fill(other, 0, 1);
    EXPECT_TRUE(saw("flushed 65536 bytes"));
    EXPECT_EQ(manager.resident_pages(), resident - 2 + 1);
}

// The error belongs to the map module whoever called in: a caller's module is not the one
// whose swap file failed.
TEST_F(Map_storage_cache, UnwritableSwapDirectoryKeepsPagesInMemory)
{
    setenv("TMPDIR", "/nonexistent/map/swap/dir", 1);
    Map_manager::instance().set_size_limit_mb(0.25f); // 8 pages
    Module_scope caller(MOD_MAIN);
    Map_impl map(small_declaration());
    fill_pages(map, 20);
    unsetenv("TMPDIR");
    EXPECT_TRUE(holds_elements(map, map.size()));
    int errors = 0;
    for (const Captured_line& line : captured()) {
        if (line.text.find("cannot create map swap file \"/nonexistent/map/swap/dir/qrmap") != 0)
            continue;
        ++errors;
        EXPECT_EQ(line.number, 821001);
        EXPECT_EQ(line.line.substr(0, 5), "RCMP ") << line.line;
    }
    EXPECT_EQ(errors, 1) << "one error for the map, not one per page";
}

TEST_F(Map_storage_cache, AgingMakesTablesGiveBackWhenTheCacheIsFull)
{
    Map_manager& manager = Map_manager::instance();
    manager.set_size_limit_mb(SMALL_LIMIT_MB);
    Map_impl map(small_declaration());
    fill_pages(map, 64);
    map.flush();
    manager.flush(0);
    ASSERT_EQ(manager.resident_pages(), 0u);

    // Two tables that pin the whole cache between them. On the heap: the thread sanitizer takes
    // a mutex at a reused stack address (a map's lock of an earlier test) for the same one.
    auto first_table = std::make_unique<Map_page_table>(25), second_table = std::make_unique<Map_page_table>(25);
    Map_page_table& first = *first_table;
    Map_page_table& second = *second_table;
    Map_page_store& store = map.page_store();
    for (uint32_t page = 0; page < 25; ++page)
        ASSERT_NE(store.get_page(page, true, &first), nullptr);
    for (uint32_t page = 25; page < SMALL_LIMIT_PAGES; ++page)
        ASSERT_NE(store.get_page(page, true, &second), nullptr);
    EXPECT_EQ(manager.bucket_count(0), 0u);
    EXPECT_EQ(manager.bucket_count(1), SMALL_LIMIT_PAGES);

    // The next miss finds bucket 0 empty: the tables are cut to a share of half their weight.
    const uint8_t* data = store.get_page(SMALL_LIMIT_PAGES, true, &second);
    ASSERT_NE(data, nullptr);
    EXPECT_LE(first.count(), 8u);
    EXPECT_GE(first.count(), 1u);
    EXPECT_LE(manager.resident_pages(), SMALL_LIMIT_PAGES);
    // What the tables still hold is intact.
    Small_element element;
    memcpy(&element, data, sizeof element);
    EXPECT_TRUE(same(element, small_element(SMALL_LIMIT_PAGES * store.elements_per_page)));
}

TEST_F(Map_storage_cache, DirtyPagesOfAnotherMapAreWrittenToTheirOwnSwapFile)
{
    Map_manager& manager = Map_manager::instance();
    manager.flush(0);
    manager.set_size_limit_mb(0.25f); // 8 pages; this thread's table holds 6
    Map_impl first(small_declaration());
    fill_pages(first, 8);
    ASSERT_EQ(first.page_store().swap.slot_count(), 0u) << "all of it fits";

    // Every idle page is a dirty page of the first map: the second map's miss has them written
    // to the first map's swap file, not its own.
    Map_impl second(small_declaration());
    fill(second, 12345, 1);
    EXPECT_GT(first.page_store().swap.slot_count(), 0u);
    EXPECT_EQ(second.page_store().swap.slot_count(), 0u);
    EXPECT_GT(manager.map_statistics(first.page_store().map_id).swaps, 0u);
    EXPECT_LE(manager.resident_pages(), 8u);
    EXPECT_TRUE(holds_elements(first, first.size()));
    EXPECT_TRUE(holds_elements(second, 1, 12345));
}

// Buffers of a larger limit wait in the free list after their map is gone; a lowered limit
// binds them as it binds fresh memory.
TEST_F(Map_storage_cache, LoweredLimitHoldsWhileTheFreeListHasBuffers)
{
    Map_manager& manager = Map_manager::instance();
    {
        Map_impl big(small_declaration());
        fill_pages(big, 3 * SMALL_LIMIT_PAGES);
    }
    ASSERT_GE(manager.free_buffers(), 3 * SMALL_LIMIT_PAGES);
    manager.set_size_limit_mb(SMALL_LIMIT_MB);
    Map_impl map(small_declaration());
    fill_pages(map, 2 * SMALL_LIMIT_PAGES);
    EXPECT_LE(manager.resident_pages(), SMALL_LIMIT_PAGES);
    EXPECT_LE(manager.used_mb(), SMALL_LIMIT_MB);
    EXPECT_TRUE(holds_elements(map, map.size()));
}
