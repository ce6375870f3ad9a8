// fg_info run as a user runs it: its summary, PLY and picture checked against values computed
// here from the points that were written (classic files built here, binary and open binary maps
// written by the library), and its answers to damaged files and bad words.
#include <png.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <sstream>

#include "finalgather/fg_map.h"
#include "maps/map_impl.h"
#include "tests/run_support.h"
#include "tests/tool/classic_file.h"
#include "tests/test_support.h"

namespace {

// One classic record, words 0..25.
struct Record {
    float position[3];
    float normal[3];
    float irrad[4];
    uint32_t rays;
    float rest[15];  // words 11..25, never looked at by fg_info's numbers
};
static_assert(sizeof(Record) == 104);

// `count` records with distinct positions in [0, 10) x [0, 4) x [0, 8), irradiance in [0, 2),
// rays in [1, 1000], from a fixed seed.
std::vector<Record> make_records(uint32_t count, uint32_t seed)
{
    uint32_t state = seed * 2654435761u + 1;
    auto next = [&state](float range) {
        state = state * 1664525u + 1013904223u;
        return float(state >> 8) / float(1u << 24) * range;
    };
    std::vector<Record> records(count);
    for (uint32_t i = 0; i < count; ++i) {
        Record& r = records[i];
        r = Record{};
        r.position[0] = next(10.0f);
        r.position[1] = next(4.0f);
        r.position[2] = next(8.0f);
        r.normal[1] = 1.0f;
        for (int c = 0; c < 4; ++c)
            r.irrad[c] = next(2.0f);
        r.rays = 1 + uint32_t(next(1000.0f)) % 1000;
    }
    return records;
}


Run_result run_info(const std::vector<std::string>& args)
{
    return run_binary(QV_TEST_INFO_PATH, args);
}

// "name: value" lines of the summary (the indented declaration lines are left out).
std::map<std::string, std::string> summary_fields(const std::string& text)
{
    std::map<std::string, std::string> fields;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(": ");
        if (!line.empty() && line[0] != ' ' && colon != std::string::npos)
            fields[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return fields;
}

std::vector<double> numbers(const std::string& text)
{
    std::vector<double> values;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        char* end = nullptr;
        const double value = std::strtod(word.c_str(), &end);
        if (end != word.c_str() && *end == '\0')
            values.push_back(value);
    }
    return values;
}

// The documented display colour: exposure to mean luminance 0.18, x / (1 + x), gamma 2.2.
std::array<uint8_t, 3> display_color(const float irrad[3], double exposure)
{
    std::array<uint8_t, 3> rgb{};
    for (int c = 0; c < 3; ++c) {
        const double x = double(irrad[c]) * exposure;
        rgb[c] = x > 0 ? uint8_t(std::lround(255.0 * std::pow(x / (1.0 + x), 1.0 / 2.2))) : 0;
    }
    return rgb;
}

double exposure_of(const std::vector<Record>& records)
{
    double mean[3] = {};
    for (const Record& r : records)
        for (int c = 0; c < 3; ++c)
            mean[c] += r.irrad[c] / double(records.size());
    return 0.18 / (0.2126 * mean[0] + 0.7152 * mean[1] + 0.0722 * mean[2]);
}

// `records` written by the library as an open binary map.
void write_open_binary(const std::string& path, const std::vector<Record>& records)
{
    qv_test_fg_init();
    std::vector<Fg_point> points(records.size());
    for (size_t i = 0; i < records.size(); ++i)
        std::memcpy(&points[i], &records[i], sizeof(Record));
    QV::RCMAP::Map_impl* map = fg_map_new();
    EXPECT_EQ(fg_map_add_points(map, points.data(), uint32_t(points.size())), qv::shader_v3::MAP_SUCCESS);
    map->commit();
    EXPECT_EQ(map->write(path.c_str(), qv::shader_v3::MAP_FORMAT_OPEN_BINARY, false), qv::shader_v3::MAP_SUCCESS);
    delete map;
}

enum Form { CLASSIC, BINARY, OPEN_BINARY };  // binary: converted by fg_splice; open: by the library

struct Map_case {
    const char* name;
    uint32_t version;
    bool foreign;
    Form form;
};

class InfoSummaryTest : public testing::TestWithParam<Map_case> {};

TEST_P(InfoSummaryTest, NumbersEqualThoseOfTheWrittenPoints)
{
    const Map_case& c = GetParam();
    Temp_dir dir;
    const std::vector<Record> records = make_records(300, 7);
    std::string path = dir.file("map.fg");
    write_file(path, classic_bytes(records, c.version, c.foreign));
    if (c.form == BINARY) {
        ASSERT_EQ(run_binary(QV_TEST_TOOL_PATH, {path, dir.file("map.fgm")}).exit_code, 0);
        path = dir.file("map.fgm");
    } else if (c.form == OPEN_BINARY) {
        path = dir.file("map.ob");
        write_open_binary(path, records);
    }
    const Run_result r = run_info({"-n", "2", path});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    auto fields = summary_fields(r.out);

    const char* kinds[] = {"classic final-gather map", "binary map", "open binary map"};
    EXPECT_EQ(fields["kind"], kinds[c.form]) << r.out;
    EXPECT_EQ(fields["byte order"], c.foreign ? "big-endian" : "little-endian");
    if (c.form == OPEN_BINARY) {
        EXPECT_EQ(fields["version"], "1");
    } else if (c.form == BINARY) {
        EXPECT_EQ(fields["version"], "2");
        EXPECT_EQ(fields["page size"], "32768 bytes");
        EXPECT_EQ(fields["pages"], "1");
        EXPECT_EQ(fields["bvh stored"], "yes");
    } else {
        EXPECT_EQ(fields["version"], std::to_string(c.version));
        // Records come in file order: the first two are the first two written.
        for (int i = 0; i < 2; ++i) {
            const std::vector<double> point = numbers(fields["point " + std::to_string(i)]);
            ASSERT_GE(point.size(), 11u);
            for (int a = 0; a < 3; ++a)
                EXPECT_EQ(float(point[a]), records[i].position[a]);
            EXPECT_EQ(uint32_t(point[10]), records[i].rays);
        }
    }
    EXPECT_NE(r.out.find("  declare map"), std::string::npos);
    EXPECT_EQ(fields["elements"], "300");

    // Every number against the same number taken from the written records: bounds, irradiance
    // channels (min mean max) and the ray total.
    double low[7], high[7], sum[7] = {};  // x y z, then irradiance r g b a
    std::fill(low, low + 7, std::numeric_limits<double>::max());
    std::fill(high, high + 7, -std::numeric_limits<double>::max());
    uint64_t rays = 0;
    for (const Record& rec : records) {
        rays += rec.rays;
        for (int k = 0; k < 7; ++k) {
            const double v = k < 3 ? rec.position[k] : rec.irrad[k - 3];
            low[k] = std::min(low[k], v);
            high[k] = std::max(high[k], v);
            sum[k] += v;
        }
    }
    EXPECT_EQ(fields["rays"], std::to_string(rays));
    const std::vector<double> bounds_min = numbers(fields["bounds min"]), bounds_max = numbers(fields["bounds max"]);
    ASSERT_TRUE(bounds_min.size() == 3 && bounds_max.size() == 3);
    for (int a = 0; a < 3; ++a)
        EXPECT_TRUE(float(bounds_min[a]) == float(low[a]) && float(bounds_max[a]) == float(high[a])) << a;
    const char* channels[4] = {"red", "green", "blue", "alpha"};
    for (int ch = 0; ch < 4; ++ch) {
        const std::vector<double> v = numbers(fields[std::string("irradiance ") + channels[ch]]);
        ASSERT_EQ(v.size(), 3u) << channels[ch];
        EXPECT_TRUE(float(v[0]) == float(low[3 + ch]) && float(v[2]) == float(high[3 + ch])) << channels[ch];
        EXPECT_NEAR(v[1], sum[3 + ch] / double(records.size()), 1e-6);
    }

    // Fewer points than the sample size: every point is sampled.
    double distance_sum = 0.0;
    for (size_t i = 0; i < records.size(); ++i) {
        double best = std::numeric_limits<double>::max();
        for (size_t j = 0; j < records.size(); ++j) {
            double d2 = 0.0;
            for (int a = 0; a < 3; ++a)
                d2 += std::pow(double(records[i].position[a]) - records[j].position[a], 2);
            if (i != j)
                best = std::min(best, d2);
        }
        distance_sum += std::sqrt(best);
    }
    const std::vector<double> neighbour = numbers(fields["nearest neighbour distance"]);
    ASSERT_EQ(neighbour.size(), 2u);
    EXPECT_NEAR(neighbour[0], distance_sum / 300.0, 1e-5);
    EXPECT_EQ(neighbour[1], 300.0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, InfoSummaryTest,
                         testing::Values(Map_case{"ClassicNative", 1, false, CLASSIC},
                                         Map_case{"ClassicForeign", 1, true, CLASSIC},
                                         Map_case{"ClassicVersion0", 0, false, CLASSIC},
                                         Map_case{"Binary", 1, false, BINARY},
                                         Map_case{"OpenBinary", 1, false, OPEN_BINARY}),
                         [](const auto& info) { return std::string(info.param.name); });

struct Decoded_png {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> rgb;
    const uint8_t* at(int x, int y) const { return rgb.data() + (size_t(y) * width + size_t(x)) * 3; }
};

Decoded_png decode_png(const std::string& path)
{
    Decoded_png png;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return png;
    image.format = PNG_FORMAT_RGB;
    png.rgb.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, png.rgb.data(), 0, nullptr)) {
        png.rgb.clear();
        return png;
    }
    png.width = image.width;
    png.height = image.height;
    return png;
}

