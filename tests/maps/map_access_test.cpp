// Access to map data through elements, maps and iterators: where the typed accessors put their
// bytes, and every status value the accessors answer with, one row each.
#include <functional>
#include <memory>

#include "maps/map_element.h"
#include "maps/map_iterator.h"
#include "tests/maps/map_storage_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;
using namespace map_storage_test;

namespace {

class Map_access : public Map_storage_test {};

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
    d.add_global_string("name", 8); // id 0x10001
    d.add_global_scalar_array("tint", 3);
    return d;
}

} // namespace

TEST_F(Map_access, EveryTypedAccessorLandsAtItsFieldsOffset)
{
    const Map_declaration_impl d = all_types_declaration();
    Map_element_impl e(&d);
    ASSERT_EQ(e.data_bytes(), 160u);
    const int32_t ia[3] = {-1, 2, 0x7FFFFFFF};
    const float sa[2] = {0.5f, -2.0f}, s = 3.5f;
    Map_transform t;
    for (int i = 0; i < 16; ++i)
        t.m[i] = float(i) + 0.25f;
    const Map_color c{0.1f, 0.2f, 0.3f, 0.4f};
    const Map_vector3 v{7.0f, 8.0f, 9.0f};
    const int32_t i = -42;
    const Map_color bright{2.0f, 3.0f, 4.0f, 5.0f};
    for (Map_status status : {e.set(0, ia), e.set(1, sa), e.set(2, &t), e.set(3, &c), e.set(4, &v), e.set(5, i),
                              e.set(6, s), e.set(7, &bright)})
        ASSERT_EQ(status, MAP_SUCCESS);

    // Packed where the declaration says; a colour into a three-float array drops its alpha, so
    // the next field stays zero.
    alignas(16) uint8_t expected[160] = {};
    std::memcpy(expected + 12, ia, 12);
    std::memcpy(expected + 24, sa, 8);
    std::memcpy(expected + 32, &t, 64);
    std::memcpy(expected + 96, &c, 16);
    std::memcpy(expected + 112, &v, 12);
    std::memcpy(expected + 124, &i, 4);
    std::memcpy(expected + 128, &s, 4);
    std::memcpy(expected + 132, &bright, 12);
    EXPECT_EQ(std::memcmp(e.get_data(), expected, 160), 0);
    Map_color back{9, 9, 9, 9};
    ASSERT_EQ(e.get(7, back), MAP_SUCCESS);
    EXPECT_EQ(back.a, 1.0f) << "alpha reads as 1";

    // Positions copy `dimension` floats only.
    Map_declaration_impl d2(2);
    Map_element_impl flat(&d2);
    const float xy[2] = {4.0f, 5.0f};
    ASSERT_EQ(flat.set_position(xy), MAP_SUCCESS);
    float position[3] = {0, 0, -1};
    ASSERT_EQ(flat.get_position(position), MAP_SUCCESS);
    EXPECT_EQ(position[1], 5.0f);
    EXPECT_EQ(position[2], -1.0f);
}

