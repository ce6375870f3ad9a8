#include "info/info_summary.h"

#include "maps/map_lookup.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "info/info_progress.h"
#include "info/info_walk.h"
#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"

using QV::RCMAP::Map_impl;

Info_stats::Info_stats()
{
    constexpr float inf = std::numeric_limits<float>::infinity();
    for (int a = 0; a < 3; ++a) {
        bounds_min[a] = inf;
        bounds_max[a] = -inf;
    }
    for (int c = 0; c < 4; ++c) {
        irrad_min[c] = inf;
        irrad_max[c] = -inf;
        irrad_mean[c] = 0.0;
    }
}

double Info_stats::mean_luminance() const
{
    return 0.2126 * irrad_mean[0] + 0.7152 * irrad_mean[1] + 0.0722 * irrad_mean[2];
}

Info_stats info_gather_stats(Map_impl& map, Info_progress* progress)
{
    Info_stats stats;
    double sum[4] = {};
    if (progress)
        progress->start("reading points", map.size());
    info_walk(map, progress, [&](uint32_t, const Fg_point& point) {
        for (int a = 0; a < 3; ++a) {
            stats.bounds_min[a] = point.position[a] < stats.bounds_min[a] ? point.position[a] : stats.bounds_min[a];
            stats.bounds_max[a] = point.position[a] > stats.bounds_max[a] ? point.position[a] : stats.bounds_max[a];
        }
        for (int c = 0; c < 4; ++c) {
            const float v = point.irrad[c];
            stats.irrad_min[c] = v < stats.irrad_min[c] ? v : stats.irrad_min[c];
            stats.irrad_max[c] = v > stats.irrad_max[c] ? v : stats.irrad_max[c];
            sum[c] += v;
        }
        stats.ray_total += point.rays;
    });
    if (progress)
        progress->finish();
    stats.count = map.size();
    if (stats.count > 0)
        for (int c = 0; c < 4; ++c)
            stats.irrad_mean[c] = sum[c] / stats.count;
    return stats;
}

// The one place that asks the map for a nearest neighbour: the search of the map's BVH, two
// results because the sample point itself is among them.
float info_nearest_neighbour_distance(QV::RCMAP::Map_lookup_impl& lookup, uint32_t index, const float* position)
{
    // Two nearest: the sampled point itself is one of them, unless another lies on it.
    const qv::shader_v3::Map_vector3 query{position[0], position[1], position[2]};
    if (lookup.search(query, 2, std::numeric_limits<float>::max()) != qv::shader_v3::MAP_SUCCESS)
        return -1.0f;
    float best = -1.0f;
    qv::shader_v3::Map_lookup_entry entry;
    for (uint32_t at = 0; lookup.get_entry(at, &entry) == qv::shader_v3::MAP_SUCCESS; ++at)
        if (entry.index != index && (best < 0.0f || entry.distance < best))
            best = entry.distance;
    return best < 0.0f ? best : std::sqrt(best);
}

Info_neighbours info_sample_neighbours(Map_impl& map, Info_progress* progress)
{
    Info_neighbours result;
    const uint32_t count = map.size();
    if (count < 2 || !map.global_bvh || !map.global_bvh->is_valid())
        return result;
    const uint32_t samples = count < INFO_NEIGHBOUR_SAMPLES ? count : INFO_NEIGHBOUR_SAMPLES;
    if (progress)
        progress->start("sampling neighbours", samples);
    QV::RCMAP::Map_page_store& store = map.page_store();
    QV::RCMAP::Map_lookup_impl lookup(&map);
    double sum = 0.0;
    uint32_t used = 0;
    for (uint32_t k = 0; k < samples; ++k) {
        const uint32_t index = uint32_t(uint64_t(k) * count / samples);
        float position[3];
        store.read_bytes(index, 0, sizeof(position), position);
        const float distance = info_nearest_neighbour_distance(lookup, index, position);
        if (distance >= 0.0f) {
            sum += distance;
            ++used;
        }
        if (progress)
            progress->update(k + 1);
    }
    if (progress)
        progress->finish();
    result.samples = used;
    result.mean_distance = used ? sum / used : 0.0;
    return result;
}