TEST(InfoExportTest, PlyAsciiAndPictureHoldEveryPointThePictureWhereItProjectsInAllViews)
{
    Temp_dir dir;
    // Points on the diagonal of the unit cube, facing every viewer, so none hides another.
    std::vector<Record> records = make_records(5, 1);
    for (int k = 0; k < 5; ++k) {
        for (int a = 0; a < 3; ++a) {
            records[k].position[a] = 0.25f * float(k);
            records[k].normal[a] = 0.57735f;
        }
        records[k].irrad[0] = 0.05f + 0.2f * float(k);
    }
    write_file(dir.file("map.fg"), classic_bytes(records));
    const double exposure = exposure_of(records);

    // Every output at once, the picture at its default size.
    const Run_result all = run_info({"--ply", dir.file("out.ply"), "--ascii", dir.file("out.txt"), "--png",
                                     dir.file("default.png"), dir.file("map.fg")});
    ASSERT_EQ(all.exit_code, 0) << all.err;
    EXPECT_EQ(all.out, "");  // output options alone print no summary
    EXPECT_NE(read_file(dir.file("out.txt")).find("open ASCII map file, 5 elements"), std::string::npos);
    const Decoded_png large = decode_png(dir.file("default.png"));
    EXPECT_EQ(large.width, 1200u);
    EXPECT_EQ(large.height, 400u);

    const std::string ply = read_file(dir.file("out.ply"));
    const std::string end = "end_header\n";
    const size_t body = ply.find(end);
    ASSERT_NE(body, std::string::npos);
    const std::string header = ply.substr(0, body);
    EXPECT_EQ(header.rfind("ply\nformat binary_little_endian 1.0\n", 0), 0u);
    EXPECT_NE(header.find("element vertex 5\n"), std::string::npos);
    const char* properties[] = {"float x", "float y", "float z", "float nx", "float ny", "float nz",
                                "uchar red", "uchar green", "uchar blue", "float irrad_r", "float irrad_g",
                                "float irrad_b", "uint rays"};
    size_t at = 0;
    for (const char* property : properties) {
        at = header.find(std::string("property ") + property + "\n", at);
        ASSERT_NE(at, std::string::npos) << property << " missing or out of order";
    }
    constexpr size_t VERTEX = 43;
    ASSERT_EQ(ply.size(), body + end.size() + 5 * VERTEX);
    for (size_t i = 0; i < 5; ++i) {
        const char* v = ply.data() + body + end.size() + i * VERTEX;
        float f[6], irrad[3];
        uint32_t rays;
        std::memcpy(f, v, 24);
        std::memcpy(irrad, v + 27, 12);
        std::memcpy(&rays, v + 39, 4);
        for (int a = 0; a < 3; ++a)
            EXPECT_TRUE(f[a] == records[i].position[a] && f[3 + a] == records[i].normal[a] && irrad[a] == records[i].irrad[a]);
        EXPECT_EQ(rays, records[i].rays);
        const auto rgb = display_color(records[i].irrad, exposure);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(int(uint8_t(v[24 + c])), int(rgb[c]), 1) << "point " << i << " channel " << c;
    }

    const Run_result r = run_info({"--png", dir.file("out.png"), "--size", "600x200", dir.file("map.fg")});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const Decoded_png png = decode_png(dir.file("out.png"));
    ASSERT_EQ(png.width, 600u);
    ASSERT_EQ(png.height, 200u);

    // 200 x 200 panels with a 13-pixel border: the unit extent is 174 pixels in every view,
    // centred in its panel; rows grow downwards.
    const double scale = 174.0;
    auto expect_pixel = [&](double column, double row, const uint8_t* rgb, const std::string& what) {
        const uint8_t* p = png.at(int(column), int(row));
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(int(p[c]), int(rgb[c]), 1) << what << " channel " << c;
    };
    const uint8_t background[3] = {24, 24, 28};
    for (int k = 0; k < 5; ++k) {
        const double t = 0.25 * k - 0.5;  // offset from the centre of the bounds
        const auto rgb = display_color(records[k].irrad, exposure);
        const std::string name = "point " + std::to_string(k);
        expect_pixel(100 + t * scale, 100 + t * scale, rgb.data(), name + " top");
        expect_pixel(300 + t * scale, 100 - t * scale, rgb.data(), name + " front");
        expect_pixel(500 - t * scale, 100 - t * scale, rgb.data(), name + " side");
        // Off the diagonal, where no point projects.
        expect_pixel(100 + t * scale, 100 - t * scale + (k == 2 ? 40 : 0), background, name + " top, away");
        expect_pixel(300 + t * scale, 100 + t * scale + (k == 2 ? 40 : 0), background, name + " front, away");
    }
}

