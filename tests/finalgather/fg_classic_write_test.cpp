// Writing classic final-gather files: the layout byte by byte, appending, replacing, refusing,
// and the way from a file through a map or a kd-tree back to a file.
#include <sys/stat.h>

#include "fg_test_support.h"
#include "finalgather/fg_file_io.h"
#include "maps/map_dbhandle.h"
#include "maps/map_impl.h"

using namespace fg_test;
using QV::RCMAP::Map_impl;

namespace {

class ClassicWriteTest : public Fg_test {
protected:
    // Writes `count` points of make_point to a new classic file through the writer.
    int write_file(const std::string& name, uint32_t count, const Fg_scene_options* options = nullptr,
                   uint32_t first = 0)
    {
        Fg_map_writer* writer = fg_map_open_write(options, name.c_str(), true);
        if (!writer)
            return -1;
        for (uint32_t k = first; k < first + count; ++k) {
            const Fg_point point = make_point(k);
            if (!fg_map_write_point(writer, point.normal, point.position))
                ADD_FAILURE() << k;
        }
        return fg_map_close(writer);
    }

    static Fg_point record_at(const std::vector<uint8_t>& bytes, uint32_t index)
    {
        Fg_point point{};
        std::memcpy(&point, bytes.data() + 120 + 104 * size_t(index), 104);
        return point;
    }
};

TEST_F(ClassicWriteTest, LayoutIsHeaderOfOneHundredTwentyBytesThenRecordsOfOneHundredFour)
{
    const Fg_scene_options options{77, 0};
    ASSERT_EQ(write_file(path("out.fg"), 3, &options), 1);
    const std::vector<uint8_t> bytes = read_bytes(path("out.fg"));
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);

    const char file_header[32] = "qvFG    3.9.4.14";
    EXPECT_EQ(std::memcmp(bytes.data(), file_header, 32), 0);
    EXPECT_EQ(std::memcmp(bytes.data() + 32, "qvFH", 4), 0);
    EXPECT_EQ(word_at(bytes, 36), 1u);   // byte order
    EXPECT_EQ(word_at(bytes, 40), 1u);   // version
    EXPECT_EQ(word_at(bytes, 44), 77u);  // finalg. rays
    for (size_t offset = 48; offset < 96; offset += 4)
        EXPECT_EQ(word_at(bytes, offset), 0u) << offset;
    EXPECT_EQ(word_at(bytes, 96), 3u);
    for (size_t offset = 100; offset < 120; offset += 4)
        EXPECT_EQ(word_at(bytes, offset), 0u) << offset;
    // Records are words 0..25 of the point as they are, reserved words included.
    for (uint32_t k = 0; k < 3; ++k) {
        const Fg_point expected = make_point(k);
        EXPECT_EQ(std::memcmp(bytes.data() + 120 + 104 * k, &expected, 104), 0) << k;
    }
    const Line* line = find_line("new finalgather points saved to");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_PROGRESS);
    EXPECT_EQ(line->text, "3 new finalgather points saved to \"" + path("out.fg") + "\"");
}

TEST_F(ClassicWriteTest, EmptyOutputIsTheBareHeaderAndCountsZero)
{
    ASSERT_EQ(write_file(path("empty.fg"), 0), 1);
    const std::vector<uint8_t> bytes = read_bytes(path("empty.fg"));
    ASSERT_EQ(bytes.size(), 120u);
    EXPECT_EQ(word_at(bytes, 44), 0u);  // no options: rays 0
    EXPECT_EQ(word_at(bytes, 96), 0u);
    EXPECT_NE(find_line("0 new finalgather points saved to"), nullptr);
}

TEST_F(ClassicWriteTest, ExistingFileWithPointsIsAppendedTo)
{
    ASSERT_EQ(write_file(path("grow.fg"), 2), 1);
    lines().clear();
    ASSERT_EQ(write_file(path("grow.fg"), 1, nullptr, 5), 1);
    const std::vector<uint8_t> bytes = read_bytes(path("grow.fg"));
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);
    EXPECT_EQ(word_at(bytes, 96), 3u);
    EXPECT_TRUE(same_named_fields(record_at(bytes, 1), make_point(1)));
    EXPECT_TRUE(same_named_fields(record_at(bytes, 2), make_point(5)));
    const Line* line = find_line("new finalgather points added to");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->text, "1 new finalgather points added to 2 old ones in \"" + path("grow.fg") + "\"");

    // Rebuild set starts over.
    const Fg_scene_options rebuild{0, 1};
    ASSERT_EQ(write_file(path("grow.fg"), 1, &rebuild, 9), 1);
    const std::vector<uint8_t> rebuilt = read_bytes(path("grow.fg"));
    ASSERT_EQ(rebuilt.size(), 120u + 104);
    EXPECT_TRUE(same_named_fields(record_at(rebuilt, 0), make_point(9)));
}

