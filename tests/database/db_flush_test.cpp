// LRU clock and memory pressure: oldest-first walks, the timewarp, eviction, emergency free.
#include "tests/database/db_test_support.h"

namespace {

using DbFlushTest = DbTest;

TEST_F(DbFlushTest, TimewarpKeepsTheOrderAndRestartsTheClock)
{
    qv_db_set_clock(0xFFFFFF00u);
    Db_tag a = make_unpinned(POLYGON, 8);
    qv_db_set_clock(0xFFFFFF80u);
    Db_tag b = make_unpinned(POLYGON, 8);
    qv_db_set_clock(0xFFFFFFFFu);
    Db_tag c = 0;
    qv_db_create(&c, POLYGON, 8);  // this create's clock advance wraps

    EXPECT_TRUE(has_text("LRU timestamps overflowed, running timewarp to make room"));
    EXPECT_EQ(qv_db_clock(), 0x10000000u);
    // a and b were stamped by their unpins, one tick after their creates.
    EXPECT_EQ(qv_db_peek(a)->lru_stamp, 0xFFFFFF01u >> 4);
    EXPECT_EQ(qv_db_peek(b)->lru_stamp, 0xFFFFFF81u >> 4);
    EXPECT_EQ(qv_db_peek(c)->lru_stamp, 0xFFFFFFFFu >> 4);
    qv_db_unpin(c);
    EXPECT_EQ(qv_db_peek(c)->lru_stamp, 0x10000000u) << "the clock stays above all warped stamps";
    EXPECT_EQ(flush_order(), (std::vector<Db_tag>{a, b, c}));

    // A touch after the warp is newer than everything stamped before it.
    qv_db_access(a);
    qv_db_unpin(a);
    EXPECT_EQ(flush_order(), (std::vector<Db_tag>{b, c, a}));
}

struct Evicted {
    int count = 0;
    uint32_t bytes = 0;
};

// A client that drops the data of every record offered, as a memory-manager flush would.
void evict_all(void* user, void*, Db_flush_entry* entries, int count, Db_thread_list* threads)
{
    auto* evicted = static_cast<Evicted*>(user);
    for (int i = 0; i < count; ++i) {
        uint32_t size = 0;
        void* data = qv_db_evict(&size, entries[i].record, threads);
        if (!data)
            continue;
        QV_FREE(data);
        lock_leave(entries[i].record->lock);
        ++evicted->count;
        evicted->bytes += size;
    }
}

TEST_F(DbFlushTest, EvictDropsUnpinnedDataAndKeepsTheTag)
{
    Db_tag dropped = make_unpinned(POLYGON, 100);
    make_unpinned(POLYGON, 50);
    Evicted evicted;
    qv_db_flush_walk(evict_all, &evicted, nullptr);
    EXPECT_EQ(evicted.count, 2);
    EXPECT_EQ(evicted.bytes, 150u);
    EXPECT_EQ(qv_db_peek(dropped)->state, DB_STATE_NORMAL);
    EXPECT_EQ(qv_db_peek(dropped)->data, nullptr);
}

TEST_F(DbFlushTest, EmergencyFreeDropsUnpinnedTrackedPlainData)
{
    Db_tag loose = make_unpinned(POLYGON, 3u << 20);
    Db_tag held = 0;
    qv_db_create(&held, POLYGON, 1u << 20);  // stays pinned by its creator
    Db_tag map = make_unpinned(DB_TYPE_SERIALIZABLE, 8);
    Db_tag box = make_unpinned(8, 8);
    qv_db_emergency_free();
    EXPECT_TRUE(has_text("out of memory emergency shutdown deleted 1 DB tags freeing 3 MBs of memory"));
    EXPECT_EQ(qv_db_peek(loose)->state, DB_STATE_FREE);
    EXPECT_NE(qv_db_peek(held)->data, nullptr);
    EXPECT_NE(qv_db_peek(map)->data, nullptr);
    EXPECT_NE(qv_db_peek(box)->data, nullptr);
    qv_db_unpin(held);
}

}  // namespace