TEST(InfoErrorTest, DamagedInputOfEachKindExitsOneWithTheReadersLine)
{
    Temp_dir dir;
    const std::vector<Record> records = make_records(20, 5);
    const std::string classic = classic_bytes(records);
    write_file(dir.file("good.fg"), classic);
    ASSERT_EQ(run_binary(QV_TEST_TOOL_PATH, {dir.file("good.fg"), dir.file("good.fgm")}).exit_code, 0);
    const std::string binary = read_file(dir.file("good.fgm"));
    write_open_binary(dir.file("good.ob"), records);
    const std::string open = read_file(dir.file("good.ob"));

    std::string bad_magic = classic;
    bad_magic[33] = 'X';
    std::string unknown_version = classic;
    unknown_version[40] = 7;
    struct Case {
        const char* name;
        std::string bytes;
        std::string line;
    } cases[] = {
        {"missing.fg", "", "cannot load finalgather map file"},
        {"magic.fg", bad_magic, "wrong finalgather map header magic"},
        {"version.fg", unknown_version, "unknown finalgather map version"},
        {"header.fg", classic.substr(0, 20), "cannot read finalgather map file header"},
        {"short.fgm", binary.substr(0, 100), "is damaged"},
        {"partial.ob", open.substr(0, open.size() - 7), "reading from open binary map file"},
    };
    for (const Case& c : cases) {
        if (std::string(c.name) != "missing.fg")
            write_file(dir.file(c.name), c.bytes);
        const Run_result r = run_info({dir.file(c.name)});
        EXPECT_EQ(r.exit_code, 1) << c.name;
        EXPECT_NE(r.err.find(c.line), std::string::npos) << c.name << ": " << r.err;
    }
}

TEST(InfoErrorTest, BadWordsAreUsageWithExitTwo)
{
    const std::vector<std::vector<std::string>> runs = {
        {}, {"-n"}, {"-n", "x", "a.fg"}, {"--size", "10", "a.fg"}, {"--size", "0x5", "a.fg"},
        {"--ply"}, {"--bogus", "a.fg"}, {"a.fg", "b.fg"},
    };
    for (const auto& args : runs) {
        const Run_result r = run_info(args);
        EXPECT_EQ(r.exit_code, 2) << testing::PrintToString(args);
        EXPECT_NE(r.err.find("usage: fg_info"), std::string::npos);
    }
    // An output that names the input would destroy it.
    Temp_dir dir;
    const std::string map = classic_bytes(make_records(10, 1));
    write_file(dir.file("map.fg"), map);
    EXPECT_EQ(run_info({"--ascii", dir.file("map.fg"), dir.file("map.fg")}).exit_code, 2);
    EXPECT_EQ(read_file(dir.file("map.fg")), map);
}

}  // namespace
