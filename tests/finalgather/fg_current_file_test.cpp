// Current final-gather files (binary map files of the final-gather declaration): loading them,
// writing new ones, and adding to existing ones through a temporary name.
#include <algorithm>

#include "fg_test_support.h"
#include "maps/map_declaration.h"

using namespace fg_test;
using QV::RCMAP::Map_impl;

namespace {

class CurrentFileTest : public Fg_test {
protected:
    // Adds make_point(first) .. make_point(first + count - 1) through `writer` and closes it.
    static int fill_and_close(Fg_map_writer* writer, uint32_t first, uint32_t count)
    {
        for (uint32_t k = first; k < first + count; ++k) {
            const Fg_point point = make_point(k);
            EXPECT_EQ(fg_map_write_point(writer, point.normal, point.position), 1);
        }
        return fg_map_close(writer);
    }

    void write_current(const char* name, uint32_t first, uint32_t count)
    {
        Fg_map_writer* writer = fg_map_open_write(nullptr, path(name).c_str(), false);
        ASSERT_NE(writer, nullptr);
        ASSERT_EQ(writer->mode, uint32_t(FG_WRITER_NEW_MAP));
        ASSERT_EQ(fill_and_close(writer, first, count), 1);
    }

    // The point numbers a file holds, sorted, each point checked field by field.
    std::vector<uint32_t> numbers_in(const char* name)
    {
        Map_impl* map = fg_map_new();
        fg_map_load(map, path(name).c_str(), true);
        map->build_bvh(0.6f, false, false);
        std::vector<uint32_t> numbers;
        for (const Fg_point& point : points_of(map)) {
            numbers.push_back(point_number(point));
            EXPECT_TRUE(same_named_fields(point, make_point(numbers.back()))) << numbers.back();
        }
        delete map;
        std::sort(numbers.begin(), numbers.end());
        return numbers;
    }

    static std::vector<uint32_t> range(uint32_t first, uint32_t count)
    {
        std::vector<uint32_t> numbers(count);
        for (uint32_t n = 0; n < count; ++n)
            numbers[n] = first + n;
        return numbers;
    }
};

TEST_F(CurrentFileTest, NewFileIsWrittenOnClosingAndLoadsBack)
{
    Fg_map_writer* writer = fg_map_open_write(nullptr, path("new.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    EXPECT_NE(access(path("new.fgm").c_str(), F_OK), 0);
    ASSERT_EQ(fill_and_close(writer, 0, 30), 1);
    EXPECT_NE(find_line("30 new finalgather points saved to \"" + path("new.fgm") + "\""), nullptr);
    EXPECT_EQ(numbers_in("new.fgm"), range(0, 30));

    // After pending classic points the count includes them: the read commits them first.
    write_bytes(path("old.fg"), Classic_file::of(3).bytes());
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("old.fg").c_str(), true), 3u);
    EXPECT_EQ(fg_map_load(map, path("new.fgm").c_str(), true), 33u);
    EXPECT_NE(find_line("33 finalgather points loaded from " + path("new.fgm")), nullptr);
    EXPECT_EQ(find_line("appending from map file"), nullptr);  // the reader's notices stay off
    delete map;

    // The kd-tree loader reads it whole.
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* tree_writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load(tree_writer, path("new.fgm").c_str()), 30u);
    kdtree_close(tree_writer);
    kdtree_delete(tree);
}

TEST_F(CurrentFileTest, MapFileOfAnotherLayoutIsNoFinalGatherMap)
{
    QV::RCMAP::Map_declaration_impl other(3);
    other.add_scalar("weight");
    Map_impl* map = new Map_impl(other);
    QV::RCMAP::Map_element_impl element(&other);
    map->append(&element);
    map->build_bvh(0.6f, false, false);
    ASSERT_EQ(map->write(path("other.map").c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false), 0);
    delete map;

    map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("other.map").c_str(), true), 0u);
    delete map;
    // The reader's errors stay on.
    EXPECT_NE(find_line("declarations are not equivalent"), nullptr);
    lines().clear();
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load(writer, path("other.map").c_str()), 0u);
    kdtree_close(writer);
    kdtree_delete(tree);
    // The text's lone percent sign is part of it.
    const Line* line = find_line("is not a valid finalgather map file");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 20);
    EXPECT_EQ(line->text, "'%' is not a valid finalgather map file");
}

TEST_F(CurrentFileTest, ExistingFileIsReplacedThroughATemporaryName)
{
    write_current("grow.fgm", 0, 10);
    Fg_map_writer* writer = fg_map_open_write(nullptr, path("grow.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->mode, uint32_t(FG_WRITER_EXISTING_MAP));
    ASSERT_EQ(fill_and_close(writer, 10, 5), 1);
    EXPECT_NE(find_line("5 new finalgather points added to 10 old ones in \"" + path("grow.fgm") + "\""), nullptr);
    EXPECT_EQ(numbers_in("grow.fgm"), range(0, 15));
    size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir_))
        ++files;
    EXPECT_EQ(files, 1u);  // no temporary file stays behind

    // Without new points nothing is written, and the line still reports them.
    const std::vector<uint8_t> before = read_bytes(path("grow.fgm"));
    writer = fg_map_open_write(nullptr, path("grow.fgm").c_str(), false);
    ASSERT_EQ(fill_and_close(writer, 0, 0), 1);
    EXPECT_EQ(read_bytes(path("grow.fgm")), before);
    EXPECT_NE(find_line("0 new finalgather points added to 15 old ones in"), nullptr);
}

TEST_F(CurrentFileTest, AppendKeepsOnlyWhatItsMapHolds)
{
    // Without a map of the caller's, the file is replaced by the new points alone.
    write_current("app.fgm", 0, 8);
    Fg_map_writer* writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->old_count, 8u);
    ASSERT_EQ(fill_and_close(writer, 20, 3), 1);
    EXPECT_EQ(numbers_in("app.fgm"), range(20, 3));
    EXPECT_NE(find_line("3 new finalgather points added to 8 old ones in"), nullptr);

    // A caller that wants the old points loads them into its map first.
    Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_load(map, path("app.fgm").c_str(), true), 3u);
    writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), map);
    ASSERT_NE(writer, nullptr);
    EXPECT_FALSE(writer->owns_map);
    ASSERT_EQ(fill_and_close(writer, 40, 1), 1);
    delete map;
    EXPECT_EQ(numbers_in("app.fgm"), (std::vector<uint32_t>{20, 21, 22, 40}));

    // A classic file is refused and left as it was.
    const std::vector<uint8_t> classic = Classic_file::of(1).bytes();
    write_bytes(path("c.fg"), classic);
    EXPECT_EQ(fg_map_open_append(nullptr, path("c.fg").c_str(), nullptr), nullptr);
    const Line* line = find_line("classic finalgather map file, cannot append");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_WARN);
    EXPECT_EQ(code_of(line), 10);
    EXPECT_EQ(line->text, path("c.fg") + ": classic finalgather map file, cannot append");
    EXPECT_EQ(read_bytes(path("c.fg")), classic);
}

}  // namespace
