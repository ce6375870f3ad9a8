// Full builds of map BVHs: the reorder, the page trees in the pages, the global tree, and the
// update rules around them.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_bvh.h"
#include "maps/map_element.h"
#include "tests/maps/map_storage_support.h"

using namespace QV::RCMAP;
using namespace map_storage_test;

namespace {

class Map_bvh_build_test : public Map_storage_test {
protected:
    void TearDown() override
    {
        map_bvh_set_thread_count(1);
        Map_storage_test::TearDown();
    }
};

std::vector<std::string> all_elements(Map_impl& map)
{
    uint32_t bytes = map.page_store().element_bytes;
    std::vector<std::string> elements(map.committed_size(), std::string(bytes, '\0'));
    for (uint32_t i = 0; i < map.committed_size(); ++i)
        map.read_element(i, elements[i].data());
    return elements;
}

std::vector<std::string> sorted(std::vector<std::string> elements)
{
    std::sort(elements.begin(), elements.end());
    return elements;
}

template <uint32_t N>
bool inside(const float* minimum, const float* maximum, const float* point)
{
    for (uint32_t a = 0; a < N; ++a)
        if (!(point[a] >= minimum[a] && point[a] <= maximum[a]))
            return false;
    return true;
}

template <uint32_t N>
bool box_inside(const float* minimum, const float* maximum, const float* inner_minimum, const float* inner_maximum)
{
    return inside<N>(minimum, maximum, inner_minimum) && inside<N>(minimum, maximum, inner_maximum);
}

// Everything a built map must satisfy: one segment, the flags clear, every page tree inside
// its room and bounding its slots, page boxes bounding their elements, and the global tree
// bounding the page boxes, each page in one leaf of at most four.
template <uint32_t N>
void check_built(Map_impl& map)
{
    using Node = Map_bvh_node<N>;
    Map_page_store& store = map.page_store();
    ASSERT_NE(map.global_bvh, nullptr);
    auto& bvh = static_cast<Map_global_bvh<N>&>(*map.global_bvh);
    EXPECT_TRUE(bvh.is_valid());
    EXPECT_FALSE(map.needs_build);
    EXPECT_FALSE(map.needs_refit);
    uint32_t count = map.committed_size();
    uint32_t per_page = store.elements_per_page;
    uint32_t pages = (count + per_page - 1) / per_page;
    ASSERT_EQ(bvh.page_count(), pages);
    if (count) {
        ASSERT_EQ(store.segments().size(), 1u);
        EXPECT_EQ(store.segments()[0].first_element, 0u);
        EXPECT_EQ(store.segments()[0].last_element, count - 1);
    }
    EXPECT_EQ(store.file_count(), 0u);
    uint32_t room = MAP_FILE_PAGE_BYTES - per_page * store.element_bytes;
    std::vector<uint8_t> page(MAP_FILE_PAGE_BYTES);
    for (uint32_t p = 0; p < pages; ++p) {
        uint32_t held = p + 1 == pages ? count - p * per_page : per_page;
        ASSERT_EQ(map_bvh_page_elements(store, count, p), held);
        memcpy(page.data(), store.get_page(p, true), MAP_FILE_PAGE_BYTES);
        auto position = [&](uint32_t slot) {
            return reinterpret_cast<const float*>(page.data() + size_t(slot) * store.element_bytes);
        };
        const auto& box = bvh.boxes()[p];
        for (uint32_t slot = 0; slot < held; ++slot)
            ASSERT_TRUE(inside<N>(box.minimum, box.maximum, position(slot))) << "page " << p << " slot " << slot;
        uint32_t node_count;
        memcpy(&node_count, page.data() + size_t(per_page) * store.element_bytes, 4);
        ASSERT_GT(node_count, 0u) << "page " << p;
        ASSERT_LE(node_count * sizeof(Node) + 4, room);
        std::vector<Node> nodes(node_count);
        memcpy(nodes.data(), page.data() + size_t(per_page) * store.element_bytes + 4, node_count * sizeof(Node));
        std::vector<int> seen(held, 0);
        for (uint32_t j = 0; j < node_count; ++j) {
            const Node& node = nodes[j];
            if (node.first_item == MAP_BVH_INNER) {
                ASSERT_GT(node.first_child, j);
                ASSERT_LE(node.first_child + node.count, node_count);
                for (uint32_t c = 0; c < node.count; ++c)
                    ASSERT_TRUE(box_inside<N>(node.minimum, node.maximum, nodes[node.first_child + c].minimum,
                                              nodes[node.first_child + c].maximum));
            } else {
                ASSERT_LE(node.count, MAP_BVH_PAGE_LEAF_SIZE_LAST);
                ASSERT_LE(node.first_item + node.count, held);
                for (uint32_t slot = node.first_item; slot < node.first_item + node.count; ++slot) {
                    ++seen[slot];
                    ASSERT_TRUE(inside<N>(node.minimum, node.maximum, position(slot))) << "page " << p;
                }
            }
        }
        for (uint32_t slot = 0; slot < held; ++slot)
            ASSERT_EQ(seen[slot], 1) << "page " << p << " slot " << slot;
    }
    std::vector<int> pages_seen(pages, 0);
    const auto& nodes = bvh.nodes();
    ASSERT_EQ(nodes.empty(), pages == 0);
    for (size_t j = 0; j < nodes.size(); ++j) {
        const Node& node = nodes[j];
        if (node.first_item == MAP_BVH_INNER) {
            ASSERT_GT(node.first_child, j);
            for (uint32_t c = 0; c < node.count; ++c)
                ASSERT_TRUE(box_inside<N>(node.minimum, node.maximum, nodes[node.first_child + c].minimum,
                                          nodes[node.first_child + c].maximum));
        } else {
            ASSERT_LE(node.count, MAP_BVH_GLOBAL_LEAF_SIZE);
            for (uint32_t k = node.first_item; k < node.first_item + node.count; ++k) {
                uint32_t p = bvh.items()[k];
                ++pages_seen[p];
                ASSERT_TRUE(box_inside<N>(node.minimum, node.maximum, bvh.boxes()[p].minimum, bvh.boxes()[p].maximum));
            }
        }
    }
    for (uint32_t p = 0; p < pages; ++p)
        ASSERT_EQ(pages_seen[p], 1) << "page " << p;
}

// A map of the small declaration with `count` elements scattered in a box.
void fill_random(Map_impl& map, uint32_t count, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> where(-50.0f, 50.0f);
    for (uint32_t i = 0; i < count; ++i) {
        Small_element element = small_element(i);
        for (float& coordinate : element.position)
            coordinate = where(random);
        ASSERT_EQ(map.append_raw(&element), qv::shader_v3::MAP_SUCCESS);
    }
}

std::vector<uint8_t> all_pages(Map_impl& map)
{
    uint32_t pages = map.page_store().page_count(map.committed_size());
    std::vector<uint8_t> bytes(size_t(pages) * MAP_FILE_PAGE_BYTES);
    for (uint32_t p = 0; p < pages; ++p)
        memcpy(bytes.data() + size_t(p) * MAP_FILE_PAGE_BYTES, map.page_store().get_page(p, true),
               MAP_FILE_PAGE_BYTES);
    return bytes;
}

} // namespace

