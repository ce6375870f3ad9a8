// Record edits: copies leave no pins behind, a grown record keeps its bytes.
#include "tests/database/db_test_support.h"

namespace {

using DbRecordsTest = DbTest;

TEST_F(DbRecordsTest, DupCopiesTheBytesAndLeavesNothingPinnedAndReallocKeepsThem)
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
