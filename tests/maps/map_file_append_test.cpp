// Appending: a map onto the end of a file (partial last page, counts, bounds, BVH offset), and a
// file's elements onto a map; a map of several segments written as plain pages.
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_append : public Map_file_test {};

} // namespace

// append_to_file: onto full and partial last pages, and every refusal, which leaves the file alone.
TEST_F(Map_file_append, AppendsOnFullAndPartialPagesKeepTheCountsAndNoBvhAndRefusalsChangeNothing)
{
    const uint32_t per_page = map_elements_per_page(20, 3);
    const std::string name = path("grow.map");
    write_small(name, 0, per_page); // the file ends on a full page
    // A stale BVH offset must not survive an append.
    std::vector<uint8_t> bytes = file_bytes(name);
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    set_field_at<uint64_t>(bytes, 34 + d, 32768);
    put_file(name, bytes);

    // A full page, then a few onto a partial page, then more than a page onto a partial one.
    uint32_t total = per_page;
    for (const uint32_t count : {per_page + 11, 3u, per_page + 11}) {
        Map_impl more(small_declaration());
        fill(more, total, count);
        ASSERT_EQ(more.append_to_file(name.c_str(), false), MAP_SUCCESS);
        total += count;
        bytes = file_bytes(name);
        ASSERT_EQ(field_at<uint64_t>(bytes, 34 + d), 0u) << total;
        ASSERT_EQ(field_at<uint32_t>(bytes, 30 + d), total);
        ASSERT_EQ(field_at<uint32_t>(bytes, 26 + d), (total - 1) / per_page + 1);
        // Bounds merged: the minimum of the file's elements, the maximum of the map's.
        ASSERT_EQ(field_at<float>(bytes, 42 + d), 0.0f);
        ASSERT_EQ(field_at<float>(bytes, 42 + d + 12), float(total - 1));
    }
    Map_impl back;
    back.bvh_enabled = false;
    ASSERT_EQ(back.read(name.c_str(), 0), MAP_SUCCESS);
    ASSERT_EQ(back.size(), total);
    EXPECT_TRUE(holds_elements(back, total));

    // Same dimension and field types under other names is the same layout; other types are not.
    Map_declaration_impl renamed(3), swapped(3);
    renamed.add_scalar("w");
    renamed.add_integer("n");
    swapped.add_integer("id");
    swapped.add_scalar("weight");
    Map_impl empty(small_declaration()), locked(small_declaration()), alike(renamed), other(swapped);
    for (Map_impl* map : {&locked, &alike, &other})
        fill(*map, total, 1);
    locked.editable = false;
    put_file(path("text.map"), "declare map", 11);
    put_file(path("ob.map"), "qv=MAPob1dim3", 13);
    const struct {
        Map_impl* map;
        std::string file;
        Map_status status;
    } rows[] = {
        {&empty, name, MAP_SUCCESS}, {&empty, path("nowhere.map"), MAP_SUCCESS}, // nothing to write
        {&locked, name, MAP_NOT_EDITABLE}, {&other, name, MAP_NOT_EQUIVALENT},
        {&other, path("text.map"), MAP_FILE_MALFORMED}, {&other, path("ob.map"), MAP_FILE_MALFORMED},
        {&other, path("nowhere.map"), MAP_FILE_CANNOT_OPEN},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.map->append_to_file(row.file.c_str(), true), row.status) << row.file;
    EXPECT_EQ(file_bytes(name), bytes);
    EXPECT_TRUE(saw("cannot append to map file \"" + name + "\", declarations are not equivalent"));
    EXPECT_EQ(count_lines(MSG_ERROR, "file format is open"), 2);
    EXPECT_EQ(alike.append_to_file(name.c_str(), true), MAP_SUCCESS);
    EXPECT_EQ(field_at<uint32_t>(file_bytes(name), 30 + d), total + 1);
}

