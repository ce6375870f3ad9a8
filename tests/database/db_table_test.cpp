// Tag allocation: first tags, page and slot hints, and the fatal numbers of bad accesses.
#include "tests/database/db_test_support.h"

namespace {

using DbTableTest = DbTest;

TEST_F(DbTableTest, FirstTagsOfEachKindAndSizeZeroStoresOneByte)
{
    Db_tag job = 0, first = 0;
    {
        Module_scope scope(MOD_MAIN);
        ASSERT_NE(qv_db_create(&first, 0, 0), nullptr);
    }
    EXPECT_EQ(first, 0x400u);
    EXPECT_EQ(qv_db_size(first), 1u);
    EXPECT_EQ(qv_db_peek(first)->module, MOD_MAIN);
    EXPECT_EQ(qv_db_create_job_tag(&job, 63, MOD_DBN), 1);
    EXPECT_EQ(job, 0x40000000u);
    EXPECT_TRUE(qv_db_is_job(job));
    EXPECT_FALSE(qv_db_is_job(first));
    EXPECT_FALSE(qv_db_is_job(0xC0000000u)) << "a tag with bit 31 set is never a job tag";
}

TEST_F(DbTableTest, FullPageMovesOnAndFreedSlotsAreTakenFirst)
{
    std::vector<Db_tag> tags(DB_RECORDS_PER_PAGE + 1);
    for (Db_tag& tag : tags)
        qv_db_create(&tag, 0, 4);
    EXPECT_EQ(tags[1023], 0x7FFu);
    EXPECT_EQ(tags[1024], 0x800u) << "page 1 is full, page 2 starts at slot 0";

    // A freed slot in an earlier page lowers the directory hint, and the slot hint points at it.
    qv_db_delete(0x500);
    EXPECT_EQ(make_unpinned(0, 4), 0x500u);
    EXPECT_EQ(make_unpinned(0, 4), 0x801u);
}

TEST_F(DbTableTest, FatalsCarryTheirNumbers)
{
    const Db_tag tag = make_unpinned(0, 4);
    EXPECT_EXIT(qv_db_access(0), ::testing::ExitedWithCode(1), "N=41008 T=attempt to access null DB tag");
    EXPECT_EXIT(qv_db_access(0x5000), ::testing::ExitedWithCode(1), "N=41052 T=accessing unknown tag 0x5000");
    EXPECT_EXIT(qv_db_access(0x85000010), ::testing::ExitedWithCode(1),
                "N=41061 T=invalid tag value 0x85000010 requested");
    qv_db_release_data(tag);
    EXPECT_EXIT(qv_db_access(tag), ::testing::ExitedWithCode(1), "N=41000 T=accessing unknown tag 0x400");
    Db_tag job = 0;
    qv_db_create_job_tag(&job, 63, MOD_DBN);
    EXPECT_EXIT(qv_db_access(job), ::testing::ExitedWithCode(1), "N=41037 T=database job execution failed");

    // With a live owner the lookup asks the network, and a failed answer is fatal 51.
    Db_remote_hooks remote{};
    remote.host_live = [](uint32_t) { return true; };
    remote.fetch = [](Db_tag, Db_record*, bool, uint32_t) { return 0; };
    qv_db_set_remote_hooks(remote);
    EXPECT_EXIT(qv_db_type(0x85000010), ::testing::ExitedWithCode(1), "N=41051 T=database network access failed");
}

}  // namespace
