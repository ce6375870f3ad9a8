// Open binary maps as fg_splice inputs: a map that this library writes in the open binary format
// goes through the tool with every point intact, alone and among classic and binary inputs, and
// every faulty header is reported with its exact line while the run goes on with the next input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "finalgather/fg_map.h"
#include "maps/map_impl.h"
#include "tests/test_support.h"
#include "tests/tool/classic_file.h"
#include "tests/tool/run_tool.h"

namespace {

using qv::shader_v3::MAP_FORMAT_BINARY;
using qv::shader_v3::MAP_FORMAT_OPEN_BINARY;
using qv::shader_v3::MAP_SUCCESS;
using qv::shader_v3::Map_file_format;

// The words a map keeps of a point: all of the file record but the two reserved words.
using Point_words = std::vector<uint32_t>;

Point_words kept_words(const uint32_t* record)
{
    Point_words words;
    for (int w = 0; w < 26; ++w)
        if (w != 18 && w != 19)
            words.push_back(record[w]);
    return words;
}

std::vector<Point_words> sorted(std::vector<Point_words> points)
{
    std::sort(points.begin(), points.end());
    return points;
}

// Points whose every word has bits of its own: any word taken from the wrong place, rounded or
// swapped shows. `seed` keeps the sets of several files apart.
std::vector<Fg_point> distinct_points(uint32_t count, uint32_t seed)
{
    std::vector<Fg_point> points(count);
    uint32_t state = seed * 2654435761u + 12345u;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t words[27] = {};
        for (int w = 0; w < 26; ++w) {
            state = state * 1664525u + 1013904223u;
            const float value = float(state >> 8) / float(1 << 24) * 200.0f - 100.0f;
            std::memcpy(&words[w], &value, 4);
        }
        words[10] = seed * 100000u + i + 1;  // rays
        words[17] = seed * 1000000u + i;     // point_id
        words[18] = words[19] = 0;
        std::memcpy(&points[i], words, sizeof words);
    }
    return points;
}

template <class Points>
std::vector<Point_words> words_of(const Points& points)
{
    std::vector<Point_words> result;
    for (const auto& p : points)
        result.push_back(kept_words(reinterpret_cast<const uint32_t*>(&p)));
    return result;
}

class OpenBinaryInputTest : public ::testing::Test {
protected:
    void SetUp() override { qv_test_fg_init(); }

    // `points` as a final-gather map file of `format`, written by the library.
    static void write_map(const std::string& path, const std::vector<Fg_point>& points, Map_file_format format)
    {
        QV::RCMAP::Map_impl* map = fg_map_new();
        ASSERT_EQ(fg_map_add_points(map, points.data(), uint32_t(points.size())), MAP_SUCCESS);
        map->commit();
        ASSERT_EQ(map->write(path.c_str(), format, false), MAP_SUCCESS);
        delete map;
    }

    Temp_dir dir;
};

// The tool's error line for an RCMP error of number `code`.
std::string rcmp_error_line(int code, const std::string& text)
{
    char number[16];
    snprintf(number, sizeof number, "%d", (MOD_RCMP * 10 + 1) * 1000 + code);
    return std::string("RCMP 0.0  error  ") + number + ": " + text + "\n";
}

} // namespace

