// Tree construction of both BVH levels, the page tree in its page, and the global tree's stored
// form and merge.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_bvh.h"
#include "maps/map_page_store.h"
#include "tests/test_support.h"

using namespace QV::RCMAP;

namespace {

template <uint32_t N>
bool inside(const float* minimum, const float* maximum, const float* item_minimum, const float* item_maximum)
{
    for (uint32_t a = 0; a < N; ++a)
        if (item_minimum[a] < minimum[a] || item_maximum[a] > maximum[a])
            return false;
    return true;
}

// Checks the shape every stored tree must have and returns the leaf sizes seen: each item in
// exactly one leaf, children adjacent and after their parent, boxes that bound what is below.
template <uint32_t N>
void check_tree(const std::vector<Map_bvh_node<N>>& nodes, const std::vector<uint32_t>& order, const float* boxes,
                uint32_t count, uint32_t leaf_size, uint32_t* largest_leaf = nullptr)
{
    ASSERT_FALSE(nodes.empty());
    std::vector<int> seen(count, 0);
    uint32_t largest = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const Map_bvh_node<N>& node = nodes[i];
        if (node.first_item == MAP_BVH_INNER) {
            ASSERT_GE(node.count, 2u);
            ASSERT_LE(node.count, MAP_BVH_MAX_CHILDREN);
            ASSERT_GT(node.first_child, i);
            ASSERT_LE(node.first_child + node.count, nodes.size());
            for (uint32_t c = 0; c < node.count; ++c) {
                const Map_bvh_node<N>& child = nodes[node.first_child + c];
                ASSERT_TRUE(inside<N>(node.minimum, node.maximum, child.minimum, child.maximum)) << "node " << i;
            }
        } else {
            ASSERT_GE(node.count, 1u);
            ASSERT_LE(node.count, leaf_size);
            largest = std::max(largest, node.count);
            for (uint32_t k = node.first_item; k < node.first_item + node.count; ++k) {
                uint32_t item = order[k];
                ++seen[item];
                const float* box = boxes + size_t(item) * 2 * N;
                ASSERT_TRUE(inside<N>(node.minimum, node.maximum, box, box + N)) << "leaf " << i << " item " << item;
            }
        }
    }
    // Every node but the root is some node's child exactly once.
    std::vector<int> parents(nodes.size(), 0);
    for (const auto& node : nodes)
        if (node.first_item == MAP_BVH_INNER)
            for (uint32_t c = 0; c < node.count; ++c)
                ++parents[node.first_child + c];
    EXPECT_EQ(parents[0], 0);
    for (size_t i = 1; i < nodes.size(); ++i)
        ASSERT_EQ(parents[i], 1) << "node " << i;
    for (uint32_t i = 0; i < count; ++i)
        ASSERT_EQ(seen[i], 1) << "item " << i;
    if (largest_leaf)
        *largest_leaf = largest;
}

template <uint32_t N>
std::vector<float> random_boxes(uint32_t count, uint32_t seed, float extent)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> where(-100.0f, 100.0f), size(0.0f, extent);
    std::vector<float> boxes(size_t(count) * 2 * N);
    for (uint32_t i = 0; i < count; ++i)
        for (uint32_t a = 0; a < N; ++a) {
            float low = where(random);
            boxes[size_t(i) * 2 * N + a] = low;
            boxes[size_t(i) * 2 * N + N + a] = low + size(random);
        }
    return boxes;
}

struct Scratch {
    Map_bvh_scratch* scratch = map_bvh_scratch_create();
    ~Scratch() { map_bvh_scratch_destroy(scratch); }
};

template <uint32_t N>
void check_random_tree(uint32_t count, uint32_t leaf_size)
{
    Scratch s;
    std::vector<float> boxes = random_boxes<N>(count, count * 7 + N, 3.0f);
    std::vector<Map_bvh_node<N>> nodes;
    std::vector<uint32_t> order;
    map_bvh_build_tree<N>(boxes.data(), count, leaf_size, nodes, order, *s.scratch);
    check_tree<N>(nodes, order, boxes.data(), count, leaf_size);
}

} // namespace

