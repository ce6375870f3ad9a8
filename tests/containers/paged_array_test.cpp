#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "containers/paged_array.h"
#include "containers/swap_layout.h"
#include "serial/deserialization_manager.h"
#include "serial/media_queue.h"
#include "tests/test_support.h"

using QV::LIB::Paged_array;

namespace {

// 12 bytes with the layout "i1cs3c": a word, two bytes, a half word, four bytes of padding.
struct Record {
    uint32_t word;
    uint8_t bytes[2];
    uint16_t half;
    uint8_t pad[4];
};
static_assert(sizeof(Record) == 12 && offsetof(Record, half) == 6);
constexpr const char* RECORD_LAYOUT = "i1cs3c";

Record make_record(uint32_t i)
{
    Record r{};
    r.word = 0x01020300u + i;
    r.bytes[0] = uint8_t(i);
    r.bytes[1] = 0xAA;
    r.half = uint16_t(0x1100 + i);
    return r;
}

void fill(Paged_array& array, uint32_t count)
{
    array.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        const Record r = make_record(i);
        std::memcpy(array.at(i), &r, sizeof r);
    }
}

// Media that talk to a host of the other byte order.
class Foreign_serializer : public QV::DB::Db_serializer, public QV::LIB::Byte_order_medium {
public:
    bool other_byte_order() const override { return true; }
};

class Foreign_deserializer : public QV::DB::Db_deserializer, public QV::LIB::Byte_order_medium {
public:
    using Db_deserializer::Db_deserializer;
    bool other_byte_order() const override { return true; }
};

void expect_same_records(const Paged_array& got, const Paged_array& expected, uint32_t count)
{
    ASSERT_GE(got.count(), count);
    for (uint32_t i = 0; i < count; ++i)
        ASSERT_EQ(std::memcmp(got.at(i), expected.at(i), sizeof(Record)), 0) << "record " << i;
}

std::unique_ptr<Paged_array> read_back(QV::SERIAL::Deserializer& in)
{
    auto* array = dynamic_cast<Paged_array*>(in.deserialize());
    EXPECT_NE(array, nullptr);
    return std::unique_ptr<Paged_array>(array);
}

class PagedArrayTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        QV::SERIAL::serial_manager()->register_class(QV::LIB::PAGED_ARRAY_CLASS_ID,
                                                     &QV::DB::construct_element<Paged_array>);
    }
};

}  // namespace

TEST_F(PagedArrayTest, ForeignByteOrderSwapsCopiesOnTheWireAndBackOnReadingAndACutKeepsWholeRecords)
{
    const uint32_t extra[2] = {0x11223344u, 0x55667788u};
    Paged_array array(sizeof(Record), RECORD_LAYOUT, extra, sizeof extra, "1i");
    fill(array, 260);
    array.references.push_back(0x400);

    Foreign_serializer out;
    out.serialize(&array);
    // The array itself is untouched by writing.
    const Record original = make_record(259);
    EXPECT_EQ(std::memcmp(array.at(259), &original, sizeof original), 0);

    // On the wire the last record is in the other byte order, padding left alone.
    const size_t size = out.queue().size();
    Record wire;
    ASSERT_EQ(out.queue().copy_out(size - sizeof wire, &wire, sizeof wire), sizeof wire);
    EXPECT_EQ(wire.word, __builtin_bswap32(original.word));
    EXPECT_EQ(wire.half, __builtin_bswap16(original.half));
    EXPECT_EQ(std::memcmp(wire.bytes, original.bytes, 2), 0);

    // Read by a host that knows the source is foreign: swapped back.
    Foreign_deserializer in(&out.queue());
    std::unique_ptr<Paged_array> back = read_back(in);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->count(), 260u);
    expect_same_records(*back, array, 260);
    EXPECT_EQ(back->extra_swap_string(), "1i");
    ASSERT_EQ(back->extra_size(), sizeof extra);
    EXPECT_EQ(std::memcmp(back->extra(), extra, sizeof extra), 0);
    EXPECT_EQ(back->references.size(), 1u);

    // A stream cut inside the last record keeps only the whole ones.
    QV::SERIAL::Byte_queue cut;
    std::vector<uint8_t> bytes(size - sizeof(Record) / 2);
    out.queue().copy_out(0, bytes.data(), bytes.size());
    cut.append(bytes.data(), bytes.size());
    Foreign_deserializer in_cut(&cut);
    back = read_back(in_cut);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->count(), 259u);
    EXPECT_FALSE(in_cut.is_valid());
    expect_same_records(*back, array, 259);
}

TEST(SwapLayoutTest, CountsMeanOneMoreAndStopAtTheRecordEnd)
{
    uint8_t bytes[16];
    for (int i = 0; i < 16; ++i)
        bytes[i] = uint8_t(i);
    // "1c" skips two bytes, "0s" swaps one pair, "i" reverses four; "p" would zero eight, but
    // only four remain inside the 12-byte record given, and nothing past it may change.
    QV::LIB::swap_by_layout(bytes, 12, "1c0si9p");
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 16), (std::vector<uint8_t>{0, 1, 3, 2, 7, 6, 5, 4, 8, 9, 10, 11, 12, 13, 14, 15}));
    QV::LIB::swap_by_layout(bytes, 16, "7cp");
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 16), (std::vector<uint8_t>{0, 1, 3, 2, 7, 6, 5, 4, 0, 0, 0, 0, 0, 0, 0, 0}));
    // Unknown characters leave the count standing for the next letter.
    uint8_t more[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    QV::LIB::swap_by_layout(more, 8, "1xi");
    EXPECT_EQ(std::vector<uint8_t>(more, more + 8), (std::vector<uint8_t>{4, 3, 2, 1, 8, 7, 6, 5}));
}
