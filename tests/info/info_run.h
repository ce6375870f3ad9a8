// The maps the fg_info tests read: classic files built byte by byte here, independently of the
// library's writers. The binaries run through tests/run_support.h.
#pragma once

#include "tests/run_support.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

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
std::vector<Record> make_records(uint32_t count, uint32_t seed);
// A classic file of `records`: version 0 or 1, big-endian when `foreign`.
std::string classic_file(const std::vector<Record>& records, uint32_t version, bool foreign);
