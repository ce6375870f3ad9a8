// Walking the points a stored final-gather map holds. (The declaration and the conversions
// between records and elements are pinned by the end-to-end runs' output bytes.)
#include "fg_test_support.h"
#include "maps/map_dbhandle.h"

using namespace fg_test;

namespace {

class FgMapTest : public Fg_test {};

struct Walk {
    std::vector<Fg_point> seen;
    size_t stop_after = SIZE_MAX;

    static int collect(void* context, const void* data, const float* position)
    {
        auto* walk = static_cast<Walk*>(context);
        EXPECT_EQ(static_cast<const float*>(data), position + 3);  // one record: word 0 and word 3
        Fg_point point{};
        std::memcpy(&point, position, FG_POINT_FILE_WORDS * 4);
        walk->seen.push_back(point);
        return walk->seen.size() < walk->stop_after;
    }
};

TEST_F(FgMapTest, StoredPointsAreWalkedInOrderUntilTheCallbackStops)
{
    std::vector<Fg_point> points;
    for (uint32_t k = 0; k < 300; ++k)
        points.push_back(make_point(k));
    QV::RCMAP::Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_add_points(map, points.data(), 300), qv::shader_v3::MAP_SUCCESS);
    map->build_bvh(0.6f, false, false);
    QV::RCMAP::Edit_map_dbhandle_impl handle(map);
    const uint32_t tag = handle.store();
    Walk all, some;
    some.stop_after = 5;
    EXPECT_EQ(fg_map_for_each(tag, Walk::collect, &all), 1);
    EXPECT_EQ(fg_map_for_each(tag, Walk::collect, &some), 0);
    ASSERT_EQ(all.seen.size(), 300u);
    for (uint32_t k = 0; k < 300; ++k)
        ASSERT_TRUE(same_named_fields(all.seen[k], points[k])) << k;
    EXPECT_EQ(some.seen.size(), 5u);
    handle.release();

    // Tag 0, an empty map, a map of another layout, a record that is no map: nothing to walk.
    QV::RCMAP::Map_declaration_impl other(3);
    QV::RCMAP::Edit_map_dbhandle_impl foreign(other_layout_map(other));
    QV::RCMAP::Edit_map_dbhandle_impl empty(fg_map_new());
    uint32_t not_a_map = 0;
    qv_db_create(&not_a_map, FG_TYPE_POINTS, 16);
    Walk none;
    for (uint32_t nothing : {0u, empty.store(), foreign.store(), not_a_map})
        EXPECT_EQ(fg_map_for_each(nothing, Walk::collect, &none), 1) << nothing;
    EXPECT_TRUE(none.seen.empty());
    foreign.release();
    empty.release();
    qv_db_delete(not_a_map);
}

}  // namespace