namespace {

const char* const CHANNEL_NAMES[4] = {"red", "green", "blue", "alpha"};

// The declaration is named after the file, without directories and extension.
std::string map_name(const std::string& path)
{
    std::string name = path.substr(path.find_last_of('/') + 1);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

}  // namespace

void info_print_summary(FILE* out, const Info_input& input, const Info_stats& stats,
                        const Info_neighbours* neighbours)
{
    std::fprintf(out, "file: %s\n", input.path.c_str());
    std::fprintf(out, "kind: %s\n", info_kind_text(input.kind));
    if (input.kind != INFO_KIND_OTHER)
        std::fprintf(out, "version: %u\n", input.version);
    // Binary map files are little-endian by definition; classic files say which order they use.
    std::fprintf(out, "byte order: %s\n", input.foreign_order ? "big-endian" : "little-endian");
    if (const auto* declaration = input.map ? input.map->get_declaration() : nullptr) {
        std::string text;
        declaration->write_text(map_name(input.path).c_str(), text);
        std::fprintf(out, "declaration:\n");
        size_t begin = 0;
        while (begin < text.size()) {
            size_t end = text.find('\n', begin);
            if (end == std::string::npos)
                end = text.size();
            if (end > begin) {
                // The text indents with tabs; the summary with two spaces a level.
                std::string line = text.substr(begin, end - begin);
                for (size_t tab; (tab = line.find('\t')) != std::string::npos;)
                    line.replace(tab, 1, "  ");
                std::fprintf(out, "  %s\n", line.c_str());
            }
            begin = end + 1;
        }
    }
    std::fprintf(out, "elements: %u\n", stats.count);
    if (stats.count > 0) {
        std::fprintf(out, "bounds min: %.9g %.9g %.9g\n", stats.bounds_min[0], stats.bounds_min[1], stats.bounds_min[2]);
        std::fprintf(out, "bounds max: %.9g %.9g %.9g\n", stats.bounds_max[0], stats.bounds_max[1], stats.bounds_max[2]);
    }
    if (input.kind == INFO_KIND_BINARY) {
        std::fprintf(out, "page size: %u bytes\n", input.page_bytes);
        std::fprintf(out, "pages: %u\n", input.page_count);
        std::fprintf(out, "bvh stored: %s\n", input.bvh_stored ? "yes" : "no");
    }
    std::fprintf(out, "rays: %llu\n", static_cast<unsigned long long>(stats.ray_total));
    if (stats.count > 0)
        for (int c = 0; c < 4; ++c)
            std::fprintf(out, "irradiance %s: min %.9g mean %.9g max %.9g\n", CHANNEL_NAMES[c], stats.irrad_min[c],
                         stats.irrad_mean[c], stats.irrad_max[c]);
    if (neighbours && neighbours->samples > 0)
        std::fprintf(out, "nearest neighbour distance: mean %.9g over %u sampled points\n",
                     neighbours->mean_distance, neighbours->samples);
    else
        std::fprintf(out, "nearest neighbour distance: n/a\n");
}

void info_print_points(FILE* out, Map_impl& map, uint32_t count)
{
    if (count == 0)
        return;
    const uint32_t shown = count < map.size() ? count : map.size();
    QV::RCMAP::Map_element_impl element(map.get_declaration());
    Fg_point p{};
    for (uint32_t i = 0; i < shown; ++i) {
        map.page_store().read_bytes(i, 0, element.data_bytes(), element.get_data());
        fg_point_from_element(&p, &element);
        std::fprintf(out,
                     "point %u: position %.9g %.9g %.9g normal %.9g %.9g %.9g irrad %.9g %.9g %.9g %.9g rays %u "
                     "grad_t1 %.9g %.9g %.9g grad_t2 %.9g %.9g %.9g point_id %d r_mean %.9g min_dist %.9g "
                     "min_dist_dir %.9g %.9g %.9g occluded_min_dist %.9g\n",
                     i, p.position[0], p.position[1], p.position[2], p.normal[0], p.normal[1], p.normal[2],
                     p.irrad[0], p.irrad[1], p.irrad[2], p.irrad[3], p.rays, p.grad_t1[0], p.grad_t1[1],
                     p.grad_t1[2], p.grad_t2[0], p.grad_t2[1], p.grad_t2[2], p.point_id, p.r_mean, p.min_dist,
                     p.min_dist_dir[0], p.min_dist_dir[1], p.min_dist_dir[2], p.occluded_min_dist);
    }
}
