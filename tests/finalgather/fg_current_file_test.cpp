// Current final-gather files (binary map files of the final-gather declaration): loading them,
// writing new ones, and adding to existing ones through the temporary name.
#include <algorithm>
#include <filesystem>

#include "fg_test_support.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"

using namespace fg_test;
using QV::RCMAP::Map_element_impl;
using QV::RCMAP::Map_impl;

namespace {

class CurrentFileTest : public Fg_test {
protected:
    // A current file of the points make_point(first) .. make_point(first + count - 1).
    void write_current(const std::string& name, uint32_t first, uint32_t count)
    {
        Map_impl* map = fg_map_new();
        for (uint32_t k = first; k < first + count; ++k) {
            const Fg_point point = make_point(k);
            fg_map_add_point(map, point.position, point.normal);
        }
        map->build_bvh(0.6f, false, false);
        ASSERT_EQ(map->write(name.c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false), qv::shader_v3::MAP_SUCCESS);
        delete map;
    }

    // The point numbers k of make_point(k) that a file holds, sorted; also checks every named field.
    std::vector<uint32_t> ids_in(const std::string& name)
    {
        Map_impl* map = fg_map_new();
        fg_map_load(map, name.c_str(), true);
        map->build_bvh(0.6f, false, false);
        std::vector<uint32_t> ids;
        Map_element_impl element(fg_cached_declaration());
        for (uint32_t n = 0; n < map->size(); ++n) {
            map->get(n, &element);
            Fg_point point{};
            fg_point_from_element(&point, &element);
            const uint32_t k = uint32_t(point.point_id - 17) / 100;
            Fg_point expected = make_point(k);
            expected.reserved[0] = expected.reserved[1] = 0;
            EXPECT_TRUE(same_named_fields(point, expected)) << k;
            ids.push_back(k);
        }
        delete map;
        std::sort(ids.begin(), ids.end());
        return ids;
    }

    static std::vector<uint32_t> range(uint32_t first, uint32_t count)
    {
        std::vector<uint32_t> ids(count);
        for (uint32_t n = 0; n < count; ++n)
            ids[n] = first + n;
        return ids;
    }

    size_t files_in_dir() const
    {
        size_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir_))
            ++count;
        return count;
    }
};

TEST_F(CurrentFileTest, LoadCountsWhatTheMapGrewByIncludingPendingClassicPoints)
{
    write_current(path("cur.fgm"), 0, 20);
    Classic_file classic;
    classic.count = 3;
    classic.records = {make_point(100), make_point(101), make_point(102)};
    write_bytes(path("old.fg"), classic.bytes());

    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("old.fg").c_str(), true), 3u);
    // The read commits the classic points first, and they are counted with the file's.
    EXPECT_EQ(fg_map_load(map, path("cur.fgm").c_str(), true), 23u);
    EXPECT_EQ(map->size(), 23u);
    EXPECT_NE(find_line("23 finalgather points loaded from " + path("cur.fgm")), nullptr);
    delete map;
}

TEST_F(CurrentFileTest, MapFileOfAnotherLayoutIsRefused)
{
    QV::RCMAP::Map_declaration_impl other(3);
    other.add_scalar("weight");
    Map_impl* map = new Map_impl(other);
    Map_element_impl element(&other);
    map->append(&element);
    map->build_bvh(0.6f, false, false);
    ASSERT_EQ(map->write(path("other.map").c_str(), qv::shader_v3::MAP_FORMAT_BINARY, false),
              qv::shader_v3::MAP_SUCCESS);
    delete map;

    map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("other.map").c_str(), true), 0u);
    delete map;

    lines().clear();
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load(writer, path("other.map").c_str()), 0u);
    kdtree_close(writer);
    kdtree_delete(tree);
    const Line* line = find_line("is not a valid finalgather map file");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 20);
    EXPECT_EQ(line->text, "'%' is not a valid finalgather map file");
}

TEST_F(CurrentFileTest, KdtreeLoadTakesEveryElementOfACurrentFile)
{
    write_current(path("cur.fgm"), 0, 50);
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load(writer, path("cur.fgm").c_str()), 50u);
    kdtree_close(writer);
    ASSERT_EQ(fg_map_save_legacy(tree, nullptr, path("out.fg").c_str()), 1);
    kdtree_delete(tree);
    EXPECT_EQ(ids_in(path("out.fg")), range(0, 50));
}

