// The classic intake's two-copy conversion for the usual declaration against the conversion
// field by field through the declaration, byte for byte.
#include <random>

#include "fg_test_support.h"

using namespace fg_test;

namespace {

class IntakeFastTest : public Fg_test {};

// Enough records for several read blocks and append batches, and one record more than a whole
// number of either. Every payload word is random, words 18 and 19 (no field) included.
TEST_F(IntakeFastTest, EveryRecordBecomesTheElementTheDeclarationMakes)
{
    constexpr uint32_t COUNT = 3 * 1024 + 1;
    Classic_file file = Classic_file::of(COUNT);
    std::mt19937 random(7);
    for (Fg_point& record : file.records) {
        auto* words = reinterpret_cast<uint32_t*>(&record);
        for (size_t w = 3; w < FG_POINT_FILE_WORDS; ++w)
            words[w] = uint32_t(random());
    }
    put_file(path("in.fg"), file.bytes());

    QV::RCMAP::Map_impl* map = fg_map_new();
    ASSERT_EQ(fg_map_load(map, path("in.fg").c_str(), true), COUNT);
    ASSERT_EQ(map->size() + map->get_pending_count(), COUNT);
    QV::RCMAP::Map_element_impl* element = fg_scratch_element();
    std::vector<uint8_t> stored(FG_ELEMENT_BYTES);
    for (uint32_t k = 0; k < COUNT; ++k) {
        fg_point_to_element(element, file.records[k].position, file.records[k].normal);
        map->read_element(k, stored.data());
        ASSERT_EQ(std::memcmp(stored.data(), element->get_data(), FG_ELEMENT_BYTES), 0) << "record " << k;
    }
    delete map;
}

}  // namespace
