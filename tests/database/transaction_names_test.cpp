// Tag names: both maps and the stale-name rule.
#include "tests/database/transaction_test_elements.h"

using namespace QV::DB;
using namespace transaction_test;

namespace {

using TransactionNamesTest = TransactionTest;

TEST_F(TransactionNamesTest, NamesFollowStoreRenameAndRemove)
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
