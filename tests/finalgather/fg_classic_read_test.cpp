// Reading classic final-gather files: kinds, headers, byte order, versions and damaged files.
#include <cmath>

#include "fg_test_support.h"
#include "finalgather/fg_file_io.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "tool/blend.h"

using namespace fg_test;
using QV::RCMAP::Map_impl;

namespace {

class ClassicReadTest : public Fg_test {
protected:
    // Loads `bytes` from a file into a new map, commits it and returns the points in map order.
    std::vector<Fg_point> load(const std::vector<uint8_t>& bytes, uint32_t* loaded, bool allow_classic = true)
    {
        const std::string name = path("in.fg");
        write_bytes(name, bytes);
        Map_impl* map = fg_map_new();
        *loaded = fg_map_load(map, name.c_str(), allow_classic);
        map->build_bvh(0.6f, false, false);
        std::vector<Fg_point> points(map->size());
        QV::RCMAP::Map_element_impl element(fg_cached_declaration());
        for (uint32_t n = 0; n < map->size(); ++n) {
            map->get(n, &element);
            points[n] = Fg_point{};
            fg_point_from_element(&points[n], &element);
        }
        delete map;
        return points;
    }

    static Classic_file file_of(uint32_t count)
    {
        Classic_file file;
        file.count = count;
        for (uint32_t k = 0; k < count; ++k)
            file.records.push_back(make_point(k));
        return file;
    }
};

TEST_F(ClassicReadTest, NativeAndForeignFilesLoadTheSamePoints)
{
    for (bool big_endian : {false, true}) {
        Classic_file file = file_of(4);
        file.big_endian = big_endian;
        uint32_t loaded = 0;
        const std::vector<Fg_point> points = load(file.bytes(), &loaded);
        ASSERT_EQ(loaded, 4u) << big_endian;
        ASSERT_EQ(points.size(), 4u);
        for (uint32_t k = 0; k < 4; ++k)
            EXPECT_TRUE(same_named_fields(points[k], file.records[k])) << big_endian << " " << k;
        const Line* progress = find_line("4 finalgather points loaded from");
        ASSERT_NE(progress, nullptr);
        EXPECT_EQ(progress->level, MSG_PROGRESS);
        EXPECT_EQ(progress->text, "4 finalgather points loaded from " + path("in.fg"));
        lines().clear();
    }
}

TEST_F(ClassicReadTest, VersionZeroGradientsTurnIntoTheNormalsFrame)
{
    Classic_file file = file_of(1);
    file.version = 0;
    Fg_point& record = file.records[0];
    const float normal[3] = {0.2f, 0.9f, -0.3f};
    std::memcpy(record.normal, normal, sizeof(normal));
    // Three world-space gradient rows at record bytes 44, 56 and 68.
    const float rows[9] = {1.0f, 2.0f, 3.0f, -4.0f, 5.0f, 0.5f, 7.0f, -8.0f, 9.0f};
    std::memcpy(reinterpret_cast<uint8_t*>(&record) + 44, rows, sizeof(rows));

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
    // The blue row stays behind: its first component is now the point's id, bit for bit.
    int32_t expected_id;
    std::memcpy(&expected_id, &rows[6], 4);
    EXPECT_EQ(points[0].point_id, expected_id);
    EXPECT_EQ(points[0].r_mean, record.r_mean);
    // Frame vectors of a unit normal are unit and perpendicular: the conversion is a rotation.
    EXPECT_NEAR(t[0] * normal[0] + t[1] * normal[1] + t[2] * normal[2], 0.0f, 1e-6f);
}

TEST_F(ClassicReadTest, UnknownVersionIsIgnoredAtInfoLevelOnly)
{
    Classic_file file = file_of(2);
    file.version = 2;
    uint32_t loaded = 0;
    EXPECT_TRUE(load(file.bytes(), &loaded).empty());
    EXPECT_EQ(loaded, 0u);
    const Line* line = find_line("unknown finalgather map version, content ignored");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_INFO);
    EXPECT_EQ(count_level(MSG_ERROR), 0u);
    EXPECT_EQ(find_line("loaded from"), nullptr);
}

