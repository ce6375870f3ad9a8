// Full builds of map BVHs: the reorder, the page trees in the pages, the global tree, and the
// update rules around them.
#include <algorithm>
#include <random>

#include "maps/map_element.h"
#include "tests/maps/map_bvh_support.h"
#include "tests/maps/map_storage_support.h"

using namespace map_bvh_test;
using namespace map_storage_test;
using qv::shader_v3::MAP_SUCCESS;

namespace {

class Map_bvh_build_test : public Map_storage_test {
protected:
    void TearDown() override
    {
        map_bvh_set_thread_count(1);
        msg_set_classes(MOD_RCMP, classes_);
        Map_storage_test::TearDown();
    }
    // Timer lines are of a class that is off by default.
    void show_timers() { msg_set_classes(MOD_RCMP, MSG_CLASS_ALL); }

private:
    uint32_t classes_ = msg_class_mask(MOD_RCMP);
};

// Every element's bytes, in index order.
std::vector<std::string> all_elements(Map_impl& map)
{
    std::vector<std::string> elements(map.committed_size(), std::string(map.page_store().element_bytes, '\0'));
    for (uint32_t i = 0; i < map.committed_size(); ++i)
        map.read_element(i, elements[i].data());
    return elements;
}

std::vector<std::string> sorted(std::vector<std::string> elements)
{
    std::sort(elements.begin(), elements.end());
    return elements;
}

// Appends `count` small elements scattered in a box, without committing.
void fill_random(Map_impl& map, uint32_t count, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> where(-50.0f, 50.0f);
    for (uint32_t i = 0; i < count; ++i) {
        Small_element element = small_element(i);
        for (float& coordinate : element.position)
            coordinate = where(random);
        ASSERT_EQ(map.append_raw(&element), MAP_SUCCESS);
    }
}

std::vector<uint8_t> all_pages(Map_impl& map)
{
    const uint32_t pages = map.page_store().page_count(map.committed_size());
    std::vector<uint8_t> bytes(size_t(pages) * MAP_FILE_PAGE_BYTES);
    for (uint32_t p = 0; p < pages; ++p)
        memcpy(bytes.data() + size_t(p) * MAP_FILE_PAGE_BYTES, map.page_store().get_page(p, true), MAP_FILE_PAGE_BYTES);
    return bytes;
}

Map_global_bvh<3>& global_of(Map_impl& map)
{
    return static_cast<Map_global_bvh<3>&>(*map.global_bvh);
}

} // namespace

TEST_F(Map_bvh_build_test, BuildKeepsEveryElementAndBoundsEveryLevel)
{
    Map_impl map(small_declaration());
    fill_random(map, 20000, 1);
    map.commit();
    const std::vector<std::string> before = all_elements(map);
    ASSERT_EQ(map.build_bvh(0.6f, false, false), MAP_SUCCESS);
    check_built<3>(map);
    const std::vector<std::string> after = all_elements(map);
    EXPECT_EQ(sorted(before), sorted(after));

    // A map of one page has one leaf over it; an empty one a tree without nodes.
    Map_impl small(small_declaration()), empty(small_declaration());
    fill_random(small, 100, 2);
    small.build_bvh(0.6f, false, false);
    check_built<3>(small);
    ASSERT_EQ(global_of(small).node_count(), 1u);
    EXPECT_EQ(global_of(small).items(), std::vector<uint32_t>{0});
    empty.build_bvh(0.6f, true, false);
    check_built<3>(empty);
}

TEST_F(Map_bvh_build_test, SeveralThreadsGiveTheSameBytesAsOneThroughASmallCache)
{
    // A cache of 24 pages for maps of 40 each: the threads' pages are evicted under them, and
    // both builds go through the swap file.
    Map_manager::instance().set_size_limit_mb(0.75f);
    Map_impl one(small_declaration()), three(small_declaration());
    fill_random(one, 40 * one.page_store().elements_per_page - 5, 5);
    fill_random(three, 40 * three.page_store().elements_per_page - 5, 5);
    three.commit();
    const std::vector<std::string> before = sorted(all_elements(three));
    map_bvh_set_thread_count(1);
    one.build_bvh(0.6f, false, false);
    map_bvh_set_thread_count(3);
    three.build_bvh(0.6f, false, false);
    check_built<3>(three);
    EXPECT_EQ(sorted(all_elements(three)), before);
    EXPECT_EQ(all_pages(one), all_pages(three));
    const auto& a = global_of(one);
    const auto& b = global_of(three);
    ASSERT_EQ(a.node_count(), b.node_count());
    EXPECT_EQ(0, memcmp(a.nodes().data(), b.nodes().data(), a.node_count() * sizeof(Map_bvh_node<3>)));
    EXPECT_EQ(a.items(), b.items());
}

