// Writing classic final-gather files: the layout byte by byte, appending, replacing and refusing,
// and the way of a point from a file through a map back to a file.
#include <sys/stat.h>

#include "fg_test_support.h"
#include "finalgather/fg_file_io.h"
#include "maps/map_dbhandle.h"

using namespace fg_test;
using QV::RCMAP::Map_impl;

namespace {

class ClassicWriteTest : public Fg_test {
protected:
    // Writes make_point(first) .. make_point(first + count - 1) through a classic writer.
    int write_file(const char* name, uint32_t count, uint32_t first = 0, const Fg_scene_options* options = nullptr)
    {
        Fg_map_writer* writer = fg_map_open_write(options, path(name).c_str(), true);
        if (!writer)
            return -1;
        for (uint32_t k = first; k < first + count; ++k) {
            const Fg_point point = make_point(k);
            EXPECT_EQ(fg_map_write_point(writer, point.normal, point.position), 1);
        }
        return fg_map_close(writer);
    }
};

TEST_F(ClassicWriteTest, HeaderIsOneHundredTwentyBytesAndRecordsOneHundredFour)
{
    const Fg_scene_options options{77, 0};
    ASSERT_EQ(write_file("out.fg", 3, 0, &options), 1);
    const std::vector<uint8_t> bytes = read_bytes(path("out.fg"));
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);
    const char file_header[32] = "qvFG    3.9.4.14";  // and sixteen NULs
    EXPECT_EQ(std::memcmp(bytes.data(), file_header, 32), 0);
    EXPECT_EQ(std::memcmp(bytes.data() + 32, "qvFH", 4), 0);
    const uint32_t expected_words[][2] = {{36, 1}, {40, 1}, {44, 77}};
    for (const auto& [offset, value] : expected_words)
        EXPECT_EQ(word_at(bytes, offset), value) << offset;
    for (size_t offset = 48; offset < 120; offset += 4)
        EXPECT_EQ(word_at(bytes, offset), offset == 96 ? 3u : 0u) << offset;
    // Words 0..25 as they are, reserved words included.
    for (uint32_t k = 0; k < 3; ++k) {
        const Fg_point expected = make_point(k);
        EXPECT_EQ(std::memcmp(bytes.data() + 120 + 104 * k, &expected, 104), 0) << k;
    }
    ASSERT_NE(find_line("saved to"), nullptr);
    EXPECT_EQ(find_line("saved to")->level, MSG_PROGRESS);
    EXPECT_EQ(find_line("saved to")->text, "3 new finalgather points saved to \"" + path("out.fg") + "\"");

    // No points and no options: the bare header, rays 0, count 0.
    ASSERT_EQ(write_file("empty.fg", 0), 1);
    const std::vector<uint8_t> empty = read_bytes(path("empty.fg"));
    ASSERT_EQ(empty.size(), 120u);
    EXPECT_EQ(word_at(empty, 44), 0u);
    EXPECT_EQ(word_at(empty, 96), 0u);
    EXPECT_NE(find_line("0 new finalgather points saved to"), nullptr);
}

TEST_F(ClassicWriteTest, FileWithPointsIsAppendedToUnlessRebuildIsAsked)
{
    ASSERT_EQ(write_file("grow.fg", 2), 1);
    ASSERT_EQ(write_file("grow.fg", 1, 5), 1);
    std::vector<uint8_t> bytes = read_bytes(path("grow.fg"));
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);
    EXPECT_EQ(word_at(bytes, 96), 3u);
    EXPECT_TRUE(same_named_fields(record_at(bytes, 2), make_point(5)));
    EXPECT_NE(find_line("1 new finalgather points added to 2 old ones in \"" + path("grow.fg") + "\""), nullptr);

    const Fg_scene_options rebuild{0, 1};
    ASSERT_EQ(write_file("grow.fg", 1, 9, &rebuild), 1);
    bytes = read_bytes(path("grow.fg"));
    ASSERT_EQ(bytes.size(), 120u + 104);
    EXPECT_TRUE(same_named_fields(record_at(bytes, 0), make_point(9)));
}

