// Shared set-up of the map file tests: a scratch directory, raw file bytes and little-endian
// field access.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "maps/map_bvh.h"
#include "maps/map_file.h"
#include "tests/maps/map_storage_support.h"

namespace map_file_test {

using namespace QV::RCMAP;
using namespace qv::shader_v3;
using namespace map_storage_test;

inline std::vector<uint8_t> file_bytes(const std::string& path)
{
    std::vector<uint8_t> bytes;
    if (FILE* f = fopen(path.c_str(), "rb")) {
        uint8_t chunk[65536];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
            bytes.insert(bytes.end(), chunk, chunk + n);
        fclose(f);
    }
    return bytes;
}

inline void put_file(const std::string& path, const void* data, size_t size)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    if (size) {
        ASSERT_EQ(fwrite(data, 1, size, f), size);
    }
    fclose(f);
}

inline void put_file(const std::string& path, const std::vector<uint8_t>& bytes)
{
    put_file(path, bytes.data(), bytes.size());
}

template <class T>
T field_at(const std::vector<uint8_t>& bytes, size_t offset)
{
    T value;
    memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <class T>
void set_field_at(std::vector<uint8_t>& bytes, size_t offset, T value)
{
    memcpy(bytes.data() + offset, &value, sizeof value);
}

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
        char pattern[] = "/tmp/qv_map_file_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
    }
    void TearDown() override
    {
        std::string command = "rm -rf '" + directory + "'";
        EXPECT_EQ(system(command.c_str()), 0);
        Map_storage_test::TearDown();
    }
    std::string path(const char* name) const { return directory + "/" + name; }

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

    std::string directory;
};

} // namespace map_file_test
