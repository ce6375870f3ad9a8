// Appending a batch of elements at once must leave the map exactly as appending them one by one:
// same elements at the same indices across page borders, same pending count and bounds.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tests/maps/map_storage_support.h"

using namespace map_storage_test;
using namespace QV::RCMAP;

namespace {

class Map_append_run_test : public Map_storage_test {};

TEST_F(Map_append_run_test, BatchesOfAnySizeMatchSingleAppendsAcrossPages)
{
    Map_impl single(small_declaration());
    Map_impl batched(small_declaration());
    const uint32_t per_page = batched.page_store().elements_per_page;
    ASSERT_GT(per_page, 8u);
    // One committed element first, so that the first batch starts inside a page; then batches
    // of one, of a few, of more than a page, and the rest.
    fill(single, 0, 1);
    fill(batched, 0, 1);
    const uint32_t total = 3 * per_page + 5;
    std::vector<Small_element> elements;
    for (uint32_t i = 1; i < total; ++i)
        elements.push_back(small_element(i));
    for (const Small_element& e : elements)
        ASSERT_EQ(single.append_raw(&e), qv::shader_v3::MAP_SUCCESS);
    const uint32_t sizes[] = {1, 7, per_page + 3, uint32_t(elements.size()) - 11 - per_page};
    uint32_t at = 0;
    for (uint32_t size : sizes) {
        ASSERT_EQ(batched.append_raw_run(&elements[at], size), qv::shader_v3::MAP_SUCCESS);
        at += size;
    }
    ASSERT_EQ(at, elements.size());

    EXPECT_EQ(batched.get_pending_count(), single.get_pending_count());
    const Map_bounds& a = single.get_pending_bounds();
    const Map_bounds& b = batched.get_pending_bounds();
    EXPECT_EQ(a.valid, b.valid);
    EXPECT_EQ(std::memcmp(a.minimum, b.minimum, 3 * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(a.maximum, b.maximum, 3 * sizeof(float)), 0);
    for (uint32_t i = 0; i < total; ++i) {
        Small_element x, y;
        single.read_element(i, &x);
        batched.read_element(i, &y);
        ASSERT_TRUE(same(x, y)) << "element " << i;
    }
}

}  // namespace
