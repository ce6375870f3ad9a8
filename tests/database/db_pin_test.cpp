// Pins: per-thread accounting, the job parent chain, untracked elements, shared pin slots.
#include <barrier>
#include <thread>

#include "runtime/threads.h"
#include "tests/database/db_test_support.h"

namespace {

using DbPinTest = DbTest;

TEST_F(DbPinTest, TrackedElementStaysPinnedByItsCreatorUntilUnpinned)
{
    Db_tag tag = 0;
    qv_db_create(&tag, POLYGON, 16);
    EXPECT_EQ(my_pins(tag), 1u);
    EXPECT_FALSE(offered(tag));
    qv_db_access(tag);
    qv_db_unpin(tag);
    EXPECT_FALSE(offered(tag));
    qv_db_unpin(tag);
    EXPECT_TRUE(offered(tag));

    // A null tag is an error, and no pin of anything.
    qv_db_unpin(0);
    EXPECT_EQ(count_messages(41012), 1);
    EXPECT_TRUE(has_text("attempt to unpin null tag"));
}

TEST_F(DbPinTest, ElementMadeInsideAJobPinsTheJobChain)
{
    Db_tag job = 0;
    qv_db_create_job_tag(&job, 63, MOD_DBN);
    EXPECT_EQ(my_pins(job), 0u) << "the job tag's creation pin is released";

    Db_record* previous = qv_db_set_current_job(job);
    Db_tag child = 0;
    qv_db_create(&child, POLYGON, 16);
    qv_db_restore_current_job(previous);

    EXPECT_EQ(qv_db_peek(child)->parent, qv_db_peek(job));
    EXPECT_EQ(my_pins(child), 1u);
    EXPECT_EQ(my_pins(job), 1u);
    qv_db_unpin(child);
    EXPECT_EQ(my_pins(child), 0u);
    EXPECT_EQ(my_pins(job), 0u);
}

TEST_F(DbPinTest, PinsAreCountedPerThreadAndSummedByTheFlush)
{
    Db_tag tag = make_unpinned(POLYGON, 16);
    uint16_t pidx = qv_db_peek(tag)->pidx;

    // Each arrival at the barrier is one step both threads take together.
    std::barrier step(2);
    uint32_t foreign_pins = 0;
    std::thread foreign([&] {
        EXPECT_GE(thread_init_current(), 0);
        qv_db_access(tag);
        foreign_pins = thread_context()->db_pins[pidx];
        step.arrive_and_wait();
        step.arrive_and_wait();
        qv_db_unpin(tag);
        step.arrive_and_wait();
        step.arrive_and_wait();
        // Ends with a pin held: the pin outlives the thread.
        qv_db_access(tag);
        thread_end_current();
    });

    step.arrive_and_wait();
    EXPECT_EQ(foreign_pins, 1u);
    EXPECT_EQ(my_pins(tag), 0u) << "the foreign pin is not in this thread's array";
    EXPECT_FALSE(offered(tag));
    step.arrive_and_wait();
    step.arrive_and_wait();
    EXPECT_TRUE(offered(tag));
    step.arrive_and_wait();
    foreign.join();
    EXPECT_FALSE(offered(tag)) << "an ended thread's pins still count";
}

TEST_F(DbPinTest, SharedPinSlotMakesTheFlushSkipBoth)
{
    Db_tag first = make_unpinned(POLYGON, 16), second = make_unpinned(POLYGON, 16);
    qv_db_peek(second)->pidx = qv_db_peek(first)->pidx;
    qv_db_access(first);
    EXPECT_FALSE(offered(first));
    EXPECT_FALSE(offered(second));
    qv_db_unpin(first);
    EXPECT_EQ(flush_order(), (std::vector<Db_tag>{second, first}));
}

}  // namespace