TEST_F(Map_bvh_build_test, BuildKeepsEveryElementAndBoundsEveryLevel)
{
    Map_impl map(small_declaration());
    fill_random(map, 20000, 1);
    map.commit();
    std::vector<std::string> before = all_elements(map);
    ASSERT_EQ(map.build_bvh(0.6f, false, false), qv::shader_v3::MAP_SUCCESS);
    check_built<3>(map);
    std::vector<std::string> after = all_elements(map);
    EXPECT_NE(before, after);   // indices taken before a build are void
    EXPECT_EQ(sorted(before), sorted(after));
    // The committed bounds are those of the elements.
    Map_bounds expected;
    expected.clear();
    for (const std::string& element : after)
        expected.add(reinterpret_cast<const float*>(element.data()), 3);
    EXPECT_EQ(0, memcmp(map.get_bounds().minimum, expected.minimum, 12));
    EXPECT_EQ(0, memcmp(map.get_bounds().maximum, expected.maximum, 12));
    EXPECT_FALSE(saw("already set"));
    EXPECT_FALSE(saw("has not been chosen"));
}

TEST_F(Map_bvh_build_test, SeveralThreadsGiveTheSameBytesAsOne)
{
    // A cache of 24 pages for maps of 40 each: the threads' pages are evicted under them.
    Map_manager::instance().set_size_limit_mb(0.75f);
    Map_impl one(small_declaration()), three(small_declaration());
    fill_random(one, 40 * one.page_store().elements_per_page - 5, 5);
    fill_random(three, 40 * three.page_store().elements_per_page - 5, 5);
    map_bvh_set_thread_count(1);
    one.build_bvh(0.6f, false, false);
    map_bvh_set_thread_count(3);
    three.build_bvh(0.6f, false, false);
    check_built<3>(three);
    EXPECT_EQ(all_pages(one), all_pages(three));
    auto& a = static_cast<Map_global_bvh<3>&>(*one.global_bvh);
    auto& b = static_cast<Map_global_bvh<3>&>(*three.global_bvh);
    ASSERT_EQ(a.node_count(), b.node_count());
    EXPECT_EQ(0, memcmp(a.nodes().data(), b.nodes().data(), a.node_count() * sizeof(Map_bvh_node<3>)));
    EXPECT_EQ(a.items(), b.items());
}