TEST_F(CurrentFileTest, NewCurrentFileIsWrittenOnlyOnClosing)
{
    Fg_map_writer* writer = fg_map_open_write(nullptr, path("new.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->mode, uint32_t(FG_WRITER_NEW_MAP));
    EXPECT_NE(access(path("new.fgm").c_str(), F_OK), 0);
    for (uint32_t k = 0; k < 30; ++k) {
        const Fg_point point = make_point(k);
        ASSERT_EQ(fg_map_write_point(writer, point.normal, point.position), 1);
    }
    ASSERT_EQ(fg_map_close(writer), 1);
    EXPECT_NE(find_line("30 new finalgather points saved to \"" + path("new.fgm") + "\""), nullptr);
    EXPECT_EQ(ids_in(path("new.fgm")), range(0, 30));
}

TEST_F(CurrentFileTest, ExistingCurrentFileIsReplacedThroughATemporaryName)
{
    write_current(path("grow.fgm"), 0, 10);
    Fg_map_writer* writer = fg_map_open_write(nullptr, path("grow.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->mode, uint32_t(FG_WRITER_EXISTING_MAP));
    EXPECT_EQ(writer->old_count, 10u);
    for (uint32_t k = 10; k < 15; ++k) {
        const Fg_point point = make_point(k);
        fg_map_write_point(writer, point.normal, point.position);
    }
    ASSERT_EQ(fg_map_close(writer), 1);
    EXPECT_NE(find_line("5 new finalgather points added to 10 old ones in \"" + path("grow.fgm") + "\""), nullptr);
    EXPECT_EQ(ids_in(path("grow.fgm")), range(0, 15));
    EXPECT_EQ(files_in_dir(), 1u);  // the temporary name is gone

    // Without new points nothing is written, and the line still reports them.
    const std::vector<uint8_t> before = read_bytes(path("grow.fgm"));
    lines().clear();
    writer = fg_map_open_write(nullptr, path("grow.fgm").c_str(), false);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(fg_map_close(writer), 1);
    EXPECT_EQ(read_bytes(path("grow.fgm")), before);
    EXPECT_NE(find_line("0 new finalgather points added to 15 old ones in"), nullptr);
}

TEST_F(CurrentFileTest, AppendWithoutAMapKeepsOnlyTheNewPoints)
{
    write_current(path("app.fgm"), 0, 8);
    Fg_map_writer* writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->mode, uint32_t(FG_WRITER_EXISTING_MAP));
    EXPECT_EQ(writer->old_count, 8u);
    EXPECT_TRUE(writer->owns_map);
    for (uint32_t k = 20; k < 23; ++k) {
        const Fg_point point = make_point(k);
        fg_map_write_point(writer, point.normal, point.position);
    }
    ASSERT_EQ(fg_map_close(writer), 1);
    EXPECT_EQ(ids_in(path("app.fgm")), range(20, 3));
    EXPECT_NE(find_line("3 new finalgather points added to 8 old ones in"), nullptr);

    // A caller that wants the old points loads them into its map first.
    Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_load(map, path("app.fgm").c_str(), true), 3u);
    writer = fg_map_open_append(nullptr, path("app.fgm").c_str(), map);
    ASSERT_NE(writer, nullptr);
    EXPECT_FALSE(writer->owns_map);
    const Fg_point point = make_point(40);
    fg_map_write_point(writer, point.normal, point.position);
    ASSERT_EQ(fg_map_close(writer), 1);
    delete map;
    EXPECT_EQ(ids_in(path("app.fgm")), (std::vector<uint32_t>{20, 21, 22, 40}));

    // No file yet: a new one.
    writer = fg_map_open_append(nullptr, path("fresh.fgm").c_str(), nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(writer->mode, uint32_t(FG_WRITER_NEW_MAP));
    fg_map_write_point(writer, point.normal, point.position);
    ASSERT_EQ(fg_map_close(writer), 1);
    EXPECT_EQ(ids_in(path("fresh.fgm")), (std::vector<uint32_t>{40}));
}

TEST_F(CurrentFileTest, AppendRefusesClassicFiles)
{
    Classic_file classic;
    classic.count = 1;
    classic.records = {make_point(1)};
    write_bytes(path("c.fg"), classic.bytes());
    EXPECT_EQ(fg_map_open_append(nullptr, path("c.fg").c_str(), nullptr), nullptr);
    const Line* line = find_line("classic finalgather map file, cannot append");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_WARN);
    EXPECT_EQ(code_of(line), 10);
    EXPECT_EQ(line->text, path("c.fg") + ": classic finalgather map file, cannot append");
    EXPECT_EQ(read_bytes(path("c.fg")), classic.bytes());
}

}  // namespace