TEST_F(ClassicReadTest, TruncatedFileKeepsItsWholeRecords)
{
    Classic_file file = file_of(5);
    std::vector<uint8_t> bytes = file.bytes();
    bytes.resize(120 + 3 * 104 + 50);
    uint32_t loaded = 0;
    const std::vector<Fg_point> points = load(bytes, &loaded);
    EXPECT_EQ(loaded, 3u);
    ASSERT_EQ(points.size(), 3u);
    EXPECT_TRUE(same_named_fields(points[2], file.records[2]));
    const Line* line = find_line("failed reading finalgather point");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, MSG_ERROR);
    EXPECT_EQ(code_of(line), 11);
}

TEST_F(ClassicReadTest, AbsurdCountEndsAtTheFileEnd)
{
    Classic_file file = file_of(2);
    file.count = 0xFFFFFFFFu;
    uint32_t loaded = 0;
    EXPECT_EQ(load(file.bytes(), &loaded).size(), 2u);
    EXPECT_EQ(loaded, 2u);

    // The same count in a foreign file, where it arrives byte-turned.
    file.big_endian = true;
    file.count = 0x7FFFFFFFu;
    EXPECT_EQ(load(file.bytes(), &loaded).size(), 2u);
    EXPECT_EQ(loaded, 2u);
}

TEST_F(ClassicReadTest, DamagedHeadersLoadNothingAndSayWhy)
{
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        int32_t number;
        const char* text;
    };
    std::vector<uint8_t> short_file = {'q', 'v', 'F', 'G', ' ', ' '};
    std::vector<uint8_t> no_options = file_of(1).bytes();
    no_options.resize(60);
    std::vector<uint8_t> bad_magic = file_of(1).bytes();
    bad_magic[33] = 'x';
    std::vector<uint8_t> no_size = file_of(1).bytes();
    no_size.resize(100);
    std::vector<uint8_t> no_points = file_of(0).bytes();
    const Case cases[] = {
        {"shorter than the file header", short_file, 3, "cannot read finalgather map file header"},
        {"options header cut", no_options, 6, "failed to read used options from file, content ignored"},
        {"options magic wrong", bad_magic, 7, "wrong finalgather map header magic"},
        {"size block cut", no_size, 8, "failed to read data size, content ignored"},
        {"no points", no_points, -1, nullptr},
    };
    for (const Case& c : cases) {
        lines().clear();
        uint32_t loaded = 0;
        EXPECT_TRUE(load(c.bytes, &loaded).empty()) << c.what;
        EXPECT_EQ(loaded, 0u) << c.what;
        EXPECT_EQ(find_line("loaded from"), nullptr) << c.what;
        if (!c.text) {
            EXPECT_EQ(count_level(MSG_ERROR), 0u) << c.what;
            continue;
        }
        const Line* line = find_line(c.text);
        ASSERT_NE(line, nullptr) << c.what;
        EXPECT_EQ(code_of(line), c.number) << c.what;
        EXPECT_TRUE(from_rcfg(line)) << c.what;
        EXPECT_EQ(line->level, MSG_ERROR) << c.what;
    }
}

TEST_F(ClassicReadTest, ClassicFileRefusedWhereNotAllowed)
{
    uint32_t loaded = 0;
    EXPECT_TRUE(load(file_of(3).bytes(), &loaded, false).empty());
    EXPECT_EQ(loaded, 0u);
    const Line* line = find_line("cannot use classic finalgather map file '");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(code_of(line), 5);
    EXPECT_EQ(line->text, "cannot use classic finalgather map file '" + path("in.fg") + "'");
}

TEST_F(ClassicReadTest, MissingFileIsOnlyAnInfoLine)
{
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load(map, path("nowhere.fg").c_str(), true), 0u);
    delete map;
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].level, MSG_INFO);
    EXPECT_EQ(lines()[0].text, path("nowhere.fg") + ": cannot load finalgather map file: No such file or directory");
}

