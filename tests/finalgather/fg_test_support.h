// Shared set-up of the final-gather tests: database, map cache, kd-tree store and RCFG started
// once, messages captured, a private scratch directory, and classic files built byte by byte.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "containers/kdtree.h"
#include "database/db.h"
#include "database/element.h"
#include "database/transaction.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_map.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "tests/maps_support.h"
#include "tests/test_support.h"

namespace fg_test {

using namespace qv_test;
using Line = Captured_line;

inline std::vector<Line>& lines() { return captured(); }

// The first captured line containing `fragment`, or null.
inline const Line* find_line(const std::string& fragment)
{
    for (const Line& line : lines())
        if (line.text.find(fragment) != std::string::npos)
            return &line;
    return nullptr;
}

// Expects a captured line reading exactly `text`, at `level`, under RCFG code `code` (plain
// lines have code 0). Numbers arrive as (module * 10 + level class) * 1000 + code.
inline void expect_line(const std::string& text, uint32_t level, int32_t code = 0)
{
    const auto line = std::find_if(lines().begin(), lines().end(), [&](const Line& l) { return l.text == text; });
    ASSERT_NE(line, lines().end()) << "no line \"" << text << "\"";
    EXPECT_EQ(line->level, level) << text;
    EXPECT_EQ(line->number / 10000 == MOD_RCFG ? line->number % 1000 : -1, code) << text;
}

class Fg_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_fg_init();
        static bool started = false;
        if (!started) {
            QV::DB::get_transaction();
            kdtree_register();
            started = true;
        }
        QV::DB::element_install_db_handler();
        QV::RCMAP::Map_manager::instance().set_size_limit_mb(64.0f);
        saved_levels_ = msg_level_mask();
        capture_messages(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_PROGRESS);
    }
    void TearDown() override
    {
        qv_errorhandler(nullptr);
        msg_set_levels(saved_levels_);
    }

    std::string path(const char* name) const { return scratch_.path(name); }

    Scratch_dir scratch_;
    uint32_t saved_levels_ = 0;
};

// A point whose every word tells where it came from: word w of point k holds k * 100 + w + 0.25
// as a float (the integers as integers), so a misplaced word shows. point_id identifies k:
// (point_id - 17) / 100.
inline Fg_point make_point(uint32_t k)
{
    Fg_point point;
    auto* words = reinterpret_cast<float*>(&point);
    for (uint32_t w = 0; w < FG_POINT_WORDS; ++w)
        words[w] = float(k * 100 + w) + 0.25f;
    point.rays = k * 100 + 10;
    point.point_id = int32_t(k * 100 + 17);
    point.reserved[0] = 0xAAAA0000u + k;
    point.reserved[1] = 0xBBBB0000u + k;
    point.trailing = 0xCCCC0000u + k;
    return point;
}

// Every named field (words 0..17 and 20..25) agrees bit for bit.
inline bool same_named_fields(const Fg_point& a, const Fg_point& b)
{
    return std::memcmp(&a, &b, 18 * 4) == 0 && std::memcmp(&a.r_mean, &b.r_mean, 6 * 4) == 0;
}

// The bytes of a classic file as a writer of either byte order puts them.
struct Classic_file {
    uint32_t version = 1;
    uint32_t count = 0;  // what the header announces
    bool big_endian = false;
    std::vector<Fg_point> records;

    static Classic_file of(uint32_t count)
    {
        Classic_file file;
        file.count = count;
        for (uint32_t k = 0; k < count; ++k)
            file.records.push_back(make_point(k));
        return file;
    }

    std::vector<uint8_t> bytes() const
    {
        // The header in an array of its own: g++ 12 at -O3 takes the vector for possibly empty.
        uint8_t header[120] = {};
        std::memcpy(header, "qvFG    3.9.4.14", 16);
        std::memcpy(header + 32, "qvFH", 4);
        const uint32_t header_words[][2] = {{36, 1}, {40, version}, {96, count}};
        for (const auto& [offset, value] : header_words)
            std::memcpy(header + offset, &value, 4);
        std::vector<uint8_t> out(header, header + 120);
        out.resize(120 + 104 * records.size());
        for (size_t k = 0; k < records.size(); ++k)
            std::memcpy(out.data() + 120 + 104 * k, &records[k], 104);
        if (big_endian)
            for (size_t offset = 36; offset < out.size(); offset += 4)
                std::reverse(out.begin() + long(offset), out.begin() + long(offset) + 4);
        return out;
    }
};

// Adds make_point(first) .. make_point(first + count - 1) through `writer` and closes it.
inline int write_points(Fg_map_writer* writer, uint32_t first, uint32_t count)
{
    for (uint32_t k = first; k < first + count; ++k) {
        const Fg_point point = make_point(k);
        EXPECT_EQ(fg_map_write_point(writer, point.normal, point.position), 1);
    }
    return fg_map_close(writer);
}

// Loads a file into a new map and commits it; the points in map order, the count in `loaded`.
inline std::vector<Fg_point> load_points(const std::string& path, bool allow_classic, uint32_t* loaded = nullptr)
{
    QV::RCMAP::Map_impl* map = fg_map_new();
    const uint32_t count = fg_map_load(map, path.c_str(), allow_classic);
    if (loaded)
        *loaded = count;
    map->build_bvh(0.6f, false, false);
    std::vector<Fg_point> points(map->size());
    QV::RCMAP::Map_element_impl* element = fg_scratch_element();
    for (uint32_t n = 0; n < map->size(); ++n) {
        map->get(n, element);
        fg_point_from_element(&points[n], element);
    }
    delete map;
    return points;
}

// A committed map of one element whose declaration is not the final-gather one.
inline QV::RCMAP::Map_impl* other_layout_map(QV::RCMAP::Map_declaration_impl& other)
{
    other.add_scalar("weight");
    auto* map = new QV::RCMAP::Map_impl(other);
    QV::RCMAP::Map_element_impl element(&other);
    map->append(&element);
    map->build_bvh(0.6f, false, false);
    return map;
}

}  // namespace fg_test