TEST(MapBvhTreeTest, TreesOfEveryDimensionHoldEachItemOnceInBoundingNodes)
{
    qv_test_init();
    // Sizes that reach the sweep, the three-plane split and the collapse into wide nodes.
    for (uint32_t count : {1u, 5u, 33u, 1000u, 4099u}) {
        check_random_tree<1>(count, 4);
        check_random_tree<2>(count, 8);
        check_random_tree<3>(count, 4);
        check_random_tree<4>(count, 12);
        check_random_tree<5>(count, 8);
        check_random_tree<6>(count, 64);
    }
}

TEST(MapBvhTreeTest, SeparatedClustersEndUpInSeparateSubtrees)
{
    qv_test_init();
    Scratch s;
    // Two tight clusters far apart along y: a cost-driven split must separate them at the root.
    const uint32_t count = 200;
    std::vector<float> boxes(count * 6);
    for (uint32_t i = 0; i < count; ++i) {
        float y = i % 2 ? 1000.0f : -1000.0f;
        float p[3] = {float(i % 10) * 0.01f, y + float(i % 7) * 0.01f, float(i % 3) * 0.01f};
        for (int a = 0; a < 3; ++a)
            boxes[i * 6 + a] = boxes[i * 6 + 3 + a] = p[a];
    }
    std::vector<Map_bvh_node<3>> nodes;
    std::vector<uint32_t> order;
    map_bvh_build_tree<3>(boxes.data(), count, 4, nodes, order, *s.scratch);
    check_tree<3>(nodes, order, boxes.data(), count, 4);
    ASSERT_EQ(nodes[0].first_item, MAP_BVH_INNER);
    for (uint32_t c = 0; c < nodes[0].count; ++c) {
        const auto& child = nodes[nodes[0].first_child + c];
        EXPECT_TRUE(child.maximum[1] < 0.0f || child.minimum[1] > 0.0f) << "child " << c << " spans both clusters";
    }
}

// ---- The page tree in its page -------------------------------------------------------------

namespace {

struct Page_case {
    std::vector<uint8_t> page = std::vector<uint8_t>(MAP_FILE_PAGE_BYTES, 0);
    uint32_t element_bytes;
    uint32_t per_page;
};

// Elements of `element_bytes` with a 3-d position and the element's number in the last word.
Page_case make_page(uint32_t element_bytes, uint32_t per_page, uint32_t count, uint32_t seed)
{
    Page_case c;
    c.element_bytes = element_bytes;
    c.per_page = per_page;
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> where(0.0f, 10.0f);
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t* element = c.page.data() + size_t(i) * element_bytes;
        float p[3] = {where(random), where(random), where(random)};
        memcpy(element, p, sizeof p);
        memcpy(element + element_bytes - 4, &i, 4);
    }
    return c;
}

} // namespace

TEST(MapBvhTreeTest, PageTreeFitsItsRoomAndPermutesTheElementsIntoLeafOrder)
{
    qv_test_init();
    Scratch s;
    for (uint32_t element_bytes : {12u, 16u, 40u}) {
        uint32_t per_page = map_elements_per_page(element_bytes, 3);
        for (uint32_t count : {1u, 9u, per_page / 2 + 1, per_page}) {
            Page_case c = make_page(element_bytes, per_page, count, count + element_bytes);
            std::vector<uint8_t> before = c.page;
            float page_box[6];
            uint32_t node_count =
                map_page_bvh_build<3>(c.page.data(), count, per_page, element_bytes, page_box, *s.scratch);
            ASSERT_GT(node_count, 0u) << "element bytes " << element_bytes << " count " << count;
            uint32_t room = MAP_FILE_PAGE_BYTES - per_page * element_bytes;
            ASSERT_LE(node_count * sizeof(Map_bvh_node<3>) + 4, room);
            const uint8_t* tree = c.page.data() + size_t(per_page) * element_bytes;
            uint32_t stored = 0;
            memcpy(&stored, tree, 4);
            ASSERT_EQ(stored, node_count);
            std::vector<Map_bvh_node<3>> nodes(node_count);
            memcpy(nodes.data(), tree + 4, node_count * sizeof(Map_bvh_node<3>));
            // Slots are the items: boxes from the permuted elements, order the identity.
            std::vector<float> boxes(size_t(count) * 6);
            std::vector<uint32_t> identity(count);
            std::vector<int> numbers(count, 0);
            for (uint32_t k = 0; k < count; ++k) {
                const uint8_t* element = c.page.data() + size_t(k) * element_bytes;
                memcpy(&boxes[k * 6], element, 12);
                memcpy(&boxes[k * 6 + 3], element, 12);
                identity[k] = k;
                uint32_t number;
                memcpy(&number, element + element_bytes - 4, 4);
                ASSERT_LT(number, count);
                // The element moved whole: its bytes are those it had before.
                ASSERT_EQ(0, memcmp(element, before.data() + size_t(number) * element_bytes, element_bytes));
                ++numbers[number];
            }
            for (int n : numbers)
                ASSERT_EQ(n, 1);
            uint32_t largest = 0;
            check_tree<3>(nodes, identity, boxes.data(), count, MAP_BVH_PAGE_LEAF_SIZE_LAST, &largest);
            EXPECT_GE(largest, 1u);
            EXPECT_TRUE(inside<3>(page_box, page_box + 3, nodes[0].minimum, nodes[0].maximum) &&
                        inside<3>(nodes[0].minimum, nodes[0].maximum, page_box, page_box + 3));
        }
    }
}

