// Saving a kd-tree as a classic file: records go out a buffer at a time, in the tree's order.
#include <fstream>
#include <iterator>

#include "tests/finalgather/fg_test_support.h"

namespace {

using namespace fg_test;

class SaveLegacyTest : public Fg_test {
protected:
    // A balanced tree of make_point(0) .. make_point(count - 1).
    uint32_t tree_of(uint32_t count)
    {
        const uint32_t tree = kdtree_create(1, FG_POINT_PAYLOAD_WORDS * 4);
        Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
        for (uint32_t k = 0; k < count; ++k) {
            const Fg_point point = make_point(k);
            kdtree_add(writer, point.normal, point.position);
        }
        kdtree_close(writer);
        return tree;
    }
};

// Enough records for two full buffers and a part: every buffer boundary and the last partial
// buffer must come out in place.
TEST_F(SaveLegacyTest, RecordsFollowTheTreeOrderAcrossBufferBoundaries)
{
    constexpr uint32_t COUNT = 1500;
    const uint32_t tree = tree_of(COUNT);
    const std::string file = path("tree.fg");
    ASSERT_EQ(fg_map_save_legacy(tree, nullptr, file.c_str()), 1);

    std::vector<uint8_t> expected;
    Kdtree_handle* reader = kdtree_open_for_reading(tree, nullptr, nullptr);
    kdtree_iterate(
        reader,
        [](void* out, const void* data, const float* position) {
            auto* bytes = static_cast<std::vector<uint8_t>*>(out);
            bytes->insert(bytes->end(), reinterpret_cast<const uint8_t*>(position),
                          reinterpret_cast<const uint8_t*>(position) + 12);
            bytes->insert(bytes->end(), static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + 92);
            return 1;
        },
        &expected);
    kdtree_close(reader);
    kdtree_delete(tree);

    std::ifstream in(file, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    ASSERT_EQ(bytes.size(), FG_DATA_OFFSET + size_t(COUNT) * FG_RECORD_BYTES);
    uint32_t count = 0;
    std::memcpy(&count, bytes.data() + FG_COUNT_OFFSET, 4);
    EXPECT_EQ(count, COUNT);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), bytes.begin() + FG_DATA_OFFSET));
}

// A write that fails stops the save, which reports it and fails.
TEST_F(SaveLegacyTest, FailedWriteFailsTheSave)
{
    const uint32_t tree = tree_of(1500);
    EXPECT_EQ(fg_map_save_legacy(tree, nullptr, "/dev/full"), 0);
    EXPECT_NE(find_line("cannot write finalgather point"), nullptr);
    kdtree_delete(tree);
}

}  // namespace
