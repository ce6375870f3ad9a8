// The block allocator across threads: remote frees, ended threads, adoption, account merging,
// and a stress of allocate / cross-thread free.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "runtime/threads.h"
#include "tests/mem/mem_fixture.h"

namespace {

using Threads_test = Mem_test;

uintptr_t slab_of(const void* p) { return reinterpret_cast<uintptr_t>(p) & ~uintptr_t(16383); }

// Runs `work` on a new thread that has a Thread_context, as the engine's threads do.
template <class Work>
void on_engine_thread(Work work)
{
    std::thread thread([&] {
        thread_init_current();
        work();
        thread_end_current();
    });
    thread.join();
}

TEST_F(Threads_test, RemoteFreeReachesTheOwnerWhenItsSlabsRunOutOrItsSlabWasFull)
{
    // A class of its own in this test, so that earlier tests' blocks do not interfere.
    const size_t size = 7000;
    void* first = mem_alloc("t", 1, size);
    on_engine_thread([&] { mem_free("t", 1, first); });
    // The slab still counts the block as used, so the next blocks are carved fresh.
    std::vector<void*> taken;
    bool seen_again = false;
    for (int i = 0; i < 64 && !seen_again; ++i) {
        void* p = mem_alloc("t", 1, size);
        seen_again = p == first;
        if (!seen_again)
            taken.push_back(p);
    }
    EXPECT_TRUE(seen_again);
    // 7,160-byte blocks: two fit a slab, so at least the rest of the first slab went before.
    EXPECT_FALSE(taken.empty());
    for (void* p : taken)
        mem_free("t", 1, p);
    mem_free("t", 1, first);

    // 8,152 bytes: one block per slab, so every slab is parked full at once. The owner is a
    // fresh thread, so no slab of an earlier test has room.
    on_engine_thread([&] {
        void* first = mem_alloc("t", 1, 8152);
        void* second = mem_alloc("t", 1, 8152);
        std::thread([&] { mem_free("t", 1, first); }).join();
        void* again = mem_alloc("t", 1, 8152);
        EXPECT_EQ(again, first);
        mem_free("t", 1, again);
        mem_free("t", 1, second);
    });
}

TEST_F(Threads_test, BlocksOfAnEndedThreadStayUsableAndTheirSlabsAreAdopted)
{
    const size_t size = 3000;
    std::vector<unsigned char*> left;
    on_engine_thread([&] {
        for (int i = 0; i < 12; ++i) {
            auto* p = static_cast<unsigned char*>(mem_alloc("t", 1, size));
            std::memset(p, i + 1, size);
            left.push_back(p);
        }
    });
    std::set<uintptr_t> orphan_slabs;
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(left[i][0], i + 1);
        EXPECT_EQ(left[i][size - 1], i + 1);
        orphan_slabs.insert(slab_of(left[i]));
    }
    // Half of them go now, from this thread; the rest from another thread later.
    for (size_t i = 0; i < left.size(); i += 2)
        mem_free("t", 1, left[i]);
    bool adopted = false;
    on_engine_thread([&] {
        std::vector<void*> mine;
        for (int i = 0; i < 8; ++i) {
            void* p = mem_alloc("t", 1, size);
            adopted = adopted || orphan_slabs.count(slab_of(p));
            mine.push_back(p);
        }
        for (size_t i = 1; i < left.size(); i += 2)
            mem_free("t", 1, left[i]);
        for (void* p : mine)
            mem_free("t", 1, p);
    });
    EXPECT_TRUE(adopted);
}

TEST_F(Threads_test, AThreadsChargesReachTheProcessTableWhenItEnds)
{
    const int module = MOD_GEOMO;
    uint64_t before = mem_module_bytes(module);
    std::vector<void*> kept;
    on_engine_thread([&] {
        Module_scope scope(module);
        for (int i = 0; i < 4; ++i)
            kept.push_back(mem_alloc("t", 1, 1 << 20));
        kept.push_back(mem_alloc("t", 1, 24));
    });
    EXPECT_GE(mem_module_bytes(module), before + (4u << 20));
    EXPECT_GE(mem_module_peak_bytes(module), before + (4u << 20));
    for (void* p : kept)
        mem_free("t", 1, p);
    EXPECT_EQ(mem_module_bytes(module), before);
}

TEST_F(Threads_test, CrossThreadFreesUnderLoadKeepEveryBlockIntact)
{
    // Each thread fills blocks with its mark and hands about half to the next thread, which
    // checks and frees them; what is left in a mailbox at the end belongs to ended threads.
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 4000;
    std::mutex locks[THREADS];
    std::vector<unsigned char*> boxes[THREADS];
    std::atomic<int> broken{0};
    auto check_and_free = [&](unsigned char* p) {
        size_t size = mem_size(p);
        broken += std::count(p, p + size, p[0]) != std::ptrdiff_t(size);
        mem_free("t", 1, p);
    };
    auto worker = [&](int index) {
        thread_init_current();
        uint32_t seed = uint32_t(index) * 2654435761u + 1;
        for (int round = 0; round < ROUNDS; ++round) {
            seed = seed * 1664525u + 1013904223u;
            size_t size = 1 + (seed >> 8) % (seed & 0x10 ? 8200 : 300);
            auto* p = static_cast<unsigned char*>(mem_alloc("t", 1, size));
            std::memset(p, index * 50 + round % 50 + 1, size);
            if (seed & 0x100) {
                std::lock_guard<std::mutex> hold(locks[(index + 1) % THREADS]);
                boxes[(index + 1) % THREADS].push_back(p);
            } else {
                check_and_free(p);
            }
            if (round % 16 == 0) {
                std::vector<unsigned char*> mine;
                {
                    std::lock_guard<std::mutex> hold(locks[index]);
                    mine.swap(boxes[index]);
                }
                std::for_each(mine.begin(), mine.end(), check_and_free);
            }
        }
        thread_end_current();
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back(worker, i);
    for (std::thread& thread : threads)
        thread.join();
    for (auto& box : boxes)
        std::for_each(box.begin(), box.end(), check_and_free);
    EXPECT_EQ(broken.load(), 0);
}

}  // namespace
