// The numbers of fg_info's summary and their printed form.
#pragma once

#include <cstdint>
#include <cstdio>

#include "info/info_input.h"

class Info_progress;
namespace QV::RCMAP {
class Map_impl;
class Map_lookup_impl;
}

struct Info_stats {
    uint32_t count = 0;
    uint64_t ray_total = 0;
    // Over the points' positions; minima +inf and maxima -inf for an empty map. NaN
    // coordinates and NaN irradiance values are passed over by min and max, the means keep them.
    float bounds_min[3];
    float bounds_max[3];
    float irrad_min[4];      // red, green, blue, alpha
    float irrad_max[4];
    double irrad_mean[4];    // 0 for an empty map

    Info_stats();
    // Rec. 709 luminance of the mean irradiance.
    double mean_luminance() const;
};

// One pass over the map's committed points.
Info_stats info_gather_stats(QV::RCMAP::Map_impl& map, Info_progress* progress);

// Points sampled for the nearest-neighbour distance: all of them up to this many, else this many
// spread evenly over the element order.
constexpr uint32_t INFO_NEIGHBOUR_SAMPLES = 1000;

struct Info_neighbours {
    uint32_t samples = 0;        // 0: no figure (fewer than two points or no BVH)
    double mean_distance = 0.0;  // mean Euclidean distance of a sample to its nearest other point
};

// Distance from element `index` at `position` to the nearest other element, found through
// `lookup` (a lookup over the map); negative when the map has no other element. REQUIRES: the map has a valid BVH and is not rebuilt meanwhile.
float info_nearest_neighbour_distance(QV::RCMAP::Map_lookup_impl& lookup, uint32_t index, const float* position);
// Mean of the above over the sample. REQUIRES: as above.
Info_neighbours info_sample_neighbours(QV::RCMAP::Map_impl& map, Info_progress* progress);

// The summary lines, "name: value" each; the declaration's text follows its line, indented.
// `neighbours` null or without samples prints "n/a".
void info_print_summary(FILE* out, const Info_input& input, const Info_stats& stats,
                        const Info_neighbours* neighbours);
// The first `count` points (all when the map has fewer), one line each with named fields.
void info_print_points(FILE* out, QV::RCMAP::Map_impl& map, uint32_t count);
