// Tag allocation, deletes (double, delayed from element destructors, job tags), record copies,
// and the fatal numbers of bad accesses.
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

// A serializable element whose destructor deletes a further tag, as elements that own other
// elements do.
struct Owner_element {
    Db_tag child;
};

int g_frees;
bool g_child_alive_in_destructor;

void free_owner(void* data)
{
    auto* owner = static_cast<Owner_element*>(data);
    ++g_frees;
    qv_db_delete(owner->child);
    // A queued delete leaves the child's record untouched until the bracket closes.
    g_child_alive_in_destructor = qv_db_peek(owner->child)->state == DB_STATE_NORMAL;
    QV_FREE(owner);
}

TEST_F(DbTableTest, DeletingTwiceReportsErrorThirtyEightOnce)
{
    const Db_tag tag = make_unpinned(0, 32);
    qv_db_delete(tag);
    EXPECT_EQ(count_messages(41038), 0);
    qv_db_delete(tag);
    EXPECT_EQ(count_messages(41038), 1);
    EXPECT_TRUE(has_text("attempt to delete invalid tag 0x400, ignoring"));
    qv_db_delete(0);  // no record ever lives under the null tag
    EXPECT_EQ(count_messages(41038), 2);
    EXPECT_EQ(qv_db_statistics().tags, 0);

    // The slot was given back once only: the next two creates get 0x400 and 0x401.
    EXPECT_EQ(make_unpinned(0, 4), tag);
    EXPECT_EQ(make_unpinned(0, 4), 0x401u);
}

TEST_F(DbTableTest, DestructorDeletesRunAfterTheLockIsLeft)
{
    Db_type_handler handler{};
    handler.free_data = free_owner;
    qv_db_set_type_handler(DB_TYPE_SERIALIZABLE, handler);
    g_frees = 0;
    g_child_alive_in_destructor = false;

    Db_tag child = 0, owner_tag = 0;
    qv_db_create(&child, 0, 16);
    auto* owner = static_cast<Owner_element*>(QV_ALLOC(sizeof(Owner_element)));
    owner->child = child;
    qv_db_create(&owner_tag, DB_TYPE_SERIALIZABLE, sizeof(Owner_element), owner);

    qv_db_delete(owner_tag);
    EXPECT_EQ(g_frees, 1);
    EXPECT_TRUE(g_child_alive_in_destructor) << "the child's delete was queued, not run under the lock";
    EXPECT_EQ(qv_db_peek(child)->state, DB_STATE_FREE);
    EXPECT_EQ(qv_db_peek(owner_tag)->state, DB_STATE_FREE);
    EXPECT_EQ(count_messages(41038), 0);
}

TEST_F(DbTableTest, JobTagStaysWithoutTheJobModulesConsent)
{
    Db_tag job = 0;
    qv_db_create_job_tag(&job, 63, MOD_DBN);
    qv_db_delete(job);
    EXPECT_EQ(qv_db_peek(job)->state, DB_STATE_NORMAL);

    Db_job_hooks hooks{};
    hooks.consent_delete = [](Db_tag) { return 1; };
    qv_db_set_job_hooks(hooks);
    qv_db_delete(job);
    EXPECT_EQ(qv_db_peek(job)->state, DB_STATE_FREE);
}



TEST_F(DbTableTest, DupCopiesTheBytesAndLeavesNothingPinnedAndReallocKeepsThem)
{
    Db_tag source = 0;
    auto* bytes = static_cast<unsigned char*>(qv_db_create(&source, POLYGON, 5));
    for (int i = 0; i < 5; ++i)
        bytes[i] = static_cast<unsigned char>(10 + i);
    qv_db_unpin(source);

    Db_tag copy = qv_db_dup(source);
    ASSERT_NE(copy, source);
    EXPECT_EQ(my_pins(source), 0u);
    EXPECT_EQ(my_pins(copy), 0u);
    Db_record* record = qv_db_peek(copy);
    ASSERT_EQ(record->size, 5u);
    EXPECT_NE(record->data, bytes);
    EXPECT_EQ(std::memcmp(record->data, bytes, 5), 0);

    auto* grown = static_cast<unsigned char*>(qv_db_realloc(copy, 4096));
    EXPECT_EQ(std::memcmp(grown, bytes, 5), 0);
    EXPECT_EQ(qv_db_size(copy), 4096u);
}

}  // namespace