TEST(MapBvhTreeTest, TighterRoomTakesLargerLeavesUntilNoTreeFits)
{
    qv_test_init();
    Scratch s;
    const uint32_t element_bytes = 12;
    // About 6000 bytes of room: some sixty nodes, enough for leaves of 64, not of 8.
    const uint32_t tight_per_page = (MAP_FILE_PAGE_BYTES - 6000) / element_bytes;
    Page_case tight = make_page(element_bytes, tight_per_page, tight_per_page, 11);
    uint32_t node_count =
        map_page_bvh_build<3>(tight.page.data(), tight_per_page, tight_per_page, element_bytes, nullptr, *s.scratch);
    ASSERT_GT(node_count, 0u);
    ASSERT_LE(node_count * 36 + 4, MAP_FILE_PAGE_BYTES - tight_per_page * element_bytes);
    std::vector<Map_bvh_node<3>> nodes(node_count);
    memcpy(nodes.data(), tight.page.data() + size_t(tight_per_page) * element_bytes + 4, node_count * 36);
    uint32_t largest = 0;
    for (const auto& node : nodes)
        if (node.first_item != MAP_BVH_INNER)
            largest = std::max(largest, node.count);
    EXPECT_GT(largest, MAP_BVH_PAGE_LEAF_SIZE_FIRST);
    EXPECT_LE(largest, MAP_BVH_PAGE_LEAF_SIZE_LAST);

    // 2730 elements of 12 bytes leave 8 bytes: room for the count, not for a node. The page
    // is then scanned, and its elements keep their order.
    const uint32_t full = 2730;
    Page_case c = make_page(element_bytes, full, full, 3);
    uint32_t marker = 0xDEADBEEF;
    memcpy(c.page.data() + full * element_bytes, &marker, 4);
    std::vector<uint8_t> before = c.page;
    EXPECT_EQ(0u, map_page_bvh_build<3>(c.page.data(), full, full, element_bytes, nullptr, *s.scratch));
    uint32_t stored = 1;
    memcpy(&stored, c.page.data() + full * element_bytes, 4);
    EXPECT_EQ(stored, 0u);
    EXPECT_EQ(0, memcmp(c.page.data(), before.data(), size_t(full) * element_bytes));
}

// ---- Global tree: stored form and merge ------------------------------------------------------

namespace {

// A global tree over `pages` boxes along x, built.
Map_global_bvh<3>* global_tree(uint32_t pages, float offset)
{
    auto* bvh = static_cast<Map_global_bvh<3>*>(map_global_bvh_create(3, nullptr));
    bvh->reset(pages);
    for (uint32_t p = 0; p < pages; ++p) {
        float low[3] = {offset + float(p), 0.0f, float(p % 3)};
        float high[3] = {offset + float(p) + 0.5f, 1.0f, float(p % 3) + 0.5f};
        bvh->add_to_box(p, low);
        bvh->add_to_box(p, high);
    }
    EXPECT_TRUE(bvh->build());
    return bvh;
}

void check_global(const Map_global_bvh<3>& bvh)
{
    const auto& boxes = bvh.boxes();
    check_tree<3>(bvh.nodes(), bvh.items(), reinterpret_cast<const float*>(boxes.data()), uint32_t(boxes.size()),
                  MAP_BVH_GLOBAL_LEAF_SIZE);
}

} // namespace

