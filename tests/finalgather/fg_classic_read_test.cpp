// Reading classic final-gather files: byte order, versions, damaged and truncated files, lists.
#include "fg_test_support.h"
#include "database/scene_records.h"
#include "tool/blend.h"

using namespace fg_test;
using QV::RCMAP::Map_impl;

namespace {

class ClassicReadTest : public Fg_test {
protected:
    // Loads `bytes` through a file into a new map; the committed points in map order.
    std::vector<Fg_point> load(const std::vector<uint8_t>& bytes, uint32_t* loaded, bool allow_classic = true)
    {
        write_bytes(path("in.fg"), bytes);
        Map_impl* map = fg_map_new();
        *loaded = fg_map_load(map, path("in.fg").c_str(), allow_classic);
        map->build_bvh(0.6f, false, false);
        std::vector<Fg_point> points = points_of(map);
        delete map;
        return points;
    }
};

TEST_F(ClassicReadTest, NativeAndForeignFilesLoadTheSamePoints)
{
    for (bool big_endian : {false, true}) {
        lines().clear();
        Classic_file file = Classic_file::of(4);
        file.big_endian = big_endian;
        uint32_t loaded = 0;
        const std::vector<Fg_point> points = load(file.bytes(), &loaded);
        ASSERT_EQ(loaded, 4u);
        ASSERT_EQ(points.size(), 4u);
        for (uint32_t k = 0; k < 4; ++k)
            EXPECT_TRUE(same_named_fields(points[k], file.records[k])) << big_endian << k;
        ASSERT_EQ(lines().size(), 1u);
        EXPECT_EQ(lines()[0].level, MSG_PROGRESS);
        EXPECT_EQ(lines()[0].text, "4 finalgather points loaded from " + path("in.fg"));
    }
}

TEST_F(ClassicReadTest, VersionZeroGradientsTurnIntoTheNormalsFrame)
{
    Classic_file file = Classic_file::of(1);
    file.version = 0;
    const float normal[3] = {0.2f, 0.9f, -0.3f};
    const float rows[9] = {1.0f, 2.0f, 3.0f, -4.0f, 5.0f, 0.5f, 7.0f, -8.0f, 9.0f};  // red, green, blue
    std::memcpy(file.records[0].normal, normal, sizeof(normal));
    std::memcpy(file.records[0].grad_t1, rows, sizeof(rows));  // record bytes 44 to 79

    uint32_t loaded = 0;
    const std::vector<Fg_point> points = load(file.bytes(), &loaded);
    ASSERT_EQ(loaded, 1u);
    float t[3], c[3];
    fg_tangent_frame(normal, t, c);
    for (int k = 0; k < 3; ++k) {
        const float* row = rows + 3 * k;
        EXPECT_FLOAT_EQ(points[0].grad_t1[k], -(row[0] * c[0] + row[1] * c[1] + row[2] * c[2])) << k;
        EXPECT_FLOAT_EQ(points[0].grad_t2[k], row[0] * t[0] + row[1] * t[1] + row[2] * t[2]) << k;
    }
    // The blue row stays where it was: its first component is now the id, bit for bit.
    int32_t id;
    std::memcpy(&id, &rows[6], 4);
    EXPECT_EQ(points[0].point_id, id);
    EXPECT_EQ(points[0].r_mean, file.records[0].r_mean);
}

TEST_F(ClassicReadTest, TruncatedFileOrAbsurdCountKeepsTheWholeRecords)
{
    Classic_file file = Classic_file::of(5);
    std::vector<uint8_t> cut = file.bytes();
    cut.resize(120 + 3 * 104 + 50);
    uint32_t loaded = 0;
    const std::vector<Fg_point> points = load(cut, &loaded);
    EXPECT_EQ(loaded, 3u);
    ASSERT_EQ(points.size(), 3u);
    EXPECT_TRUE(same_named_fields(points[2], file.records[2]));
    const Line* line = find_line("failed reading finalgather point");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_ERROR);
    EXPECT_EQ(code_of(line), 11);

    for (bool big_endian : {false, true}) {
        file.count = 0xFFFFFFFFu;
        file.big_endian = big_endian;
        EXPECT_EQ(load(file.bytes(), &loaded).size(), 5u);
        EXPECT_EQ(loaded, 5u);
    }
}

