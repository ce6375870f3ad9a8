// Memory of a map between and during the stages of a run: a full BVH build gives the old and the
// staged pages up as soon as it has passed them, so a map that arrives in roughly spatial order
// is not held twice; the discard that does it forgets exactly one page; and the end of an edit
// handle leaves a stored map's pages cached and idle instead of writing them out.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/db.h"
#include "maps/map_bvh.h"
#include "maps/map_dbhandle.h"
#include "maps/map_page_store.h"
#include "tests/maps/map_storage_support.h"

using namespace map_storage_test;
using namespace QV::RCMAP;

namespace {

class Map_build_memory_test : public Map_storage_test {
protected:
    void SetUp() override
    {
        Map_storage_test::SetUp();
        // Buffers left in the free list by earlier tests would hide new ones the build makes.
        Map_manager::instance().flush(0);
    }
    void TearDown() override
    {
        map_bvh_set_thread_count(1);
        Map_storage_test::TearDown();
    }
};

std::vector<std::string> sorted_elements(Map_impl& map)
{
    std::vector<std::string> elements(map.committed_size(), std::string(map.page_store().element_bytes, '\0'));
    for (uint32_t i = 0; i < map.committed_size(); ++i)
        map.read_element(i, elements[i].data());
    std::sort(elements.begin(), elements.end());
    return elements;
}

// Builds a map of `pages` full pages of small_element, which lie in x order, and returns how
// many page buffers the build made beyond those the map already held.
void build_in_order(uint32_t pages, uint32_t threads, uint32_t* new_buffers, uint32_t* map_pages)
{
    Map_manager& manager = Map_manager::instance();
    Map_impl map(small_declaration());
    fill(map, 0, pages * map.page_store().elements_per_page);
    const std::vector<std::string> before = sorted_elements(map);
    *map_pages = manager.resident_pages();
    const uint32_t made_before = manager.max_pages();
    map_bvh_set_thread_count(threads);
    ASSERT_EQ(map.build_bvh(0.6f, false, false), qv::shader_v3::MAP_SUCCESS);
    *new_buffers = manager.max_pages() - made_before;
    ASSERT_NE(map.global_bvh, nullptr);
    EXPECT_EQ(map.page_store().segments().size(), 1u);
    EXPECT_EQ(sorted_elements(map), before);
    EXPECT_FALSE(saw("already set"));
    EXPECT_FALSE(saw("has not been chosen"));
}

} // namespace

TEST_F(Map_build_memory_test, BuildOfAMapInSpatialOrderNeedsFewBuffersBeyondTheMap)
{
    // Holding the old pages through the reorder, or the staged ones through the page job, would
    // make about one buffer per page of the map.
    for (uint32_t threads : {1u, 2u}) {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        uint32_t new_buffers = 0, map_pages = 0;
        build_in_order(120, threads, &new_buffers, &map_pages);
        EXPECT_GE(map_pages, 120u);
        EXPECT_LE(new_buffers, map_pages / 8 + 4);
        Map_manager::instance().flush(0);
    }
}

TEST_F(Map_build_memory_test, DiscardForgetsOnePageAndLeavesTheOthers)
{
    Map_manager& manager = Map_manager::instance();
    Map_impl map(small_declaration());
    Map_page_store& store = map.page_store();
    const uint32_t per_page = store.elements_per_page;
    fill(map, 0, 3 * per_page);
    ASSERT_EQ(store.file_pages_per_cache_page, 1u);
    // Page 1 sits in this thread's table: the discard takes it out of there too.
    store.get_page(1, true);
    const uint32_t resident = manager.resident_pages();
    const uint32_t free_buffers = manager.free_buffers();

    manager.discard_page(&store, 1);
    EXPECT_EQ(manager.resident_pages(), resident - 1);
    EXPECT_EQ(manager.free_buffers(), free_buffers + 1);
    for (uint32_t i : {0u, per_page - 1, 2 * per_page, 3 * per_page - 1})
        EXPECT_TRUE(same(element_of(map, i), small_element(i))) << "element " << i;

    // A page that is not in memory, and a store that is not registered, change nothing.
    manager.discard_page(&store, 1);
    manager.discard_page(&store, 40);
    Map_page_store unregistered;
    manager.discard_page(&unregistered, 0);
    EXPECT_EQ(manager.resident_pages(), resident - 1);
    EXPECT_EQ(manager.free_buffers(), free_buffers + 1);

    // The page comes back, fresh, on the next access.
    store.get_page(1, false);
    EXPECT_EQ(manager.resident_pages(), resident);
}

TEST_F(Map_build_memory_test, EndOfAnEditHandleLeavesTheStoredMapCachedAndIdle)
{
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    if (!qv_db_started())
        qv_db_init();
    Map_manager& manager = Map_manager::instance();
    auto* map = new Map_impl(small_declaration());
    map->bvh_enabled = false;   // the handle's finishing build then only commits
    const uint32_t count = 6 * map->page_store().elements_per_page;
    fill(*map, 0, count);
    const uint32_t resident = manager.resident_pages();
    uint32_t tag = 0;
    {
        Edit_map_dbhandle_impl handle(map);
        tag = handle.store();
        ASSERT_NE(tag, 0u);
    }
    // Nothing went to the swap file, and no thread table holds a page: all of them lie where
    // eviction looks for victims.
    EXPECT_FALSE(map->page_store().has_swap_file);
    EXPECT_EQ(manager.resident_pages(), resident);
    EXPECT_GE(manager.bucket_count(0), 6u);

    Edit_map_dbhandle_impl again(tag);
    ASSERT_EQ(again.get_map(), map);
    for (uint32_t i : {0u, count / 2, count - 1})
        EXPECT_TRUE(same(element_of(*map, i), small_element(i))) << "element " << i;
    again.release();
}
