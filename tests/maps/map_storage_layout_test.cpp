// Page addressing: elements per page with the page-BVH room, pages from files, page size rules.
#include <utility>

#include "maps/map_page_store.h"
#include "tests/maps/map_storage_support.h"

using namespace QV::RCMAP;
using namespace map_storage_test;

namespace {

class Map_storage_layout : public Map_storage_test {};

} // namespace

TEST_F(Map_storage_layout, ElementsPerPageLeaveRoomForThePageBvh)
{
    // The room itself, for final-gather records in dimension 3, is pinned by the end-to-end
    // runs' output bytes; other dimensions and sizes only here.
    // The largest count that fits, for every dimension and a spread of sizes.
    for (uint32_t dimension = 1; dimension <= 6; ++dimension) {
        for (uint32_t bytes : {4u * dimension, 20u, 28u, 104u, 1000u, 16000u, 32000u}) {
            uint32_t count = map_elements_per_page(bytes, dimension);
            ASSERT_GT(count, 0u) << bytes;
            EXPECT_LE(uint64_t(count) * bytes + map_page_bvh_bytes(count, dimension), MAP_FILE_PAGE_BYTES);
            EXPECT_GT(uint64_t(count + 1) * bytes + map_page_bvh_bytes(count + 1, dimension), MAP_FILE_PAGE_BYTES)
                << "dimension " << dimension << " bytes " << bytes;
        }
    }
    // An element larger than a page has no place at all.
    EXPECT_EQ(map_elements_per_page(32769, 3), 0u);
}

TEST_F(Map_storage_layout, PageSizeIsCorrectedWithItsWarning)
{
    // The warning numbers say which rule applied; a valid size is not reported.
    struct Case {
        uint32_t given, corrected;
        const char* warning;
        int32_t number;
    };
    const Case cases[] = {
        {16, 32, "map page size in KB smaller than minimum (16), corrected", 1},
        {2048, 1024, "map page size in KB greater than maximum (2048), corrected", 2},
        {33, 64, "map page size in KB rounded up to 64", 3},
        {32, 32, nullptr, 0},
    };
    for (const Case& c : cases) {
        captured().clear();
        EXPECT_EQ(map_correct_page_size_kb(c.given), c.corrected) << c.given;
        ASSERT_EQ(captured().size(), c.warning ? 1u : 0u) << c.given;
        if (c.warning) {
            EXPECT_EQ(captured()[0].text, c.warning);
            EXPECT_EQ(captured()[0].number % 1000, c.number) << c.given;
        }
    }
}

TEST_F(Map_storage_layout, PagesComeFromTheirFilesAndChangesWinOverThem)
{
    Map_manager::instance().set_size_limit_mb(0.25f); // 8 cache pages
    Map_page_store store;
    store.configure(20, 3);
    int reads = 0;
    store.add_file_segment(new Pattern_source(7, 40, &reads), 0, 40 * 100, 100);
    ASSERT_EQ(store.page_count(4000), 40u);

    for (uint32_t page = 0; page < 40; ++page) {
        const uint8_t* data = store.get_page(page, true);
        ASSERT_EQ(data[0], uint8_t(page + 7));
        ASSERT_EQ(data[MAP_FILE_PAGE_BYTES - 1], uint8_t(page + 7));
    }
    EXPECT_EQ(reads, 40);

    // Change one element on every page, push them all out, and read them back.
    for (uint32_t page = 0; page < 40; ++page) {
        int32_t marker = int32_t(page * 1000 + 1);
        store.write_bytes(page * 100 + 5, 16, 4, &marker);
    }
    for (uint32_t page = 0; page < 40; ++page) {
        int32_t marker = 0;
        store.read_bytes(page * 100 + 5, 16, 4, &marker);
        EXPECT_EQ(marker, int32_t(page * 1000 + 1)) << page;
        uint8_t untouched = 0;
        store.read_bytes(page * 100 + 6, 0, 1, &untouched);
        EXPECT_EQ(untouched, uint8_t(page + 7));
    }
    EXPECT_TRUE(store.has_swap_file);
}

TEST_F(Map_storage_layout, CacheLimitFollowsSettingsWithinMemory)
{
    // Nothing set: a quarter of memory, in whole MB; option before registry before environment;
    // never more than memory.
    EXPECT_EQ(map_cache_limit_mb(1001, 0, 0, 0), 250.0f);
    EXPECT_EQ(map_cache_limit_mb(1000, 10, 20, 30), 10.0f);
    EXPECT_EQ(map_cache_limit_mb(1000, 0, 20, 30), 20.0f);
    EXPECT_EQ(map_cache_limit_mb(1000, 0, 0, 30), 30.0f);
    EXPECT_EQ(map_cache_limit_mb(1000, 0, 0, 5000), 1000.0f);
    for (const auto& [text, size] : {std::pair{"0", 0u}, {"-64", 0u}, {"300", 300u}}) {
        setenv("QV_MAP_CACHE_SIZE", text, 1);
        EXPECT_EQ(map_cache_env_size_mb(), size) << text;
    }
    unsetenv("QV_MAP_CACHE_SIZE");
    EXPECT_GT(map_available_memory_mb(), 0u);
}
