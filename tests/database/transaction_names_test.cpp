// Tag names: both maps, the shared answer string, and the stale-name rule.
#include "tests/database/transaction_test_elements.h"

using namespace QV::DB;
using namespace transaction_test;

namespace {

class TransactionNamesTest : public TransactionTest {
protected:
    Db_tag store_named(const char* name)
    {
        Db_tag tag = 0;
        transaction_->store(&tag, new Counted(), name);
        return tag;
    }

    Db_tag lookup(const char* name)
    {
        Db_tag tag = 77;
        Db_tag result = transaction_->name_to_tag(&tag, name);
        EXPECT_EQ(result, tag);
        return tag;
    }
};

TEST_F(TransactionNamesTest, UnknownNullAndEmptyNamesGiveTagZeroAndAreNeverRegistered)
{
    Db_tag tag = store_named("names.known");
    EXPECT_EQ(lookup("names.known"), tag);
    EXPECT_EQ(lookup("names.never-given"), 0u);
    EXPECT_EQ(lookup(""), 0u);
    EXPECT_EQ(lookup(nullptr), 0u);
    Db_tag unnamed = store_named("");
    EXPECT_EQ(transaction_->tag_to_name(unnamed), nullptr);
    transaction_->remove(tag);
    transaction_->remove(unnamed);
}

TEST_F(TransactionNamesTest, RenamedTagStaysFindableUnderItsOlderName)
{
    Db_tag tag = store_named("names.old");
    auto* replacement = new Counted();
    transaction_->store_over(tag, replacement, "names.new");
    EXPECT_STREQ(transaction_->tag_to_name(tag), "names.new");
    EXPECT_EQ(lookup("names.new"), tag);
    EXPECT_EQ(lookup("names.old"), tag);

    // Removal drops the current name only; the older entry remains as it was.
    transaction_->remove(tag);
    EXPECT_EQ(lookup("names.new"), 0u);
    EXPECT_EQ(lookup("names.old"), tag);
    EXPECT_EQ(transaction_->tag_to_name(tag), nullptr);
}

TEST_F(TransactionNamesTest, NameGivenToAnotherTagMovesToIt)
{
    Db_tag first = store_named("names.shared");
    Db_tag second = store_named("names.shared");
    EXPECT_EQ(lookup("names.shared"), second);
    // The first tag still reports the name it was given.
    EXPECT_STREQ(transaction_->tag_to_name(first), "names.shared");

    // Removing the first tag erases the name entry, whoever it points at now.
    transaction_->remove(first);
    EXPECT_EQ(lookup("names.shared"), 0u);
    EXPECT_STREQ(transaction_->tag_to_name(second), "names.shared");
    transaction_->remove(second);
}

}  // namespace
