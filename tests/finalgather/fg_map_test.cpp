// The final-gather declaration and the conversions between records and map elements.
#include "fg_test_support.h"
#include "maps/map_dbhandle.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"

using namespace fg_test;
using QV::RCMAP::Map_declaration_impl;
using QV::RCMAP::Map_element_impl;
using QV::RCMAP::Map_impl;
using namespace qv::shader_v3;

namespace {

class FgMapTest : public Fg_test {};

// The declaration is what current files on disk carry, so names, types and offsets are pinned.
TEST_F(FgMapTest, DeclarationHasTheTenFieldsOfTheNinetySixByteElement)
{
    Map_declaration_impl* declaration = fg_map_declaration();
    struct Expected {
        const char* name;
        uint32_t type;
        uint32_t count;
        uint32_t offset;
        uint32_t bytes;
    };
    const Expected expected[FG_FIELD_COUNT] = {
        {"normal", MAP_TYPE_VECTOR, 0, 12, 12},         {"irrad", MAP_TYPE_COLOR, 0, 24, 16},
        {"rays", MAP_TYPE_INTEGER, 0, 40, 4},           {"grad_t1", MAP_TYPE_SCALAR_ARRAY, 3, 44, 12},
        {"grad_t2", MAP_TYPE_SCALAR_ARRAY, 3, 56, 12},  {"point_id", MAP_TYPE_INTEGER, 0, 68, 4},
        {"r_mean", MAP_TYPE_SCALAR, 0, 72, 4},          {"min_dist", MAP_TYPE_SCALAR, 0, 76, 4},
        {"min_dist_dir", MAP_TYPE_VECTOR, 0, 80, 12},   {"occluded_min_dist", MAP_TYPE_SCALAR, 0, 92, 4},
    };
    EXPECT_EQ(declaration->get_dimension(), 3u);
    EXPECT_EQ(declaration->get_global_field_count(), 0u);
    ASSERT_EQ(declaration->get_element_field_count(), uint32_t(FG_FIELD_COUNT));
    EXPECT_EQ(declaration->element_bytes(), FG_ELEMENT_BYTES);
    for (uint32_t n = 0; n < FG_FIELD_COUNT; ++n) {
        const Map_field& field = declaration->element_field(n);
        EXPECT_STREQ(field.name, expected[n].name);
        EXPECT_EQ(field.type, expected[n].type) << n;
        EXPECT_EQ(uint32_t(field.count), expected[n].count) << n;
        EXPECT_EQ(declaration->element_field_offset(n), expected[n].offset) << n;
        EXPECT_EQ(declaration->element_field_bytes(n), expected[n].bytes) << n;
    }
    delete declaration;
}

TEST_F(FgMapTest, RecordTravelsThroughAnElementAndLosesOnlyTheUnmappedWords)
{
    const Fg_point source = make_point(3);
    Map_element_impl* element = fg_scratch_element();
    fg_point_to_element(element, source.position, source.normal);

    // The element holds the fields where the declaration puts them, read by name.
    Map_vector3 normal;
    int32_t rays = 0, point_id = 0;
    float r_mean = 0, grad_t2[3];
    ASSERT_EQ(element->get(FG_FIELD_NORMAL, normal), MAP_SUCCESS);
    ASSERT_EQ(element->get(FG_FIELD_RAYS, rays), MAP_SUCCESS);
    ASSERT_EQ(element->get(FG_FIELD_POINT_ID, point_id), MAP_SUCCESS);
    ASSERT_EQ(element->get(FG_FIELD_R_MEAN, r_mean), MAP_SUCCESS);
    ASSERT_EQ(element->get(FG_FIELD_GRAD_T2, grad_t2), MAP_SUCCESS);
    EXPECT_EQ(normal.y, source.normal[1]);
    EXPECT_EQ(uint32_t(rays), source.rays);
    EXPECT_EQ(point_id, source.point_id);
    EXPECT_EQ(r_mean, source.r_mean);
    EXPECT_EQ(grad_t2[2], source.grad_t2[2]);

    // Back into a record whose unmapped words hold something else: those stay untouched.
    Fg_point back = make_point(7);
    fg_point_from_element(&back, element);
    EXPECT_TRUE(same_named_fields(back, source));
    EXPECT_EQ(back.reserved[0], make_point(7).reserved[0]);
    EXPECT_EQ(back.reserved[1], make_point(7).reserved[1]);
    EXPECT_EQ(back.trailing, make_point(7).trailing);
}

TEST_F(FgMapTest, RaysAboveTwoToTheThirtyFirstSurviveTheSignedField)
{
    Fg_point source = make_point(1);
    source.rays = 0x80000005u;
    Map_element_impl* element = fg_scratch_element();
    fg_point_to_element(element, source.position, source.normal);
    Fg_point back{};
    fg_point_from_element(&back, element);
    EXPECT_EQ(back.rays, 0x80000005u);
}

struct Walk {
    std::vector<Fg_point> seen;
    size_t stop_after = SIZE_MAX;
};

int collect(void* context, const void* data, const float* position)
{
    auto* walk = static_cast<Walk*>(context);
    // The walk hands out the scratch record: word 0 and word 3 of one record.
    EXPECT_EQ(static_cast<const float*>(data), position + 3);
    Fg_point point{};
    std::memcpy(point.position, position, 12);
    std::memcpy(point.normal, data, FG_POINT_PAYLOAD_WORDS * 4);
    walk->seen.push_back(point);
    return walk->seen.size() < walk->stop_after;
}

TEST_F(FgMapTest, AddedPointsAreWalkedInOrderUntilTheCallbackStops)
{
    std::vector<Fg_point> points;
    for (uint32_t k = 0; k < 300; ++k)
        points.push_back(make_point(k));
    Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_add_points(map, points.data(), 299), MAP_SUCCESS);
    ASSERT_EQ(fg_map_add_point(map, points[299].position, points[299].normal), MAP_SUCCESS);
    // Appends are pending until a commit; the bounds grow with them.
    EXPECT_EQ(map->size(), 0u);
    map->build_bvh(0.6f, false, false);
    ASSERT_EQ(map->size(), 300u);
    EXPECT_EQ(map->get_bounds().minimum[0], points[0].position[0]);
    EXPECT_EQ(map->get_bounds().maximum[2], points[299].position[2]);

