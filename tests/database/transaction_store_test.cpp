// Storing, replacing, naming and removing elements through the transaction, and the module an
// element is charged to.
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"
#include "tests/database/transaction_test_elements.h"

using namespace QV::DB;
using namespace transaction_test;

namespace {

using TransactionStoreTest = TransactionTest;

void* as_data(Element_base* element) { return element; }

TEST_F(TransactionStoreTest, StoreOverDeletesTheOldDataAndTakesTheNewElement)
{
    Db_tag tag = 0;
    transaction_->store(&tag, new Counted(1), "first");
    auto* replacement = new Counted(2);
    transaction_->store_over(tag, replacement, "second");
    EXPECT_EQ(Counted::destroyed, 1);
    EXPECT_EQ(qv_db_access(tag), as_data(replacement));

    // Storing the element that is already there must not delete it.
    transaction_->store_over(tag, replacement, nullptr);
    EXPECT_EQ(Counted::destroyed, 1);

    // Over plain bytes: the bytes are freed and the tag becomes an element.
    Db_tag plain = 0;
    qv_db_create(&plain, 5, 64);
    transaction_->store_over(plain, new Counted(3), nullptr);
    EXPECT_EQ(transaction_->get_class_id(plain), Counted::CLASS_ID);
    transaction_->remove(tag);
    transaction_->remove(plain);
    EXPECT_EQ(Counted::destroyed, 3);

    // The record size, which the memory limits count, is what the element reports.
    Db_tag large = 0;
    auto* sized = new Sized();
    sized->storage_bytes = 123456;
    transaction_->store(&large, sized);
    EXPECT_EQ(qv_db_peek(large)->size, 123456u);
    transaction_->remove(large);
}

TEST_F(TransactionStoreTest, ElementBehindAnotherBaseIsStoredAndDeletedByItsElementAddress)
{
    auto* element = new Two_bases();
    ASSERT_NE(as_data(element), static_cast<void*>(element));
    Db_tag tag = 0;
    transaction_->store(&tag, element);
    EXPECT_EQ(Access_handle(tag, Two_bases::CLASS_ID).element(), static_cast<Element_base*>(element));
    transaction_->remove(tag);   // ASan catches a delete through the wrong address
}

TEST_F(TransactionStoreTest, CreatedTagsFollowStoreAndRemove)
{
    Created_tags* list = created_tags();
    ASSERT_NE(list, nullptr);
    // Tags other tests left on this thread's list are set aside, so that the thread-end
    // removal below touches only this test's tags.
    std::vector<Db_tag> others(list->tags, list->tags + list->count);
    list->count = 0;
    Db_tag a = 0, b = 0, c = 0;
    for (Db_tag* tag : {&a, &b, &c})
        transaction_->store(tag, new Counted());
    EXPECT_EQ(std::vector<Db_tag>(list->tags, list->tags + list->count), (std::vector<Db_tag>{a, b, c}));
    transaction_->remove(b);
    EXPECT_EQ(std::vector<Db_tag>(list->tags, list->tags + list->count), (std::vector<Db_tag>{a, c}));
    EXPECT_EQ(created_tags_take_last(), c);

    // The end of a thread context removes what is still listed; c was taken off, so it stays.
    created_tags_remove_all();
    EXPECT_EQ(Counted::destroyed, 2);
    EXPECT_EQ(transaction_->get_class_id(c), Counted::CLASS_ID);
    transaction_->remove(c);
    for (Db_tag tag : others)
        created_tags_append(tag);
}

TEST_F(TransactionStoreTest, JobRowsGoThroughTheJobModulesSupport)
{
    Transaction_job_support saved = transaction_job_support();
    // Without support no tag is made.
    transaction_set_job_support(Transaction_job_support{});
    Db_tag tag = 5;
    EXPECT_EQ(transaction_->store_dummy(&tag, false), 0u);
    EXPECT_EQ(tag, 0u);

    // A dummy that is not a job is stored directly, with no job tag; only job tags are scheduled.
    static std::vector<Db_tag> scheduled;
    scheduled.clear();
    Transaction_job_support support{};
    support.make_dummy_tag = []() -> Element_base* { return new Counted(-1); };
    support.schedule = [](const Db_tag* tags, int count) { scheduled.assign(tags, tags + count); };
    transaction_set_job_support(support);
    transaction_->store_dummy(&tag, false);
    EXPECT_FALSE(qv_db_is_job(tag));
    EXPECT_EQ(transaction_->get_class_id(tag), Counted::CLASS_ID);
    transaction_->schedule(tag);
    EXPECT_TRUE(scheduled.empty());
    transaction_->schedule(0x40000123);
    EXPECT_EQ(scheduled, std::vector<Db_tag>{0x40000123});
    transaction_->remove(tag);
    transaction_set_job_support(saved);
}

TEST_F(TransactionStoreTest, HeapElementEntersTheDatabaseOnlyWhenStored)
{
    static int released = 0;
    released = 0;
    { Element_dbhandle handle(new Counted(1)); }
    EXPECT_EQ(Counted::destroyed, 1);   // never stored: the handle deleted it

    auto* element = new Counted(2);
    Db_tag tag = 0;
    {
        Element_dbhandle handle(element, [](Element_base*) { ++released; });
        tag = handle.store();
        ASSERT_NE(tag, 0u);
        EXPECT_EQ(handle.store(), tag);   // a second store gives the same tag
    }
    EXPECT_EQ(released, 1);
    EXPECT_EQ(Counted::destroyed, 1);   // stored: it stays under its tag
    EXPECT_EQ(Element_dbhandle(tag, Counted::CLASS_ID, false).get(), element);
    transaction_->remove(tag);
}

TEST(ElementBaseTest, ElementsAreChargedToTheModuleCurrentAtAllocation)
{
    qv_test_init();
    mem_init();  // before MEM starts, every allocation is charged to module 0
    uint64_t before = mem_module_bytes(MOD_RCGI);
    Element_base* element;
    {
        Module_scope scope(MOD_RCGI);
        element = new Counted();
    }
    EXPECT_GE(mem_module_bytes(MOD_RCGI), before + sizeof(Counted));
    delete element;
    EXPECT_EQ(mem_module_bytes(MOD_RCGI), before);
}

TEST_F(TransactionStoreTest, NamesFollowStoreRenameAndRemove)
{
    auto store_named = [&](const char* name) {
        Db_tag tag = 0;
        transaction_->store(&tag, new Counted(), name);
        return tag;
    };
    auto lookup = [&](const char* name) {
        Db_tag tag = 77;
        EXPECT_EQ(transaction_->name_to_tag(&tag, name), tag);
        return tag;
    };
    EXPECT_EQ(lookup("names.never-given"), 0u);
    EXPECT_EQ(lookup(""), 0u);
    EXPECT_EQ(lookup(nullptr), 0u);
    EXPECT_EQ(transaction_->tag_to_name(store_named("")), nullptr);

    // A renamed tag stays findable under its older name; removal drops the current name only.
    Db_tag renamed = store_named("names.old");
    transaction_->store_over(renamed, new Counted(), "names.new");
    EXPECT_STREQ(transaction_->tag_to_name(renamed), "names.new");
    EXPECT_EQ(lookup("names.new"), renamed);
    EXPECT_EQ(lookup("names.old"), renamed);
    transaction_->remove(renamed);
    EXPECT_EQ(lookup("names.new"), 0u);
    EXPECT_EQ(lookup("names.old"), renamed);
    EXPECT_EQ(transaction_->tag_to_name(renamed), nullptr);

    // A name given again moves to the new tag; removing the first tag erases the entry anyway.
    Db_tag first = store_named("names.shared");
    Db_tag second = store_named("names.shared");
    EXPECT_EQ(lookup("names.shared"), second);
    EXPECT_STREQ(transaction_->tag_to_name(first), "names.shared");
    transaction_->remove(first);
    EXPECT_EQ(lookup("names.shared"), 0u);
    EXPECT_STREQ(transaction_->tag_to_name(second), "names.shared");
}

}  // namespace
