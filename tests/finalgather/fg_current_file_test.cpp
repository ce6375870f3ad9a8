// Current final-gather files (binary map files of the final-gather declaration): loading them,
// writing new ones, and adding to existing ones through a temporary name.
#include <numeric>

#include "fg_test_support.h"

using namespace fg_test;

namespace {

class CurrentFileTest : public Fg_test {
protected:
    Fg_map_writer* open(const char* name, uint32_t expected_mode)
    {
        Fg_map_writer* writer = fg_map_open_write(nullptr, path(name).c_str(), false);
        EXPECT_TRUE(writer && writer->mode == expected_mode) << name;
        return writer;
    }

    // The point numbers a file holds, sorted, each point checked field by field.
    std::vector<uint32_t> numbers_in(const char* name)
    {
        std::vector<uint32_t> numbers;
        for (const Fg_point& point : load_points(path(name), true)) {
            numbers.push_back(uint32_t(point.point_id - 17) / 100);
            EXPECT_TRUE(same_named_fields(point, make_point(numbers.back()))) << numbers.back();
        }
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    }

    static std::vector<uint32_t> range(uint32_t first, uint32_t count)
    {
        std::vector<uint32_t> numbers(count);
        std::iota(numbers.begin(), numbers.end(), first);
        return numbers;
    }

    uint32_t kdtree_load_count(const char* name)
    {
        const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
        Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
        const uint32_t loaded = fg_kdtree_load(writer, path(name).c_str());
        kdtree_close(writer);
        kdtree_delete(tree);
        return loaded;
    }
};

TEST_F(CurrentFileTest, NewFileIsWrittenOnClosingAndReplacedThroughATemporaryName)
{
    const std::string quoted = "\"" + path("grow.fgm") + "\"";
    Fg_map_writer* writer = open("grow.fgm", FG_WRITER_NEW_MAP);
    EXPECT_NE(access(path("grow.fgm").c_str(), F_OK), 0);
    ASSERT_EQ(write_points(writer, 0, 10), 1);
    EXPECT_EQ(numbers_in("grow.fgm"), range(0, 10));
    EXPECT_EQ(kdtree_load_count("grow.fgm"), 10u);

    ASSERT_EQ(write_points(open("grow.fgm", FG_WRITER_EXISTING_MAP), 10, 5), 1);
    expect_line("5 new finalgather points added to 10 old ones in " + quoted, MSG_PROGRESS);
    // Writing and re-reading the file give no notices of their own.
    EXPECT_EQ(find_line("writing map file"), nullptr);
    EXPECT_EQ(find_line("reading map file"), nullptr);
    EXPECT_EQ(numbers_in("grow.fgm"), range(0, 15));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch_.directory), {}), 1);  // no temporary left

    // Without new points nothing is written, and the line still reports them.
    const std::vector<uint8_t> before = file_bytes(path("grow.fgm"));
    ASSERT_EQ(write_points(open("grow.fgm", FG_WRITER_EXISTING_MAP), 0, 0), 1);
    EXPECT_EQ(file_bytes(path("grow.fgm")), before);
    expect_line("0 new finalgather points added to 15 old ones in " + quoted, MSG_PROGRESS);

    // After pending classic points the count includes them: the read commits them first.
    put_file(path("old.fg"), Classic_file::of(3).bytes());
    QV::RCMAP::Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("old.fg").c_str(), true), 3u);
    EXPECT_EQ(fg_map_load(map, path("grow.fgm").c_str(), true), 18u);
    EXPECT_EQ(find_line("appending from map file"), nullptr);  // the reader's notices stay off
    delete map;

    // Their errors do: a directory that went away while the writer was open.
    std::filesystem::create_directory(path("gone"));
    writer = fg_map_open_write(nullptr, path("gone/x.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    std::filesystem::remove(path("gone"));
    EXPECT_EQ(write_points(writer, 0, 2), 0);
    EXPECT_NE(find_line("cannot open map file \"" + path("gone/x.fgm") + "\" for writing"), nullptr);
}

TEST_F(CurrentFileTest, MapFileOfAnotherLayoutIsNoFinalGatherMap)
{
    QV::RCMAP::Map_declaration_impl other(3);
    QV::RCMAP::Map_impl* map = other_layout_map(other);
    ASSERT_EQ(map->write(path("other.map").c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false), 0);
    delete map;
    EXPECT_TRUE(load_points(path("other.map"), true).empty());
    EXPECT_NE(find_line("declarations are not equivalent"), nullptr);  // the reader's errors stay on
    lines().clear();
    EXPECT_EQ(kdtree_load_count("other.map"), 0u);
    // The text's lone percent sign is part of it.
    expect_line("'%' is not a valid finalgather map file", MSG_ERROR, 20);

    // Nor is it one to write to: every point would be refused while closing reported success.
    lines().clear();
    const std::vector<uint8_t> bytes = file_bytes(path("other.map"));
    EXPECT_EQ(fg_map_open_write(nullptr, path("other.map").c_str(), false), nullptr);
    expect_line("'%' is not a valid finalgather map file", MSG_ERROR, 20);
    EXPECT_EQ(file_bytes(path("other.map")), bytes);

    // Classic points that a map of another layout refuses are not counted as loaded.
    lines().clear();
    put_file(path("c.fg"), Classic_file::of(2).bytes());
    QV::RCMAP::Map_declaration_impl third(3);
    map = other_layout_map(third);
    EXPECT_EQ(fg_map_load(map, path("c.fg").c_str(), true), 0u);
    EXPECT_EQ(find_line("finalgather points loaded"), nullptr);
    delete map;
}

TEST_F(CurrentFileTest, AppendKeepsOnlyWhatItsMapHolds)
{
    // Without a map of the caller's, the file is replaced by the new points alone.
    ASSERT_EQ(write_points(open("app.fgm", FG_WRITER_NEW_MAP), 0, 8), 1);
    Fg_map_writer* writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->old_count, 8u);
    ASSERT_EQ(write_points(writer, 20, 3), 1);
    EXPECT_EQ(numbers_in("app.fgm"), range(20, 3));

    // A caller that wants the old points loads them into its map first.
    QV::RCMAP::Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_load(map, path("app.fgm").c_str(), true), 3u);
    writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), map);
    ASSERT_NE(writer, nullptr);
    EXPECT_FALSE(writer->owns_map);
    ASSERT_EQ(write_points(writer, 40, 1), 1);
    delete map;
    EXPECT_EQ(numbers_in("app.fgm"), (std::vector<uint32_t>{20, 21, 22, 40}));

    // A classic file is refused and left as it was.
    const std::vector<uint8_t> classic = Classic_file::of(1).bytes();
    put_file(path("c.fg"), classic);
    EXPECT_EQ(fg_map_open_append(nullptr, path("c.fg").c_str(), nullptr), nullptr);
    expect_line(path("c.fg") + ": classic finalgather map file, cannot append", MSG_WARN, 10);
    EXPECT_EQ(file_bytes(path("c.fg")), classic);
}

}  // namespace