    QV::RCMAP::Edit_map_dbhandle_impl handle(map);
    const uint32_t tag = handle.store();
    ASSERT_NE(tag, 0u);

    Walk all;
    EXPECT_EQ(fg_map_for_each(tag, collect, &all), 1);
    ASSERT_EQ(all.seen.size(), 300u);
    for (uint32_t k = 0; k < 300; ++k)
        ASSERT_TRUE(same_named_fields(all.seen[k], points[k])) << k;

    Walk some;
    some.stop_after = 5;
    EXPECT_EQ(fg_map_for_each(tag, collect, &some), 0);
    EXPECT_EQ(some.seen.size(), 5u);
    handle.release();
}

TEST_F(FgMapTest, WalkOfNothingCallsNothingAndSucceeds)
{
    Walk walk;
    EXPECT_EQ(fg_map_for_each(0, collect, &walk), 1);

    QV::RCMAP::Edit_map_dbhandle_impl empty(fg_map_new());
    const uint32_t tag = empty.store();
    EXPECT_EQ(fg_map_for_each(tag, collect, &walk), 1);
    EXPECT_TRUE(walk.seen.empty());
    empty.release();

    // A map of another layout holds no final-gather points.
    Map_declaration_impl other_layout(3);
    other_layout.add_scalar("weight");
    auto* foreign_map = new Map_impl(other_layout);
    QV::RCMAP::Map_element_impl foreign_element(&other_layout);
    foreign_map->append(&foreign_element);
    foreign_map->build_bvh(0.6f, false, false);
    QV::RCMAP::Edit_map_dbhandle_impl foreign(foreign_map);
    const uint32_t foreign_tag = foreign.store();
    EXPECT_EQ(fg_map_for_each(foreign_tag, collect, &walk), 1);
    EXPECT_TRUE(walk.seen.empty());
    foreign.release();
    EXPECT_EQ(fg_scratch_element()->get_declaration()->element_bytes(), FG_ELEMENT_BYTES);

    // A tag that holds something other than a map.
    uint32_t other = 0;
    qv_db_create(&other, FG_TYPE_POINTS, 16);
    EXPECT_EQ(fg_map_for_each(other, collect, &walk), 1);
    EXPECT_TRUE(walk.seen.empty());
    qv_db_delete(other);
}

}  // namespace
