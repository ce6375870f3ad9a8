// Deletes: double deletes, delayed deletes from element destructors, attached data, job tags.
#include "tests/database/db_test_support.h"

namespace {

using DbDeleteTest = DbTest;

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

TEST_F(DbDeleteTest, DeletingTwiceReportsErrorThirtyEightOnce)
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

TEST_F(DbDeleteTest, DestructorDeletesRunAfterTheLockIsLeft)
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

TEST_F(DbDeleteTest, JobTagStaysWithoutTheJobModulesConsent)
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

}  // namespace
