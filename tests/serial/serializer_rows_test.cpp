// Every row of the encoding on both media: values come back, and the bytes are the wire form.
#include <cmath>
#include <cstring>
#include <limits>

#include "base/lib/mem/i_mem_allocatable.h"
#include "tests/serial/media_fixture.h"

using namespace QV::SERIAL;
using namespace serial_test;

namespace {

class SerializerRowsTest : public testing::TestWithParam<Media> {
protected:
    void SetUp() override { qv_test_init(); }
};

TEST_P(SerializerRowsTest, EveryRowRoundTripsInOneStream)
{
    Writer out(GetParam());
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

    out->write(map);
    out->write(block);
    out->write(d3);
    out->write(d2);
    out->write(f2);
    out->write(f3);
    out->write(f4);
    out->write(std::string("hello"));
    out->write("c string");
    out->write(d16);
    out->write(f16);
    out->write_tag(0x80000401u);
    out->write(2.718281828459045);
    out->write(-7.5f);
    out->write(uint64_t(0xFEDCBA9876543210ull));
    out->write(uint32_t(0xDEADBEEFu));
    out->write(uint16_t(0xBEEF));
    out->write(uint8_t(0xAB));
    out->write(int64_t(-1234567890123ll));
    out->write(int32_t(-42));
    out->write(int16_t(-300));
    out->write(int8_t(-5));
    out->write(true);
    out->write(false);
    EXPECT_EQ(out->write("raw!", size_t(4)), 4u);
    out->write_size(size_t(123456789012ull));
    EXPECT_TRUE(out->is_valid());

    std::vector<uint8_t> bytes = out.bytes();
    // map: 8 + per entry (4 + key + 4 + value); block: 8 + 8 + 5; arrays; then primitives.
    size_t map_bytes = 8 + (4 + 4 + 4 + 4) + (4 + 5 + 4 + 0) + (4 + 3 + 4 + 17);
    size_t expected = map_bytes + 21 + 24 + 16 + 8 + 12 + 16 + (4 + 5) + (4 + 8) + 128 + 64 + 4 +
                      8 + 4 + 8 + 4 + 2 + 1 + 8 + 4 + 2 + 1 + 1 + 1 + 4 + 8;
    EXPECT_EQ(bytes.size(), expected);

    Reader in = reader_over(GetParam(), bytes, nullptr);
    // Reading inserts into what is there; a key already present keeps its value.
    String_map map_back{{"stale", "kept"}, {"alpha", "before"}};
    in->read(&map_back);
    EXPECT_EQ(map_back.size(), 4u);
    EXPECT_EQ(map_back["mid"], "value with blanks");
    EXPECT_EQ(map_back["alpha"], "before");
    EXPECT_EQ(map_back["zeta"], "last");

    Byte_block block_back;
    in->read(&block_back);
    EXPECT_EQ(block_back.size(), 5u);
    EXPECT_EQ(block_back.capacity(), 40u);
    EXPECT_EQ(std::memcmp(block_back.data(), block.data(), 5), 0);

    double d3_back[3], d2_back[2], d16_back[16];
    float f2_back[2], f3_back[3], f4_back[4], f16_back[16];
    in->read(&d3_back);
    in->read(&d2_back);
    in->read(&f2_back);
    in->read(&f3_back);
    in->read(&f4_back);
    EXPECT_EQ(std::memcmp(d3_back, d3, sizeof d3), 0);
    EXPECT_EQ(std::memcmp(d2_back, d2, sizeof d2), 0);   // the sign of -0.0 survives
    EXPECT_EQ(std::memcmp(f2_back, f2, sizeof f2), 0);
    EXPECT_EQ(std::memcmp(f3_back, f3, sizeof f3), 0);
    EXPECT_EQ(std::memcmp(f4_back, f4, sizeof f4), 0);

    std::string text;
    in->read(&text);
    EXPECT_EQ(text, "hello");
    char* c_text = nullptr;
    in->read(&c_text);
    ASSERT_NE(c_text, nullptr);
    EXPECT_STREQ(c_text, "c string");
    EXPECT_EQ(mem_size(c_text), 9u);   // length + 1, terminator put by the reader
    QV_FREE(c_text);

    in->read(&d16_back);
    in->read(&f16_back);
    EXPECT_EQ(std::memcmp(d16_back, d16, sizeof d16), 0);
    EXPECT_EQ(std::memcmp(f16_back, f16, sizeof f16), 0);

    Db_tag tag = 0;
    in->read_tag(&tag);
    EXPECT_EQ(tag, 0x80000401u);
    double d = 0;
    float f = 0;
    uint64_t u64 = 0;
    uint32_t u32 = 0;
    uint16_t u16 = 0;
    uint8_t u8 = 0;
    int64_t i64 = 0;
    int32_t i32 = 0;
    int16_t i16 = 0;
    int8_t i8 = 0;
    bool yes = false, no = true;
    in->read(&d);
    in->read(&f);
    in->read(&u64);
    in->read(&u32);
    in->read(&u16);
    in->read(&u8);
    in->read(&i64);
    in->read(&i32);
    in->read(&i16);
    in->read(&i8);
    in->read(&yes);
    in->read(&no);
    EXPECT_EQ(d, 2.718281828459045);
    EXPECT_EQ(f, -7.5f);
    EXPECT_EQ(u64, 0xFEDCBA9876543210ull);
    EXPECT_EQ(u32, 0xDEADBEEFu);
    EXPECT_EQ(u16, 0xBEEF);
    EXPECT_EQ(u8, 0xAB);
    EXPECT_EQ(i64, -1234567890123ll);
    EXPECT_EQ(i32, -42);
    EXPECT_EQ(i16, -300);
    EXPECT_EQ(i8, -5);
    EXPECT_TRUE(yes);
    EXPECT_FALSE(no);
    char raw[4];
    EXPECT_EQ(in->read(raw, sizeof raw), 4u);
    EXPECT_EQ(std::memcmp(raw, "raw!", 4), 0);
    size_t size = 0;
    in->read_size(&size);
    EXPECT_EQ(size, size_t(123456789012ull));
    EXPECT_TRUE(in->is_valid());

    // Exactly at the end: one more byte is a short read.
    uint8_t extra = 0x55;
    EXPECT_EQ(in->read(&extra, 1), 0u);
    EXPECT_EQ(extra, 0);
    EXPECT_FALSE(in->is_valid());
}

TEST_P(SerializerRowsTest, CompositesHaveTheirWireForm)
{
    Byte_block block;
    block.reserve(16);
    block.resize(3);
    block.data()[0] = 9;
    block.data()[2] = 7;
    Writer composite(GetParam());
    composite->write(String_map{{"b", "2"}, {"a", "1"}});
    composite->write(block);
    EXPECT_EQ(composite.bytes(), concat({le64(2), le32(2), text_bytes("a"), le32(2), text_bytes("1"), le32(2),
                                         text_bytes("b"), le32(2), text_bytes("2"), le64(16), le64(3), {9, 0, 7}}));

    Writer out(GetParam());
    out->write(static_cast<const char*>(nullptr));
    out->write("");
    out->write(std::string("abc"));
    out->write(std::string());
    out->write_size(5);
    out->write_tag(0x400);
    EXPECT_EQ(out.bytes(), concat({le32(0), le32(1), le32(4), text_bytes("abc"), le32(1), le64(5),
                                   le32(0x400)}));

    Reader in = reader_over(GetParam(), out.bytes(), nullptr);
    char* null_text = reinterpret_cast<char*>(1);
    char* empty_text = nullptr;
    in->read(&null_text);
    in->read(&empty_text);
    EXPECT_EQ(null_text, nullptr);
    ASSERT_NE(empty_text, nullptr);
    EXPECT_STREQ(empty_text, "");
    QV_FREE(empty_text);
}

TEST_P(SerializerRowsTest, AnyNonZeroByteReadsAsTrue)
{
    Writer out(GetParam());
    out->write(uint8_t(2));
    out->write(uint8_t(0xFF));
    out->write(uint8_t(0));
    out->write(uint8_t(1));
    Reader in = reader_over(GetParam(), out.bytes(), nullptr);
    bool values[4] = {false, false, true, false};
    for (bool& value : values)
        in->read(&value);
    uint8_t as_byte[4];
    std::memcpy(as_byte, values, sizeof values);
    EXPECT_EQ(as_byte[0], 1);
    EXPECT_EQ(as_byte[1], 1);
    EXPECT_EQ(as_byte[2], 0);
    EXPECT_EQ(as_byte[3], 1);
    EXPECT_TRUE(in->is_valid());
}

INSTANTIATE_TEST_SUITE_P(Media, SerializerRowsTest, testing::Values(Media::file, Media::queue),
                         media_name);

// A medium that overrides one primitive changes every composite built on it: a serializer
// that doubles each f32 into an f64 doubles the width of the float arrays, and a deserializer
// that mirrors it reads them back.
class Widening_serializer : public QV::DB::Db_serializer {
public:
    using Db_serializer::write;
    void write(float value) override { Db_serializer::write(static_cast<double>(value)); }
};

class Widening_deserializer : public QV::DB::Db_deserializer {
public:
    using Db_deserializer::Db_deserializer;
    using Db_deserializer::read;
    void read(float* value) override
    {
        double wide = 0;
        Db_deserializer::read(&wide);
        *value = static_cast<float>(wide);
    }
};

TEST(SerializerSlotsTest, CompositesGoThroughTheVirtualPrimitives)
{
    qv_test_init();
    Widening_serializer out;
    const float f3[3] = {1.f, 2.f, 3.f};
    float f16[16] = {};
    f16[15] = 6.f;
    Serializer& base = out;
    base.write(f3);
    base.write(f16);
    EXPECT_EQ(out.queue().size(), (3u + 16u) * 8u);

    Widening_deserializer in(&out.queue());
    Deserializer& base_in = in;
    float f3_back[3], f16_back[16];
    base_in.read(&f3_back);
    base_in.read(&f16_back);
    EXPECT_EQ(f3_back[2], 3.f);
    EXPECT_EQ(f16_back[15], 6.f);
    EXPECT_TRUE(in.is_valid());
}

}  // namespace
