// The final-gather declaration and the conversions between records and map elements.
#include "fg_test_support.h"
#include "maps/map_dbhandle.h"
#include "maps/map_declaration.h"

using namespace fg_test;
using QV::RCMAP::Map_declaration_impl;
using QV::RCMAP::Map_impl;
using namespace qv::shader_v3;

namespace {

class FgMapTest : public Fg_test {};

// Current files on disk carry this declaration: names, types and offsets are pinned.
TEST_F(FgMapTest, DeclarationIsTheNinetySixByteElementOfTenFields)
{
    Map_declaration_impl* declaration = fg_map_declaration();
    const struct {
        const char* name;
        uint32_t type, count, offset;
    } expected[FG_FIELD_COUNT] = {
        {"normal", MAP_TYPE_VECTOR, 0, 12},        {"irrad", MAP_TYPE_COLOR, 0, 24},
        {"rays", MAP_TYPE_INTEGER, 0, 40},         {"grad_t1", MAP_TYPE_SCALAR_ARRAY, 3, 44},
        {"grad_t2", MAP_TYPE_SCALAR_ARRAY, 3, 56}, {"point_id", MAP_TYPE_INTEGER, 0, 68},
        {"r_mean", MAP_TYPE_SCALAR, 0, 72},        {"min_dist", MAP_TYPE_SCALAR, 0, 76},
        {"min_dist_dir", MAP_TYPE_VECTOR, 0, 80},  {"occluded_min_dist", MAP_TYPE_SCALAR, 0, 92},
    };
    EXPECT_EQ(declaration->get_dimension(), 3u);
    EXPECT_EQ(declaration->get_global_field_count(), 0u);
    ASSERT_EQ(declaration->get_element_field_count(), uint32_t(FG_FIELD_COUNT));
    EXPECT_EQ(declaration->element_bytes(), FG_ELEMENT_BYTES);
    for (uint32_t n = 0; n < FG_FIELD_COUNT; ++n) {
        EXPECT_STREQ(declaration->element_field(n).name, expected[n].name);
        EXPECT_EQ(declaration->element_field(n).type, expected[n].type) << n;
        EXPECT_EQ(declaration->element_field(n).count, expected[n].count) << n;
        EXPECT_EQ(declaration->element_field_offset(n), expected[n].offset) << n;
    }
    delete declaration;
}

TEST_F(FgMapTest, RecordThroughAnElementKeepsNamedFieldsAndLeavesTheOthers)
{
    Fg_point source = make_point(3);
    source.rays = 0x80000005u;  // an unsigned weight in the signed field
    QV::RCMAP::Map_element_impl* element = fg_scratch_element();
    fg_point_to_element(element, source.position, source.normal);

    // Fields sit where the declaration puts them.
    int32_t rays = 0;
    float grad_t2[3];
    ASSERT_EQ(element->get(FG_FIELD_RAYS, rays), MAP_SUCCESS);
    ASSERT_EQ(element->get(FG_FIELD_GRAD_T2, grad_t2), MAP_SUCCESS);
    EXPECT_EQ(uint32_t(rays), 0x80000005u);
    EXPECT_EQ(grad_t2[2], source.grad_t2[2]);

    // Words 18, 19 and 26 of the destination are neither read nor written.
    const Fg_point other = make_point(7);
    Fg_point back = other;
    fg_point_from_element(&back, element);
    EXPECT_TRUE(same_named_fields(back, source));
    EXPECT_EQ(std::memcmp(back.reserved, other.reserved, 8), 0);
    EXPECT_EQ(back.trailing, other.trailing);
}

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

TEST_F(FgMapTest, AddedPointsAreWalkedInOrderUntilTheCallbackStops)
{
    std::vector<Fg_point> points;
    for (uint32_t k = 0; k < 300; ++k)
        points.push_back(make_point(k));
    Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_add_points(map, points.data(), 300), MAP_SUCCESS);
    EXPECT_EQ(map->size(), 0u);  // pending until the commit
    map->build_bvh(0.6f, false, false);
    EXPECT_EQ(map->get_bounds().maximum[2], points[299].position[2]);
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
}

TEST_F(FgMapTest, WalkOfNoFinalGatherMapCallsNothingAndSucceeds)
{
    Map_declaration_impl other(3);
    other.add_scalar("weight");
    auto* foreign_map = new Map_impl(other);
    QV::RCMAP::Map_element_impl foreign_element(&other);
    foreign_map->append(&foreign_element);
    foreign_map->build_bvh(0.6f, false, false);
    QV::RCMAP::Edit_map_dbhandle_impl foreign(foreign_map);
    QV::RCMAP::Edit_map_dbhandle_impl empty(fg_map_new());
    uint32_t not_a_map = 0;
    qv_db_create(&not_a_map, FG_TYPE_POINTS, 16);

    Walk walk;
    for (uint32_t tag : {0u, empty.store(), foreign.store(), not_a_map})
        EXPECT_EQ(fg_map_for_each(tag, Walk::collect, &walk), 1) << tag;
    EXPECT_TRUE(walk.seen.empty());
    // The scratch element kept its layout.
    EXPECT_EQ(fg_scratch_element()->get_declaration()->element_bytes(), FG_ELEMENT_BYTES);
    foreign.release();
    empty.release();
    qv_db_delete(not_a_map);
}

}  // namespace
