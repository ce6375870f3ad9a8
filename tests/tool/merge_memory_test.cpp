// Memory of the merge stage on a map read from a current file: the points live in the merge's
// array, and the map's pages do not stay behind in the cache beside it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "database/db.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_map.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_dbhandle.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "tests/test_support.h"
#include "tool/merge.h"

namespace {

using QV::RCMAP::Map_manager;

class MergeMemoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        rcmp_init(true);
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        if (!qv_db_started())
            qv_db_init();
        fg_module_init();
        path_ = "merge_memory_" + std::to_string(getpid()) + ".fgm";
    }
    void TearDown() override { std::remove(path_.c_str()); }

    std::string path_;
};

// `clusters` groups of `per_cluster` coincident points on the floor, one metre apart, facing up.
std::vector<Fg_point> clustered_points(uint32_t clusters, uint32_t per_cluster)
{
    std::vector<Fg_point> points;
    for (uint32_t c = 0; c < clusters; ++c) {
        for (uint32_t k = 0; k < per_cluster; ++k) {
            Fg_point p{};
            p.position[0] = float(c);
            p.position[2] = float(c % 3);
            p.normal[1] = 1.0f;
            p.irrad[0] = p.irrad[1] = p.irrad[2] = 0.5f;
            p.rays = 1 + k % 7;
            p.r_mean = 1.0f;
            p.min_dist = 1.0f;
            points.push_back(p);
        }
    }
    return points;
}

TEST_F(MergeMemoryTest, PagesOfAFileBackedMapAreNotHeldThroughTheMerge)
{
    // Written as a current file, then read back the way intake does: attached, no page loaded.
    const std::vector<Fg_point> points = clustered_points(10, 4000);
    {
        QV::RCMAP::Map_impl* written = fg_map_new();
        ASSERT_EQ(fg_map_add_points(written, points.data(), uint32_t(points.size())), 0);
        ASSERT_EQ(written->write(path_.c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false), 0);
        delete written;
    }
    QV::RCMAP::Map_impl* map = fg_map_new();
    map->bvh_enabled = false;
    ASSERT_EQ(fg_map_load(map, path_.c_str(), false), points.size());
    map->build_bvh(0.6f, false, false);
    const uint32_t map_pages = map->page_store().page_count(map->committed_size());
    ASSERT_GE(map_pages, 100u);
    Tag tag = 0;
    {
        QV::RCMAP::Edit_map_dbhandle_impl handle(map);
        tag = handle.store();
    }
    ASSERT_NE(tag, 0u);

    // Buffers kept from earlier tests would hide the ones this merge makes.
    Map_manager& manager = Map_manager::instance();
    manager.flush(0);
    const uint32_t made_before = manager.max_pages();
    const Tag merged = merge_map(tag, 0.01f, 5.0f);
    ASSERT_NE(merged, 0u);

    // Every cluster collapses to one point, so the new map needs one page: a merge that kept
    // the old pages in the cache would have made a buffer for each of them.
    uint64_t rays = 0;
    for (const Fg_point& p : points)
        rays += p.rays;
    uint64_t merged_rays = 0;
    uint32_t merged_count = 0;
    std::pair<uint64_t*, uint32_t*> sums(&merged_rays, &merged_count);
    fg_map_for_each(
        merged,
        [](void* context, const void* data, const float*) {
            auto* sums = static_cast<std::pair<uint64_t*, uint32_t*>*>(context);
            Fg_point p{};
            std::memcpy(p.normal, data, FG_POINT_PAYLOAD_WORDS * 4);
            *sums->first += p.rays;
            ++*sums->second;
            return 1;
        },
        &sums);
    EXPECT_EQ(merged_count, 10u);
    EXPECT_EQ(merged_rays, rays);
    EXPECT_LE(manager.max_pages() - made_before, 4u);
}

}  // namespace