TEST_F(Map_bvh_build_test, DisabledOrSkippedBuildLeavesTheOrderAndNotEditableRefuses)
{
    Map_impl map(small_declaration());
    fill_random(map, 3000, 3);
    map.bvh_enabled = false;
    map.commit();
    const std::vector<std::string> before = all_elements(map);
    EXPECT_EQ(map.build_bvh(0.6f, true, false), MAP_SUCCESS);
    EXPECT_EQ(all_elements(map), before);
    EXPECT_EQ(map.global_bvh, nullptr);

    map.bvh_enabled = true;
    fill_random(map, 10, 4);
    EXPECT_EQ(map.build_bvh(0.6f, true, true), MAP_SUCCESS);
    EXPECT_EQ(map.committed_size(), 3010u);   // committed, not built
    EXPECT_EQ(map.global_bvh, nullptr);
    EXPECT_TRUE(map.needs_build);

    map.editable = false;
    EXPECT_EQ(map.build_bvh(0.6f, true, false), qv::shader_v3::MAP_NOT_EDITABLE);
}

namespace {

// A backing file of `count` small elements from `first`, at `per_page` a page.
class Element_source : public Map_page_source {
public:
    Element_source(uint32_t first, uint32_t count, uint32_t per_page) : first_(first), count_(count), per_page_(per_page) {}
    bool read_pages(uint32_t page, uint32_t pages, void* buffer) override
    {
        memset(buffer, 0, size_t(pages) * MAP_FILE_PAGE_BYTES);
        for (uint32_t p = 0; p < pages; ++p)
            for (uint32_t slot = 0; slot < per_page_ && (page + p) * per_page_ + slot < count_; ++slot) {
                Small_element element = small_element(first_ + (page + p) * per_page_ + slot);
                memcpy(static_cast<uint8_t*>(buffer) + size_t(p) * MAP_FILE_PAGE_BYTES + slot * sizeof element,
                       &element, sizeof element);
            }
        return true;
    }

private:
    uint32_t first_, count_, per_page_;
};

} // namespace

TEST_F(Map_bvh_build_test, InPlaceReorderGivesTheBytesOfTheStagedCopy)
{
    // Appended elements are permuted in the map's own pages (their pages pinned when they fit
    // a table, through the cache when not); the same elements behind a file go through staged
    // pages. Both must end in the same pages and the same global tree.
    for (float limit_mb : {0.0f, 0.75f}) {
        SCOPED_TRACE(limit_mb);
        if (limit_mb > 0.0f)
            Map_manager::instance().set_size_limit_mb(limit_mb);
        Map_impl appended(small_declaration()), filed(small_declaration());
        const uint32_t per_page = appended.page_store().elements_per_page;
        const uint32_t count = 40 * per_page - 5;
        Map_bounds bounds;
        bounds.clear();
        for (uint32_t i = 0; i < count; ++i) {
            const Small_element element = small_element(1000 + i);
            appended.append_raw(&element);
            bounds.add(element.position, 3);
        }
        filed.attach_file(new Element_source(1000, count, per_page), count, per_page, &bounds);
        appended.commit();
        filed.commit();
        const std::vector<std::string> before = all_elements(filed);
        appended.build_bvh(0.6f, false, false);
        filed.build_bvh(0.6f, false, false);
        ASSERT_NE(all_elements(filed), before);   // the order did change
        EXPECT_EQ(all_pages(appended), all_pages(filed));
        const auto& a = global_of(appended);
        const auto& b = global_of(filed);
        ASSERT_EQ(a.node_count(), b.node_count());
        EXPECT_EQ(0, memcmp(a.nodes().data(), b.nodes().data(), a.node_count() * sizeof(Map_bvh_node<3>)));
    }
}

TEST_F(Map_bvh_build_test, UpdateRebuildsOnlyWhatIsStaleAndTimesIt)
{
    Map_impl map(small_declaration());
    fill_random(map, 2500, 12);
    show_timers();
    map.build_bvh(0.6f, false, false);
    EXPECT_FALSE(saw("wallclock")) << "Map_base::build_bvh gives no timer lines";
    map.needs_build = true;
    update_bvh(map, -1.0f, false, true);
    EXPECT_TRUE(saw("for building the BVH for map "));
    // A fresh global tree has no boxes, so a refit state falls through to a full build.
    map_global_bvh_destroy(map.global_bvh);
    map.global_bvh = nullptr;
    captured().clear();
    update_bvh(map, -1.0f, false, true);
    EXPECT_TRUE(saw("for building the BVH for map "));
    check_built<3>(map);

    // Elements appended since stay pending through a forced update.
    const Small_element extra = small_element(77);
    map.append_raw(&extra);
    update_bvh(map, -1.0f, true, false);
    EXPECT_EQ(map.committed_size(), 2500u);
    EXPECT_EQ(map.get_pending_count(), 1u);
    check_built<3>(map);
    map.commit();
    EXPECT_TRUE(same(element_of(map, 2500), extra));
}
