// Map declarations: identifiers, the add checks, comparisons and the binary record.

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>

#include "maps/map_declaration.h"
#include "tests/test_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

class MapDeclarationTest : public ::testing::Test {
protected:
    void SetUp() override { qv_test_init(); }
};

// One field of every kind in both lists.
Map_declaration_impl mixed_declaration()
{
    Map_declaration_impl d(2);
    d.add_scalar("s");
    d.add_integer_array("ia", 5);
    d.add_transform("t");
    d.add_global_string("label", 8);
    d.add_global_color("tint");
    d.add_global_scalar_array("w", 4);
    return d;
}

std::string long_name(size_t length)
{
    return std::string(length, 'n');
}

} // namespace

TEST_F(MapDeclarationTest, AddChecksGiveTheirStatusInTheDescribedPrecedence)
{
    struct Case {
        bool global;
        std::string name;
        uint32_t type;
        uint32_t count;
        Map_status expected;
    };
    const Case cases[] = {
        {false, "position", MAP_TYPE_SCALAR, 0, MAP_FIELD_NAME_RESERVED},
        {false, long_name(63), MAP_TYPE_SCALAR, 0, MAP_SUCCESS},
        {false, long_name(64), MAP_TYPE_SCALAR, 0, MAP_FIELD_NAME_TOO_LONG},
        {false, "", MAP_TYPE_SCALAR, 0, MAP_FIELD_NAME_EMPTY},
        {false, "a", MAP_TYPE_NONE, 0, MAP_FIELD_TYPE_ZERO},
        // The name check comes later and overrides the type findings.
        {false, "", MAP_TYPE_NONE, 0, MAP_FIELD_NAME_EMPTY},
        // Which types each list takes.
        {false, "s", MAP_TYPE_STRING, 8, MAP_FIELD_ILLEGAL_TYPE},
        {true, "s", MAP_TYPE_STRING, 8, MAP_SUCCESS},
        {true, "x", 7, 0, MAP_FIELD_ILLEGAL_TYPE},
        {false, "a", MAP_TYPE_SCALAR_ARRAY, 0, MAP_FIELD_COUNT_ZERO},
        {true, "a", MAP_TYPE_STRING, 0, MAP_FIELD_COUNT_ZERO},
    };
    for (const Case& c : cases) {
        Map_declaration_impl d(3);
        d.add_scalar("before");
        const Map_status status =
            c.global ? d.add_global_field(c.name.c_str(), Map_field_type(c.type), c.count)
                     : d.add_field(c.name.c_str(), Map_field_type(c.type), c.count);
        EXPECT_EQ(status, c.expected) << (c.global ? "global " : "element ") << c.name.size()
                                      << "-char name, type " << c.type;
        if (status != MAP_SUCCESS) {
            // A failed add leaves the declaration as it was.
            EXPECT_EQ(d.get_field_count_total(), 1u);
            EXPECT_EQ(d.element_bytes(), 16u);
            EXPECT_EQ(d.global_bytes(), 0u);
            EXPECT_EQ(d.signature(), "s");
        }
    }
    EXPECT_EQ(Map_declaration_impl(3).add_field(nullptr, MAP_TYPE_SCALAR, 0), MAP_FIELD_NAME_EMPTY);
}

TEST_F(MapDeclarationTest, IdentifiersAddressBothListsAndElementFieldsWinByName)
{
    Map_declaration_impl d(3);
    d.add_scalar("a");
    d.add_vector("shared");
    d.add_global_integer("g");
    d.add_global_scalar("shared");
    Map_status status = MAP_NO_DECLARATION;
    // In order: a braced list is evaluated left to right.
    const bool rows[] = {d.get_field_id("shared", &status) == 1 && status == MAP_SUCCESS,
                         d.get_field_id("g", nullptr) == 0x10000, d.get_global_field_id(1, nullptr) == 0x10001,
                         d.get_field_id("nope", &status) == MAP_FIELD_NONE && status == MAP_NO_SUCH_FIELD,
                         d.get_global_field_id(2, &status) == MAP_FIELD_NONE && status == MAP_NO_SUCH_FIELD,
                         d.get_element_field_id(2, &status) == MAP_FIELD_NONE,
                         !d.has_field(0x10002, &status) && status == MAP_NO_SUCH_FIELD,
                         !d.has_field(MAP_FIELD_NONE, nullptr), !d.has_global_field("a", nullptr),
                         d.get_field(7, &status) == nullptr && status == MAP_NO_SUCH_FIELD,
                         d.get_field_info("missing", nullptr, nullptr, nullptr) == MAP_NO_SUCH_FIELD};
    for (size_t k = 0; k < std::size(rows); ++k)
        EXPECT_TRUE(rows[k]) << "row " << k;
    Map_field_type type = MAP_TYPE_COLOR;
    uint32_t count = 5;
    bool global = false;
    EXPECT_EQ(d.get_field_info(0x10001, &type, &count, &global), MAP_SUCCESS);
    EXPECT_TRUE(global && type == MAP_TYPE_SCALAR);
    EXPECT_EQ(d.get_field_info(0x20000, &type, &count, &global), MAP_NO_SUCH_FIELD);
    EXPECT_TRUE(type == MAP_TYPE_NONE && count == 0) << "a failed lookup clears what it answers";
}

