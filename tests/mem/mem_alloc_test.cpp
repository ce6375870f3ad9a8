// The front layer and the block allocator on one thread: where a size goes, zeroing, realloc
// across allocators, accounts, and sizes that cannot be served.
#include <algorithm>
#include <cstring>
#include <sys/wait.h>
#include <tuple>
#include <vector>

#include "base/lib/mem/mem_pools.h"
#include "tests/mem/mem_fixture.h"

namespace {

using Alloc_test = Mem_test;

bool all_zero(const void* p, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(p);
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

TEST_F(Alloc_test, SizeDecidesBetweenBlockAllocatorAndHeap)
{
    ASSERT_TRUE(mem_blocks_enabled()) << "run without QV_MEM_NOBLOCKS";
    EXPECT_EQ(mem_alloc("t", 1, 0), nullptr);
    mem_free("t", 1, nullptr);
    EXPECT_EQ(mem_size(nullptr), 0u);

    struct Row {
        size_t size;
        bool block;
    } rows[] = {{1, true}, {8, true}, {9, true}, {1024, true}, {8152, true}, {8153, false}, {100000, false}};
    for (const Row& row : rows) {
        auto* p = static_cast<unsigned char*>(mem_alloc("t", 1, row.size));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(from_block(p), row.block) << row.size;
        EXPECT_EQ(mem_size(p), row.size);
        EXPECT_TRUE(all_zero(p, row.size)) << row.size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (row.block ? 8 : 16), 0u) << row.size;
        mem_free("t", 1, p);
    }
}

TEST_F(Alloc_test, ReallocKeepsBytesAndZeroesTheTail)
{
    // Same class, another class, block to heap, heap to heap, heap to block, and shrinking.
    const size_t steps[][2] = {{10, 14}, {10, 600}, {600, 9000}, {9000, 20000}, {20000, 100}, {5000, 40}};
    for (const auto& step : steps) {
        auto* p = static_cast<unsigned char*>(mem_alloc("t", 1, step[0]));
        for (size_t i = 0; i < step[0]; ++i)
            p[i] = uint8_t(i * 7 + 1);
        auto* q = static_cast<unsigned char*>(mem_realloc("t", 1, p, step[1]));
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(mem_size(q), step[1]);
        size_t kept = std::min(step[0], step[1]);
        for (size_t i = 0; i < kept; ++i)
            ASSERT_EQ(q[i], uint8_t(i * 7 + 1)) << step[0] << " -> " << step[1] << " at " << i;
        if (step[1] > step[0]) {
            EXPECT_TRUE(all_zero(q + step[0], step[1] - step[0])) << step[0] << " -> " << step[1];
        }
        EXPECT_EQ(from_block(q), step[1] <= MEM_BLOCK_MAX_USER_BYTES);
        mem_free("t", 1, q);
    }
    EXPECT_EQ(mem_realloc("t", 1, mem_alloc("t", 1, 30), 0), nullptr);
    void* fresh = mem_realloc("t", 1, nullptr, 30);
    EXPECT_TRUE(all_zero(fresh, 30));
    mem_free("t", 1, fresh);
}

TEST_F(Alloc_test, RecycledBlocksComeBackZeroed)
{
    // Free-list reuse in a slab kept in use, a slab emptied and carved again, and slabs handed
    // through the pool to another class (the old headers then lie inside the new blocks), on
    // both sides of the 8,152-byte boundary.
    struct Row {
        size_t first, second;
        bool keep;  // one block of the first size stays, so its slab does not empty
    } rows[] = {{40, 40, true}, {40, 40, false}, {3000, 700, false}, {8152, 1500, false}, {8153, 8153, false}};
    for (const Row& row : rows) {
        std::vector<void*> blocks;
        for (int i = 0; i < 64; ++i) {
            blocks.push_back(mem_alloc("t", 1, row.first));
            std::memset(blocks.back(), 0xcd, row.first);
        }
        void* kept = row.keep ? mem_alloc("t", 1, row.first) : nullptr;
        for (void*& p : blocks) {
            mem_free("t", 1, p);
            p = nullptr;
        }
        for (void*& p : blocks) {
            p = mem_alloc("t", 1, row.second);
            ASSERT_TRUE(all_zero(p, row.second)) << row.first << " -> " << row.second;
            std::memset(p, 0xcd, row.second);
        }
        for (void* p : blocks)
            mem_free("t", 1, p);
        mem_free("t", 1, kept);
    }
}

TEST_F(Alloc_test, LargeAndRawMemoryIsZeroCountedAndResizable)
{
    uint64_t before = mem_current_bytes();
    auto* p = static_cast<unsigned char*>(mem_raw_alloc("t", 1, 1 << 20));
    EXPECT_TRUE(all_zero(p, 1 << 20));
    EXPECT_GE(mem_current_bytes(), before + (1 << 20));
    EXPECT_GE(mem_peak_bytes(), mem_current_bytes());  // raw allocations raise the peak too
    p[(1 << 20) - 1] = 0x5a;
    p = static_cast<unsigned char*>(mem_raw_realloc("t", 1, p, 2 << 20));
    EXPECT_EQ(p[(1 << 20) - 1], 0x5a);
    EXPECT_TRUE(all_zero(p + (1 << 20), 1 << 20));
    mem_raw_free("t", 1, p);
    EXPECT_LE(mem_current_bytes(), before + 64);

    // With the default heap hook large blocks come from calloc (huge pages from 2 MB on): heap
    // memory dirtied and given back must still come back zero.
    using namespace qv_mem_detail;
    const auto saved = std::tuple(g_malloc, g_realloc, g_free);
    std::tie(g_malloc, g_realloc, g_free) = std::tuple(&malloc, &realloc, &free);
    for (size_t size : {size_t(70000), size_t(5) << 20}) {
        // Two dirty chunks of the very sizes asked for below (16 bytes of header each), each
        // followed by a guard that keeps it from merging into the heap's top.
        void* dirty[4];
        for (int i = 0; i < 4; ++i)
            dirty[i] = malloc(i % 2 ? 64 : size + 16);
        std::memset(dirty[0], 0xab, size + 16);
        std::memset(dirty[2], 0xab, size + 16);
        free(dirty[0]);
        free(dirty[2]);
        auto* heap = static_cast<unsigned char*>(mem_alloc("t", 1, size));
        auto* raw = static_cast<unsigned char*>(mem_raw_alloc("t", 1, size));
        EXPECT_TRUE(all_zero(heap, size) && all_zero(raw, size)) << size;
        EXPECT_EQ(mem_size(heap), size);
        std::memset(heap, 1, size);
        mem_free("t", 1, heap);
        mem_raw_free("t", 1, raw);
        free(dirty[1]);
        free(dirty[3]);
    }
    std::tie(g_malloc, g_realloc, g_free) = saved;
}

TEST_F(Alloc_test, ImpossibleSizesEndInTheFatalOfMem)
{
    Line_capture capture;
    const size_t sizes[] = {SIZE_MAX, SIZE_MAX - 8};
    for (size_t size : sizes) {
        EXPECT_THROW(mem_alloc("t", 1, size), Fatal_called);
        EXPECT_THROW(mem_raw_alloc("t", 1, size), Fatal_called);
        void* p = mem_alloc("t", 1, 7);
        EXPECT_THROW(mem_realloc("t", 1, p, size), Fatal_called);
        mem_free("t", 1, p);
    }
    ASSERT_FALSE(capture.lines().empty());
    const Captured_line& line = capture.lines().front();
    EXPECT_EQ(line.number % 1000, 8);
}

}  // namespace
