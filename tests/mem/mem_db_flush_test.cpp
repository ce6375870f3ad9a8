// The database's flush callback: a flush takes its oldest unpinned data, and only as much as asked.
#include "database/db.h"
#include "runtime/msg.h"
#include "tests/mem/mem_fixture.h"

namespace {

using Db_flush_test = Mem_test;

TEST_F(Db_flush_test, FlushEvictsUnpinnedDataUntilTheTargetIsReached)
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
