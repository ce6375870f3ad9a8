// Map elements: typed accessors and their status values, the colour exception, and elements
// passed through a map's get, set and append.

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
    ASSERT_EQ(e.set(0, ia), MAP_SUCCESS);
    ASSERT_EQ(e.set(1, sa), MAP_SUCCESS);
    ASSERT_EQ(e.set(2, &t), MAP_SUCCESS);
    ASSERT_EQ(e.set(3, &c), MAP_SUCCESS);
    ASSERT_EQ(e.set(4, &v), MAP_SUCCESS);
    ASSERT_EQ(e.set(5, int32_t{-42}), MAP_SUCCESS);
    ASSERT_EQ(e.set(6, 3.5f), MAP_SUCCESS);

    // The bytes sit where the declaration says, packed.
    EXPECT_EQ(read_at<int32_t>(e, 12 + 8), 0x7FFFFFFF);
    EXPECT_EQ(read_at<float>(e, 24 + 4), -2.0f);
    EXPECT_EQ(read_at<float>(e, 32 + 60), 15.25f);
    EXPECT_EQ(read_at<float>(e, 96 + 12), 0.4f);
    EXPECT_EQ(read_at<float>(e, 112), 7.0f);
    EXPECT_EQ(read_at<int32_t>(e, 124), -42);
    EXPECT_EQ(read_at<float>(e, 128), 3.5f);

    int32_t ia_back[3] = {};
    float sa_back[2] = {};
    Map_transform t_back{};
    Map_color c_back{};
    Map_vector3 v_back{};
    int32_t i_back = 0;
    float s_back = 0;
    EXPECT_EQ(e.get(0, ia_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(1, sa_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(2, t_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(3, c_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(4, v_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(5, i_back), MAP_SUCCESS);
    EXPECT_EQ(e.get(6, s_back), MAP_SUCCESS);
    EXPECT_EQ(std::memcmp(ia_back, ia, sizeof ia), 0);
    EXPECT_EQ(std::memcmp(sa_back, sa, sizeof sa), 0);
    EXPECT_EQ(std::memcmp(&t_back, &t, sizeof t), 0);
    EXPECT_EQ(std::memcmp(&c_back, &c, sizeof c), 0);
    EXPECT_EQ(std::memcmp(&v_back, &v, sizeof v), 0);
    EXPECT_EQ(i_back, -42);
    EXPECT_EQ(s_back, 3.5f);
    // Neighbours of the written fields are untouched.
    EXPECT_EQ(read_at<float>(e, 132), 0.0f);
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
    EXPECT_EQ(c.r, 0.25f);
    EXPECT_EQ(c.g, 0.5f);
    EXPECT_EQ(c.b, 0.75f);
    EXPECT_EQ(c.a, 1.0f);

    // The setter keeps three components and drops alpha: the next field stays clean.
    const Map_color bright{2.0f, 3.0f, 4.0f, 5.0f};
    ASSERT_EQ(e.set(7, &bright), MAP_SUCCESS);
    float back[3];
    ASSERT_EQ(e.get(7, back), MAP_SUCCESS);
    EXPECT_EQ(back[2], 4.0f);
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
    // Only `dimension` floats are copied.
    EXPECT_EQ(back[2], -1.0f);

    Map_declaration_impl d3(3);
    Map_element_impl e3(&d3);
    ASSERT_EQ(e3.set_position(p), MAP_SUCCESS);
    Map_vector3 q{};
    ASSERT_EQ(e3.get_position(q), MAP_SUCCESS);
    EXPECT_EQ(q.z, 3.0f);
}

TEST_F(MapElementTest, SetDeclarationStartsOverWithZerosAndCopiesAreIndependent)
{
    Map_declaration_impl d(3);
    d.add_scalar("s");
    Map_element_impl e(&d);
    ASSERT_EQ(e.set(0, 5.0f), MAP_SUCCESS);

    Map_element_impl copy(e);
    ASSERT_EQ(copy.set(0, 6.0f), MAP_SUCCESS);
    float s = 0;
    e.get(0, s);
    EXPECT_EQ(s, 5.0f);
    copy.get(0, s);
    EXPECT_EQ(s, 6.0f);

    // The element's declaration is private: changing the source afterwards does nothing.
    d.add_vector("later");
    EXPECT_EQ(e.data_bytes(), 16u);

    e.set_declaration(&d);
    EXPECT_EQ(e.data_bytes(), 28u);
    e.get(0, s);
    EXPECT_EQ(s, 0.0f);
    // Handing the element its own declaration is safe.
    e.set_declaration(e.get_declaration());
    EXPECT_EQ(e.data_bytes(), 28u);
    e.set_declaration(nullptr);
    EXPECT_EQ(e.get(0, s), MAP_NO_DECLARATION);
}

TEST_F(MapElementTest, MapReadTypesAnyElementAndMapWriteIsStrict)
{
    Map_declaration_impl d(3);
    d.add_scalar("w");
    d.add_integer("id");
    Map_impl map(d);

    Map_element_impl source(&d);
    const float position[3] = {1, 2, 3};
    source.set_position(position);
    source.set(0, 0.5f);
    source.set(1, int32_t{77});
    ASSERT_EQ(map.append(&source), MAP_SUCCESS);
    // Appended elements are invisible until committed.
    Map_element_impl bare;
    EXPECT_EQ(map.get(0, &bare), MAP_INDEX_OUT_OF_RANGE);
    map.commit();
    ASSERT_EQ(map.size(), 1u);

    // An element without declaration receives the map's.
    ASSERT_EQ(map.get(0, &bare), MAP_SUCCESS);
    ASSERT_NE(bare.get_declaration(), nullptr);
    int32_t id = 0;
    ASSERT_EQ(bare.get(1, id), MAP_SUCCESS);
    EXPECT_EQ(id, 77);

    // So does one of another layout.
    Map_declaration_impl other(2);
    other.add_vector("x");
    Map_element_impl wrong(&other);
    ASSERT_EQ(map.get(0, &wrong), MAP_SUCCESS);
    EXPECT_TRUE(wrong.get_declaration()->is_layout_equivalent(d));

    EXPECT_EQ(map.get(1, &bare), MAP_INDEX_OUT_OF_RANGE);

    // Writing back: no declaration, then another layout, then out of range.
    Map_element_impl empty;
    EXPECT_EQ(map.set(0, &empty), MAP_NO_DECLARATION);
    Map_element_impl wrong_layout(&other);
    EXPECT_EQ(map.set(0, &wrong_layout), MAP_NOT_EQUIVALENT);
    EXPECT_EQ(map.set(1, &bare), MAP_INDEX_OUT_OF_RANGE);
    // Names don't matter for a write, only the layout.
    Map_declaration_impl renamed(3);
    renamed.add_scalar("weight");
    renamed.add_integer("number");
    Map_element_impl r(&renamed);
    r.set(1, int32_t{5});
    ASSERT_EQ(map.set(0, &r), MAP_SUCCESS);
    map.get(0, &bare);
    bare.get(1, id);
    EXPECT_EQ(id, 5);

    map.editable = false;
    EXPECT_EQ(map.set(0, &empty), MAP_NOT_EDITABLE);
    map.editable = true;
}

TEST_F(MapElementTest, MapWithoutDeclarationAdoptsTheFirstAppendedElements)
{
    Map_impl map;
    Map_element_impl bare;
    EXPECT_EQ(map.get(0, &bare), MAP_NO_DECLARATION);
    EXPECT_EQ(map.append(&bare), MAP_NO_DECLARATION);

    Map_declaration_impl d(2);
    d.add_integer("k");
    Map_element_impl e(&d);
    ASSERT_EQ(map.append(&e), MAP_SUCCESS);
    ASSERT_TRUE(map.has_declaration());
    Map_declaration_impl d3(3);
    Map_element_impl other(&d3);
    EXPECT_EQ(map.append(&other), MAP_NOT_EQUIVALENT);
}