TEST_F(Map_bvh_build_test, OneDimensionalMapIsSortedAcrossPagesByCell)
{
    // 900 distinct positions in 1-d: fewer than the 1024 finest cells, so every element has a
    // cell of its own and the counting sort orders the pages completely.
    Map_declaration_impl declaration(1);
    declaration.add_scalar_array("payload", 60);
    Map_impl map(declaration);
    uint32_t bytes = declaration.element_bytes();
    std::vector<uint32_t> values(900);
    for (uint32_t i = 0; i < 900; ++i)
        values[i] = i;
    std::shuffle(values.begin(), values.end(), std::mt19937(9));
    std::vector<uint8_t> element(bytes, 0);
    for (uint32_t value : values) {
        float x = float(value);
        memcpy(element.data(), &x, 4);
        memcpy(element.data() + 4, &value, 4);
        map.append_raw(element.data());
    }
    map.build_bvh(0.6f, false, false);
    check_built<1>(map);
    auto& bvh = static_cast<Map_global_bvh<1>&>(*map.global_bvh);
    ASSERT_GT(bvh.page_count(), 3u);
    for (uint32_t p = 1; p < bvh.page_count(); ++p)
        EXPECT_LT(bvh.boxes()[p - 1].maximum[0], bvh.boxes()[p].minimum[0]) << "page " << p;
    EXPECT_EQ(sizeof(bvh.nodes()[0]), 20u);
}

TEST_F(Map_bvh_build_test, ElementsAtOnePositionKeepTheirOrder)
{
    Map_impl map(small_declaration());
    for (uint32_t i = 0; i < 5000; ++i) {
        Small_element element = small_element(i);
        element.position[0] = element.position[1] = element.position[2] = 7.0f;
        map.append_raw(&element);
    }
    map.commit();
    std::vector<std::string> before = all_elements(map);
    map.build_bvh(0.6f, false, false);
    check_built<3>(map);
    EXPECT_EQ(all_elements(map), before);
}

TEST_F(Map_bvh_build_test, SmallMapHasOnePageUnderOneLeaf)
{
    Map_impl map(small_declaration());
    fill_random(map, 100, 2);
    map.build_bvh(0.6f, false, false);
    check_built<3>(map);
    auto& bvh = static_cast<Map_global_bvh<3>&>(*map.global_bvh);
    ASSERT_EQ(bvh.node_count(), 1u);
    EXPECT_EQ(bvh.nodes()[0].count, 1u);
    EXPECT_EQ(bvh.items(), std::vector<uint32_t>{0});

    Map_impl empty(small_declaration());
    empty.build_bvh(0.6f, true, false);
    check_built<3>(empty);
}