TEST_F(ClassicWriteTest, ForeignFileGetsForeignRecordsButAHostOrderCount)
{
    Classic_file file = Classic_file::of(2);
    file.big_endian = true;
    write_bytes(path("be.fg"), file.bytes());
    ASSERT_EQ(write_file("be.fg", 1, 4), 1);

    // The record goes out byte-turned, word for word; the count as this host has it.
    Classic_file appended = Classic_file::of(0);
    appended.big_endian = true;
    appended.records = {make_point(4)};
    const std::vector<uint8_t> bytes = read_bytes(path("be.fg"));
    const std::vector<uint8_t> record = appended.bytes();
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);
    EXPECT_TRUE(std::equal(record.begin() + 120, record.end(), bytes.begin() + 120 + 2 * 104));
    EXPECT_EQ(word_at(bytes, 96), 3u);

    // So the file announces 0x03000000 points from now on: all three load, then the end shows.
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("be.fg").c_str(), true), 3u);
    delete map;
    EXPECT_NE(find_line("failed reading finalgather point"), nullptr);
}

TEST_F(ClassicWriteTest, VersionZeroOrEmptyClassicFileIsReplaced)
{
    Classic_file old_file = Classic_file::of(2);
    old_file.version = 0;
    Classic_file empty = Classic_file::of(0);
    empty.records = {make_point(3)};  // a record behind a count of 0
    for (const Classic_file* file : {&old_file, &empty}) {
        write_bytes(path("old.fg"), file->bytes());
        lines().clear();
        ASSERT_EQ(write_file("old.fg", 1, 8), 1);
        const Line* line = find_line("overwriting finalgather file");
        ASSERT_NE(line, nullptr);
        EXPECT_EQ(line->level, MSG_INFO);
        EXPECT_EQ(line->text, "overwriting finalgather file \"" + path("old.fg") + "\"");
        const std::vector<uint8_t> bytes = read_bytes(path("old.fg"));
        ASSERT_EQ(bytes.size(), 120u + 104);
        EXPECT_EQ(word_at(bytes, 40), 1u);
        EXPECT_EQ(word_at(bytes, 96), 1u);
        EXPECT_TRUE(same_named_fields(record_at(bytes, 0), make_point(8)));
    }
}

TEST_F(ClassicWriteTest, FilesThatCannotTakePointsAreLeftAlone)
{
    const std::vector<uint8_t> other(200, 'm');
    write_bytes(path("other.map"), other);
    EXPECT_EQ(write_file("other.map", 1), -1);
    const Line* line = find_line("wrong file header, not a finalgather map file, skipping");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 4);
    EXPECT_EQ(read_bytes(path("other.map")), other);

    EXPECT_EQ(write_file("no/such/dir.fg", 1), -1);
    line = find_line("cannot save finalgather map");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 13);
    EXPECT_EQ(line->text, path("no/such/dir.fg") + ": cannot save finalgather map: No such file or directory");
    EXPECT_EQ(fg_map_close(nullptr), 0);
    EXPECT_EQ(fg_map_write_point(nullptr, nullptr, nullptr), 0);

    // An empty file, on the other hand, is a new one.
    write_bytes(path("zero.fg"), {});
    ASSERT_EQ(write_file("zero.fg", 2), 1);
    EXPECT_EQ(read_bytes(path("zero.fg")).size(), 120u + 2 * 104);
}

TEST_F(ClassicWriteTest, UnwritableFileIsRefusedWhenOptionsAreGiven)
{
    ASSERT_EQ(write_file("zero.fg", 2), 1);
    ASSERT_EQ(chmod(path("zero.fg").c_str(), 0444), 0);
    if (access(path("zero.fg").c_str(), W_OK) == 0)
        GTEST_SKIP() << "this user may write any file; the write test cannot fail";
    const Fg_scene_options options{0, 0};
    EXPECT_EQ(write_file("zero.fg", 1, 0, &options), -1);
    const Line* line = find_line("finalgather map not writable, not saving new points: ");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_WARN);
    EXPECT_EQ(code_of(line), 6);
}

