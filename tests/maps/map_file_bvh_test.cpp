// The global BVH in a map file: written behind the pages, read instead of a build, merged on
// an append.
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_bvh : public Map_file_test {};

} // namespace

TEST_F(Map_file_bvh, BvhBehindThePagesSparesTheBuildOnReadAndMergesOnAppend)
{
    const uint32_t per_page = map_elements_per_page(20, 3);
    const uint32_t pages = 12;
    const std::string name = path("built.map");
    write_small(name, 0, pages * per_page - 3, true);

    // (Where the BVH lies in the file is pinned by the end-to-end runs' output bytes.)
    const std::vector<uint8_t> bytes = file_bytes(name);
    const uint32_t d = field_at<uint32_t>(bytes, 10);
    const size_t data = 42 + d + 24;

    Map_impl map;
    ASSERT_EQ(map.read(name.c_str(), 0), MAP_SUCCESS);
    EXPECT_FALSE(map.needs_build);
    EXPECT_FALSE(map.needs_refit);
    ASSERT_NE(map.global_bvh, nullptr);
    EXPECT_TRUE(map.global_bvh->is_valid());
    EXPECT_EQ(map.global_bvh->page_count(), pages);
    auto* file = static_cast<Map_file*>(map.page_store().file(0));
    EXPECT_EQ(file->pages_read(), 0u) << "with a stored BVH no page is read to open the map";
    // A map with a valid tree hangs the next file's under it.
    write_small(path("b.map"), 0, 2 * per_page, true);
    ASSERT_EQ(map.append_from_file(path("b.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    EXPECT_FALSE(map.needs_build);
    EXPECT_EQ(map.global_bvh->page_count(), pages + 2);
    // A file without a tree only asks for a refit of a filled map, and of an empty one a build.
    write_small(path("plain.map"), 0, 10);
    ASSERT_EQ(map.append_from_file(path("plain.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    EXPECT_TRUE(map.needs_refit);
    Map_impl fresh;
    ASSERT_EQ(fresh.append_from_file(path("plain.map").c_str(), false, false, nullptr), MAP_SUCCESS);
    EXPECT_TRUE(fresh.needs_build && fresh.needs_refit);

    // A last page cut inside its tree keeps its elements and loses the tree.
    const uint32_t last_count = per_page - 3;
    const size_t last_page = data + size_t(pages - 1) * 32768;
    ASSERT_NE(field_at<uint32_t>(bytes, last_page + size_t(per_page) * 20), 0u) << "the page has a tree";
    std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + last_page + size_t(per_page) * 20 + 40);
    set_field_at<uint64_t>(cut, 34 + d, 0);
    put_file(path("cut.map"), cut);
    {
        Map_status status = MAP_NOT_EDITABLE;
        Map_file file(MAP_FILE_KIND_READ, false, false, false, path("cut.map").c_str(), nullptr, &status);
        ASSERT_EQ(status, MAP_SUCCESS);
        std::vector<uint8_t> page(32768, 0xAB);
        ASSERT_TRUE(file.read_pages(pages - 1, 1, page.data()));
        EXPECT_EQ(memcmp(page.data(), bytes.data() + last_page, size_t(last_count) * 20), 0);
        EXPECT_EQ(field_at<uint32_t>(page, size_t(per_page) * 20), 0u) << "no tree for a cut page";
        EXPECT_EQ(page.back(), 0) << "zeros behind the end";
    }

    // A damaged BVH is not used: the map is built instead, and still holds every element.
    std::vector<uint8_t> broken = bytes;
    broken.resize(data + size_t(pages) * 32768 + 5);
    put_file(path("broken.map"), broken);
    Map_impl rebuilt;
    rebuilt.bvh_enabled = false;
    ASSERT_EQ(rebuilt.read(path("broken.map").c_str(), 0), MAP_SUCCESS);
    EXPECT_TRUE(rebuilt.needs_build);
    EXPECT_EQ(rebuilt.size(), pages * per_page - 3);
}
