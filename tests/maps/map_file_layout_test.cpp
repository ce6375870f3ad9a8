// The binary map file decoded by hand: header offsets, declaration record, pages and slots.
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_layout : public Map_file_test {};

// Reads one 68-byte field entry of the record: 64 bytes of name, type and count in 16 bits.
void expect_field_entry(const std::vector<uint8_t>& bytes, size_t at, const char* name, uint16_t type, uint16_t count)
{
    char stored[64];
    memcpy(stored, bytes.data() + at, 64);
    EXPECT_STREQ(stored, name);
    for (size_t i = strlen(name); i < 64; ++i)
        EXPECT_EQ(stored[i], 0) << "names are NUL-padded";
    EXPECT_EQ(field_at<uint16_t>(bytes, at + 64), type);
    EXPECT_EQ(field_at<uint16_t>(bytes, at + 66), count);
}

} // namespace

TEST_F(Map_file_layout, HeaderRecordAndSlotsAreWhereTheLayoutPutsThem)
{
    Map_declaration_impl declaration = declaration_with_globals();
    Map_impl map(declaration);
    map.bvh_enabled = false; // keep the append order so slots can be predicted
    const uint32_t per_page = map_elements_per_page(20, 3);
    const uint32_t count = 3 * per_page + 5;
    fill(map, 0, count);
    ASSERT_EQ(map.set(declaration.get_field_id("scale", nullptr), 2.5f), MAP_SUCCESS);
    ASSERT_EQ(map.set(declaration.get_field_id("label", nullptr), "abcd", -1), MAP_SUCCESS);
    const std::string name = path("layout.map");
    ASSERT_EQ(map.write(name.c_str(), MAP_FORMAT_BINARY, true), MAP_SUCCESS);
    EXPECT_TRUE(saw("writing map file \"" + name + "\""));

    const std::vector<uint8_t> bytes = file_bytes(name);
    ASSERT_GT(bytes.size(), 14u);
    EXPECT_EQ(memcmp(bytes.data(), "qv=MAP", 6), 0);
    EXPECT_EQ(field_at<uint32_t>(bytes, 6), 2u);
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    ASSERT_EQ(d, map_declaration_record_bytes(2, 2));

    // The declaration record, field by field.
    size_t at = 14;
    EXPECT_EQ(field_at<uint16_t>(bytes, at), 2u);
    expect_field_entry(bytes, at + 2, "weight", MAP_TYPE_SCALAR, 0);
    expect_field_entry(bytes, at + 70, "id", MAP_TYPE_INTEGER, 0);
    at += 2 + 2 * 68;
    EXPECT_EQ(field_at<uint16_t>(bytes, at), 2u);
    expect_field_entry(bytes, at + 2, "scale", MAP_TYPE_SCALAR, 0);
    expect_field_entry(bytes, at + 70, "label", MAP_TYPE_STRING, 5);
    at += 2 + 2 * 68;
    // Element offsets (counting the position), global offsets, element sizes, global sizes (a
    // string is as long as its count), each list behind its count; then the dimension, the
    // element size and the global size.
    struct Word {
        uint32_t bytes, value;
    };
    const Word words[] = {{4, 2}, {2, 12}, {2, 16}, {4, 2}, {4, 0}, {4, 4}, {4, 2}, {2, 4},
                          {2, 4}, {4, 2}, {4, 4}, {4, 5}, {2, 3}, {2, 20}, {4, 9}};
    for (const Word& word : words) {
        EXPECT_EQ(word.bytes == 2 ? field_at<uint16_t>(bytes, at) : field_at<uint32_t>(bytes, at), word.value)
            << "record offset " << at - 14;
        at += word.bytes;
    }
    ASSERT_EQ(at, 14 + d);

    // The global block, then the counts.
    const uint32_t g = field_at<uint32_t>(bytes, 14 + d);
    ASSERT_EQ(g, 9u);
    EXPECT_EQ(field_at<float>(bytes, 18 + d), 2.5f);
    EXPECT_EQ(memcmp(bytes.data() + 22 + d, "abcd", 5), 0);
    EXPECT_EQ(field_at<uint32_t>(bytes, 18 + d + g), 32768u);
    EXPECT_EQ(field_at<uint32_t>(bytes, 22 + d + g), per_page);
    EXPECT_EQ(field_at<uint32_t>(bytes, 26 + d + g), 4u);
    EXPECT_EQ(field_at<uint32_t>(bytes, 30 + d + g), count);
    EXPECT_EQ(field_at<uint64_t>(bytes, 34 + d + g), 0u) << "no BVH was built";
    // Positions run 0..count-1 on x, 0..48 on y and -12..0 on z.
    const float bounds[6] = {0.0f, 0.0f, -12.0f, float(count - 1), 48.0f, 0.0f};
    for (uint32_t k = 0; k < 6; ++k)
        EXPECT_EQ(field_at<float>(bytes, 42 + d + g + 4 * k), bounds[k]) << "bound " << k;

    // Element i at page i / E, slot i % E; the file ends with the last whole page.
    const size_t data = 42 + d + g + 24;
    ASSERT_EQ(bytes.size(), data + 4 * size_t(32768));
    for (uint32_t i = 0; i < count; ++i)
        ASSERT_TRUE(same(stored_element(bytes, data, per_page, i), small_element(i))) << "element " << i;
}

TEST_F(Map_file_layout, MapOfSeveralSegmentsIsRepackedIntoPlainPages)
{
    // Two files appended one after the other leave a partly filled page between them; the
    // written file must still have element i at page i / E, slot i % E.
    const uint32_t per_page = map_elements_per_page(20, 3);
    write_small(path("a.map"), 0, per_page + 3);
    write_small(path("b.map"), per_page + 3, 10);

    Map_impl joined;
    joined.bvh_enabled = false;
    ASSERT_EQ(joined.append_from_file(path("a.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    ASSERT_EQ(joined.append_from_file(path("b.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    fill(joined, per_page + 13, 4); // and a few held in memory only
    ASSERT_EQ(joined.size(), per_page + 17);
    ASSERT_EQ(joined.page_store().segments().size(), 2u);

    ASSERT_EQ(joined.write(path("joined.map").c_str(), MAP_FORMAT_BINARY, false), MAP_SUCCESS);
    const std::vector<uint8_t> bytes = file_bytes(path("joined.map"));
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    const size_t data = 42 + d + 24;
    ASSERT_EQ(field_at<uint32_t>(bytes, 30 + d), per_page + 17);
    ASSERT_EQ(bytes.size(), data + 2 * size_t(32768));
    for (uint32_t i = 0; i < per_page + 17; ++i)
        ASSERT_TRUE(same(stored_element(bytes, data, per_page, i), small_element(i))) << "element " << i;
}
