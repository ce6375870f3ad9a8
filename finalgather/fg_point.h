// The plain record of one final-gather point: 27 four-byte words.
//
// Words 0..25 are also the on-disk record of a classic file (104 bytes), and words 3..25 the
// kd-tree payload (23 words, the position kept apart by the tree). Word 26 lives in memory only.
// The word numbers are part of the contract: file readers, the kd-tree payload and the map
// conversions all address the record by them, so the layout is pinned below.
#pragma once

#include <cstddef>
#include <cstdint>

struct Fg_point {
    float position[3];        // words 0..2: place in world space
    float normal[3];          // words 3..5: surface normal (blending renormalises, loading keeps)
    float irrad[4];           // words 6..9: irradiance red, green, blue, alpha
    uint32_t rays;            // word 10: ray count, the blending weight; all bits set = deleted in a merge
    float grad_t1[3];         // words 11..13: d(r,g,b) along the first tangent of the normal's frame
    float grad_t2[3];         // words 14..16: d(r,g,b) along the second tangent
    int32_t point_id;         // word 17: identifier of the point
    uint32_t reserved[2];     // words 18..19: carried in files and the kd-tree payload; no map field
    float r_mean;             // word 20: mean hit distance (blends harmonically)
    float min_dist;           // word 21: smallest hit distance
    float min_dist_dir[3];    // words 22..24: direction of that smallest hit
    float occluded_min_dist;  // word 25: smallest distance of an occluded hit
    uint32_t trailing;        // word 26: in memory only; no file, map field or algorithm uses it
};

// `rays` with every bit set marks a point that a merge has deleted.
constexpr uint32_t FG_POINT_DEAD = 0xffffffffu;

constexpr size_t FG_POINT_WORDS = 27;
constexpr size_t FG_POINT_FILE_WORDS = 26;    // words 0..25: the classic file record
constexpr size_t FG_POINT_PAYLOAD_WORD = 3;   // first word of the kd-tree payload
constexpr size_t FG_POINT_PAYLOAD_WORDS = 23; // words 3..25

static_assert(sizeof(Fg_point) == FG_POINT_WORDS * 4, "Fg_point is 27 words");
static_assert(offsetof(Fg_point, position) == 0 * 4);
static_assert(offsetof(Fg_point, normal) == 3 * 4);
static_assert(offsetof(Fg_point, irrad) == 6 * 4);
static_assert(offsetof(Fg_point, rays) == 10 * 4);
static_assert(offsetof(Fg_point, grad_t1) == 11 * 4);
static_assert(offsetof(Fg_point, grad_t2) == 14 * 4);
static_assert(offsetof(Fg_point, point_id) == 17 * 4);
static_assert(offsetof(Fg_point, reserved) == 18 * 4);
static_assert(offsetof(Fg_point, r_mean) == 20 * 4);
static_assert(offsetof(Fg_point, min_dist) == 21 * 4);
static_assert(offsetof(Fg_point, min_dist_dir) == 22 * 4);
static_assert(offsetof(Fg_point, occluded_min_dist) == 25 * 4);
static_assert(offsetof(Fg_point, trailing) == 26 * 4);
static_assert(FG_POINT_FILE_WORDS * 4 == 104, "classic file record is 104 bytes");