TEST_F(ClassicWriteTest, PointTravelsFileToMapToFileKeepingEveryNamedField)
{
    const Classic_file file = Classic_file::of(40);
    write_bytes(path("in.fg"), file.bytes());
    Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_load(map, path("in.fg").c_str(), true), 40u);
    map->build_bvh(0.6f, false, false);
    QV::RCMAP::Edit_map_dbhandle_impl handle(map);
    const uint32_t tag = handle.store();

    Fg_map_writer* writer = fg_map_open_write(nullptr, path("out.fg").c_str(), true);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(fg_map_for_each(tag, fg_map_write_point, writer), 1);
    ASSERT_EQ(fg_map_close(writer), 1);
    handle.release();

    const std::vector<uint8_t> bytes = read_bytes(path("out.fg"));
    ASSERT_EQ(bytes.size(), 120u + 40 * 104);
    for (uint32_t k = 0; k < 40; ++k) {
        const Fg_point point = record_at(bytes, k);
        EXPECT_TRUE(same_named_fields(point, file.records[k])) << k;
        // A map has no field for the reserved words: what the file held there is gone.
        EXPECT_NE(std::memcmp(point.reserved, file.records[k].reserved, 8), 0) << k;
    }
}

TEST_F(ClassicWriteTest, SwapTemplatesCoverTheirBytesAndNoMore)
{
    const struct {
        const char* layout;
        size_t covered;
    } cases[] = {{FG_SWAP_OPTIONS, 64}, {FG_SWAP_SIZE, 128}, {FG_SWAP_RECORD, 104}, {FG_SWAP_RECORD_OUT, 108},
                 {"0c", 1},             {"1c", 2},           {"3xs", 8},           {"79c", 80}};
    for (const auto& c : cases) {
        uint8_t data[140];
        for (size_t n = 0; n < sizeof(data); ++n)
            data[n] = uint8_t(n);
        swap_bytes(data, c.layout);
        for (size_t n = c.covered; n < sizeof(data); ++n)
            ASSERT_EQ(data[n], uint8_t(n)) << c.layout << " touched byte " << n;
    }
    uint8_t bytes[19] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
    swap_bytes(bytes, "cs?pd");
    const uint8_t expected[19] = {1, 3, 2, 0, 0, 0, 0, 0, 0, 0, 0, 19, 18, 17, 16, 15, 14, 13, 12};
    EXPECT_EQ(std::memcmp(bytes, expected, 19), 0);
}

TEST_F(ClassicWriteTest, FileWrappersReportPathTextAndReason)
{
    errno = ENOENT;
    file_failure(0, "some text", "/x/y");
    file_failure(12, "other text", "/x/z");
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(lines()[0].level, MSG_INFO);
    EXPECT_EQ(lines()[0].text, "/x/y: some text: No such file or directory");
    EXPECT_EQ(lines()[1].level, MSG_ERROR);  // errno was cleared by the first report
    EXPECT_EQ(lines()[1].text, "/x/z: other text");

    // A write longer than its pieces arrives whole; truncation cuts it.
    std::vector<uint8_t> data(3 * FILE_WRITE_PIECE_BYTES + 123);
    for (size_t n = 0; n < data.size(); ++n)
        data[n] = uint8_t(n * 7);
    FILE* file = file_open(path("long").c_str(), "wb", 1, "open");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file_write(file, data.data(), data.size(), "long", 2, "write"), data.size());
    EXPECT_EQ(file_close(file, "long", 4, "close"), 1);
    EXPECT_EQ(read_bytes(path("long")), data);
    file = file_open(path("long").c_str(), "r+b", 1, "open");
    EXPECT_EQ(file_truncate(file, 100, "long", 3, "truncate"), 1);
    EXPECT_EQ(file_close(file, "long", 4, "close"), 1);
    EXPECT_EQ(read_bytes(path("long")), std::vector<uint8_t>(data.begin(), data.begin() + 100));
}

}  // namespace
