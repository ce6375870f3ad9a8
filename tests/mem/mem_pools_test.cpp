// Block pools, mapped file blocks and Block_memory_pool.
#include <cstdio>
#include <cstring>
#include <set>
#include <unistd.h>
#include <vector>

#include "base/lib/mem/mem_pools.h"
#include "tests/mem/mem_fixture.h"

namespace {

using Pools_test = Mem_test;

TEST_F(Pools_test, PoolRefusesSizesThatDoNotFitTwicePerPageAndWalksZeroedDistinctElements)
{
    {
        Line_capture capture;
        EXPECT_EQ(memblock_create("t", 1, 4052), nullptr);
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_EQ(capture.lines()[0].text, "requested block size larger than 4052");
        EXPECT_EQ(capture.lines()[0].number % 1000, 7);
    }
    Memblock* pool = memblock_create("t", 1, 4048);
    ASSERT_NE(pool, nullptr);
    memblock_destroy(pool);
    {
        Module_scope scope(MOD_SURF);
        pool = memblock_create("t", 1, 40);  // 48-byte elements, 168 per page
    }
    uint64_t charged = mem_module_bytes(MOD_SURF);
    std::vector<unsigned char*> elements;
    for (int i = 0; i < 1000; ++i) {
        elements.push_back(static_cast<unsigned char*>(memblock_alloc(pool)));
        ASSERT_EQ(elements.back()[0] | elements.back()[47], 0) << i;
        std::memset(elements.back(), 0xee, 48);
    }
    // Distinct elements, and pages beyond the first charged to the pool's module.
    EXPECT_EQ(std::set<unsigned char*>(elements.begin(), elements.end()).size(), 1000u);
    EXPECT_GE(mem_module_bytes(MOD_SURF), charged + 5 * 8192);
    for (size_t i = 0; i < elements.size(); i += 3)
        memblock_free(pool, elements[i]);
    size_t walked = 0;
    memblock_for_each(pool, [](void*, void* count) { ++*static_cast<size_t*>(count); }, &walked);
    EXPECT_EQ(walked, 1000u - 334u);
    EXPECT_EQ(static_cast<unsigned char*>(memblock_alloc_unlocked(pool))[0], 0);  // freed ones come back zeroed
    memblock_clear(pool);
    EXPECT_EQ(memblock_live_count(pool), 0u);
    EXPECT_LE(mem_module_bytes(MOD_SURF), charged);
    memblock_destroy(pool);
}

TEST_F(Pools_test, MappedFileBlocksAreChargedAndUnmappedOnce)
{
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    int fd = fileno(file);
    ASSERT_EQ(ftruncate(fd, 1 << 20), 0);
    EXPECT_EQ(mem_map_file(-1, 4096, false), nullptr);
    uint64_t before = mem_module_bytes(MOD_DISK);
    char* view;
    {
        Module_scope scope(MOD_DISK);
        view = static_cast<char*>(mem_map_file(fd, 1 << 20, true));
    }
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(mem_module_bytes(MOD_DISK), before + (1 << 20));
    Line_capture capture;
    mem_unmap(view);
    mem_unmap(view);
    EXPECT_EQ(mem_module_bytes(MOD_DISK), before);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text.rfind("trying to unmap not mmaped block", 0), 0u);
    fclose(file);
}

TEST_F(Pools_test, BlockPoolReportsBlocksNotGivenBack)
{
    Line_capture capture;
    {
        Block_memory_pool pool(64, 0);
        std::vector<void*> blocks;
        for (int i = 0; i < 200; ++i)
            blocks.push_back(pool.allocate(24));
        EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), 200u);
        for (void* block : blocks)
            pool.deallocate(block);
        pool.clear();
        EXPECT_TRUE(capture.lines().empty());
        pool.allocate(24);
    }
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "Block_memory_pool::clear(): not all blocks have been deallocated");
}

}  // namespace