TEST_F(ClassicReadTest, FileOfAnotherKindGoesToTheMapReader)
{
    const std::vector<uint8_t> text(64, 'z');
    uint32_t loaded = 1;
    EXPECT_TRUE(load(text, &loaded).empty());
    EXPECT_EQ(loaded, 0u);
    EXPECT_EQ(find_line("finalgather map file header"), nullptr);
}

TEST_F(ClassicReadTest, KdtreeLoadTakesWordThreeAsRecordAndWordZeroAsPosition)
{
    Classic_file file = file_of(6);
    file.big_endian = true;
    write_bytes(path("k.fg"), file.bytes());
    const uint32_t tag = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tag, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load(writer, path("k.fg").c_str()), 6u);
    kdtree_close(writer);

    std::vector<Fg_point> seen;
    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    kdtree_iterate(
        reader,
        [](void* argument, const void* record, const float* position) {
            Fg_point point{};
            std::memcpy(point.position, position, 12);
            std::memcpy(point.normal, record, FG_POINT_PAYLOAD_WORDS * 4);
            static_cast<std::vector<Fg_point>*>(argument)->push_back(point);
            return 1;
        },
        &seen);
    kdtree_close(reader);
    kdtree_delete(tag);
    ASSERT_EQ(seen.size(), 6u);
    // The tree has its own order: match by the id.
    for (const Fg_point& point : seen) {
        const uint32_t k = uint32_t(point.point_id - 17) / 100;
        ASSERT_LT(k, 6u);
        EXPECT_TRUE(same_named_fields(point, file.records[k])) << k;
        EXPECT_EQ(point.reserved[0], file.records[k].reserved[0]);
    }
}

TEST_F(ClassicReadTest, ListOfFilesLoadsEachNamedFile)
{
    write_bytes(path("a.fg"), file_of(2).bytes());
    write_bytes(path("b.fg"), file_of(3).bytes());
    auto make_name = [](const std::string& name) {
        uint32_t tag = 0;
        char* data = static_cast<char*>(qv_db_create(&tag, SCENE_STRING, uint32_t(name.size() + 1)));
        std::memcpy(data, name.c_str(), name.size() + 1);
        return tag;
    };
    const uint32_t a = make_name(path("a.fg"));
    const uint32_t b = make_name(path("b.fg"));
    uint32_t list = 0;
    auto* entries = static_cast<uint32_t*>(qv_db_create(&list, SCENE_TAG, 12));
    entries[0] = a;
    entries[1] = 0;
    entries[2] = b;

    // One remaining classic entry may load.
    Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_load_list(map, list, true), 3u);
    EXPECT_EQ(map->size(), 3u);  // committed by the list load
    delete map;

    // Two classic entries cannot be combined in a map.
    lines().clear();
    map = fg_map_new();
    EXPECT_EQ(fg_map_load_list(map, list, false), 0u);
    EXPECT_NE(find_line("cannot use classic finalgather map file"), nullptr);
    delete map;

    // A single name, and the kd-tree form that has no such limit.
    map = fg_map_new();
    EXPECT_EQ(fg_map_load_list(map, a, false), 2u);
    delete map;
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load_list(writer, list, false), 5u);
    kdtree_close(writer);
    kdtree_delete(tree);

    // Nothing on a host other than the master, nor while progressive rendering objects.
    thread_context()->host_number = 1;
    map = fg_map_new();
    EXPECT_EQ(fg_map_load_list(map, a, false), 0u);
    thread_context()->host_number = 0;
    fg_set_progressive_query([] { return true; });
    EXPECT_EQ(fg_map_load_list(map, a, false), 0u);
    fg_set_progressive_query(nullptr);
    EXPECT_EQ(fg_map_load_list(map, 0, false), 0u);
    delete map;
    for (uint32_t tag : {a, b, list})
        qv_db_delete(tag);
}

}  // namespace
