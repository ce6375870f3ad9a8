#include "tests/info/info_run.h"

#include <cstring>

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
        for (int w = 0; w < 15; ++w)
            r.rest[w] = 0.01f * float(w + 1);
    }
    return records;
}

std::string classic_file(const std::vector<Record>& records, uint32_t version, bool foreign)
{
    auto word = [foreign](uint32_t u) { return foreign ? __builtin_bswap32(u) : u; };
    std::string out(120, '\0');
    std::memcpy(&out[0], "qvFG    3.9.4.14", 16);
    std::memcpy(&out[32], "qvFH", 4);
    const uint32_t head[2] = {word(1), word(version)};
    std::memcpy(&out[36], head, 8);
    const uint32_t count = word(uint32_t(records.size()));
    std::memcpy(&out[96], &count, 4);
    for (const Record& record : records) {
        uint32_t words[26];
        std::memcpy(words, &record, sizeof words);
        for (uint32_t& w : words)
            w = word(w);
        out.append(reinterpret_cast<const char*>(words), sizeof words);
    }
    return out;
}
