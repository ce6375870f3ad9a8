// Writing classic final-gather files: appending, replacing and refusing. (The layout of a new
// file, empty or not, is the end-to-end suite's: its copies are checked byte for byte.)
#include "fg_test_support.h"

using namespace fg_test;

namespace {

class ClassicWriteTest : public Fg_test {
protected:
    // Writes make_point(first) .. make_point(first + count - 1) through a classic writer; -1
    // when the open fails.
    int write_file(const char* name, uint32_t count, uint32_t first = 0, const Fg_scene_options* options = nullptr)
    {
        Fg_map_writer* writer = fg_map_open_write(options, path(name).c_str(), true);
        return writer ? write_points(writer, first, count) : -1;
    }
};

TEST_F(ClassicWriteTest, ExistingFileIsAppendedToUnlessEmptyOfVersionZeroOrRebuilt)
{
    Classic_file version_0 = Classic_file::of(2);
    version_0.version = 0;
    Classic_file hidden = Classic_file::of(0);
    hidden.records = {make_point(3)};  // a record behind a count of 0
    const Fg_scene_options rebuild{0, 1};
    // The numbers of the points in the file afterwards, and whether the old file was announced
    // as overwritten.
    const struct {
        std::vector<uint8_t> old_bytes;
        const Fg_scene_options* options;
        std::vector<uint32_t> numbers;
        bool overwriting;
    } cases[] = {
        {Classic_file::of(2).bytes(), nullptr, {0, 1, 5}, false},
        {Classic_file::of(2).bytes(), &rebuild, {5}, false},
        {version_0.bytes(), nullptr, {5}, true},
        {hidden.bytes(), nullptr, {5}, true},
        {{}, nullptr, {5}, false},  // an empty file is a new one
    };
    const std::string quoted = "\"" + path("old.fg") + "\"";
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        put_file(path("old.fg"), c.old_bytes);
        lines().clear();
        ASSERT_EQ(write_file("old.fg", 1, 5, c.options), 1);
        Classic_file expected = Classic_file::of(0);
        for (uint32_t k : c.numbers)
            expected.records.push_back(make_point(k));
        expected.count = uint32_t(c.numbers.size());
        EXPECT_EQ(file_bytes(path("old.fg")), expected.bytes());
        expect_line(c.numbers.size() > 1 ? "1 new finalgather points added to 2 old ones in " + quoted
                                         : "1 new finalgather points saved to " + quoted,
                    MSG_PROGRESS);
        EXPECT_EQ(find_line("overwriting") != nullptr, c.overwriting);
        if (c.overwriting)
            expect_line("overwriting finalgather file " + quoted, MSG_INFO);
    }
}

TEST_F(ClassicWriteTest, ForeignFileGetsForeignRecordsButAHostOrderCount)
{
    Classic_file file = Classic_file::of(2);
    file.big_endian = true;
    put_file(path("be.fg"), file.bytes());
    ASSERT_EQ(write_file("be.fg", 1, 4), 1);

    // The record goes out byte-turned, word for word; the count as this host has it.
    file.records.push_back(make_point(4));
    std::vector<uint8_t> expected = file.bytes();
    const uint32_t count = 3;
    std::memcpy(expected.data() + 96, &count, 4);
    EXPECT_EQ(file_bytes(path("be.fg")), expected);

    // So the file announces 0x03000000 points from now on: all three load, then the end shows.
    EXPECT_EQ(load_points(path("be.fg"), true).size(), 3u);
}

TEST_F(ClassicWriteTest, FilesThatCannotTakePointsAreLeftAlone)
{
    const std::vector<uint8_t> other(200, 'm');
    put_file(path("other.map"), other);
    EXPECT_EQ(write_file("other.map", 1), -1);
    expect_line(path("other.map") + ": wrong file header, not a finalgather map file, skipping", MSG_ERROR, 4);
    EXPECT_EQ(file_bytes(path("other.map")), other);
}

}  // namespace