TEST_F(Map_bvh_build_test, DisabledOrSkippedBuildLeavesTheOrderAndNotEditableRefuses)
{
    Map_impl map(small_declaration());
    fill_random(map, 3000, 3);
    map.bvh_enabled = false;
    map.commit();
    std::vector<std::string> before = all_elements(map);
    EXPECT_EQ(map.build_bvh(0.6f, true, false), qv::shader_v3::MAP_SUCCESS);
    EXPECT_EQ(all_elements(map), before);
    EXPECT_EQ(map.global_bvh, nullptr);

    map.bvh_enabled = true;
    fill_random(map, 10, 4);
    EXPECT_EQ(map.build_bvh(0.6f, true, true), qv::shader_v3::MAP_SUCCESS);
    EXPECT_EQ(map.committed_size(), 3010u);   // committed, not built
    EXPECT_EQ(map.global_bvh, nullptr);
    EXPECT_TRUE(map.needs_build);

    map.editable = false;
    EXPECT_EQ(map.build_bvh(0.6f, true, false), qv::shader_v3::MAP_NOT_EDITABLE);
    map.bvh_enabled = false;
    EXPECT_EQ(map.build_bvh(0.6f, true, false), qv::shader_v3::MAP_SUCCESS);
}

TEST_F(Map_bvh_build_test, MovedElementForcesAFullBuildThatBoundsIt)
{
    Map_impl map(small_declaration());
    fill_random(map, 4000, 6);
    map.build_bvh(0.6f, false, false);
    Map_element_impl element(map.get_declaration());
    ASSERT_EQ(map.get(17, &element), qv::shader_v3::MAP_SUCCESS);
    float far[3] = {1000.0f, -1000.0f, 500.0f};
    element.set_position(far);
    ASSERT_EQ(map.set(17, &element), qv::shader_v3::MAP_SUCCESS);
    EXPECT_TRUE(map.needs_build);
    map.build_bvh(0.6f, false, false);
    check_built<3>(map);
    auto& bvh = static_cast<Map_global_bvh<3>&>(*map.global_bvh);
    EXPECT_EQ(bvh.nodes()[0].maximum[0], 1000.0f);
    EXPECT_EQ(bvh.nodes()[0].minimum[1], -1000.0f);
}

namespace {

// A backing file of `count` small elements at `per_page` a page.
class Element_source : public Map_page_source {
public:
    Element_source(uint32_t first, uint32_t count, uint32_t per_page) : first_(first), count_(count), per_page_(per_page) {}
    bool read_pages(uint32_t page, uint32_t pages, void* buffer) override
    {
        memset(buffer, 0, size_t(pages) * MAP_FILE_PAGE_BYTES);
        for (uint32_t p = 0; p < pages; ++p)
            for (uint32_t slot = 0; slot < per_page_; ++slot) {
                uint32_t k = (page + p) * per_page_ + slot;
                if (k >= count_)
                    return true;
                Small_element element = small_element(first_ + k);
                memcpy(static_cast<uint8_t*>(buffer) + size_t(p) * MAP_FILE_PAGE_BYTES + slot * sizeof element,
                       &element, sizeof element);
            }
        return true;
    }

private:
    uint32_t first_, count_, per_page_;
};

} // namespace

TEST_F(Map_bvh_build_test, SegmentsOfFilesAndMemoryBecomeOneSegment)
{
    Map_impl map(small_declaration());
    uint32_t per_page = map.page_store().elements_per_page;
    std::vector<std::string> expected;
    for (uint32_t i = 0; i < 10; ++i) {
        Small_element element = small_element(i);
        map.append_raw(&element);
        expected.emplace_back(reinterpret_cast<const char*>(&element), sizeof element);
    }
    Map_bounds file_bounds;
    file_bounds.clear();
    uint32_t file_count = 2 * per_page - 3;
    for (uint32_t k = 0; k < file_count; ++k) {
        Small_element element = small_element(1000 + k);
        file_bounds.add(element.position, 3);
        expected.emplace_back(reinterpret_cast<const char*>(&element), sizeof element);
    }
    map.attach_file(new Element_source(1000, file_count, per_page), file_count, per_page, &file_bounds);
    for (uint32_t i = 0; i < 7; ++i) {
        Small_element element = small_element(5000 + i);
        map.append_raw(&element);
        expected.emplace_back(reinterpret_cast<const char*>(&element), sizeof element);
    }
    map.commit();
    ASSERT_GE(map.page_store().segments().size(), 2u);
    ASSERT_EQ(sorted(all_elements(map)), sorted(expected));
    map.build_bvh(0.6f, false, false);
    check_built<3>(map);
    EXPECT_EQ(sorted(all_elements(map)), sorted(expected));
}

