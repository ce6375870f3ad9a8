// Shape checks shared by the BVH tests: what every stored tree, page tree and built map must be.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_bvh.h"
#include "maps/map_impl.h"

namespace map_bvh_test {

using namespace QV::RCMAP;

template <uint32_t N>
bool inside(const float* minimum, const float* maximum, const float* item_minimum, const float* item_maximum)
{
    for (uint32_t a = 0; a < N; ++a)
        if (!(item_minimum[a] >= minimum[a] && item_maximum[a] <= maximum[a]))
            return false;
    return true;
}

// Each item in exactly one leaf of at most `leaf_size`, every node but the root some node's
// child exactly once, children adjacent and after their parent, boxes that bound what is
// below. Items are given by their boxes (minimum then maximum, N floats each) and reached
// through `order`. Returns the largest leaf seen.
template <uint32_t N>
uint32_t check_tree(const std::vector<Map_bvh_node<N>>& nodes, const std::vector<uint32_t>& order, const float* boxes,
                    uint32_t count, uint32_t leaf_size)
{
    EXPECT_FALSE(nodes.empty());
    std::vector<int> seen(count, 0), parents(nodes.size(), 0);
    uint32_t largest = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const Map_bvh_node<N>& node = nodes[i];
        if (node.first_item == MAP_BVH_INNER) {
            EXPECT_TRUE(node.count >= 2 && node.count <= MAP_BVH_MAX_CHILDREN) << "node " << i;
            EXPECT_GT(node.first_child, i);
            if (node.first_child + node.count > nodes.size()) {
                ADD_FAILURE() << "children of node " << i << " past the list";
                return 0;
            }
            for (uint32_t c = 0; c < node.count; ++c) {
                const Map_bvh_node<N>& child = nodes[node.first_child + c];
                ++parents[node.first_child + c];
                EXPECT_TRUE(inside<N>(node.minimum, node.maximum, child.minimum, child.maximum)) << "node " << i;
            }
        } else {
            EXPECT_TRUE(node.count >= 1 && node.count <= leaf_size) << "leaf " << i;
            largest = std::max(largest, node.count);
            if (node.first_item + node.count > order.size()) {
                ADD_FAILURE() << "items of leaf " << i << " past the list";
                return 0;
            }
            for (uint32_t k = node.first_item; k < node.first_item + node.count; ++k) {
                const uint32_t item = order[k];
                if (item >= count) {
                    ADD_FAILURE() << "item " << item << " out of range";
                    return 0;
                }
                ++seen[item];
                const float* box = boxes + size_t(item) * 2 * N;
                EXPECT_TRUE(inside<N>(node.minimum, node.maximum, box, box + N)) << "leaf " << i << " item " << item;
            }
        }
    }
    EXPECT_EQ(parents[0], 0);
    for (size_t i = 1; i < nodes.size(); ++i)
        EXPECT_EQ(parents[i], 1) << "node " << i;
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_EQ(seen[i], 1) << "item " << i;
    return largest;
}

// The tree a page carries behind its `per_page` element slots, checked against its room and
// against the first `held` elements (leaves cover slots in order). Returns the largest leaf.
template <uint32_t N>
uint32_t check_page_tree(const uint8_t* page, uint32_t per_page, uint32_t element_bytes, uint32_t held)
{
    const uint8_t* tree = page + size_t(per_page) * element_bytes;
    uint32_t node_count;
    memcpy(&node_count, tree, 4);
    if (node_count == 0 || node_count * sizeof(Map_bvh_node<N>) + 4 > MAP_FILE_PAGE_BYTES - per_page * element_bytes) {
        ADD_FAILURE() << node_count << " nodes do not fit the room";
        return 0;
    }
    std::vector<Map_bvh_node<N>> nodes(node_count);
    memcpy(nodes.data(), tree + 4, node_count * sizeof(Map_bvh_node<N>));
    std::vector<float> boxes(size_t(held) * 2 * N);
    std::vector<uint32_t> slots(held);
    for (uint32_t k = 0; k < held; ++k) {
        memcpy(&boxes[size_t(k) * 2 * N], page + size_t(k) * element_bytes, 4 * N);
        memcpy(&boxes[size_t(k) * 2 * N + N], page + size_t(k) * element_bytes, 4 * N);
        slots[k] = k;
    }
    return check_tree<N>(nodes, slots, boxes.data(), held, MAP_BVH_PAGE_LEAF_SIZE_LAST);
}

template <uint32_t N>
void check_global_tree(const Map_global_bvh<N>& bvh)
{
    const auto& boxes = bvh.boxes();
    check_tree<N>(bvh.nodes(), bvh.items(), reinterpret_cast<const float*>(boxes.data()), uint32_t(boxes.size()),
                  MAP_BVH_GLOBAL_LEAF_SIZE);
}

// Everything a built map must satisfy: one segment, the flags clear, every page tree inside
// its room and bounding its slots, page boxes bounding their elements, and the global tree
// bounding the page boxes, each page in one leaf.
template <uint32_t N>
void check_built(Map_impl& map)
{
    Map_page_store& store = map.page_store();
    ASSERT_NE(map.global_bvh, nullptr);
    auto& bvh = static_cast<Map_global_bvh<N>&>(*map.global_bvh);
    EXPECT_TRUE(bvh.is_valid());
    EXPECT_FALSE(map.needs_build || map.needs_refit);
    const uint32_t count = map.committed_size();
    const uint32_t per_page = store.elements_per_page;
    const uint32_t pages = (count + per_page - 1) / per_page;
    ASSERT_EQ(bvh.page_count(), pages);
    EXPECT_EQ(store.file_count(), 0u);
    if (count == 0) {
        EXPECT_TRUE(bvh.nodes().empty());
        return;
    }
    ASSERT_EQ(store.segments().size(), 1u);
    EXPECT_EQ(store.segments()[0].first_element, 0u);
    EXPECT_EQ(store.segments()[0].last_element, count - 1);
    std::vector<uint8_t> page(MAP_FILE_PAGE_BYTES);
    for (uint32_t p = 0; p < pages; ++p) {
        SCOPED_TRACE(testing::Message() << "page " << p);
        const uint32_t held = p + 1 == pages ? count - p * per_page : per_page;
        ASSERT_EQ(map_bvh_page_elements(store, count, p), held);
        memcpy(page.data(), store.get_page(p, true), MAP_FILE_PAGE_BYTES);
        const auto& box = bvh.boxes()[p];
        for (uint32_t slot = 0; slot < held; ++slot) {
            const float* position = reinterpret_cast<const float*>(page.data() + size_t(slot) * store.element_bytes);
            ASSERT_TRUE(inside<N>(box.minimum, box.maximum, position, position)) << "slot " << slot;
        }
        check_page_tree<N>(page.data(), per_page, store.element_bytes, held);
    }
    check_global_tree(bvh);
}

} // namespace map_bvh_test
