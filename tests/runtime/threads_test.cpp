#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "runtime/locks.h"
#include "runtime/threads.h"
#include "tests/test_support.h"

namespace {

struct Seen {
    std::atomic<int> row{-2};
    std::atomic<int> module{0};
    std::atomic<int64_t> stack_size{0};
    std::atomic<bool> ran{false};
};

void record_context(void* argument)
{
    auto* seen = static_cast<Seen*>(argument);
    Thread_context* context = thread_context();
    seen->row = context ? context->thread_number : -1;
    seen->module = context ? context->current_module : 0;
    seen->stack_size = context ? context->stack_size : 0;
    // A context area made here must be cleaned up when the thread ends.
    mod_context_area(MOD_CUDA);
    seen->ran = true;
}

std::atomic<int> g_area_exits{0};
void count_area_exit(void*) { ++g_area_exits; }

class ThreadsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        mod_register_context_area(MOD_CUDA, nullptr, count_area_exit, 16);
    }
    void TearDown() override
    {
        unsetenv("QV_STACKSIZE");
        thread_set_stack_size(0);
        ASSERT_TRUE(wait_until([] { return thread_running_count() == 0; }));
    }
};

const Thread_snapshot* take_snapshot()
{
    const Thread_snapshot* snapshot = nullptr;
    wait_until([&] { return (snapshot = thread_snapshot()) != nullptr; });
    return snapshot;
}

bool snapshot_has_row(int row)
{
    const Thread_snapshot* snapshot = take_snapshot();
    bool found = false;
    for (int i = 0; snapshot && i < snapshot->count; ++i)
        found |= snapshot->contexts[i]->thread_number == row;
    if (snapshot)
        thread_snapshot_release();
    return found;
}

}  // namespace

TEST_F(ThreadsTest, StartedThreadRunsInItsRowAndLeavesNothingBehind)
{
    setenv("QV_STACKSIZE", "1024", 1);
    Seen seen;
    int exits_before = g_area_exits;
    int row = thread_alloc(record_context, &seen, true);
    ASSERT_GT(row, 0);
    ASSERT_EQ(thread_start(row), 1);
    ASSERT_TRUE(wait_until([&] { return seen.ran.load() && thread_running_count() == 0; }));
    EXPECT_EQ(seen.row, row);
    EXPECT_EQ(seen.module, MOD_MSG);
    EXPECT_EQ(seen.stack_size, 1048576 + 65536);
    // The end of the thread ran the context-area exits and gave the row back.
    EXPECT_EQ(g_area_exits, exits_before + 1);
    EXPECT_FALSE(snapshot_has_row(row));

    // A configured size wins over the environment.
    thread_set_stack_size(300000);
    EXPECT_EQ(thread_stack_size(), 300000u);
}

TEST(LockTest, InPlaceSectionIsRecursiveAndGuardWaitsForMem)
{
    qv_test_init();
    alignas(Lock_record) unsigned char storage[sizeof(Lock_record)];
    auto* section = reinterpret_cast<Lock_record*>(storage);
    lock_init_in_place(section);
    lock_enter(section);
    EXPECT_TRUE(lock_try_enter(section));  // recursive for its owner
    bool other_got = true;
    std::thread other([&] { other_got = lock_try_enter(section); });
    other.join();
    EXPECT_FALSE(other_got);
    lock_leave(section);
    lock_leave(section);
    {
        Lock_guard guard(section);
        std::thread probe([&] {
            other_got = lock_try_enter(section);
            if (other_got)
                lock_leave(section);
        });
        probe.join();
        // The guard holds the lock exactly when MEM has started.
        EXPECT_EQ(other_got, !mem_started());
    }
    lock_delete_in_place(section);
}

TEST(RwLockTest, MixedLoadKeepsWritersExclusive)
{
    qv_test_init();
    Rw_lock lock = nullptr;
    rw_create(&lock);
    // Writers update two fields that readers must always see equal; TSan checks the rest.
    long a = 0, b = 0;
    std::atomic<bool> torn{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                bool write = (i + t) % 4 == 0;
                bool got = (i % 3 == 0) ? rw_try_lock(lock, write) : (rw_lock(lock, write), true);
                if (!got)
                    continue;
                if (write) {
                    ++a;
                    ++b;
                } else if (a != b) {
                    torn = true;
                }
                rw_unlock(lock, write);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(torn.load());
    EXPECT_EQ(a, b);
    EXPECT_EQ(rw_count(lock), 0);
    rw_destroy(&lock);
}
