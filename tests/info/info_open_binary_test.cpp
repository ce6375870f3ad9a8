// fg_info on open binary maps written by the library: the summary counts what was written, and a
// damaged file ends with exit 1 and the open binary reader's own line.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "database/db.h"
#include "finalgather/fg_map.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_impl.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "tests/info/info_run.h"
#include "tests/test_support.h"

namespace {

// `count` points with distinct positions and ray counts 1..count, written as an open binary map.
std::string write_open_binary(const Temp_dir& dir, uint32_t count, uint64_t* ray_total)
{
    qv_test_fg_init();

    std::vector<Fg_point> points(count);
    *ray_total = 0;
    for (uint32_t i = 0; i < count; ++i) {
        Fg_point& p = points[i];
        std::memset(&p, 0, sizeof p);
        p.position[0] = float(i % 10);
        p.position[1] = float(i / 10 % 10);
        p.position[2] = float(i / 100);
        p.normal[1] = 1.0f;
        p.rays = int32_t(i + 1);
        *ray_total += i + 1;
    }
    QV::RCMAP::Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_add_points(map, points.data(), count), qv::shader_v3::MAP_SUCCESS);
    map->commit();
    const std::string path = dir.file("map.ob");
    EXPECT_EQ(map->write(path.c_str(), qv::shader_v3::MAP_FORMAT_OPEN_BINARY, false), qv::shader_v3::MAP_SUCCESS);
    delete map;
    return path;
}

}  // namespace

TEST(InfoOpenBinaryTest, SummaryCountsWhatWasWrittenAndDamageExitsOne)
{
    Temp_dir dir;
    uint64_t rays = 0;
    const std::string path = write_open_binary(dir, 250, &rays);
    const std::string good = read_file(path);
    ASSERT_EQ(good.substr(0, 9), "qv=MAPob1");

    const Run_result r = run_binary(QV_TEST_INFO_PATH, {path});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.out.find("kind: open binary map\nversion: 1\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("elements: 250\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("rays: " + std::to_string(rays) + "\n"), std::string::npos) << r.out;
    // Grid spacing 1: every sampled point's nearest other point is one step away.
    EXPECT_NE(r.out.find("nearest neighbour distance: mean 1 over 250 sampled points\n"), std::string::npos) << r.out;

    std::string wrong_version = good;
    wrong_version[8] = '2';
    struct Case {
        const char* name;
        std::string bytes;
        std::string line;
    } cases[] = {
        {"version.ob", wrong_version, "version of open binary map file \"" + dir.file("version.ob") +
                                          "\" is 2, unsupported"},
        {"partial.ob", good.substr(0, good.size() - 7), "reading from open binary map file"},
    };
    for (const Case& c : cases) {
        write_file(dir.file(c.name), c.bytes);
        const Run_result bad = run_binary(QV_TEST_INFO_PATH, {dir.file(c.name)});
        EXPECT_EQ(bad.exit_code, 1) << c.name;
        EXPECT_NE(bad.err.find(c.line), std::string::npos) << c.name << ": " << bad.err;
    }
}