TEST_F(ClassicReadTest, UnusableFilesLoadNothingAndSayWhy)
{
    std::vector<uint8_t> no_options = Classic_file::of(1).bytes();
    no_options.resize(60);
    std::vector<uint8_t> bad_magic = Classic_file::of(1).bytes();
    bad_magic[33] = 'x';
    std::vector<uint8_t> no_size = Classic_file::of(1).bytes();
    no_size.resize(100);
    Classic_file version_2 = Classic_file::of(2);
    version_2.version = 2;
    const struct {
        std::vector<uint8_t> bytes;
        bool allow_classic;
        uint32_t level;
        int32_t code;
        std::string text;
    } cases[] = {
        {{'q', 'v', 'F', 'G', ' '}, true, MSG_ERROR, 3, ": cannot read finalgather map file header"},
        {no_options, true, MSG_ERROR, 6, ": failed to read used options from file, content ignored"},
        {bad_magic, true, MSG_ERROR, 7, ": wrong finalgather map header magic"},
        {no_size, true, MSG_ERROR, 8, ": failed to read data size, content ignored"},
        {version_2.bytes(), true, MSG_INFO, -1, ": unknown finalgather map version, content ignored"},
        {Classic_file::of(3).bytes(), false, MSG_ERROR, 5, "cannot use classic finalgather map file '"},
        {Classic_file::of(0).bytes(), true, 0, 0, ""},
    };
    for (const auto& c : cases) {
        lines().clear();
        uint32_t loaded = 0;
        EXPECT_TRUE(load(c.bytes, &loaded, c.allow_classic).empty()) << c.text;
        EXPECT_EQ(loaded, 0u) << c.text;
        if (c.text.empty()) {
            EXPECT_TRUE(lines().empty());  // no points: no progress line either
            continue;
        }
        ASSERT_EQ(lines().size(), 1u) << c.text;
        EXPECT_NE(lines()[0].text.find(c.text), std::string::npos) << lines()[0].text;
        EXPECT_EQ(lines()[0].level, c.level) << c.text;
        if (c.code >= 0) {
            EXPECT_EQ(code_of(&lines()[0]), c.code) << c.text;
        }
    }

    // A missing file is an info line only, with the system's reason.
    lines().clear();
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("nowhere.fg").c_str(), true), 0u);
    delete map;
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].level, MSG_INFO);
    EXPECT_EQ(lines()[0].text, path("nowhere.fg") + ": cannot load finalgather map file: No such file or directory");
}

TEST_F(ClassicReadTest, ListsLoadTheirNamedFilesAndCombineClassicOnlyAlone)
{
    write_bytes(path("a.fg"), Classic_file::of(2).bytes());
    write_bytes(path("b.fg"), Classic_file::of(3).bytes());
    auto name_tag = [](const std::string& name) {
        uint32_t tag = 0;
        std::memcpy(qv_db_create(&tag, SCENE_STRING, uint32_t(name.size() + 1)), name.c_str(), name.size() + 1);
        return tag;
    };
    const uint32_t a = name_tag(path("a.fg")), b = name_tag(path("b.fg"));
    uint32_t list = 0;
    auto* entries = static_cast<uint32_t*>(qv_db_create(&list, SCENE_TAG, 12));
    entries[0] = a;
    entries[1] = 0;
    entries[2] = b;

    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load_list(map, list, true), 3u);   // one classic entry left: allowed
    EXPECT_EQ(map->size(), 3u);                         // and committed
    EXPECT_EQ(fg_map_load_list(map, list, false), 0u);  // two classic entries: refused
    EXPECT_NE(find_line("cannot use classic finalgather map file"), nullptr);
    EXPECT_EQ(fg_map_load_list(map, a, false), 2u);     // a single name
    thread_context()->host_number = 1;
    EXPECT_EQ(fg_map_load_list(map, a, false), 0u);     // not the master
    thread_context()->host_number = 0;
    fg_set_progressive_query([] { return true; });
    EXPECT_EQ(fg_map_load_list(map, a, false), 0u);
    fg_set_progressive_query(nullptr);
    delete map;

    // The kd-tree form has no limit on classic files; the tree keeps the reserved words.
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load_list(writer, list, false), 5u);
    kdtree_close(writer);
    ASSERT_EQ(fg_map_save_legacy(tree, nullptr, path("out.fg").c_str()), 1);
    kdtree_delete(tree);
    const std::vector<uint8_t> out = read_bytes(path("out.fg"));
    ASSERT_EQ(out.size(), 120u + 5 * 104);
    for (uint32_t n = 0; n < 5; ++n) {
        const Fg_point point = record_at(out, n);
        const Fg_point expected = make_point(point_number(point));
        EXPECT_EQ(std::memcmp(&point, &expected, 104), 0) << n;
    }
    for (uint32_t tag : {a, b, list})
        qv_db_delete(tag);
}

}  // namespace
