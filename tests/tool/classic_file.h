// Builds and decodes classic final-gather files byte by byte, independently of the library, so
// the end-to-end tests check the tool against the layout rather than against its own reader.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

struct Classic_point {
    uint32_t words[26];  // the on-disk record: words 0..25 of a point

    float f(int w) const { float v; std::memcpy(&v, &words[w], 4); return v; }
    void set(int w, float v) { std::memcpy(&words[w], &v, 4); }
};

// A point with every word distinct and recognisable; `rays` is word 10, `point_id` word 17.
inline Classic_point make_point(float x, float y, float z, uint32_t rays, int32_t id)
{
    Classic_point p{};
    p.set(0, x); p.set(1, y); p.set(2, z);
    p.set(3, 0); p.set(4, 1); p.set(5, 0);  // normal +y
    for (int w = 6; w <= 9; ++w) p.set(w, 0.25f * float(w) + 0.001f * float(id));
    p.words[10] = rays;
    for (int w = 11; w <= 16; ++w) p.set(w, 0.01f * float(w - 10));
    std::memcpy(&p.words[17], &id, 4);
    p.words[18] = 0xAAAA0000u + uint32_t(id);  // reserved: never survives a map
    p.words[19] = 0xBBBB0000u + uint32_t(id);
    for (int w = 20; w <= 25; ++w) p.set(w, 0.5f + 0.125f * float(w - 20));
    return p;
}

// The 120-byte header followed by the records (any type whose first 104 bytes are a record);
// `foreign` writes big-endian.
template <class Point>
std::string classic_bytes(const std::vector<Point>& points, uint32_t version = 1, bool foreign = false)
{
    static_assert(sizeof(Point) >= 104);
    auto word = [foreign](uint32_t u) { return foreign ? __builtin_bswap32(u) : u; };
    std::string out(120, '\0');
    std::memcpy(&out[0], "qvFG    3.9.4.14", 16);
    std::memcpy(&out[32], "qvFH", 4);
    const uint32_t head[2] = {word(1), word(version)}, count = word(uint32_t(points.size()));
    std::memcpy(&out[36], head, 8);
    std::memcpy(&out[96], &count, 4);
    for (const Point& p : points) {
        uint32_t words[26];
        std::memcpy(words, &p, sizeof words);
        for (uint32_t& w : words)
            w = word(w);
        out.append(reinterpret_cast<const char*>(words), sizeof words);
    }
    return out;
}

inline std::string classic_bytes(const std::vector<Classic_point>& points) { return classic_bytes<Classic_point>(points); }

struct Classic_file {
    bool ok = false;
    std::string header;  // the first 120 bytes
    uint32_t count = 0;
    std::vector<Classic_point> points;
};

inline Classic_file decode_classic(const std::string& bytes)
{
    Classic_file file;
    if (bytes.size() < 120)
        return file;
    file.header = bytes.substr(0, 120);
    std::memcpy(&file.count, &bytes[96], 4);
    if (bytes.size() != 120 + 104 * size_t(file.count))
        return file;
    for (uint32_t i = 0; i < file.count; ++i) {
        Classic_point p;
        std::memcpy(p.words, &bytes[120 + 104 * size_t(i)], 104);
        file.points.push_back(p);
    }
    file.ok = true;
    return file;
}
