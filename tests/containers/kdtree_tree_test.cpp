// The implicit tree on plain arrays: the in-place build.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "containers/kdtree_tree.h"
#include "containers/paged_array.h"
#include "tests/test_support.h"

using QV::LIB::Paged_array;
using QV::LIB::detail::build_tree;

namespace {

// Reference in-order walk by recursion, independent of the iterator.
void walk(uint32_t node, uint32_t n, std::vector<uint32_t>& out)
{
    if (node > n)
        return;
    walk(2 * node, n, out);
    out.push_back(node);
    walk(2 * node + 1, n, out);
}

// Records carry their original index so that they can be matched to their positions.
struct Cloud {
    std::vector<float> positions;
    Paged_array data{sizeof(uint32_t)};
    std::vector<float> original;  // positions by original index
};

Cloud make_cloud(uint32_t n, uint32_t seed, float grid = 0.0f)
{
    Cloud cloud;
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coordinate(-10.0f, 10.0f);
    cloud.positions.resize(3 * size_t(n));
    cloud.data.resize(n);
    for (uint32_t i = 0; i < n; ++i) {
        for (int a = 0; a < 3; ++a) {
            float v = coordinate(random);
            if (grid > 0)
                v = float(int(v / grid)) * grid;  // many equal keys
            cloud.positions[3 * size_t(i) + a] = v;
        }
        std::memcpy(cloud.data.at(i), &i, sizeof i);
    }
    cloud.original = cloud.positions;
    return cloud;
}

uint32_t record_index(const Paged_array& data, uint32_t slot)
{
    uint32_t index;
    std::memcpy(&index, data.at(slot), sizeof index);
    return index;
}

// Every inner node splits its subtree: left keys not above, right keys not below.
void expect_kd_property(const Cloud& cloud, const std::vector<uint8_t>& axes, uint32_t n)
{
    for (uint32_t node = 1; 2 * node <= n; ++node) {
        const int axis = axes[node];
        const float split = cloud.positions[3 * size_t(node - 1) + axis];
        std::vector<uint32_t> left, right;
        walk(2 * node, n, left);
        walk(2 * node + 1, n, right);
        for (uint32_t k : left)
            ASSERT_LE(cloud.positions[3 * size_t(k - 1) + axis], split) << "node " << node << " n " << n;
        for (uint32_t k : right)
            ASSERT_GE(cloud.positions[3 * size_t(k - 1) + axis], split) << "node " << node << " n " << n;
    }
}

// The build permutes records and positions together and loses nothing.
void expect_records_follow_positions(const Cloud& cloud, uint32_t n)
{
    std::vector<int> seen(n, 0);
    for (uint32_t slot = 0; slot < n; ++slot) {
        const uint32_t index = record_index(cloud.data, slot);
        ASSERT_LT(index, n);
        ++seen[index];
        for (int a = 0; a < 3; ++a)
            ASSERT_EQ(cloud.positions[3 * size_t(slot) + a], cloud.original[3 * size_t(index) + a]);
    }
    for (uint32_t i = 0; i < n; ++i)
        ASSERT_EQ(seen[i], 1) << "record " << i;
}

}  // namespace

TEST(KdtreeBuildTest, ManyEqualKeysAndEqualPositions)
{
    qv_test_init();
    // Coarse grid: long runs of equal keys on every axis.
    Cloud grid = make_cloud(3000, 5, 4.0f);
    std::vector<uint8_t> axes(3004, 0);
    build_tree(grid.positions.data(), grid.data, axes.data(), 3000);
    expect_kd_property(grid, axes, 3000);
    expect_records_follow_positions(grid, 3000);

    // All positions equal: every extent is 0, and the tie goes to z.
    Cloud same = make_cloud(500, 6);
    for (float& v : same.positions)
        v = 2.5f;
    same.original = same.positions;
    std::vector<uint8_t> same_axes(504, 9);
    build_tree(same.positions.data(), same.data, same_axes.data(), 500);
    for (uint32_t node = 1; 2 * node <= 500; ++node)
        ASSERT_EQ(same_axes[node], 2);
    expect_records_follow_positions(same, 500);
}