// Layout equivalence (dimension and element types) lets maps merge; equivalence adds the global
// types; equality the names too.
TEST_F(MapDeclarationTest, ThreeStrengthsOfComparison)
{
    auto make = [](uint32_t dimension, const char* scalar, const char* global) {
        Map_declaration_impl d(dimension);
        d.add_scalar(scalar);
        d.add_vector("v");
        if (global)
            d.add_global_integer(global);
        return d;
    };
    Map_declaration_impl array(3);
    array.add_scalar_array("s", 1); // an array of 1 is not a scalar
    array.add_vector("v");
    const Map_declaration_impl a = make(3, "s", "g");
    const struct {
        Map_declaration_impl other;
        bool layout, equivalent, equal;
    } rows[] = {
        {make(3, "s", "g"), true, true, true},
        {make(3, "other", "g"), true, true, false},
        {make(3, "s", "h"), true, true, false},
        {make(3, "s", nullptr), true, false, false},
        {make(2, "s", "g"), false, false, false},
        {array, false, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        EXPECT_EQ(a.is_layout_equivalent(row.other), row.layout);
        EXPECT_EQ(a.is_equivalent(&row.other, nullptr), row.equivalent);
        EXPECT_EQ(a.is_equal(&row.other, nullptr), row.equal);
    }
    Map_status status = MAP_SUCCESS;
    EXPECT_FALSE(a.is_equivalent(nullptr, &status));
    EXPECT_EQ(status, MAP_NO_DECLARATION);
}

TEST_F(MapDeclarationTest, BinaryRecordReadsBackAndDamageIsRefused)
{
    const Map_declaration_impl d = mixed_declaration();
    std::vector<uint8_t> good;
    d.write_binary(good);
    ASSERT_EQ(good.size(), d.binary_size());
    ASSERT_EQ(good.size(), map_declaration_record_bytes(3, 3));

    // Trailing bytes belong to the caller.
    std::vector<uint8_t> longer = good;
    longer.push_back(0xAB);
    Map_declaration_impl back;
    size_t consumed = 0;
    ASSERT_EQ(back.read_binary(longer.data(), longer.size(), &consumed), MAP_SUCCESS);
    EXPECT_EQ(consumed, good.size());
    EXPECT_TRUE(back.is_equal(&d, nullptr));

    // Every truncation is refused, and nothing is kept.
    for (size_t length = 0; length < good.size(); length += 7) {
        EXPECT_EQ(back.read_binary(good.data(), length, &consumed), MAP_FILE_MALFORMED) << length;
        EXPECT_EQ(consumed, 0u);
        EXPECT_TRUE(back.is_empty());
    }
    EXPECT_EQ(back.read_binary(nullptr, 10, nullptr), MAP_FILE_MALFORMED);

    const size_t offsets = 2 + 3 * 68 + 2 + 3 * 68 + 4;
    struct Damage {
        const char* what;
        size_t at;
        uint16_t value;
    };
    const Damage damages[] = {
        // Accessors would write out of the element block.
        {"element offset past the element size", offsets, 4000},
        {"dimension 7", good.size() - 8, 7},
        {"size unlike the type", offsets + 3 * 2 + 4 + 3 * 4 + 4, 2},
    };
    for (const Damage& damage : damages) {
        std::vector<uint8_t> bad = good;
        std::memcpy(bad.data() + damage.at, &damage.value, 2);
        EXPECT_EQ(back.read_binary(bad.data(), bad.size(), nullptr), MAP_FILE_MALFORMED) << damage.what;
    }
}
