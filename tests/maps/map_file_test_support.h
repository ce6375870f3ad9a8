// Shared set-up of the map file tests: a scratch directory and elements as files hold them.
#pragma once

#include <unistd.h>

#include "maps/map_bvh.h"
#include "maps/map_file.h"
#include "tests/maps/map_storage_support.h"

namespace map_file_test {

using namespace QV::RCMAP;
using namespace qv::shader_v3;
using namespace map_storage_test;

// Element i of a written file, at page i / E, slot i % E behind the header.
inline Small_element stored_element(const std::vector<uint8_t>& bytes, size_t data, uint32_t per_page, uint32_t i)
{
    Small_element stored;
    memcpy(&stored, bytes.data() + data + size_t(i / per_page) * MAP_FILE_PAGE_BYTES + size_t(i % per_page) * 20, 20);
    return stored;
}

// Small elements plus global fields that make the global block an odd size.
inline Map_declaration_impl declaration_with_globals()
{
    Map_declaration_impl declaration = small_declaration();
    declaration.add_global_scalar("scale");
    declaration.add_global_string("label", 5);
    return declaration;
}

// Every test runs in a scratch directory of its own, with the map module up and messages captured.
class Map_file_test : public Map_storage_test {
protected:
    void SetUp() override
    {
        Map_storage_test::SetUp();
        fill(holder, 100, 3);
    }
    std::string path(const char* name) const { return scratch.path(name); }

    // Small elements [first, first + count) with globals scale 0.75 and label "abcd", written in
    // append order; returns the file's bytes.
    std::vector<uint8_t> written(const std::string& name, uint32_t count, uint32_t format = MAP_FORMAT_BINARY,
                                 uint32_t first = 0)
    {
        Map_declaration_impl declaration = declaration_with_globals();
        Map_impl map(declaration);
        map.bvh_enabled = false;
        fill(map, first, count);
        map.set(declaration.get_field_id("scale", nullptr), 0.75f);
        map.set(declaration.get_field_id("label", nullptr), "abcd", -1);
        EXPECT_EQ(map.write(name.c_str(), Map_file_format(format), false), MAP_SUCCESS);
        return file_bytes(name);
    }

    // Writes small elements [first, first + count) as a binary map file, in append order unless
    // `built` (then with a BVH and in its order).
    static void write_small(const std::string& name, uint32_t first, uint32_t count, bool built = false)
    {
        Map_impl map(small_declaration());
        map.bvh_enabled = built;
        fill(map, first, count);
        ASSERT_EQ(map.write(name.c_str(), MAP_FORMAT_BINARY, false), MAP_SUCCESS);
        if (built) {
            ASSERT_NE(map.global_bvh, nullptr);
            ASSERT_TRUE(map.global_bvh->is_valid());
        }
    }

    Scratch_dir scratch;
    // Three elements of its own, to show that a refused file leaves a map alone.
    Map_impl holder{small_declaration()};
};

} // namespace map_file_test
