// Record edits: copies leave no pins behind, aliases share data, released data keeps the tag.
#include "tests/database/db_test_support.h"

namespace {

using DbRecordsTest = DbTest;

TEST_F(DbRecordsTest, DupCopiesTheBytesAndLeavesNothingPinned)
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
}

TEST_F(DbRecordsTest, ReallocKeepsTheBytesAndReplaceSwapsTheBlock)
{
    Db_tag tag = 0;
    auto* bytes = static_cast<char*>(qv_db_create(&tag, 0, 4));
    std::memcpy(bytes, "abc", 4);
    auto* grown = static_cast<char*>(qv_db_realloc(tag, 4096));
    EXPECT_STREQ(grown, "abc");
    EXPECT_EQ(qv_db_size(tag), 4096u);

    void* fresh = QV_ALLOC(8);
    EXPECT_EQ(qv_db_replace(tag, 0, fresh), fresh);
    EXPECT_EQ(qv_db_peek(tag)->size, 1u) << "size 0 becomes 1";
    EXPECT_EQ(qv_db_access(tag), fresh);
}

TEST_F(DbRecordsTest, ReleasedDataKeepsTheTagAndAttachedDataBecomesOwnedAgain)
{
    Db_tag tag = 0;
    void* data = qv_db_create(&tag, 0, 16);
    const Db_tag alias = make_unpinned(0, 1);
    QV_FREE(qv_db_access(alias));
    qv_db_alias(alias, tag);
    EXPECT_EQ(qv_db_access(alias), data);
    EXPECT_EQ(qv_db_peek(alias)->size, 16u);
    qv_db_forget(alias);  // the block must not be freed twice

    qv_db_release_data(tag);
    Db_record* record = qv_db_peek(tag);
    EXPECT_EQ(record->state, DB_STATE_NORMAL);
    EXPECT_EQ(record->data, nullptr);

    char buffer[8];
    qv_db_attach(tag, buffer, sizeof buffer);
    EXPECT_EQ(record->state, DB_STATE_ATTACHED);
    qv_db_release_data(tag);  // plain attached data stays the caller's
    EXPECT_EQ(record->state, DB_STATE_NORMAL);
    EXPECT_EQ(record->data, nullptr);
}

}  // namespace
