// Reading classic final-gather files: byte order, versions, damaged and truncated files, lists.
#include "fg_test_support.h"
#include "database/scene_records.h"

using namespace fg_test;

namespace {

class ClassicReadTest : public Fg_test {};

// The header's count is only an upper bound: reading stops at the first short record. (Whole
// files of either byte order are the end-to-end runs' inputs.)
TEST_F(ClassicReadTest, NativeAndForeignFilesLoadEveryWholeRecord)
{
    const struct { uint32_t announced; size_t bytes; uint32_t expected; } cases[] = {
        {0xFFFFFFFFu, 120 + 4 * 104, 4}, {4, 120 + 2 * 104 + 50, 2}};
    for (bool big_endian : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << "big endian " << big_endian << ", count " << c.announced);
            lines().clear();
            Classic_file file = Classic_file::of(4);
            file.count = c.announced;
            file.big_endian = big_endian;
            std::vector<uint8_t> bytes = file.bytes();
            bytes.resize(c.bytes);
            put_file(path("in.fg"), bytes);
            uint32_t loaded = 0;
            const std::vector<Fg_point> points = load_points(path("in.fg"), true, &loaded);
            EXPECT_EQ(loaded, c.expected);
            ASSERT_EQ(points.size(), c.expected);
            for (uint32_t k = 0; k < c.expected; ++k)
                EXPECT_TRUE(same_named_fields(points[k], file.records[k])) << k;
            ASSERT_EQ(lines().size(), c.expected < c.announced ? 2u : 1u);
            if (c.expected < c.announced)
                expect_line(path("in.fg") + ": failed reading finalgather point", MSG_ERROR, 11);
        }
    }
}

// Version 0 keeps world-space gradient rows; loading turns them into the normal's frame. For
// these two normals the frame is known in closed form: (0, 0.8, 0.6) gives T = (0, -0.6, 0.8)
// and C = T x n = (-1, 0, 0); (0.6, 0, 0.8) gives T = (0.8, 0, -0.6) and C = (0, -1, 0).
// grad_t1[k] is -(row_k . C) and grad_t2[k] is row_k . T.
TEST_F(ClassicReadTest, VersionZeroGradientsTurnIntoTheNormalsFrame)
{
    Classic_file file = Classic_file::of(2);
    file.version = 0;
    const float normals[2][3] = {{0.0f, 0.8f, 0.6f}, {0.6f, 0.0f, 0.8f}};
    const float rows[9] = {1.0f, 2.0f, 3.0f, -4.0f, 5.0f, 0.5f, 7.0f, -8.0f, 9.0f};  // red, green, blue
    for (int k = 0; k < 2; ++k) {
        std::memcpy(file.records[k].normal, normals[k], sizeof(normals[k]));
        std::memcpy(file.records[k].grad_t1, rows, sizeof(rows));  // record bytes 44 to 79
    }
    put_file(path("in.fg"), file.bytes());
    std::vector<Fg_point> points = load_points(path("in.fg"), true);
    ASSERT_EQ(points.size(), 2u);
    std::sort(points.begin(), points.end(), [](const Fg_point& a, const Fg_point& b) { return a.normal[0] < b.normal[0]; });
    const float expected[2][2][3] = {
        {{1.0f, -4.0f, 7.0f}, {-0.6f * 2.0f + 0.8f * 3.0f, -0.6f * 5.0f + 0.8f * 0.5f, -0.6f * -8.0f + 0.8f * 9.0f}},
        {{2.0f, 5.0f, -8.0f}, {0.8f * 1.0f - 0.6f * 3.0f, 0.8f * -4.0f - 0.6f * 0.5f, 0.8f * 7.0f - 0.6f * 9.0f}},
    };
    for (int p = 0; p < 2; ++p) {
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(points[p].grad_t1[k], expected[p][0][k], 1e-5f) << p << " " << k;
            EXPECT_NEAR(points[p].grad_t2[k], expected[p][1][k], 1e-5f) << p << " " << k;
        }
        // The blue row stays where it was: its first component is now the id, bit for bit.
        int32_t id;
        std::memcpy(&id, &rows[6], 4);
        EXPECT_EQ(points[p].point_id, id);
    }
}

TEST_F(ClassicReadTest, UnusableFilesLoadNothingAndSayWhy)
{
    const std::string in = path("in.fg");
    const auto cut = [](size_t size) {
        std::vector<uint8_t> bytes = Classic_file::of(1).bytes();
        bytes.resize(size);
        return bytes;
    };
    const struct {
        std::vector<uint8_t> bytes;
        bool allow_classic;
        uint32_t level;
        int32_t code;
        std::string text;  // the one line; empty: none
    } cases[] = {
        {cut(60), true, MSG_ERROR, 6, in + ": failed to read used options from file, content ignored"},
        {cut(100), true, MSG_ERROR, 8, in + ": failed to read data size, content ignored"},
        {Classic_file::of(3).bytes(), false, MSG_ERROR, 5, "cannot use classic finalgather map file '" + in + "'"},
        {Classic_file::of(0).bytes(), true, 0, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        lines().clear();
        put_file(in, c.bytes);
        uint32_t loaded = 0;
        EXPECT_TRUE(load_points(in, c.allow_classic, &loaded).empty());
        EXPECT_EQ(loaded, 0u);
        ASSERT_EQ(lines().size(), c.text.empty() ? 0u : 1u);
        if (!c.text.empty())
            expect_line(c.text, c.level, c.code);
    }
}

TEST_F(ClassicReadTest, ListsLoadTheirNamedFilesAndCombineClassicOnlyAlone)
{
    put_file(path("a.fg"), Classic_file::of(2).bytes());
    put_file(path("b.fg"), Classic_file::of(3).bytes());
    auto name_tag = [](const std::string& name) {
        uint32_t tag = 0;
        std::memcpy(qv_db_create(&tag, SCENE_STRING, uint32_t(name.size() + 1)), name.c_str(), name.size() + 1);
        return tag;
    };
    const uint32_t a = name_tag(path("a.fg")), b = name_tag(path("b.fg"));
    uint32_t list = 0;
    const uint32_t entries[3] = {a, 0, b};
    std::memcpy(qv_db_create(&list, SCENE_TAG, sizeof(entries)), entries, sizeof(entries));

    QV::RCMAP::Map_impl* map = fg_map_new();
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

    // The kd-tree form has no limit on classic files. (What a tree of them writes is the
    // end-to-end suite's legacy copy.)
    const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    EXPECT_EQ(fg_kdtree_load_list(writer, list, false), 5u);
    kdtree_close(writer);
    kdtree_delete(tree);
    for (uint32_t tag : {a, b, list})
        qv_db_delete(tag);
}

}  // namespace
