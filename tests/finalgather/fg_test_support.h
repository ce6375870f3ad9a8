// Shared set-up of the final-gather tests: database, map cache, kd-tree store and RCFG started
// once, every message captured, a private scratch directory, and helpers that build classic
// files byte by byte.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "containers/kdtree.h"
#include "database/db.h"
#include "database/element.h"
#include "database/scene_types.h"
#include "database/transaction.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_map.h"
#include "finalgather/fg_point.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "tests/test_support.h"

namespace fg_test {

struct Line {
    uint32_t level;
    int32_t number;
    std::string text;
};

inline std::vector<Line>& lines()
{
    static std::vector<Line> captured;
    return captured;
}

inline void capture(uint32_t level, const char*, const char* text, int32_t number)
{
    lines().push_back({level, number, text});
}

// The captured line that contains `fragment`, or null.
inline const Line* find_line(const std::string& fragment)
{
    for (const Line& line : lines())
        if (line.text.find(fragment) != std::string::npos)
            return &line;
    return nullptr;
}

// The message's own code: numbers arrive as (module * 10 + level class) * 1000 + code.
inline int32_t code_of(const Line* line)
{
    return line->number % 1000;
}

// True when the line came from module RCFG.
inline bool from_rcfg(const Line* line)
{
    return line->number / 10000 == 54;
}

inline size_t count_level(uint32_t level)
{
    size_t count = 0;
    for (const Line& line : lines())
        count += line.level == level;
    return count;
}

class Fg_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        // No host layer here: this process is the master, as the database tests make it.
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        static bool started = false;
        if (!started) {
            if (!qv_db_started())
                qv_db_init();
            QV::DB::get_transaction();
            QV::DB::element_install_db_handler();
            kdtree_register();
            rcmp_init(true);
            fg_module_init();
            started = true;
        }
        QV::DB::element_install_db_handler();
        QV::RCMAP::Map_manager::instance().set_size_limit_mb(64.0f);
        saved_levels_ = msg_level_mask();
        msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_PROGRESS);
        lines().clear();
        qv_errorhandler(capture);
        char pattern[] = "/tmp/fg_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }

    void TearDown() override
    {
        qv_errorhandler(nullptr);
        msg_set_levels(saved_levels_);
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string path(const char* name) const { return dir_ + "/" + name; }

    std::string dir_;
    uint32_t saved_levels_ = 0;
};

// A point whose every word tells where it came from: word w of point k holds k * 100 + w
// (floats as such, the two integers as integers), so a misplaced word shows.
inline Fg_point make_point(uint32_t k)
{
    Fg_point point;
    auto* words = reinterpret_cast<uint32_t*>(&point);
    for (uint32_t w = 0; w < FG_POINT_WORDS; ++w) {
        const float value = float(k * 100 + w) + 0.25f;
        std::memcpy(&words[w], &value, 4);
    }
    point.rays = k * 100 + 10;
    point.point_id = int32_t(k * 100 + 17);
    point.reserved[0] = 0xAAAA0000u + k;
    point.reserved[1] = 0xBBBB0000u + k;
    point.trailing = 0xCCCC0000u + k;
    return point;
}

// True when the words 0..17 and 20..25 (every named field) of the two records agree bit for bit.
inline bool same_named_fields(const Fg_point& a, const Fg_point& b)
{
    const auto* x = reinterpret_cast<const uint32_t*>(&a);
    const auto* y = reinterpret_cast<const uint32_t*>(&b);
    for (uint32_t w = 0; w < FG_POINT_FILE_WORDS; ++w)
        if (w != 18 && w != 19 && x[w] != y[w])
            return false;
    return true;
}

inline uint32_t byte_swapped(uint32_t value)
{
    return __builtin_bswap32(value);
}

// Builds the bytes of a classic file: header blocks as a writer of either byte order would
// put them, then the records (26 words each, turned to big-endian for a foreign file).
struct Classic_file {
    uint32_t version = 1;
    uint32_t count = 0;           // what the header announces
    int32_t rays_option = 0;
    bool big_endian = false;
    std::vector<Fg_point> records;

    std::vector<uint8_t> bytes() const
    {
        std::vector<uint8_t> out(120, 0);
        std::memcpy(out.data(), "qvFG    3.9.4.14", 16);
        std::memcpy(out.data() + 32, "qvFH", 4);
        auto put = [&](size_t offset, uint32_t value) {
            if (big_endian)
                value = byte_swapped(value);
            std::memcpy(out.data() + offset, &value, 4);
        };
        put(36, 1);
        put(40, version);
        put(44, uint32_t(rays_option));
        put(96, count);
        for (const Fg_point& record : records) {
            const size_t at = out.size();
            out.resize(at + 104);
            std::memcpy(out.data() + at, &record, 104);
            if (big_endian)
                for (size_t w = 0; w < 26; ++w) {
                    uint32_t word;
                    std::memcpy(&word, out.data() + at + 4 * w, 4);
                    word = byte_swapped(word);
                    std::memcpy(out.data() + at + 4 * w, &word, 4);
                }
        }
        return out;
    }
};

inline void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    if (!bytes.empty()) {
        ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    }
    std::fclose(file);
}

inline std::vector<uint8_t> read_bytes(const std::string& path)
{
    std::vector<uint8_t> bytes;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return bytes;
    uint8_t buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file)) > 0)
        bytes.insert(bytes.end(), buffer, buffer + got);
    std::fclose(file);
    return bytes;
}

inline uint32_t word_at(const std::vector<uint8_t>& bytes, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

}  // namespace fg_test