// Every point of an open binary map arrives bit for bit, in both output formats, whatever the
// order of the classic and binary inputs around it.
TEST_F(OpenBinaryInputTest, EveryPointLoadsBitForBitAmongOtherInputsInAnyOrder)
{
    // More open binary points than one map page holds.
    const std::vector<Fg_point> open_points = distinct_points(2500, 2), binary_points = distinct_points(200, 3),
                                classic_points = distinct_points(100, 4);
    const std::string open = dir.file("a.ob"), binary = dir.file("b.map"), classic = dir.file("c.fg");
    write_map(open, open_points, MAP_FORMAT_OPEN_BINARY);
    ASSERT_EQ(read_file(open).substr(0, 9), "qv=MAPob1");
    write_map(binary, binary_points, MAP_FORMAT_BINARY);
    write_file(classic, classic_bytes(classic_points));

    std::vector<Fg_point> all = open_points;
    all.insert(all.end(), binary_points.begin(), binary_points.end());
    all.insert(all.end(), classic_points.begin(), classic_points.end());
    const std::vector<Point_words> expected = sorted(words_of(all));

    std::vector<std::string> inputs = {open, binary, classic};
    std::sort(inputs.begin(), inputs.end());
    const std::string output = dir.file("out.fg");
    do {
        SCOPED_TRACE(inputs[0] + " " + inputs[1] + " " + inputs[2]);
        Tool_result r = run_tool({"-l", "on", inputs[0], inputs[1], inputs[2], output});
        ASSERT_EQ(r.exit_code, 0) << r.err;
        EXPECT_EQ(r.err, "");
        const Classic_file out = decode_classic(read_file(output));
        ASSERT_TRUE(out.ok);
        EXPECT_EQ(sorted(words_of(out.points)), expected);
    } while (std::next_permutation(inputs.begin(), inputs.end()));

    // Into the current format (read back through a second run); with -v the load is counted
    // like any other input's.
    const std::string current = dir.file("out.map");
    Tool_result r = run_tool({"-v", open, binary, classic, current});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.err.find("2500 finalgather points loaded from " + open), std::string::npos) << r.err;
    ASSERT_EQ(run_tool({"-l", "on", current, output}).exit_code, 0);
    EXPECT_EQ(sorted(words_of(decode_classic(read_file(output)).points)), expected);
}

TEST_F(OpenBinaryInputTest, EachFaultyHeaderHasItsLineAndTheRunGoesOn)
{
    const std::string good = dir.file("good.fg");
    std::vector<Classic_point> records;
    for (int i = 0; i < 40; ++i)
        records.push_back(make_point(float(i), 1.0f, 2.0f, 10 + uint32_t(i), i));
    write_file(good, classic_bytes(records));
    const std::string bad = dir.file("bad.ob");

    // Whole elements before a cut one stay in the map, as the reader leaves them pending.
    write_map(bad, distinct_points(5, 5), MAP_FORMAT_OPEN_BINARY);
    const std::string cut_bytes = read_file(bad);

    struct Case {
        const char* what;
        std::string bytes;
        int code;
        std::string message; // %s is the file name
        uint32_t points;     // in the output
    };
    const std::string NUL(1, '\0');
    // Every header fault and its text is in the map reader's own table; here one of each way the
    // tool meets them: a refused header, a layout of another kind, and a cut element.
    const std::vector<Case> cases = {
        {"version", "qv=MAPob2dim3" + NUL, 31, "version of open binary map file \"%s\" is 2, unsupported", 40},
        {"other layout", "qv=MAPob1dim3s\"w\"" + NUL + std::string(32, '\0'), 27,
         "cannot append from map file \"%s\", declarations are not equivalent", 40},
        {"cut element", cut_bytes.substr(0, cut_bytes.size() - 10), 29, "reading from open binary map file \"%s\"",
         44},
    };
    const std::string output = dir.file("out.fg");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // The final-gather loader reads 32 bytes to tell the kinds apart before the map reader
        // sees the file; what pads a header to that length is never reached.
        std::string bytes = c.bytes;
        if (bytes.size() < 32)
            bytes.append(32 - bytes.size(), bytes.find('\0') == std::string::npos ? 'x' : '\0');
        write_file(bad, bytes);
        std::string message = c.message;
        message.replace(message.find("%s"), 2, bad);
        Tool_result r = run_tool({"-l", "on", bad, good, output});
        EXPECT_EQ(r.exit_code, 0);
        EXPECT_EQ(r.err, rcmp_error_line(c.code, message));
        EXPECT_EQ(decode_classic(read_file(output)).points.size(), c.points);
    }

    // Alone, a faulty file gives no point: the run ends with 1 and the output stays.
    write_file(output, "untouched");
    write_file(bad, "qv=MAPob1dim7" + NUL + std::string(32, '\0'));
    Tool_result r = run_tool({bad, output});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(read_file(output), "untouched");
}