TEST_F(Map_bvh_build_test, MapLargerThanTheCacheBuildsThroughTheSwapFile)
{
    Map_manager::instance().set_size_limit_mb(1.0f);   // 32 pages
    Map_impl map(small_declaration());
    fill_random(map, 60 * map.page_store().elements_per_page + 11, 7);
    map.commit();
    std::vector<std::string> before = all_elements(map);
    map.build_bvh(0.6f, false, false);
    EXPECT_TRUE(map.page_store().has_swap_file || Map_manager::instance().max_pages() > 0);
    check_built<3>(map);
    EXPECT_EQ(sorted(all_elements(map)), sorted(before));
}

TEST_F(Map_bvh_build_test, PendingElementsStayPendingThroughABuild)
{
    Map_impl map(small_declaration());
    fill_random(map, 3000, 8);
    map.commit();
    Small_element extra = small_element(77);
    map.append_raw(&extra);
    update_bvh(map, -1.0f, true, false);
    EXPECT_EQ(map.committed_size(), 3000u);
    EXPECT_EQ(map.get_pending_count(), 1u);
    check_built<3>(map);
    map.commit();
    Small_element back;
    map.read_element(3000, &back);
    EXPECT_TRUE(same(back, extra));
}

TEST_F(Map_bvh_build_test, RefitFollowsElementsMovedInsideTheirPages)
{
    Map_impl map(small_declaration());
    fill_random(map, 6000, 10);
    map.build_bvh(0.6f, false, false);
    // Moved behind the map's back, as a particle update does: the trees are stale.
    Small_element moved;
    map.read_element(4321, &moved);
    moved.position[2] = 900.0f;
    map.write_element(4321, &moved);
    uint32_t classes = msg_class_mask(MOD_RCMP);
    msg_set_classes(MOD_RCMP, MSG_CLASS_ALL);
    refit(map, true);
    msg_set_classes(MOD_RCMP, classes);
    check_built<3>(map);
    EXPECT_EQ(static_cast<Map_global_bvh<3>&>(*map.global_bvh).nodes()[0].maximum[2], 900.0f);
    EXPECT_TRUE(saw("for refitting the BVH for map "));
}

TEST_F(Map_bvh_build_test, UpdateRebuildsOnlyWhatIsStaleAndTimesIt)
{
    Map_impl map(small_declaration());
    fill_random(map, 2500, 12);
    uint32_t classes = msg_class_mask(MOD_RCMP);
    msg_set_classes(MOD_RCMP, MSG_CLASS_ALL);
    map.build_bvh(0.6f, false, false);
    EXPECT_FALSE(saw("wallclock")) << "Map_base::build_bvh gives no timer lines";
    map.needs_build = true;
    update_bvh(map, -1.0f, false, true);
    EXPECT_TRUE(saw("for building the BVH for map "));
    // Refit state only: the global tree is rebuilt over the boxes, the pages stay as they are.
    std::vector<uint8_t> pages = all_pages(map);
    captured().clear();
    map.needs_refit = true;
    update_bvh(map, -1.0f, false, true);
    EXPECT_TRUE(saw("for building the global BVH for map "));
    EXPECT_FALSE(saw("for building the BVH for map "));
    EXPECT_EQ(all_pages(map), pages);
    check_built<3>(map);
    // A fresh global tree has no boxes, so a refit state falls through to a full build.
    map_global_bvh_destroy(map.global_bvh);
    map.global_bvh = nullptr;
    captured().clear();
    update_bvh(map, -1.0f, false, true);
    EXPECT_TRUE(saw("for building the BVH for map "));
    check_built<3>(map);
    msg_set_classes(MOD_RCMP, classes);
}

