// Reading a binary map file: every malformed header refused with its status while the map keeps
// what it had. (Round trips are the end-to-end runs' output bytes.)
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_read : public Map_file_test {};

} // namespace

TEST_F(Map_file_read, EveryTruncationIsRefusedAndNothingIsLoaded)
{
    const std::vector<uint8_t> bytes = written(path("good.map"), 300);
    const size_t data = 42 + field_at<uint32_t>(bytes, 10) + 9 + 24;
    const std::string cut = path("cut.map");
    // Every cut inside the header and inside the elements; beyond the last element only page
    // room is lost, and that reads as zeros.
    for (size_t length = 0; length < data + 300 * 20; length += length < data + 40 ? 1 : 97) {
        put_file(cut, bytes.data(), length);
        captured().clear();
        ASSERT_EQ(holder.read(cut.c_str(), MAP_READ_VERBOSE), length < 6 ? MAP_FILE_NOT_A_MAP : MAP_FILE_MALFORMED)
            << "cut at " << length;
        ASSERT_EQ(captured().size(), 1u) << "one error for a cut at " << length;
        ASSERT_TRUE(holds_elements(holder, 3, 100));
    }
    put_file(cut, bytes.data(), data + 300 * 20);
    Map_impl tail;
    tail.bvh_enabled = false;
    ASSERT_EQ(tail.read(cut.c_str(), 0), MAP_SUCCESS) << "the elements are all there";
    EXPECT_TRUE(same(element_of(tail, 299), small_element(299)));
}

TEST_F(Map_file_read, DamagedFieldsGiveTheirStatusAndMessage)
{
    const std::vector<uint8_t> bytes = written(path("good.map"), 50);
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    const uint32_t g = 9;
    struct Damage {
        const char* what;
        size_t offset;
        uint32_t value;
        Map_status status;
        const char* message;
    };
    const Damage cases[] = {
        {"magic", 0, 0x4d3d7670, MAP_FILE_NOT_A_MAP, "is not a map file"},
        {"version 1", 6, 1, MAP_FILE_BAD_VERSION, "is 1, unsupported"},
        {"record size past the end", 10, 0xFFFFFFF0u, MAP_FILE_MALFORMED, "is damaged"},
        {"record size short of its fields", 10, d - 1, MAP_FILE_MALFORMED, "is damaged"},
        {"field count past the record", 14, 60000, MAP_FILE_MALFORMED, "is damaged"},
        {"global size unlike the declaration's", 14 + d, 8, MAP_FILE_MALFORMED, "is damaged"},
        {"page size", 18 + d + g, 65536, MAP_FILE_MALFORMED, "is damaged"},
        {"elements per page", 22 + d + g, 7, MAP_FILE_MALFORMED, "is damaged"},
        {"page count", 26 + d + g, 9, MAP_FILE_MALFORMED, "is damaged"},
        {"element count past the file", 30 + d + g, 0xFFFFFFFFu, MAP_FILE_MALFORMED, "is damaged"},
        {"BVH offset past the file", 34 + d + g, 0x7FFFFFFF, MAP_FILE_MALFORMED, "is damaged"},
    };
    const std::string bad = path("bad.map");
    for (const Damage& damage : cases) {
        SCOPED_TRACE(damage.what);
        std::vector<uint8_t> copy = bytes;
        set_field_at(copy, damage.offset, damage.value);
        put_file(bad, copy);
        captured().clear();
        EXPECT_EQ(holder.read(bad.c_str(), MAP_READ_VERBOSE), damage.status);
        EXPECT_EQ(count_lines(MSG_ERROR, damage.message), 1);
        EXPECT_EQ(captured().size(), 1u) << "no warning, no info";
        EXPECT_TRUE(holds_elements(holder, 3, 100));
        // Calls without the verbose flag say nothing, but answer the same.
        captured().clear();
        EXPECT_EQ(holder.read(bad.c_str(), 0), damage.status);
        EXPECT_TRUE(captured().empty());
    }

    EXPECT_EQ(holder.read(path("missing.map").c_str(), MAP_READ_VERBOSE), MAP_FILE_CANNOT_OPEN);
    EXPECT_TRUE(saw("cannot open map file \"" + path("missing.map") + "\" for reading"));
    EXPECT_TRUE(holds_elements(holder, 3, 100));

    // Regression (fuzz target): the header reader and the append onto a file both divided by
    // the elements per page before checking it.
    std::vector<uint8_t> zero = bytes;
    set_field_at<uint32_t>(zero, 22 + d + g, 0);
    put_file(bad, zero);
    EXPECT_EQ(holder.read(bad.c_str(), 0), MAP_FILE_MALFORMED);
    EXPECT_EQ(holder.append_from_file(bad.c_str(), false, false, nullptr), MAP_FILE_MALFORMED);
    Map_impl more(declaration_with_globals());
    fill(more, 0, 2);
    EXPECT_EQ(more.append_to_file(bad.c_str(), true), MAP_FILE_MALFORMED);
    EXPECT_EQ(file_bytes(bad), zero) << "refused before anything is written";
    EXPECT_TRUE(holds_elements(holder, 3, 100));

    // A page count one short still leaves every element inside the file, so only the count
    // check itself can refuse it.
    const uint32_t per_page = field_at<uint32_t>(bytes, 22 + d + g);
    std::vector<uint8_t> two_pages = written(path("two.map"), per_page + 1);
    ASSERT_EQ(field_at<uint32_t>(two_pages, 26 + d + g), 2u);
    set_field_at<uint32_t>(two_pages, 26 + d + g, 1);
    put_file(bad, two_pages);
    EXPECT_EQ(holder.read(bad.c_str(), 0), MAP_FILE_MALFORMED);
}

TEST_F(Map_file_read, OpenFormatsAreRecognisedByTheirFirstBytes)
{
    // Text whose first word is "declare" is open ASCII; what follows it is never looked at.
    const std::string ascii = path("text.map");
    const char text[] = "\n\t # a comment qv=MAP\r\n  declareqv=MAP\x02\x00\x00\x00";
    put_file(ascii, text, sizeof text - 1);
    uint32_t format = 99;
    holder.append_from_file(ascii.c_str(), true, false, &format);
    EXPECT_EQ(format, uint32_t(MAP_FORMAT_OPEN_ASCII));

    // A near miss is read as binary, and then it is not a map file.
    put_file(ascii, "# x\ndeclar", 10);
    EXPECT_EQ(holder.read(ascii.c_str(), 0), MAP_FILE_NOT_A_MAP);
    EXPECT_TRUE(holds_elements(holder, 3, 100));
}
