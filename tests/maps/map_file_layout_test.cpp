// The binary map file of a map of several segments, decoded by hand: the pages are repacked.
// (The header and record of a one-segment file are pinned by the end-to-end runs' output bytes.)
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_layout : public Map_file_test {};

} // namespace

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
