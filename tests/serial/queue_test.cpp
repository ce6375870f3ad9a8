// The in-memory medium: block edges, deferred entries, and an element cut into pieces on one
// side and rebuilt on the other.
#include <cstring>
#include <memory>
#include <numeric>
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
    std::iota(source.begin(), source.end(), uint8_t(0));
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

// ---- Sending an element piece by piece ----------------------------------------------------

class Cargo : public Element<Cargo, qv_class_id("=CRG")> {
public:
    std::vector<float> points;
    std::string name;

    const void* serialize(Serializer* out) const override
    {
        out->write(name);
        out->write_size(points.size());
        out->write(points.data(), points.size() * sizeof(float));
        return this + 1;
    }
    void* deserialize(Deserializer* in) override
    {
        in->read(&name);
        size_t count = 0;
        in->read_size(&count);
        points.resize(in->is_valid() ? count : 0);
        in->read(points.data(), points.size() * sizeof(float));
        return this + 1;
    }
};

class TransferTest : public testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        // The host layer is not started here: this process is made the master.
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        if (!qv_db_started())
            qv_db_init();
        serial_manager()->register_class(Cargo::CLASS_ID, QV::DB::construct_element<Cargo>);
    }
};

TEST_F(TransferTest, PiecesOfAStoredElementRebuildIt)
{
    auto* cargo = new Cargo();
    cargo->name = "a map on its way to another host";
    cargo->references = {0x400, 0x401};
    for (int i = 0; i < 700; ++i)
        cargo->points.push_back(i * 0.25f);
    Db_tag tag = 0;
    QV::DB::get_transaction()->store(&tag, cargo, nullptr);

    // The network sends 1,364-byte pieces; a second send of the same tag joins the cached
    // serializer and stays open until its own last piece.
    std::vector<uint8_t> sent, piece(1364), other(16);
    bool last = false, other_last = false;
    Db_record arriving{};
    while (!last) {
        size_t got = QV::DB::serial_send_piece(tag, piece.data(), sent.size(), piece.size(), &last);
        if (sent.empty()) {
            EXPECT_EQ(QV::DB::serial_send_piece(tag, other.data(), 0, other.size(), &other_last), 16u);
            EXPECT_EQ(std::memcmp(other.data(), piece.data(), 16), 0);
        }
        QV::DB::serial_receive_piece(&arriving, piece.data(), sent.size(), got, last);
        sent.insert(sent.end(), piece.begin(), piece.begin() + got);
    }
    // id, references, string, size, points
    EXPECT_EQ(sent.size(), 4u + 4 + 8 + (4 + cargo->name.size()) + 8 + 700 * 4);
    EXPECT_EQ(QV::DB::serial_sends_in_progress(), 1u);
    std::vector<uint8_t> rest(sent.size());
    EXPECT_FALSE(other_last);
    EXPECT_EQ(QV::DB::serial_send_piece(tag, rest.data(), 16, rest.size(), &other_last), sent.size() - 16);
    EXPECT_TRUE(other_last);
    EXPECT_EQ(QV::DB::serial_sends_in_progress(), 0u);

    std::unique_ptr<QV::DB::Element_base> rebuilt(static_cast<QV::DB::Element_base*>(arriving.data));
    auto* copy = dynamic_cast<Cargo*>(rebuilt.get());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->name, cargo->name);
    EXPECT_EQ(copy->points, cargo->points);
    EXPECT_EQ(copy->references, cargo->references);
    QV::DB::get_transaction()->remove(tag);
}

TEST_F(TransferTest, APieceWithOffsetZeroStartsTheQueueAfresh)
{
    Cargo cargo;
    cargo.name = "x";
    Db_serializer out;
    out.serialize(&cargo);
    std::vector<uint8_t> bytes(out.queue().size());
    out.queue().copy_out(0, bytes.data(), bytes.size());

    Db_record arriving{};
    // A broken first attempt, then the whole form again from offset 0.
    QV::DB::serial_receive_piece(&arriving, "garbage", 0, 7, false);
    QV::DB::serial_receive_piece(&arriving, bytes.data(), 0, 5, false);
    QV::DB::serial_receive_piece(&arriving, bytes.data() + 5, 5, bytes.size() - 5, true);
    auto* copy = dynamic_cast<Cargo*>(static_cast<QV::DB::Element_base*>(arriving.data));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->name, "x");
    delete copy;
}

}  // namespace
