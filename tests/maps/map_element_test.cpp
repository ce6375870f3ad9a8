// Map elements: typed accessors and their status values, the colour exception, the element's
// own declaration, and elements passed through a map's get.

#include <gtest/gtest.h>

#include <cstring>

#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/rcmp_module.h"
#include "tests/test_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

class MapElementTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        rcmp_init(true);
    }
};

// One field of every element type, and one global field.
Map_declaration_impl all_types_declaration()
{
    Map_declaration_impl d(3);
    d.add_integer_array("ia", 3);   // id 0, offset 12
    d.add_scalar_array("sa", 2);    // id 1, offset 24
    d.add_transform("t");           // id 2, offset 32
    d.add_color("c");               // id 3, offset 96
    d.add_vector("v");              // id 4, offset 112
    d.add_integer("i");             // id 5, offset 124
    d.add_scalar("s");              // id 6, offset 128
    d.add_scalar_array("rgb", 3);   // id 7, offset 132
    d.add_scalar_array("rgba?", 4); // id 8, offset 144
    d.add_global_scalar("g");       // id 0x10000
    return d;
}

template <class T>
T read_at(const Map_element_impl& element, uint32_t offset)
{
    T value;
    std::memcpy(&value, element.get_data() + offset, sizeof value);
    return value;
}

} // namespace

TEST_F(MapElementTest, EveryTypedAccessorLandsAtItsFieldsOffset)
{
    const Map_declaration_impl d = all_types_declaration();
    Map_element_impl e(&d);
    ASSERT_EQ(e.data_bytes(), 160u);

    const int32_t ia[3] = {-1, 2, 0x7FFFFFFF};
    const float sa[2] = {0.5f, -2.0f};
    Map_transform t;
    for (int i = 0; i < 16; ++i)
        t.m[i] = float(i) + 0.25f;
    const Map_color c{0.1f, 0.2f, 0.3f, 0.4f};
    const Map_vector3 v{7.0f, 8.0f, 9.0f};
    const int32_t i = -42;
    const float s = 3.5f;
    ASSERT_EQ(e.set(0, ia), MAP_SUCCESS);
    ASSERT_EQ(e.set(1, sa), MAP_SUCCESS);
    ASSERT_EQ(e.set(2, &t), MAP_SUCCESS);
    ASSERT_EQ(e.set(3, &c), MAP_SUCCESS);
    ASSERT_EQ(e.set(4, &v), MAP_SUCCESS);
    ASSERT_EQ(e.set(5, i), MAP_SUCCESS);
    ASSERT_EQ(e.set(6, s), MAP_SUCCESS);

    // The bytes sit where the declaration says, packed, and the neighbours stay zero.
    alignas(16) uint8_t expected[160] = {};
    std::memcpy(expected + 12, ia, 12);
    std::memcpy(expected + 24, sa, 8);
    std::memcpy(expected + 32, &t, 64);
    std::memcpy(expected + 96, &c, 16);
    std::memcpy(expected + 112, &v, 12);
    std::memcpy(expected + 124, &i, 4);
    std::memcpy(expected + 128, &s, 4);
    EXPECT_EQ(std::memcmp(e.get_data(), expected, 160), 0);
}

TEST_F(MapElementTest, AccessorChecksRunInOrder)
{
    Map_element_impl bare;
    float s = 0;
    // No declaration comes before any field test.
    EXPECT_EQ(bare.get(MAP_FIELD_NONE, s), MAP_NO_DECLARATION);
    EXPECT_EQ(bare.set(6, 1.0f), MAP_NO_DECLARATION);
    Map_vector3 p{};
    EXPECT_EQ(bare.get_position(p), MAP_NO_DECLARATION);
    EXPECT_EQ(bare.set_position(&p.x), MAP_NO_DECLARATION);

    const Map_declaration_impl d = all_types_declaration();
    Map_element_impl e(&d);
    EXPECT_EQ(e.get(99, s), MAP_NO_SUCH_FIELD);
    EXPECT_EQ(e.get(MAP_FIELD_NONE, s), MAP_NO_SUCH_FIELD);
    // A bad id is reported before the type could be compared.
    EXPECT_EQ(e.set(0x10001, int32_t{1}), MAP_NO_SUCH_FIELD);
    // A global field through an element accessor, even of the right type.
    EXPECT_EQ(e.get(0x10000, s), MAP_FIELD_ILLEGAL_TYPE);
    EXPECT_EQ(e.set(0x10000, 1.0f), MAP_FIELD_ILLEGAL_TYPE);
    // The type comes last.
    EXPECT_EQ(e.get(5, s), MAP_FIELD_TYPE_MISMATCH);
    EXPECT_EQ(e.set(6, int32_t{3}), MAP_FIELD_TYPE_MISMATCH);
    Map_vector3 v{};
    EXPECT_EQ(e.get(7, v), MAP_FIELD_TYPE_MISMATCH);
    // Failed setters write nothing.
    for (uint32_t i = 0; i < e.data_bytes(); ++i)
        ASSERT_EQ(e.get_data()[i], 0) << i;
}

