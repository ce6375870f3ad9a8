// Memory of the stages on maps read from current files: the merge's points live in its array
// and the classic output's in its kd-tree, and the map's pages do not stay behind in the cache
// beside them; pages with changes, which have no other copy, are kept.
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
#include "tool/stages.h"

namespace {

using QV::RCMAP::Map_manager;

class StageMemoryTest : public ::testing::Test {
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
        path_ = "stage_memory_" + std::to_string(getpid()) + ".fgm";
        out_path_ = "stage_memory_" + std::to_string(getpid()) + ".fg";
    }
    void TearDown() override
    {
        std::remove(path_.c_str());
        std::remove(out_path_.c_str());
    }

    // Writes `points` as a current file and stores a map read back from it the way intake does:
    // attached, no page loaded.
    Tag store_from_file(const std::vector<Fg_point>& points)
    {
        QV::RCMAP::Map_impl* written = fg_map_new();
        EXPECT_EQ(fg_map_add_points(written, points.data(), uint32_t(points.size())), 0);
        EXPECT_EQ(written->write(path_.c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false), 0);
        delete written;
        QV::RCMAP::Map_impl* map = fg_map_new();
        map->bvh_enabled = false;
        EXPECT_EQ(fg_map_load(map, path_.c_str(), false), points.size());
        map->build_bvh(0.6f, false, false);
        EXPECT_GE(map->page_store().page_count(map->committed_size()), 100u);
        QV::RCMAP::Edit_map_dbhandle_impl handle(map);
        return handle.store();
    }

    std::string path_;
    std::string out_path_;
};

// Sum of the ray counts and number of the points of a stored map.
std::pair<uint64_t, uint32_t> rays_and_count(Tag tag)
{
    std::pair<uint64_t, uint32_t> sums(0, 0);
    fg_map_for_each(
        tag,
        [](void* context, const void* data, const float*) {
            auto* out = static_cast<std::pair<uint64_t, uint32_t>*>(context);
            Fg_point p{};
            std::memcpy(p.normal, data, FG_POINT_PAYLOAD_WORDS * 4);
            out->first += p.rays;
            ++out->second;
            return 1;
        },
        &sums);
    return sums;
}

uint64_t total_rays(const std::vector<Fg_point>& points)
{
    uint64_t rays = 0;
    for (const Fg_point& p : points)
        rays += p.rays;
    return rays;
}

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

TEST_F(StageMemoryTest, PagesOfAFileBackedMapAreNotHeldThroughTheMerge)
{
    const std::vector<Fg_point> points = clustered_points(10, 4000);
    const Tag tag = store_from_file(points);
    ASSERT_NE(tag, 0u);

    // Buffers kept from earlier tests would hide the ones this merge makes.
    Map_manager& manager = Map_manager::instance();
    manager.flush(0);
    const uint32_t made_before = manager.max_pages();
    const Tag merged = merge_map(tag, 0.01f, 5.0f);
    ASSERT_NE(merged, 0u);

    // Every cluster collapses to one point, so the new map needs one page: a merge that kept
    // the old pages in the cache would have made a buffer for each of them.
    EXPECT_EQ(rays_and_count(merged), std::make_pair(total_rays(points), 10u));
    EXPECT_LE(manager.max_pages() - made_before, 4u);
}

TEST_F(StageMemoryTest, BoxLetsTheSourcePagesGoAsItWalksThem)
{
    const std::vector<Fg_point> points = clustered_points(10, 4000);
    const Tag tag = store_from_file(points);
    ASSERT_NE(tag, 0u);
    Map_manager& manager = Map_manager::instance();
    manager.flush(0);
    const uint32_t made_before = manager.max_pages();
    // Clusters 0 and 1 only: a fifth of the points, a fifth of the pages in the new map.
    const float box[6] = {-0.5f, -1.0f, -1.0f, 1.5f, 1.0f, 3.0f};
    const Tag kept = select_box(tag, box, 1);
    ASSERT_NE(kept, 0u);
    uint64_t rays = 0;
    for (uint32_t i = 0; i < 2 * 4000; ++i)
        rays += points[i].rays;
    EXPECT_EQ(rays_and_count(kept), std::make_pair(rays, 8000u));
    const uint32_t source_pages = uint32_t((points.size() + 299) / 300);
    EXPECT_LE(manager.max_pages() - made_before, source_pages / 5 + 6);
}

TEST_F(StageMemoryTest, ClassicOutputLetsCleanPagesGoAndKeepsChangedOnes)
{
    const std::vector<Fg_point> points = clustered_points(10, 4000);
    Map_manager& manager = Map_manager::instance();
    {
        const Tag tag = store_from_file(points);
        ASSERT_NE(tag, 0u);
        manager.flush(0);
        const uint32_t made_before = manager.max_pages();
        save_map(out_path_.c_str(), tag, 1);
        EXPECT_LE(manager.max_pages() - made_before, 4u);
        // The map lives on in the database, whole: its pages come back from the file.
        EXPECT_EQ(rays_and_count(tag), std::make_pair(total_rays(points), uint32_t(points.size())));
    }
    {
        // A map built in memory has its points in changed pages only: they must all stay.
        QV::RCMAP::Map_impl* map = fg_map_new();
        map->bvh_enabled = false;
        ASSERT_EQ(fg_map_add_points(map, points.data(), uint32_t(points.size())), 0);
        map->build_bvh(0.6f, false, false);
        QV::RCMAP::Edit_map_dbhandle_impl handle(map);
        const Tag tag = handle.store();
        save_map(out_path_.c_str(), tag, 1);
        EXPECT_EQ(rays_and_count(tag), std::make_pair(total_rays(points), uint32_t(points.size())));
    }
    FILE* out = std::fopen(out_path_.c_str(), "rb");
    ASSERT_NE(out, nullptr);
    std::fseek(out, 0, SEEK_END);
    EXPECT_EQ(std::ftell(out), long(120 + 104 * points.size()));
    std::fclose(out);
}

}  // namespace
