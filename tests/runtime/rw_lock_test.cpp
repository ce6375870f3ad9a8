#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/locks.h"
#include "tests/test_support.h"

namespace {

int waiting(Rw_lock lock, bool writers)
{
    int r = 0, w = 0;
    rw_waiting_counts(lock, &r, &w);
    return writers ? w : r;
}

class RwLockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        rw_create(&lock);
    }
    void TearDown() override { rw_destroy(&lock); }
    Rw_lock lock = nullptr;
};

}  // namespace

TEST_F(RwLockTest, WaitingWriterHoldsBackNewReadersUntilItHasBeenAndGone)
{
    rw_lock(lock, false);
    rw_lock(lock, false);
    EXPECT_EQ(rw_count(lock), -2);
    EXPECT_FALSE(rw_try_lock(lock, true));

    std::atomic<int> sequence{0};
    std::atomic<int> writer_at{-1}, reader_at{-1};
    std::thread writer([&] {
        rw_lock(lock, true);
        writer_at = sequence++;
        EXPECT_EQ(rw_count(lock), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        rw_unlock(lock, true);
    });
    ASSERT_TRUE(wait_until([&] { return waiting(lock, true) == 1; }));

    // With a writer waiting, a try read fails and leaves the waiting counts as they were.
    EXPECT_FALSE(rw_try_lock(lock, false));
    EXPECT_EQ(waiting(lock, false), 0);
    EXPECT_EQ(waiting(lock, true), 1);

    std::thread reader([&] {
        rw_lock(lock, false);
        reader_at = sequence++;
        rw_unlock(lock, false);
    });
    ASSERT_TRUE(wait_until([&] { return waiting(lock, false) == 1; }));
    rw_unlock(lock, false);
    rw_unlock(lock, false);
    writer.join();
    reader.join();
    EXPECT_EQ(writer_at, 0);
    EXPECT_EQ(reader_at, 1);
    EXPECT_EQ(rw_count(lock), 0);

    // A held writer refuses both try forms.
    rw_lock(lock, true);
    EXPECT_FALSE(rw_try_lock(lock, false));
    EXPECT_FALSE(rw_try_lock(lock, true));
    EXPECT_EQ(waiting(lock, false), 0);
    rw_unlock(lock, true);
    EXPECT_TRUE(rw_try_lock(lock, true));
    rw_unlock(lock, true);
}

TEST_F(RwLockTest, MixedLoadKeepsWritersExclusive)
{
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
}