namespace {

// The `count` nearest elements by (squared distance, index), the slow way.
std::vector<qv::shader_v3::Map_lookup_entry> brute_nearest(Map_impl& map, const float* point, uint32_t count,
                                                           float max_distance, uint32_t resume_index,
                                                           float resume_distance)
{
    std::vector<qv::shader_v3::Map_lookup_entry> all;
    for (uint32_t i = 0; i < map.committed_size(); ++i) {
        float position[3];
        map.read_field(i, 0, 12, position);
        float d = 0.0f;
        for (int a = 0; a < 3; ++a)
            d += (position[a] - point[a]) * (position[a] - point[a]);
        if (d > max_distance)
            continue;
        if (resume_index != UINT32_MAX && (d < resume_distance || (d == resume_distance && i <= resume_index)))
            continue;
        all.push_back({i, d});
    }
    auto nearer = [](const auto& a, const auto& b) {
        return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
    };
    std::sort(all.begin(), all.end(), nearer);
    all.resize(std::min<size_t>(all.size(), count));
    return all;
}

void sort_entries(std::vector<qv::shader_v3::Map_lookup_entry>& entries)
{
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
        return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
    });
}

} // namespace

TEST_F(Map_bvh_build_test, NearestSearchThroughBothLevelsFindsWhatAFullScanFinds)
{
    Map_impl map(small_declaration());
    fill_random(map, 15000, 13);
    // A run of equal positions, so that ties are broken by index.
    for (uint32_t i = 0; i < 40; ++i) {
        Small_element element = small_element(20000 + i);
        element.position[0] = element.position[1] = element.position[2] = 1.0f;
        map.append_raw(&element);
    }
    map.build_bvh(0.6f, false, false);
    auto& bvh = *map.global_bvh;
    std::mt19937 random(14);
    std::uniform_real_distribution<float> where(-60.0f, 60.0f);
    std::vector<qv::shader_v3::Map_lookup_entry> found;
    for (int q = 0; q < 40; ++q) {
        float point[3] = {where(random), where(random), where(random)};
        if (q == 0)
            point[0] = point[1] = point[2] = 1.0f;
        uint32_t count = q % 3 == 0 ? 1 : q % 3 == 1 ? 12 : 60;
        float max_distance = q % 4 == 0 ? 30.0f : 1.0e30f;
        bvh.find_nearest(point, count, max_distance, UINT32_MAX, -1.0f, found);
        ASSERT_TRUE(std::is_heap(found.begin(), found.end(), [](const auto& a, const auto& b) {
            return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
        }));
        std::vector<qv::shader_v3::Map_lookup_entry> expected = brute_nearest(map, point, count, max_distance, UINT32_MAX, -1.0f);
        sort_entries(found);
        ASSERT_EQ(found.size(), expected.size()) << "query " << q;
        for (size_t k = 0; k < found.size(); ++k) {
            ASSERT_EQ(found[k].index, expected[k].index) << "query " << q << " rank " << k;
            ASSERT_EQ(found[k].distance, expected[k].distance);
        }
        // The next batch, beyond the farthest of this one.
        if (!found.empty()) {
            auto last = found.back();
            bvh.find_nearest(point, count, max_distance, last.index, last.distance, found);
            expected = brute_nearest(map, point, count, max_distance, last.index, last.distance);
            sort_entries(found);
            ASSERT_EQ(found.size(), expected.size()) << "resumed query " << q;
            for (size_t k = 0; k < found.size(); ++k)
                ASSERT_EQ(found[k].index, expected[k].index) << "resumed query " << q << " rank " << k;
        }
    }
    bvh.find_nearest(std::array<float, 3>{0, 0, 0}.data(), 0, 1.0e30f, UINT32_MAX, -1.0f, found);
    EXPECT_TRUE(found.empty());

    // Pages without a tree are scanned element by element, with the same answer.
    Map_page_store& store = map.page_store();
    uint32_t zero = 0;
    for (uint32_t p = 0; p < bvh.page_count(); ++p)
        memcpy(store.get_page(p, false) + size_t(store.elements_per_page) * store.element_bytes, &zero, 4);
    float point[3] = {3.0f, -2.0f, 7.0f};
    bvh.find_nearest(point, 25, 1.0e30f, UINT32_MAX, -1.0f, found);
    sort_entries(found);
    std::vector<qv::shader_v3::Map_lookup_entry> expected = brute_nearest(map, point, 25, 1.0e30f, UINT32_MAX, -1.0f);
    ASSERT_EQ(found.size(), expected.size());
    for (size_t k = 0; k < found.size(); ++k)
        EXPECT_EQ(found[k].index, expected[k].index);
}