TEST_F(MapElementTest, ColourAccessorsTakeThreeFloatArrays)
{
    const Map_declaration_impl d = all_types_declaration();
    Map_element_impl e(&d);
    const float rgb[3] = {0.25f, 0.5f, 0.75f};
    ASSERT_EQ(e.set(7, rgb), MAP_SUCCESS);
    Map_color c{9, 9, 9, 9};
    ASSERT_EQ(e.get(7, c), MAP_SUCCESS);
    const Map_color expected{0.25f, 0.5f, 0.75f, 1.0f};
    EXPECT_EQ(std::memcmp(&c, &expected, sizeof c), 0) << "alpha reads as 1";

    // The setter keeps three components and drops alpha: the next field stays clean.
    const Map_color bright{2.0f, 3.0f, 4.0f, 5.0f};
    ASSERT_EQ(e.set(7, &bright), MAP_SUCCESS);
    EXPECT_EQ(read_at<float>(e, 132 + 8), 4.0f);
    EXPECT_EQ(read_at<float>(e, 144), 0.0f);

    // Only a count of 3 qualifies.
    EXPECT_EQ(e.get(8, c), MAP_FIELD_TYPE_MISMATCH);
    EXPECT_EQ(e.set(8, &bright), MAP_FIELD_TYPE_MISMATCH);
    EXPECT_EQ(e.get(1, c), MAP_FIELD_TYPE_MISMATCH);
}

TEST_F(MapElementTest, PositionAccessorsFollowTheDimension)
{
    Map_declaration_impl d2(2);
    d2.add_scalar("w");
    Map_element_impl e(&d2);
    Map_vector3 p{1, 2, 3};
    EXPECT_EQ(e.get_position(p), MAP_WRONG_DIMENSION);
    EXPECT_EQ(e.set_position(p), MAP_WRONG_DIMENSION);
    const float xy[2] = {4.0f, 5.0f};
    ASSERT_EQ(e.set_position(xy), MAP_SUCCESS);
    ASSERT_EQ(e.set(0, 6.0f), MAP_SUCCESS);
    float back[3] = {0, 0, -1};
    ASSERT_EQ(e.get_position(back), MAP_SUCCESS);
    EXPECT_EQ(back[0], 4.0f);
    EXPECT_EQ(back[1], 5.0f);
    EXPECT_EQ(back[2], -1.0f) << "only `dimension` floats are copied";

    Map_declaration_impl d3(3);
    Map_element_impl e3(&d3);
    ASSERT_EQ(e3.set_position(p), MAP_SUCCESS);
    Map_vector3 q{};
    ASSERT_EQ(e3.get_position(q), MAP_SUCCESS);
    EXPECT_EQ(q.z, 3.0f);
}

TEST_F(MapElementTest, MapGetRetypesAnyElementToTheMapsLayout)
{
    Map_declaration_impl d(3);
    d.add_scalar("w");
    d.add_integer("id");
    Map_impl map(d);
    Map_element_impl bare;
    EXPECT_EQ(Map_impl().get(0, &bare), MAP_NO_DECLARATION);

    Map_element_impl source(&d);
    source.set(1, int32_t{77});
    ASSERT_EQ(map.append(&source), MAP_SUCCESS);
    map.commit();

    // An element without declaration receives the map's, and so does one of another layout.
    ASSERT_EQ(map.get(0, &bare), MAP_SUCCESS);
    int32_t id = 0;
    ASSERT_EQ(bare.get(1, id), MAP_SUCCESS);
    EXPECT_EQ(id, 77);
    Map_declaration_impl other(2);
    other.add_vector("x");
    Map_element_impl wrong(&other);
    ASSERT_EQ(map.get(0, &wrong), MAP_SUCCESS);
    EXPECT_TRUE(wrong.get_declaration()->is_layout_equivalent(d));
    EXPECT_EQ(wrong.data_bytes(), 20u);
    EXPECT_EQ(map.get(1, &wrong), MAP_INDEX_OUT_OF_RANGE);
}