// Each check in its order of precedence: declaration, field id, list, type. The iterator's
// accessors share one map and end check, so one row stands for them.
TEST_F(Map_access, StatusValuesOfElementMapAndIteratorAccessors)
{
    const Map_declaration_impl d = all_types_declaration();
    Map_element_impl bare, e(&d);
    Map_declaration_impl other(3);
    other.add_integer("i");
    Map_element_impl wrong(&other), fine(&d);
    // On the heap: the thread sanitizer takes a map's lock at a reused stack address (a page
    // table of an earlier test) for the same mutex.
    auto map_owner = std::make_unique<Map_impl>(d), locked_owner = std::make_unique<Map_impl>(d);
    Map_impl &map = *map_owner, &locked = *locked_owner, no_declaration;
    for (Map_impl* m : {&map, &locked}) {
        std::vector<uint8_t> raw(d.element_bytes());
        m->append_raw(raw.data());
        m->commit();
        m->append_raw(raw.data()); // stays pending
    }
    locked.editable = false;
    Map_iterator_impl no_map(static_cast<Map_impl*>(nullptr), true), at_end(&map, true), on_locked(&locked, true);
    at_end.set_to(0);
    at_end.next();
    float s = 0;
    int32_t n = 0;
    Map_vector3 p{};
    Map_color c{};
    const struct {
        const char* what;
        std::function<Map_status()> call;
        Map_status expected;
    } rows[] = {
        {"element without declaration, get", [&] { return bare.get(MAP_FIELD_NONE, s); }, MAP_NO_DECLARATION},
        {"element without declaration, set position", [&] { return bare.set_position(&p.x); }, MAP_NO_DECLARATION},
        {"unknown element field", [&] { return e.get(99, s); }, MAP_NO_SUCH_FIELD},
        {"unknown global id before the type", [&] { return e.set(0x10003, int32_t{1}); }, MAP_NO_SUCH_FIELD},
        {"global field through an element", [&] { return e.get(0x10000, s); }, MAP_FIELD_ILLEGAL_TYPE},
        {"integer read as scalar", [&] { return e.get(5, s); }, MAP_FIELD_TYPE_MISMATCH},
        {"four floats are no colour", [&] { return e.get(8, c); }, MAP_FIELD_TYPE_MISMATCH},
        {"four floats take no colour", [&] { return e.set(8, &c); }, MAP_FIELD_TYPE_MISMATCH},
        {"3-float position in dimension 2",
         [&] {
             Map_declaration_impl d2(2);
             return Map_element_impl(&d2).get_position(p);
         },
         MAP_WRONG_DIMENSION},
        {"map without declaration, append", [&] { return no_declaration.append(&bare); }, MAP_NO_DECLARATION},
        {"append of another layout", [&] { return map.append(&wrong); }, MAP_NOT_EQUIVALENT},
        {"set past the committed", [&] { return map.set(1, &fine); }, MAP_INDEX_OUT_OF_RANGE},
        {"get of a pending element", [&] { return map.get(1, &fine); }, MAP_INDEX_OUT_OF_RANGE},
        {"global read with another type", [&] { return map.get(0x10000, n); }, MAP_FIELD_TYPE_MISMATCH},
        {"element field through the map", [&] { return map.get(6, s); }, MAP_FIELD_ILLEGAL_TYPE},
        {"unknown global", [&] { return map.get(Map_field_id(0x10000 | 77), s); }, MAP_NO_SUCH_FIELD},
        {"locked map, set", [&] { return locked.set(0, &fine); }, MAP_NOT_EDITABLE},
        {"locked map, iterator position", [&] { return on_locked.set_position(p); }, MAP_NOT_EDITABLE},
        {"locked map, iterator get", [&] { return on_locked.get(6, s); }, MAP_SUCCESS},
        {"iterator at the end, before the field", [&] { return at_end.get(99, s); }, MAP_ITERATOR_AT_END},
        {"iterator without map, reset", [&] { return no_map.reset(); }, MAP_ITERATOR_NO_MAP},
        {"iterator without map, at_end", [&] {
             Map_status status = MAP_SUCCESS;
             return no_map.at_end(&status) && no_map.current(&status) == 0 ? status : MAP_SUCCESS;
         }, MAP_ITERATOR_NO_MAP},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.call(), row.expected) << row.what;
    // Failed setters wrote nothing.
    for (uint32_t i = 0; i < e.data_bytes(); ++i)
        ASSERT_EQ(e.get_data()[i], 0) << i;
    EXPECT_EQ(locked.size() + locked.get_pending_count(), 2u);
}

TEST_F(Map_access, GlobalStringsAreCutAndPaddedAndColoursKeepTheirNeighbours)
{
    const Map_declaration_impl d = all_types_declaration();
    Map_impl map(d);
    const Map_field_id name = 0x10001, tint = 0x10002;
    EXPECT_EQ(map.set(name, "abcdefghijk", -1), MAP_SUCCESS);
    char text[8];
    EXPECT_EQ(map.get(name, text), MAP_SUCCESS);
    EXPECT_EQ(std::string(text, 8), "abcdefgh");
    EXPECT_EQ(map.set(name, "xy", 2), MAP_SUCCESS);
    EXPECT_EQ(map.get(name, text), MAP_SUCCESS);
    EXPECT_EQ(std::string(text, 8), std::string("xy\0\0\0\0\0\0", 8));
    const Map_color color = {0.1f, 0.2f, 0.3f, 0.5f};
    EXPECT_EQ(map.set(tint, &color), MAP_SUCCESS);
    Map_color back = {};
    EXPECT_EQ(map.get(tint, back), MAP_SUCCESS);
    EXPECT_EQ(back.b, 0.3f);
    EXPECT_EQ(back.a, 1.0f);
    EXPECT_EQ(map.get(name, text), MAP_SUCCESS);
    EXPECT_EQ(text[0], 'x');
}
