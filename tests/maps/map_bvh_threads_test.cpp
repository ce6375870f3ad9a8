// A full build large enough for the reorder's two-thread paths (cell codes and counts per
// thread, the permutation split into halves) gives the bytes of a one-thread build.
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_bvh.h"
#include "tests/maps/map_bvh_support.h"
#include "tests/maps/map_storage_support.h"

using namespace map_bvh_test;
using namespace map_storage_test;

namespace {

class Map_bvh_threads_test : public Map_storage_test {
protected:
    void TearDown() override
    {
        map_bvh_set_thread_count(1);
        Map_storage_test::TearDown();
    }
};

std::vector<uint8_t> page_bytes(Map_impl& map)
{
    const uint32_t pages = map.page_store().page_count(map.committed_size());
    std::vector<uint8_t> bytes(size_t(pages) * MAP_FILE_PAGE_BYTES);
    for (uint32_t p = 0; p < pages; ++p)
        memcpy(bytes.data() + size_t(p) * MAP_FILE_PAGE_BYTES, map.page_store().get_page(p, true), MAP_FILE_PAGE_BYTES);
    return bytes;
}

} // namespace

TEST_F(Map_bvh_threads_test, TwoThreadReorderOfALargeMapGivesTheOneThreadBytes)
{
    // Random order, so that the permutation's cycles cross the middle; the map is held in memory
    // from element 0, so it is reordered in its own pages.
    constexpr uint32_t COUNT = 70001;
    std::vector<uint8_t> pages[2];
    for (uint32_t threads : {1u, 2u}) {
        Map_impl map(small_declaration());
        std::mt19937 random(11);
        std::uniform_real_distribution<float> where(-50.0f, 50.0f);
        for (uint32_t i = 0; i < COUNT; ++i) {
            Small_element element = small_element(i);
            for (float& coordinate : element.position)
                coordinate = where(random);
            ASSERT_EQ(map.append_raw(&element), qv::shader_v3::MAP_SUCCESS);
        }
        map_bvh_set_thread_count(threads);
        ASSERT_EQ(map.build_bvh(0.6f, false, false), qv::shader_v3::MAP_SUCCESS);
        check_built<3>(map);
        pages[threads - 1] = page_bytes(map);
    }
    EXPECT_FALSE(saw("already set"));
    ASSERT_EQ(pages[0].size(), pages[1].size());
    EXPECT_TRUE(pages[0] == pages[1]);
}
