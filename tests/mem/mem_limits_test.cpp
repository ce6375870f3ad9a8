// Heap limits (set, from the registry), the flush protocol with the database as a client, and
// the failure step.
#include <vector>

#include "database/db.h"
#include "runtime/registry.h"
#include "tests/mem/mem_fixture.h"

namespace {

constexpr uint64_t MB = uint64_t(1) << 20;
constexpr int64_t WORDS_PER_MB = int64_t(1) << 17;

// Stands the process total at `mb` MB for the life of the object.
class Total_at {
public:
    explicit Total_at(int64_t mb)
    {
        delta_ = mb * WORDS_PER_MB - int64_t(mem_current_bytes() / 8);
        mem_testing_adjust_total(delta_);
    }
    ~Total_at() { mem_testing_adjust_total(-delta_); }

private:
    int64_t delta_;
};

std::vector<int> g_called;
int64_t g_free_words_on_call[MODULE_TABLE_ROWS];

template <int Id>
size_t flush_of(size_t)
{
    g_called.push_back(Id);
    mem_testing_adjust_total(-g_free_words_on_call[Id]);
    return size_t(g_free_words_on_call[Id] * 8);
}

using Limits_test = Mem_test;

TEST_F(Limits_test, SettingRespectsPriorityKeepsLowAtThreeQuartersAndReadsTheRegistry)
{
    EXPECT_EQ(mem_set_heap_limit(400 * MB, 5), 0u);
    EXPECT_EQ(mem_heap_low_bytes(), 300 * MB);
    EXPECT_EQ(mem_set_heap_limit(100 * MB, 4), 0u);  // lower priority: refused
    EXPECT_EQ(mem_set_heap_limit(0, 6), 400 * MB);
    EXPECT_EQ(mem_heap_limit_bytes() + mem_heap_low_bytes(), 0u);

    // Without a registry entry the limit is the free memory (which moves a little), at priority 1.
    mem_testing_reset_limits();
    mem_set_limit_from_registry(5);
    EXPECT_NEAR(double(mem_heap_limit_bytes()), double(mem_physical(2)), double(64 * MB));
    EXPECT_EQ(mem_set_heap_limit(100 * MB, 0), 0u);
    EXPECT_NE(mem_set_heap_limit(100 * MB, 1), 0u);

    // The entry "{_QV_REG_MEMORY_LIMIT}" holds a value in MB, set at the caller's priority; a
    // negative one clears the limit.
    const bool started = registry_started();
    if (!started)
        registry_init();
    struct Case {
        const char* value;
        uint64_t limit_bytes;
        const char* warning;  // or null
    } cases[] = {{"300", 300 * MB, nullptr}, {"0", 0, nullptr}, {"-5", 0, "_QV_REG_MEMORY_LIMIT: -5 is not a valid memory limit"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        mem_testing_reset_limits();
        mem_set_heap_limit(123 * MB, 0);
        ASSERT_EQ(registry_begin("{_QV_REG_MEMORY_LIMIT}"), 1);
        ASSERT_TRUE(registry_add("{_QV_REG_MEMORY_LIMIT}", "value", c.value));
        Line_capture capture;
        mem_set_limit_from_registry(4);
        if (c.limit_bytes)
            mem_set_heap_limit(77 * MB, 3);
        EXPECT_EQ(mem_heap_limit_bytes(), c.limit_bytes);
        EXPECT_EQ(capture.count_text(c.warning ? c.warning : "no such line"), c.warning ? 1 : 0);
    }
    // Later tests see the registry as they would have without this one.
    if (started)
        registry_begin("{_QV_REG_MEMORY_LIMIT}");
    else
        registry_exit();
    mem_testing_reset_limits();
}

TEST_F(Limits_test, FlushVisitsModulesInOrderWithJobLastAndStopsAtTheTarget)
{
    const int ids[] = {MOD_PHEN, MOD_GAPDI, MOD_JOB, MOD_IBL};
    size_t (*const flushes[])(size_t) = {flush_of<MOD_PHEN>, flush_of<MOD_GAPDI>, flush_of<MOD_JOB>, flush_of<MOD_IBL>};
    for (int i = 0; i < 4; ++i)
        mem_register_flush(ids[i], flushes[i]);
    Total_at total(500);
    // Nobody frees enough: every module is asked, JOB after the highest id.
    mem_flush_to(uint64_t(400 * WORDS_PER_MB));
    EXPECT_EQ(g_called, (std::vector<int>{MOD_PHEN, MOD_GAPDI, MOD_IBL, MOD_JOB}));

    // The first module reaches the target: no other module is asked.
    g_called.clear();
    g_free_words_on_call[MOD_PHEN] = 150 * WORDS_PER_MB;
    Line_capture capture;
    uint64_t freed = mem_flush_to(uint64_t(400 * WORDS_PER_MB));
    mem_testing_adjust_total(150 * WORDS_PER_MB);
    EXPECT_EQ(g_called, std::vector<int>{MOD_PHEN});
    EXPECT_EQ(freed, uint64_t(150 * WORDS_PER_MB));
    bool reported = false;
    for (const Captured_line& line : capture.lines())
        reported = reported || line.text.rfind("scene cache flushed 150 MB in ", 0) == 0;
    EXPECT_TRUE(reported);

    // At or below the target nothing is asked.
    g_called.clear();
    EXPECT_EQ(mem_flush_to(uint64_t(600 * WORDS_PER_MB)), 0u);
    EXPECT_TRUE(g_called.empty());

    // An allocation over the limit flushes down to the low mark (here 300 of 500 MB).
    g_free_words_on_call[MOD_PHEN] = 200 * WORDS_PER_MB;
    mem_set_heap_limit(400 * MB, 6);
    void* p = mem_alloc("t", 1, 20000);
    EXPECT_EQ(g_called, std::vector<int>{MOD_PHEN});
    mem_testing_adjust_total(200 * WORDS_PER_MB);
    mem_free("t", 1, p);
    for (int id : ids)
        mem_register_flush(id, nullptr);
    g_called.clear();
    g_free_words_on_call[MOD_PHEN] = 0;
}

TEST_F(Limits_test, FailedAllocationAtThreeHundredTwentyLowersTheLimitOnceWithOneHint)
{
    mem_set_heap_limit(300 * MB, 6);
    Total_at total(320);
    Line_capture capture;
    fail_heap_calls(1);
    void* p = mem_alloc("here.cpp", 12, 100000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(mem_heap_limit_bytes(), 200 * MB);
    EXPECT_EQ(mem_heap_low_bytes(), 150 * MB);
    EXPECT_EQ(capture.count_text("allocation of 100000 bytes in here.cpp line 12 failed: flushing"), 1);

    // A second failure, two attempts long: the same limit, and no second hint.
    fail_heap_calls(2);
    void* q = mem_alloc(nullptr, 0, 100000);
    EXPECT_EQ(mem_heap_limit_bytes(), 200 * MB);
    EXPECT_EQ(mem_heap_low_bytes(), 150 * MB);  // lowered in attempt 2, restored after
    EXPECT_EQ(capture.count_text("try '-memory 200' for future runs"), 1);
    EXPECT_EQ(capture.count_text("allocation of 100000 bytes failed: flushing"), 2);
    mem_free("t", 1, p);
    mem_free("t", 1, q);
}

TEST_F(Limits_test, TenFailedAttemptsEndInTheFatalOfMem)
{
    static int oom_calls;
    oom_calls = 0;
    mem_set_oom_callback([](size_t) { ++oom_calls; });
    Line_capture capture;
    fail_heap_calls(1000);
    EXPECT_THROW(mem_alloc("t", 1, 123456), Fatal_called);
    fail_heap_calls(0);
    mem_set_oom_callback(nullptr);
    EXPECT_EQ(oom_calls, 6);  // attempts 5 to 10
    EXPECT_EQ(capture.count_text("================ memory error post-mortem ================"), 1);
    EXPECT_EQ(capture.count_text("allocation of 123456 bytes in t line 1 failed: flushing"), 9);
    const Captured_line& last = capture.lines().back();
    EXPECT_EQ(last.level, MSG_FATAL);
    EXPECT_EQ(last.text, "can't allocate 123456 bytes.");
    EXPECT_EQ(last.line.rfind("MEM ", 0), 0u) << last.line;
}

// The database's flush callback takes its oldest unpinned data, and only as much as asked.
TEST_F(Limits_test, DatabaseFlushEvictsUnpinnedDataUntilTheTargetIsReached)
{
    // In a fresh child: the database is started for this case only, and no cache or buffer
    // left by an earlier case in this process answers the flush before the database does.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            msg_set_host_number(0);
            thread_context()->host_number = 0;
            qv_db_init();
            const int type = 14;
            bool ok = qv_db_type_tracked(type);
            Db_tag tags[8];
            for (Db_tag& tag : tags) {
                qv_db_create(&tag, type, 1 << 20);
                qv_db_unpin(tag);
            }
            // One of them stays pinned: it must survive whatever is asked.
            Db_tag pinned = tags[0];
            qv_db_access(pinned);
            uint64_t before = mem_current_bytes() / 8;
            uint64_t freed = mem_flush_to(before - (uint64_t(3) << 17));
            ok = ok && freed >= (uint64_t(3) << 17) && freed < (uint64_t(5) << 17);
            uint64_t all = mem_flush_to(0);
            ok = ok && freed + all < (uint64_t(8) << 17) && freed + all >= (uint64_t(7) << 17);
            _exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
