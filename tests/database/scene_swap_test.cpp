// Byte-order conversion by layout string, and the swap handlers of the type table. (The message
// header's layout is checked field by field in tests/hostmsg/host_layer_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>
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

// Runs the swap handler of `type` over `bytes`, by default as a foreign record.
void swap_record(int type, std::vector<unsigned char>& bytes, bool foreign = true)
{
    Db_record record{};
    record.data = bytes.data();
    record.size = uint32_t(bytes.size());
    qv_scene_handlers(type).swap(&record, foreign);
}

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

// The layouts of the classic final-gather file and the scene headers, with the sizes their
// records have on disk and on the wire; a second swap undoes the first, and bytes past the
// record stay. Then the letters no known layout uses.
TEST(SceneSwapTest, LayoutsHaveTheirSizesAndASecondSwapUndoesTheFirst)
{
    const std::pair<const char*, size_t> known[] = {
        {"2f5fii8f5f", 104}, {"i4i2f5fii8f5f", 128}, {"5icccciissiiii", 56}, {"5i", 24}};
    unsigned seed = 1;
    for (const auto& [layout, size] : known) {
        SCOPED_TRACE(layout);
        EXPECT_EQ(qv_scene_layout_size(layout), size);
        std::vector<unsigned char> bytes = random_bytes(size + 16, seed++);
        const std::vector<unsigned char> original = bytes;
        EXPECT_EQ(qv_scene_swap_layout(bytes.data(), layout), size);
        EXPECT_NE(bytes, original);
        EXPECT_TRUE(std::equal(bytes.begin() + long(size), bytes.end(), original.begin() + long(size)));
        qv_scene_swap_layout(bytes.data(), layout);
        EXPECT_EQ(bytes, original);
    }
    // A count before a letter means one more item.
    EXPECT_TRUE(qv_scene_layout_size("0c") == 1 && qv_scene_layout_size("79c") == 80);

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

TEST(SceneSwapTest, RecordHandlersConvertTheirFixedPartsAndWholeItemsOnly)
{
    // Instance: the layout for the first 316 bytes, then 32-bit words to the end.
    std::vector<unsigned char> instance = random_bytes(SCENE_INSTANCE_SIZE + 8, 7);
    const std::vector<unsigned char> original = instance;
    swap_record(SCENE_INSTANCE, instance);
    EXPECT_TRUE(units_reversed(instance, original, SCENE_INSTANCE_SWAP_FIXED, instance.size(), 4));
    swap_record(SCENE_INSTANCE, instance);
    EXPECT_EQ(instance, original);

    // Vertices are swapped in 16-bit units, geovectors in 64-bit ones.
    for (auto [type, unit] : {std::pair{SCENE_VERTEX, size_t(2)}, std::pair{SCENE_GEOVECTOR, size_t(8)}}) {
        std::vector<unsigned char> bytes = random_bytes(16, 5);
        const std::vector<unsigned char> before = bytes;
        swap_record(type, bytes);
        EXPECT_TRUE(units_reversed(bytes, before, 0, 16, unit)) << qv_scene_type_name(type);
    }

    // Two polygons ("iiiicccc", 20 bytes each) and a stray partial item of 4 bytes.
    std::vector<unsigned char> polygons = random_bytes(44, 3);
    const std::vector<unsigned char> unswapped = polygons;
    swap_record(SCENE_POLYGON, polygons);
    for (size_t base : {0, 20}) {
        EXPECT_TRUE(units_reversed(polygons, unswapped, base, base + 16, 4)) << base;
        EXPECT_TRUE(std::equal(&polygons[base + 16], &polygons[base + 20], &unswapped[base + 16])) << "c bytes stay";
    }
    EXPECT_TRUE(std::equal(polygons.begin() + 40, polygons.end(), unswapped.begin() + 40));

    // A local record carries its own layout: "is" padded to four bytes, an integer, a 16-bit field.
    std::vector<unsigned char> local = {'i', 's', 0, 0, 0, 0, 0, 5, 1, 2};
    swap_record(SCENE_LOCAL, local);
    EXPECT_EQ(local, (std::vector<unsigned char>{'i', 's', 0, 0, 5, 0, 0, 0, 2, 1}));
}

}  // namespace
