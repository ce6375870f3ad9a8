// The in-memory medium: block edges and deferred entries.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "database/element.h"
#include "database/transaction.h"
#include "runtime/msg.h"
#include "serial/element_transfer.h"
#include "tests/serial/media_fixture.h"

using namespace QV::SERIAL;
using QV::DB::Db_deserializer;
using QV::DB::Db_serializer;
using QV::DB::Element;

namespace {

TEST(ByteQueueTest, BytesSurviveBlockEdgesInAnyPieceSizes)
{
    qv_test_init();
    std::vector<uint8_t> source(1000);
    // A period prime to the 256-byte blocks, so that a byte taken from the wrong block differs.
    for (size_t i = 0; i < source.size(); ++i)
        source[i] = uint8_t(i % 251);
    Byte_queue queue;
    size_t at = 0;
    for (size_t piece : {1u, 255u, 3u, 257u, 0u, 484u}) {
        queue.append(source.data() + at, piece);
        at += piece;
    }
    ASSERT_EQ(queue.size(), 1000u);

    std::vector<uint8_t> back(1000, 0xEE);
    // Read spans that start and end on both sides of the 256-byte edges.
    for (size_t offset : {0u, 255u, 256u, 511u, 700u}) {
        size_t got = queue.copy_out(offset, back.data(), 300);
        EXPECT_EQ(got, std::min<size_t>(300, 1000 - offset));
        EXPECT_EQ(std::memcmp(back.data(), source.data() + offset, got), 0) << offset;
    }
    EXPECT_EQ(queue.copy_out(1000, back.data(), 1), 0u);
    EXPECT_EQ(queue.copy_out(5000, back.data(), 1), 0u);
}

TEST(DbSerializerTest, DeferredEntriesExpandInOrderOnlyWhenReached)
{
    qv_test_init();
    static const char late[] = "LATE-BYTES";
    Db_serializer out;
    out.write(uint32_t(0xA1A2A3A4));
    out.write_deferred(reinterpret_cast<uintptr_t>(late), 10, DEFERRED_BYTES);
    out.write_deferred(uint64_t(1), uint64_t(2), 77);   // a kind nobody expands: no bytes
    out.write_deferred(reinterpret_cast<uintptr_t>(late), 4, DEFERRED_BYTES);
    EXPECT_EQ(out.queue().size(), 4u);
    EXPECT_EQ(out.pending_deferred(), 3u);

    // The first 4 bytes are there already: nothing expands, and more remains.
    char buffer[32] = {};
    bool last = true;
    EXPECT_EQ(out.read_piece(buffer, 0, 4, &last), 4u);
    EXPECT_FALSE(last);
    EXPECT_EQ(out.pending_deferred(), 3u);

    // Asking past the queue expands what is needed, in arrival order.
    EXPECT_EQ(out.read_piece(buffer, 4, 12, &last), 12u);
    EXPECT_EQ(std::string(buffer, 12), "LATE-BYTESLA");
    EXPECT_FALSE(last);
    EXPECT_EQ(out.read_piece(buffer, 16, 100, &last), 2u);
    EXPECT_EQ(std::string(buffer, 2), "TE");
    EXPECT_TRUE(last);
    EXPECT_EQ(out.queue().size(), 18u);
}

}  // namespace