TEST(MapBvhTreeTest, GlobalTreeNeedsABoxForEveryPage)
{
    qv_test_init();
    std::unique_ptr<Map_global_bvh<3>> bvh(global_tree(50, 0.0f));
    EXPECT_TRUE(bvh->is_valid());
    check_global(*bvh);
    bvh->reset(3);
    float p[3] = {1, 2, 3};
    bvh->add_to_box(0, p);
    bvh->add_to_box(2, p);
    EXPECT_FALSE(bvh->build());
    EXPECT_FALSE(bvh->is_valid());
    EXPECT_EQ(map_global_bvh_create(0, nullptr), nullptr);
    EXPECT_EQ(map_global_bvh_create(7, nullptr), nullptr);
}

TEST(MapBvhTreeTest, StoredFormReadsBackAndRefusesDamage)
{
    qv_test_init();
    std::unique_ptr<Map_global_bvh<3>> bvh(global_tree(37, 5.0f));
    FILE* stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(bvh->write(stream));
    long length = ftell(stream);
    EXPECT_EQ(length, long(16 + 37 * 24 + bvh->node_count() * 36 + bvh->items().size() * 4));

    rewind(stream);
    Map_global_bvh<3> back(nullptr);
    ASSERT_TRUE(back.read(stream, true));
    EXPECT_TRUE(back.is_valid());
    ASSERT_EQ(back.node_count(), bvh->node_count());
    EXPECT_EQ(0, memcmp(back.nodes().data(), bvh->nodes().data(), bvh->node_count() * 36));
    EXPECT_EQ(back.items(), bvh->items());
    EXPECT_EQ(0, memcmp(back.boxes().data(), bvh->boxes().data(), 37 * 24));

    // Another dimension is refused.
    rewind(stream);
    Map_global_bvh<2> other(nullptr);
    EXPECT_FALSE(other.read(stream, false));
    // A child index beyond the list is refused.
    uint32_t bad_child = 1000000;
    fseek(stream, 16 + 37 * 24 + 32, SEEK_SET);   // root's first_child
    fwrite(&bad_child, 4, 1, stream);
    rewind(stream);
    EXPECT_FALSE(back.read(stream, false));
    EXPECT_EQ(back.node_count(), 0u);
    EXPECT_FALSE(back.is_valid());
    // A cut record is refused.
    rewind(stream);
    bvh->write(stream);
    fflush(stream);
    ASSERT_EQ(0, ftruncate(fileno(stream), length - 4));
    rewind(stream);
    EXPECT_FALSE(back.read(stream, false));
    fclose(stream);
}

TEST(MapBvhTreeTest, SubtreesJoinUnderTheRootWithTheirPagesShifted)
{
    qv_test_init();
    std::unique_ptr<Map_global_bvh<3>> bvh(global_tree(30, 0.0f));
    std::unique_ptr<Map_global_bvh<3>> second(global_tree(12, 100.0f));
    std::unique_ptr<Map_global_bvh<3>> third(global_tree(1, 200.0f));
    uint32_t root_children = bvh->nodes()[0].count;
    ASSERT_TRUE(bvh->add_subtree(*second, 30));
    check_global(*bvh);
    EXPECT_EQ(bvh->page_count(), 42u);
    // One more child, or a new root over the full old one and the new tree.
    EXPECT_EQ(bvh->nodes()[0].count, root_children < MAP_BVH_MAX_CHILDREN ? root_children + 1 : 2u);
    EXPECT_EQ(bvh->nodes()[0].maximum[0], 111.5f);
    // Box of the new page 31 is the second tree's page 1.
    EXPECT_EQ(bvh->boxes()[31].minimum[0], 101.0f);

    const Map_global_bvh_base* list[2] = {third.get(), second.get()};
    uint32_t firsts[2] = {42, 43};
    ASSERT_TRUE(bvh->add_subtrees(list, firsts, 2));
    check_global(*bvh);
    EXPECT_EQ(bvh->page_count(), 55u);

    // A tree whose root is a leaf joins too, and so does one into an empty tree.
    std::unique_ptr<Map_global_bvh<3>> small(global_tree(3, 0.0f));
    ASSERT_EQ(small->nodes()[0].first_item, 0u);
    ASSERT_TRUE(small->add_subtree(*third, 3));
    check_global(*small);
    Map_global_bvh<3> empty(nullptr);
    ASSERT_TRUE(empty.add_subtree(*second, 0));
    check_global(empty);

    Map_global_bvh<2> flat(nullptr);
    EXPECT_FALSE(flat.add_subtree(*second, 0));
}
