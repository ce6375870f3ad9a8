// Shared by the map, final-gather and kd-tree tests: captured message lines, a scratch
// directory and raw file bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/msg.h"

namespace qv_test {

struct Captured_line {
    uint32_t level;
    int32_t number;
    std::string text;
    std::string line; // the whole line, module name first
};

inline std::vector<Captured_line>& captured()
{
    static std::vector<Captured_line> lines;
    return lines;
}

inline void capture(uint32_t level, const char* line, const char* text, int32_t number)
{
    captured().push_back({level, number, text, line});
}

// From here on the lines of `levels` are captured instead of shown.
inline void capture_messages(uint32_t levels)
{
    msg_set_levels(levels);
    captured().clear();
    qv_errorhandler(capture);
}

// Captured lines that contain `fragment`, of one level or (level 0) of any.
inline int count_lines(uint32_t level, const std::string& fragment)
{
    int n = 0;
    for (const Captured_line& line : captured())
        if ((level == 0 || line.level == level) && line.text.find(fragment) != std::string::npos)
            ++n;
    return n;
}

inline bool saw(const std::string& fragment)
{
    return count_lines(0, fragment) > 0;
}

// A private directory under /tmp, removed with everything in it at the end of the scope.
class Scratch_dir {
public:
    Scratch_dir()
    {
        char pattern[] = "/tmp/qv_test_XXXXXX";
        if (mkdtemp(pattern))
            directory = pattern;
        EXPECT_FALSE(directory.empty());
    }
    ~Scratch_dir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
    std::string path(const char* name) const { return directory + "/" + name; }

    std::string directory;
};

// The whole file; empty when it is missing.
inline std::vector<uint8_t> file_bytes(const std::string& path)
{
    std::vector<uint8_t> bytes;
    if (FILE* f = fopen(path.c_str(), "rb")) {
        uint8_t chunk[65536];
        for (size_t n; (n = fread(chunk, 1, sizeof chunk, f)) > 0;)
            bytes.insert(bytes.end(), chunk, chunk + n);
        fclose(f);
    }
    return bytes;
}

inline void put_file(const std::string& path, const void* data, size_t size)
{
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    const size_t written = size ? fwrite(data, 1, size, f) : 0;
    fclose(f);
    ASSERT_EQ(written, size) << path;
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

} // namespace qv_test
