// Tree construction of both BVH levels, the page tree in its page, and the global tree's stored
// form and merge.
#include <cstdio>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/maps/map_bvh_support.h"
#include "tests/test_support.h"

using namespace map_bvh_test;

namespace {

class MapBvhTreeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        scratch = map_bvh_scratch_create();
    }
    void TearDown() override { map_bvh_scratch_destroy(scratch); }
    Map_bvh_scratch* scratch = nullptr;

};

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

} // namespace

// (The stored form as the tool writes it is pinned by the end-to-end runs' output bytes.)
TEST_F(MapBvhTreeTest, StoredFormRefusesDamageAndATreeNeedsABoxForEveryPage)
{
    std::unique_ptr<Map_global_bvh<3>> bvh(global_tree(37, 5.0f));
    check_global_tree(*bvh);
    FILE* stream = tmpfile();
    ASSERT_NE(stream, nullptr);
    ASSERT_TRUE(bvh->write(stream));
    const long length = ftell(stream);
    rewind(stream);
    Map_global_bvh<3> back(nullptr);
    ASSERT_TRUE(back.read(stream, true));
    EXPECT_TRUE(back.is_valid());

    // Another dimension is refused.
    rewind(stream);
    Map_global_bvh<2> other(nullptr);
    EXPECT_FALSE(other.read(stream, false));
    // A child index beyond the list is refused.
    const uint32_t bad_child = 1000000;
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

    bvh->reset(3);
    float p[3] = {1, 2, 3};
    bvh->add_to_box(0, p);
    bvh->add_to_box(2, p);
    EXPECT_FALSE(bvh->build());
    EXPECT_FALSE(bvh->is_valid());
    EXPECT_EQ(map_global_bvh_create(0, nullptr), nullptr);
    EXPECT_EQ(map_global_bvh_create(7, nullptr), nullptr);
}

TEST_F(MapBvhTreeTest, SubtreesJoinUnderTheRootWithTheirPagesShifted)
{
    std::unique_ptr<Map_global_bvh<3>> bvh(global_tree(30, 0.0f));
    std::unique_ptr<Map_global_bvh<3>> second(global_tree(12, 100.0f));
    std::unique_ptr<Map_global_bvh<3>> third(global_tree(1, 200.0f));
    const uint32_t root_children = bvh->nodes()[0].count;
    ASSERT_TRUE(bvh->add_subtree(*second, 30));
    check_global_tree(*bvh);
    EXPECT_EQ(bvh->page_count(), 42u);
    // One more child, or a new root over the full old one and the new tree.
    EXPECT_EQ(bvh->nodes()[0].count, root_children < MAP_BVH_MAX_CHILDREN ? root_children + 1 : 2u);
    EXPECT_EQ(bvh->nodes()[0].maximum[0], 111.5f);
    EXPECT_EQ(bvh->boxes()[31].minimum[0], 101.0f) << "new page 31 is the second tree's page 1";

    const Map_global_bvh_base* list[2] = {third.get(), second.get()};
    const uint32_t firsts[2] = {42, 43};
    ASSERT_TRUE(bvh->add_subtrees(list, firsts, 2));
    check_global_tree(*bvh);
    EXPECT_EQ(bvh->page_count(), 55u);

    // A tree whose root is a leaf joins too, and so does one into an empty tree.
    std::unique_ptr<Map_global_bvh<3>> small(global_tree(3, 0.0f));
    ASSERT_EQ(small->nodes()[0].first_item, 0u);
    ASSERT_TRUE(small->add_subtree(*third, 3));
    check_global_tree(*small);
    Map_global_bvh<3> empty(nullptr);
    ASSERT_TRUE(empty.add_subtree(*second, 0));
    check_global_tree(empty);

    Map_global_bvh<2> flat(nullptr);
    EXPECT_FALSE(flat.add_subtree(*second, 0));
}
