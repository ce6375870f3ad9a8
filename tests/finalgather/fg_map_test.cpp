// The final-gather declaration and the conversions between records and map elements.
#include <memory>

#include "fg_test_support.h"
#include "maps/map_dbhandle.h"

using namespace fg_test;
using namespace qv::shader_v3;

namespace {

class FgMapTest : public Fg_test {};

// Current files on disk carry this declaration, so names, types and offsets are pinned; each
// field holds the record words of its name.
TEST_F(FgMapTest, DeclarationPinsTheNinetySixByteElementThatRecordsConvertThrough)
{
    const struct {
        const char* name;
        uint32_t type, count, offset, word, words;
    } fields[FG_FIELD_COUNT] = {
        {"normal", MAP_TYPE_VECTOR, 0, 12, 3, 3},         {"irrad", MAP_TYPE_COLOR, 0, 24, 6, 4},
        {"rays", MAP_TYPE_INTEGER, 0, 40, 10, 1},         {"grad_t1", MAP_TYPE_SCALAR_ARRAY, 3, 44, 11, 3},
        {"grad_t2", MAP_TYPE_SCALAR_ARRAY, 3, 56, 14, 3}, {"point_id", MAP_TYPE_INTEGER, 0, 68, 17, 1},
        {"r_mean", MAP_TYPE_SCALAR, 0, 72, 20, 1},        {"min_dist", MAP_TYPE_SCALAR, 0, 76, 21, 1},
        {"min_dist_dir", MAP_TYPE_VECTOR, 0, 80, 22, 3},  {"occluded_min_dist", MAP_TYPE_SCALAR, 0, 92, 25, 1},
    };
    const std::unique_ptr<QV::RCMAP::Map_declaration_impl> declaration(fg_map_declaration());
    EXPECT_EQ(declaration->get_dimension(), 3u);
    EXPECT_EQ(declaration->get_global_field_count(), 0u);
    ASSERT_EQ(declaration->get_element_field_count(), uint32_t(FG_FIELD_COUNT));
    EXPECT_EQ(declaration->element_bytes(), FG_ELEMENT_BYTES);

    Fg_point source = make_point(3);
    source.rays = 0x80000005u;  // an unsigned weight in the signed field
    QV::RCMAP::Map_element_impl* element = fg_scratch_element();
    fg_point_to_element(element, source.position, source.normal);
    const auto* words = reinterpret_cast<const uint32_t*>(&source);
    EXPECT_EQ(std::memcmp(element->get_data(), source.position, 12), 0);
    for (uint32_t n = 0; n < FG_FIELD_COUNT; ++n) {
        SCOPED_TRACE(fields[n].name);
        EXPECT_STREQ(declaration->element_field(n).name, fields[n].name);
        EXPECT_EQ(declaration->element_field(n).type, fields[n].type);
        EXPECT_EQ(declaration->element_field(n).count, fields[n].count);
        EXPECT_EQ(declaration->element_field_offset(n), fields[n].offset);
        EXPECT_EQ(std::memcmp(element->get_data() + fields[n].offset, words + fields[n].word, 4 * fields[n].words), 0);
    }

    // Back into a record: words 18, 19 and 26 of the destination are neither read nor written.
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

TEST_F(FgMapTest, StoredPointsAreWalkedInOrderUntilTheCallbackStops)
{
    std::vector<Fg_point> points;
    for (uint32_t k = 0; k < 300; ++k)
        points.push_back(make_point(k));
    QV::RCMAP::Map_impl* map = fg_map_new();
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
    EXPECT_EQ(fg_scratch_element()->get_declaration()->element_bytes(), FG_ELEMENT_BYTES);  // layout kept
    foreign.release();
    empty.release();
    qv_db_delete(not_a_map);
}

}  // namespace