TEST_F(ClassicWriteTest, ForeignFileGetsForeignRecordsButAHostOrderCount)
{
    Classic_file file;
    file.big_endian = true;
    file.count = 2;
    file.records = {make_point(0), make_point(1)};
    write_bytes(path("be.fg"), file.bytes());
    ASSERT_EQ(write_file(path("be.fg"), 1, nullptr, 4), 1);

    const std::vector<uint8_t> bytes = read_bytes(path("be.fg"));
    ASSERT_EQ(bytes.size(), 120u + 3 * 104);
    // The files in circulation carry the count unswapped after such an append.
    EXPECT_EQ(word_at(bytes, 96), 3u);
    const Fg_point expected = make_point(4);
    const auto* words = reinterpret_cast<const uint32_t*>(&expected);
    for (uint32_t w = 0; w < 26; ++w)
        EXPECT_EQ(word_at(bytes, 120 + 2 * 104 + 4 * w), byte_swapped(words[w])) << w;

    // So the file now reads its count as 0x03000000: every record is there, and then the end.
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("be.fg").c_str(), true), 3u);
    delete map;
    EXPECT_NE(find_line("failed reading finalgather point"), nullptr);
}

TEST_F(ClassicWriteTest, VersionZeroOrEmptyClassicFileIsReplaced)
{
    Classic_file old_file;
    old_file.version = 0;
    old_file.count = 2;
    old_file.records = {make_point(0), make_point(1)};
    Classic_file empty;
    empty.records = {make_point(3)};  // a record the count does not admit
    for (const Classic_file* file : {&old_file, &empty}) {
        write_bytes(path("old.fg"), file->bytes());
        lines().clear();
        ASSERT_EQ(write_file(path("old.fg"), 1, nullptr, 8), 1);
        const Line* line = find_line("overwriting finalgather file");
        ASSERT_NE(line, nullptr);
        EXPECT_EQ(line->level, MSG_INFO);
        EXPECT_EQ(line->text, "overwriting finalgather file \"" + path("old.fg") + "\"");
        const std::vector<uint8_t> bytes = read_bytes(path("old.fg"));
        ASSERT_EQ(bytes.size(), 120u + 104);
        EXPECT_EQ(word_at(bytes, 40), 1u);
        EXPECT_EQ(word_at(bytes, 96), 1u);
        EXPECT_TRUE(same_named_fields(record_at(bytes, 0), make_point(8)));
        EXPECT_NE(find_line("1 new finalgather points saved to"), nullptr);
    }
}

TEST_F(ClassicWriteTest, ExistingFileOfAnotherKindIsLeftAlone)
{
    const std::vector<uint8_t> other(200, 'm');
    write_bytes(path("other.map"), other);
    EXPECT_EQ(fg_map_open_write(nullptr, path("other.map").c_str(), true), nullptr);
    const Line* line = find_line("wrong file header, not a finalgather map file, skipping");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 4);
    EXPECT_EQ(read_bytes(path("other.map")), other);

    // An empty file is a new one.
    write_bytes(path("zero.fg"), {});
    ASSERT_EQ(write_file(path("zero.fg"), 2), 1);
    EXPECT_EQ(read_bytes(path("zero.fg")).size(), 120u + 2 * 104);
}

TEST_F(ClassicWriteTest, UnwritableFileIsRefusedWithAWarningWhenOptionsAreGiven)
{
    ASSERT_EQ(write_file(path("ro.fg"), 1), 1);
    chmod(path("ro.fg").c_str(), 0444);
    if (access(path("ro.fg").c_str(), W_OK) == 0)
        GTEST_SKIP() << "this user may write any file";
    const Fg_scene_options options{0, 0};
    EXPECT_EQ(fg_map_open_write(&options, path("ro.fg").c_str(), true), nullptr);
    const Line* line = find_line("finalgather map not writable, not saving new points: ");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_WARN);
    EXPECT_EQ(code_of(line), 6);
}

TEST_F(ClassicWriteTest, OpenFailureIsReportedAndLeavesNoWriter)
{
    EXPECT_EQ(fg_map_open_write(nullptr, path("no/such/dir/out.fg").c_str(), true), nullptr);
    const Line* line = find_line("cannot save finalgather map");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 13);
    EXPECT_EQ(line->text, path("no/such/dir/out.fg") + ": cannot save finalgather map: No such file or directory");
    EXPECT_EQ(fg_map_close(nullptr), 0);
    EXPECT_EQ(fg_map_write_point(nullptr, nullptr, nullptr), 0);
}

TEST_F(ClassicWriteTest, PointTravelsFileToMapToFileKeepingEveryNamedField)
{
    Classic_file file;
    file.count = 40;
    for (uint32_t k = 0; k < 40; ++k)
        file.records.push_back(make_point(k));
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
        // Maps have no field for the reserved words: what the file held there is gone.
        EXPECT_NE(point.reserved[0], file.records[k].reserved[0]) << k;
        EXPECT_NE(point.reserved[1], file.records[k].reserved[1]) << k;
    }
}

