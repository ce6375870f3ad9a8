// Byte-order conversion by layout string, and the swap handlers of the type table.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <random>
#include <vector>

#include "database/scene_records.h"
#include "database/scene_swap.h"
#include "database/scene_types.h"

namespace {

std::vector<unsigned char> random_bytes(size_t count, unsigned seed)
{
    std::mt19937 generator(seed);
    std::vector<unsigned char> bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

uint32_t big_endian_32(uint32_t value) { return __builtin_bswap32(value); }

Db_record record_over(std::vector<unsigned char>& bytes)
{
    Db_record record{};
    record.data = bytes.data();
    record.size = uint32_t(bytes.size());
    return record;
}

// The layouts of the message header, the classic final-gather file and the scene headers, with
// the sizes their records are known to have.
struct Known_layout {
    const char* layout;
    size_t bytes;
};
const Known_layout KNOWN_LAYOUTS[] = {
    {"3c2i11i", 64}, {"2f5fii8f5f", 104}, {"i4i2f5fii8f5f", 128}, {"6i3cscc", 36}, {"5icccciissiiii", 56},
};

// True when bytes [from, to) of `now` are those of `before` with each `unit`-byte group reversed.
bool units_reversed(const std::vector<unsigned char>& now, const std::vector<unsigned char>& before, size_t from,
                    size_t to, size_t unit)
{
    for (size_t at = from; at + unit <= to; at += unit)
        for (size_t b = 0; b < unit; ++b)
            if (now[at + b] != before[at + unit - 1 - b])
                return false;
    return true;
}

TEST(SceneSwapTest, KnownLayoutsHaveTheirSizesAndASecondSwapUndoesTheFirst)
{
    unsigned seed = 1;
    for (const Known_layout& known : KNOWN_LAYOUTS) {
        SCOPED_TRACE(known.layout);
        EXPECT_EQ(qv_scene_layout_size(known.layout), known.bytes);
        // Bytes past the record stay as they were.
        std::vector<unsigned char> bytes = random_bytes(known.bytes + 16, seed++);
        const std::vector<unsigned char> original = bytes;
        EXPECT_EQ(qv_scene_swap_layout(bytes.data(), known.layout), known.bytes);
        EXPECT_NE(bytes, original);
        EXPECT_TRUE(std::equal(bytes.begin() + known.bytes, bytes.end(), original.begin() + known.bytes));
        qv_scene_swap_layout(bytes.data(), known.layout);
        EXPECT_EQ(bytes, original);
    }
    // A count before a letter means one more item.
    for (const Known_layout& counted : {Known_layout{"c", 1}, Known_layout{"0c", 1}, Known_layout{"1c", 2},
                                        Known_layout{"79c", 80}, Known_layout{"5i", 24}})
        EXPECT_EQ(qv_scene_layout_size(counted.layout), counted.bytes) << counted.layout;
}

TEST(SceneSwapTest, EachLetterConvertsItsOwnWidthAtTheRightPlace)
{
    // "6i3cscc": seven words, four bytes left alone, a 16-bit field, two bytes left alone.
    std::vector<unsigned char> bytes = random_bytes(36, 9);
    const std::vector<unsigned char> original = bytes;
    qv_scene_swap_layout(bytes.data(), "6i3cscc");
    EXPECT_TRUE(units_reversed(bytes, original, 0, 28, 4));
    EXPECT_TRUE(std::equal(&bytes[28], &bytes[32], &original[28]));
    EXPECT_TRUE(units_reversed(bytes, original, 32, 34, 2));
    EXPECT_TRUE(std::equal(&bytes[34], &bytes[36], &original[34]));

    // A double is one eight-byte unit; a pointer comes out zero; a count carries over characters
    // that are no letter but lie inside '0'..'s' ('x'), while ' ' and 'z' lie outside.
    struct {
        double value;
        void* pointer;
        uint32_t words[5];
    } record{0, &record, {big_endian_32(1), big_endian_32(2), big_endian_32(3), big_endian_32(4), 0x11223344}};
    uint64_t bits = __builtin_bswap64(0x3FF8000000000000ull);  // 1.5
    std::memcpy(&record.value, &bits, 8);
    EXPECT_EQ(qv_scene_swap_layout(&record, "dp3x i"), 32u);
    EXPECT_EQ(record.value, 1.5);
    EXPECT_EQ(record.pointer, nullptr);
    EXPECT_TRUE(record.words[0] == 1 && record.words[3] == 4 && record.words[4] == 0x11223344u);
    EXPECT_EQ(qv_scene_layout_size("1zd"), 16u);
}

TEST(SceneSwapTest, FuncdeclHandlerReadsItsCountersAfterConvertingThem)
{
    // A foreign declaration: no result declaration bytes, two subtags after the fixed head.
    const uint32_t size = qv_scene_funcdecl_size(0, 2);
    std::vector<unsigned char> bytes(size, 0);
    auto* decl = reinterpret_cast<Scene_funcdecl*>(bytes.data());
    decl->cache = bytes.data();
    decl->language = int32_t(big_endian_32(1));
    decl->subtag_count = int32_t(big_endian_32(2));
    decl->root = big_endian_32(0x400);
    std::strcpy(decl->name, "foreign");
    const uint32_t subtags[2] = {big_endian_32(0x401), big_endian_32(0x402)};
    std::memcpy(bytes.data() + SCENE_FUNCDECL_FIXED, subtags, sizeof subtags);

    Db_record record = record_over(bytes);
    Scene_swap_fn swap = qv_scene_handlers(SCENE_FUNCDECL).swap;
    ASSERT_NE(swap, nullptr);
    swap(&record, false);
    EXPECT_EQ(decl->subtag_count, int32_t(big_endian_32(2))) << "a false flag changes nothing";
    swap(&record, true);

    EXPECT_EQ(decl->cache, nullptr);
    EXPECT_EQ(decl->language, 1);
    EXPECT_EQ(decl->subtag_count, 2);
    EXPECT_EQ(decl->root, 0x400u);
    EXPECT_STREQ(decl->name, "foreign");
    uint32_t native[2];
    std::memcpy(native, bytes.data() + SCENE_FUNCDECL_FIXED, sizeof native);
    EXPECT_EQ(native[0], 0x401u);
    EXPECT_EQ(native[1], 0x402u);
}

TEST(SceneSwapTest, RecordHandlersConvertFixedPartAndTail)
{
    // Instance: the layout for the first 316 bytes, then 32-bit words to the end.
    std::vector<unsigned char> instance = random_bytes(SCENE_INSTANCE_SIZE + 8, 7);
    const std::vector<unsigned char> original = instance;
    Db_record record = record_over(instance);
    qv_scene_handlers(SCENE_INSTANCE).swap(&record, true);
    EXPECT_TRUE(units_reversed(instance, original, 316, instance.size(), 4));
    qv_scene_handlers(SCENE_INSTANCE).swap(&record, true);
    EXPECT_EQ(instance, original);

    // Vertices are swapped in 16-bit units, geovectors in 64-bit ones.
    for (auto [type, unit] : {std::pair{SCENE_VERTEX, size_t(2)}, std::pair{SCENE_GEOVECTOR, size_t(8)}}) {
        std::vector<unsigned char> bytes = random_bytes(16, 5);
        const std::vector<unsigned char> before = bytes;
        Db_record items = record_over(bytes);
        qv_scene_handlers(type).swap(&items, true);
        EXPECT_TRUE(units_reversed(bytes, before, 0, 16, unit)) << qv_scene_type_name(type);
    }
}

TEST(SceneSwapTest, ItemRecordsConvertEveryWholeItemAndNothingBeyond)
{
    // Two polygons ("iiiicccc", 20 bytes each) and a stray partial item of 4 bytes.
    std::vector<unsigned char> bytes = random_bytes(44, 3);
    const std::vector<unsigned char> original = bytes;
    Db_record record = record_over(bytes);
    qv_scene_handlers(SCENE_POLYGON).swap(&record, true);
    for (size_t base : {0, 20}) {
        EXPECT_TRUE(units_reversed(bytes, original, base, base + 16, 4)) << base;
        EXPECT_TRUE(std::equal(&bytes[base + 16], &bytes[base + 20], &original[base + 16])) << "the c bytes stay";
    }
    EXPECT_TRUE(std::equal(bytes.begin() + 40, bytes.end(), original.begin() + 40));
}

TEST(SceneSwapTest, LocalRecordCarriesItsOwnLayout)
{
    // "is" padded to four bytes, then an integer and a 16-bit field.
    std::vector<unsigned char> bytes = {'i', 's', 0, 0, 0, 0, 0, 5, 1, 2};
    Db_record record = record_over(bytes);
    qv_scene_handlers(SCENE_LOCAL).swap(&record, true);
    EXPECT_EQ(bytes[0], 'i');
    uint32_t word;
    std::memcpy(&word, bytes.data() + 4, 4);
    EXPECT_EQ(word, 5u);
    EXPECT_EQ(bytes[8], 2);
    EXPECT_EQ(bytes[9], 1);
}

}  // namespace
