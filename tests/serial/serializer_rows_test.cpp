// Every row of the encoding on both media comes back; the in-memory medium's deferred entries.
#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>
#include <typeinfo>

#include "base/lib/mem/i_mem_allocatable.h"
#include "serial/element_transfer.h"
#include "tests/serial/media_fixture.h"

using namespace QV::SERIAL;
using namespace serial_test;
using QV::DB::Db_serializer;

namespace {

class SerializerRowsTest : public testing::TestWithParam<Media> {
protected:
    void SetUp() override { qv_test_init(); }
};

template <class T>
void expect_read_back(Deserializer* in, const T& sent)
{
    if constexpr (std::is_array_v<T>) {
        T back;
        in->read(&back);
        EXPECT_EQ(std::memcmp(back, sent, sizeof back), 0);   // bitwise: the sign of -0.0 too
    } else {
        // Starts different from what was sent, so a read that does nothing fails.
        T back{};
        if constexpr (std::is_arithmetic_v<T>)
            back = sent == T{} ? T(1) : T{};
        else
            back = "stale";
        in->read(&back);
        EXPECT_EQ(back, sent) << typeid(T).name();
    }
}

TEST_P(SerializerRowsTest, EveryRowRoundTripsInOneStream)
{
    const String_map map{{"zeta", "last"}, {"alpha", ""}, {"mid", "value with blanks"}};
    Byte_block block;
    block.reserve(40);
    block.resize(5);
    std::memcpy(block.data(), "\x01\x80\xff\x00\x7f", 5);
    const double d3[3] = {1.5, -2.25, 1e300};
    const double d2[2] = {-0.0, std::numeric_limits<double>::infinity()};
    const float f2[2] = {3.5f, -1e-30f};
    const float f3[3] = {1.f, 2.f, 3.f};
    const float f4[4] = {0.1f, 0.2f, 0.3f, 0.4f};
    double d16[16];
    float f16[16];
    for (int i = 0; i < 16; ++i) {
        d16[i] = i * 0.5 - 3;
        f16[i] = static_cast<float>(i) * -1.25f;
    }
    const auto primitives = std::make_tuple(2.718281828459045, -7.5f, uint64_t(0xFEDCBA9876543210ull),
                                            uint32_t(0xDEADBEEFu), uint16_t(0xBEEF), uint8_t(0xAB),
                                            int64_t(-1234567890123ll), int32_t(-42), int16_t(-300),
                                            int8_t(-5), true, false);

    const auto arrays = std::tie(d3, d2, f2, f3, f4, d16, f16);
    // Each value of a tuple in turn through one Serializer or Deserializer call.
    const auto each = [](const auto& tuple, const auto& call) {
        std::apply([&](const auto&... value) { (call(value), ...); }, tuple);
    };

    Writer out(GetParam());
    out->write(map);
    out->write(block);
    each(arrays, [&](const auto& value) { out->write(value); });
    out->write(std::string("hello"));
    out->write(std::string());
    out->write("c string");
    out->write("");
    out->write(static_cast<const char*>(nullptr));
    out->write_tag(0x80000401u);
    each(primitives, [&](const auto& value) { out->write(value); });
    EXPECT_EQ(out->write("raw!", size_t(4)), 4u);
    out->write_size(size_t(123456789012ull));
    out->write(uint8_t(2));
    out->write(uint16_t(0x1234));
    EXPECT_TRUE(out->is_valid());

    Reader reader(GetParam(), out.bytes(), nullptr);
    Deserializer* in = reader.in.get();
    // Reading inserts into what is there; a key already present keeps its value.
    String_map map_back{{"stale", "kept"}, {"alpha", "before"}};
    in->read(&map_back);
    EXPECT_EQ(map_back, (String_map{{"stale", "kept"}, {"alpha", "before"}, {"mid", "value with blanks"},
                                    {"zeta", "last"}}));
    Byte_block block_back;
    in->read(&block_back);
    EXPECT_EQ(block_back.size(), 5u);
    EXPECT_EQ(block_back.capacity(), 40u);
    EXPECT_EQ(std::memcmp(block_back.data(), block.data(), 5), 0);
    each(arrays, [&](const auto& value) { expect_read_back(in, value); });
    expect_read_back(in, std::string("hello"));
    expect_read_back(in, std::string());

    char* texts[3] = {nullptr, nullptr, reinterpret_cast<char*>(1)};
    for (char*& text : texts)
        in->read(&text);
    ASSERT_NE(texts[0], nullptr);
    ASSERT_NE(texts[1], nullptr);
    EXPECT_STREQ(texts[0], "c string");
    EXPECT_EQ(mem_size(texts[0]), 9u);   // length + 1, terminator put by the reader
    EXPECT_STREQ(texts[1], "");
    EXPECT_EQ(texts[2], nullptr);
    QV_FREE(texts[0]);
    QV_FREE(texts[1]);

    Db_tag tag = 0;
    in->read_tag(&tag);
    EXPECT_EQ(tag, 0x80000401u);
    each(primitives, [&](const auto& value) { expect_read_back(in, value); });
    char raw[4];
    EXPECT_EQ(in->read(raw, sizeof raw), 4u);
    EXPECT_EQ(std::memcmp(raw, "raw!", 4), 0);
    size_t size = 0;
    in->read_size(&size);
    EXPECT_EQ(size, size_t(123456789012ull));
    // Any non-zero byte reads as true, stored as 1: a 2 in a bool is no valid object.
    bool flag = false;
    in->read(&flag);
    uint8_t stored = 0xEE;
    std::memcpy(&stored, &flag, 1);
    EXPECT_EQ(stored, 1);
    EXPECT_TRUE(in->is_valid());

    // Two bytes left: a u32 read gets them, zeros for the rest, and clears the flag.
    uint32_t short_value = 0xFFFFFFFF;
    in->read(&short_value);
    EXPECT_EQ(short_value, 0x1234u);
    EXPECT_FALSE(in->is_valid());
    uint8_t extra = 0x55;
    EXPECT_EQ(in->read(&extra, 1), 0u);
    EXPECT_EQ(extra, 0);
}

INSTANTIATE_TEST_SUITE_P(Media, SerializerRowsTest, testing::Values(Media::file, Media::queue),
                         media_name);

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