TEST_F(ClassicWriteTest, SaveLegacyWritesEveryRecordOfTheKdtree)
{
    EXPECT_EQ(fg_map_save_legacy(0, nullptr, path("none.fg").c_str()), 0);
    EXPECT_NE(access(path("none.fg").c_str(), F_OK), 0);

    const uint32_t tag = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tag, nullptr, 0);
    for (uint32_t k = 0; k < 100; ++k) {
        const Fg_point point = make_point(k);
        kdtree_add(writer, point.normal, point.position);
    }
    kdtree_close(writer);
    ASSERT_EQ(fg_map_save_legacy(tag, nullptr, path("tree.fg").c_str()), 1);
    kdtree_delete(tag);

    const std::vector<uint8_t> bytes = read_bytes(path("tree.fg"));
    ASSERT_EQ(bytes.size(), 120u + 100 * 104);
    EXPECT_EQ(word_at(bytes, 96), 100u);
    std::vector<bool> seen(100, false);
    for (uint32_t n = 0; n < 100; ++n) {
        const Fg_point point = record_at(bytes, n);
        const uint32_t k = uint32_t(point.point_id - 17) / 100;
        ASSERT_LT(k, 100u);
        EXPECT_FALSE(seen[k]);
        seen[k] = true;
        const Fg_point expected = make_point(k);
        EXPECT_EQ(std::memcmp(&point, &expected, 104), 0) << k;
    }
}

// ---- The pieces underneath ----------------------------------------------------------------

TEST_F(ClassicWriteTest, SwapTemplatesCountOneMoreThanTheirNumber)
{
    struct Case {
        const char* layout;
        size_t covered;
    };
    // Each template with the bytes it must cover; the byte after must stay untouched.
    const Case cases[] = {{FG_SWAP_OPTIONS, 64},  {FG_SWAP_SIZE, 128},  {FG_SWAP_RECORD, 104},
                          {FG_SWAP_RECORD_OUT, 108}, {"2i3c5i", 40},    {"0c", 1},
                          {"1c", 2},               {"3xs", 8},         {"79c", 80}};
    for (const Case& c : cases) {
        uint8_t data[140];
        for (size_t n = 0; n < sizeof(data); ++n)
            data[n] = uint8_t(n);
        swap_bytes(data, c.layout);
        for (size_t n = c.covered; n < sizeof(data); ++n)
            ASSERT_EQ(data[n], uint8_t(n)) << c.layout << " touched byte " << n;
    }

    uint8_t bytes[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    swap_bytes(bytes, "cs?pd");  // '?' is passed over
    const uint8_t expected[24] = {1, 3, 2, 0, 0, 0, 0, 0, 0, 0, 0, 19, 18, 17, 16, 15, 14, 13, 12, 20, 21, 22, 23, 24};
    EXPECT_EQ(std::memcmp(bytes, expected, 19), 0);

    // Twice the same template is the identity, word for word.
    Fg_point point = make_point(2);
    const Fg_point original = point;
    swap_bytes(&point, FG_SWAP_RECORD);
    EXPECT_EQ(point.rays, byte_swapped(original.rays));
    EXPECT_EQ(point.occluded_min_dist == original.occluded_min_dist, false);
    swap_bytes(&point, FG_SWAP_RECORD);
    EXPECT_EQ(std::memcmp(&point, &original, sizeof(point)), 0);
}

TEST_F(ClassicWriteTest, FileFailureNamesPathTextAndSystemReason)
{
    errno = ENOENT;
    file_failure(0, "some text", "/x/y");
    errno = 0;
    file_failure(12, "other text", "/x/z");
    EXPECT_EQ(errno, 0);
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(lines()[0].level, MSG_INFO);
    EXPECT_EQ(lines()[0].text, "/x/y: some text: No such file or directory");
    EXPECT_EQ(lines()[1].level, MSG_ERROR);
    EXPECT_EQ(code_of(&lines()[1]), 12);
    EXPECT_EQ(lines()[1].text, "/x/z: other text");
}

TEST_F(ClassicWriteTest, LongWriteArrivesWholeThroughItsPieces)
{
    std::vector<uint8_t> data(3 * FILE_WRITE_PIECE_BYTES + 123);
    for (size_t n = 0; n < data.size(); ++n)
        data[n] = uint8_t(n * 7);
    FILE* file = file_open(path("long").c_str(), "wb", 1, "open");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file_write(file, data.data(), data.size(), "long", 2, "write"), data.size());
    EXPECT_EQ(file_truncate(file, 100, "long", 3, "truncate"), 1);
    EXPECT_EQ(file_close(file, "long", 4, "close"), 1);
    const std::vector<uint8_t> back = read_bytes(path("long"));
    ASSERT_EQ(back.size(), 100u);
    EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
}

}  // namespace