TEST_F(Map_file_append, FileElementsFollowTheMapsOwn)
{
    const Map_declaration_impl declaration = declaration_with_globals();
    const std::string name = path("source.map");
    written(name, 30, MAP_FORMAT_BINARY, 50);

    // An empty map takes the file's declaration and global values.
    Map_impl empty;
    empty.bvh_enabled = false;
    uint32_t format = 99;
    ASSERT_EQ(empty.append_from_file(name.c_str(), true, false, &format), MAP_SUCCESS);
    EXPECT_EQ(format, uint32_t(MAP_FORMAT_BINARY));
    EXPECT_TRUE(saw("appending from map file \"" + name + "\""));
    ASSERT_EQ(empty.size(), 30u);
    float scale = 0;
    empty.get(declaration.get_field_id("scale", nullptr), scale);
    EXPECT_EQ(scale, 0.75f);

    // An empty map of the same elements but other global fields keeps its own globals.
    Map_declaration_impl other_globals = small_declaration();
    other_globals.add_global_vector("offset");
    other_globals.add_global_integer("flags");
    Map_impl foreign(other_globals);
    const Map_vector3 offset = {1.0f, 2.0f, 3.0f};
    foreign.set(other_globals.get_field_id("offset", nullptr), &offset);
    ASSERT_EQ(foreign.append_from_file(name.c_str(), false, false, nullptr), MAP_SUCCESS);
    EXPECT_EQ(foreign.size(), 30u);
    Map_vector3 kept{};
    foreign.get(other_globals.get_field_id("offset", nullptr), kept);
    EXPECT_EQ(memcmp(&kept, &offset, sizeof kept), 0);

    // A filled map keeps its globals; its committed and pending elements come first.
    Map_impl filled(declaration);
    filled.bvh_enabled = false;
    filled.set(declaration.get_field_id("scale", nullptr), 1.0f);
    fill(filled, 0, 40);
    for (uint32_t i = 40; i < 50; ++i) {
        Small_element element = small_element(i);
        filled.append_raw(&element);
    }
    ASSERT_EQ(filled.append_from_file(name.c_str(), false, false, nullptr), MAP_SUCCESS);
    ASSERT_EQ(filled.size(), 80u);
    EXPECT_EQ(filled.get_pending_count(), 0u);
    EXPECT_TRUE(filled.needs_build);
    filled.get(declaration.get_field_id("scale", nullptr), scale);
    EXPECT_EQ(scale, 1.0f);
    EXPECT_TRUE(holds_elements(filled, 80));
    EXPECT_EQ(filled.get_bounds().maximum[0], 79.0f);
    EXPECT_EQ(filled.get_bounds().minimum[0], 0.0f);

    // Leaving the BVH alone only asks for a refit.
    Map_impl settled(declaration);
    settled.needs_build = settled.needs_refit = false;
    ASSERT_EQ(settled.append_from_file(name.c_str(), false, true, nullptr), MAP_SUCCESS);
    EXPECT_TRUE(settled.needs_refit);
}

// A map of several segments is written as plain pages. (The header and record of a
// one-segment file are pinned by the end-to-end runs' output bytes.)
TEST_F(Map_file_append, MapOfSeveralSegmentsIsRepackedIntoPlainPages)
{
    // Two files appended one after the other leave a partly filled page between them; the
    // written file must still have element i at page i / E, slot i % E.
    const uint32_t per_page = map_elements_per_page(20, 3);
    write_small(path("a.map"), 0, per_page + 3);
    write_small(path("b.map"), per_page + 3, 10);

    Map_impl joined;
    joined.bvh_enabled = false;
    ASSERT_EQ(joined.append_from_file(path("a.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    ASSERT_EQ(joined.append_from_file(path("b.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    fill(joined, per_page + 13, 4); // and a few held in memory only
    ASSERT_EQ(joined.size(), per_page + 17);
    ASSERT_EQ(joined.page_store().segments().size(), 2u);

    ASSERT_EQ(joined.write(path("joined.map").c_str(), MAP_FORMAT_BINARY, false), MAP_SUCCESS);
    const std::vector<uint8_t> bytes = file_bytes(path("joined.map"));
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    const size_t data = 42 + d + 24;
    ASSERT_EQ(field_at<uint32_t>(bytes, 30 + d), per_page + 17);
    ASSERT_EQ(bytes.size(), data + 2 * size_t(32768));
    for (uint32_t i = 0; i < per_page + 17; ++i)
        ASSERT_TRUE(same(stored_element(bytes, data, per_page, i), small_element(i))) << "element " << i;
}
