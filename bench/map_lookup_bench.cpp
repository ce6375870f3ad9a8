// k-nearest queries per second of map lookups, in memory and out of core, next to a
// header-only kd-tree over the same points in memory, all in one run.
//
// For each point count: points spread at random over a 10 x 8 x 3 box; the map is built with
// its BVH; the kd-tree is built over the same points. Two query streams of the same points:
// "random" (anywhere, in no order) and "coherent" (a walk through the box with small steps, as
// a renderer's neighbouring shading points come). Each rate is the median of `repeats` timed
// runs of at least `seconds` each, taken in rounds that run every measurement of a k once, so
// that the ratios do not follow the machine's load; each search also sorts its results, since
// the kd-tree gives them sorted. Rates are per second of the thread's CPU time. The out-of-core
// rows lower the cache limit to a tenth of the map's pages and let
// the map's pages go, so that they come back through the swap file. Before timing, the lookup's
// distances are checked against the kd-tree's for a sample of queries; the program exits
// non-zero when they differ.
//
//   map_lookup_bench [counts...=1000000 10000000] [--seconds=0.4] [--repeats=3]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <nanoflann.hpp>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_lookup.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/threads.h"

using namespace QV::RCMAP;
using qv::shader_v3::Map_vector3;

namespace {

using Clock = std::chrono::steady_clock;

uint64_t mix(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdull;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ull;
    return x ^ (x >> 33);
}

struct Random {
    uint64_t state;
    float next() // [0, 1)
    {
        state = mix(state + 0x9e3779b97f4a7c15ull);
        return float(state >> 40) * (1.0f / 16777216.0f);
    }
};

const float BOX[3] = {10.0f, 8.0f, 3.0f};

struct Cloud {
    std::vector<float> points;
    size_t kdtree_get_point_count() const { return points.size() / 3; }
    float kdtree_get_pt(size_t i, size_t axis) const { return points[i * 3 + axis]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const
    {
        return false;
    }
};
using Kd_tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>, Cloud, 3, uint32_t>;

std::vector<float> random_queries(uint32_t count, uint64_t seed)
{
    Random random{seed};
    std::vector<float> queries(size_t(count) * 3);
    for (size_t i = 0; i < queries.size(); ++i)
        queries[i] = random.next() * BOX[i % 3];
    return queries;
}

// A walk that bounces inside the box, 2 cm a step. Only the direction wanders: a velocity that
// took the random nudges as they come would grow with the walk's length, and after some
// thousands of steps the stream would be as scattered as the random one.
std::vector<float> coherent_queries(uint32_t count, uint64_t seed)
{
    Random random{seed};
    std::vector<float> queries(size_t(count) * 3);
    float p[3] = {1.0f, 1.0f, 1.0f}, v[3] = {0.013f, 0.011f, 0.004f};
    for (uint32_t i = 0; i < count; ++i) {
        for (int a = 0; a < 3; ++a)
            v[a] += (random.next() - 0.5f) * 0.004f;
        const float scale = 0.02f / std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int a = 0; a < 3; ++a) {
            v[a] *= scale;
            p[a] += v[a];
            if (p[a] < 0.0f || p[a] > BOX[a]) {
                v[a] = -v[a];
                p[a] = std::clamp(p[a], 0.0f, BOX[a]);
            }
            queries[size_t(i) * 3 + a] = p[a];
        }
    }
    return queries;
}

// CPU time of the calling thread: the machine is shared, and wall time there mostly measures
// the other processes.
double thread_seconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// One rate: a run over the queries (wrapping on from `next`) for at least `seconds` of the
// thread's CPU time.
template <class Query>
double queries_per_second(const std::vector<float>& queries, double seconds, uint32_t& next, Query query)
{
    const uint32_t count = uint32_t(queries.size() / 3);
    uint64_t done = 0;
    const double start = thread_seconds();
    double elapsed = 0.0;
    do {
        for (int burst = 0; burst < 64; ++burst, ++done) {
            query(&queries[size_t(next) * 3]);
            next = next + 1 == count ? 0 : next + 1;
        }
        elapsed = thread_seconds() - start;
    } while (elapsed < seconds);
    return double(done) / elapsed;
}

// Medians of `repeats` rounds in which every measurement runs once, one after the other: on a
// shared machine the load drifts, and a ratio of rates taken minutes apart measures the drift.
std::vector<double> interleaved_medians(int repeats, const std::vector<std::function<double()>>& measurements)
{
    std::vector<std::vector<double>> rates(measurements.size());
    for (int r = 0; r < repeats; ++r)
        for (size_t m = 0; m < measurements.size(); ++m)
            rates[m].push_back(measurements[m]());
    std::vector<double> medians;
    for (std::vector<double>& list : rates) {
        std::sort(list.begin(), list.end());
        medians.push_back(list[list.size() / 2]);
    }
    return medians;
}

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<uint32_t> counts;
    double seconds = 0.4;
    int repeats = 3;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--seconds=", 0) == 0)
            seconds = atof(word.c_str() + 10);
        else if (word.rfind("--repeats=", 0) == 0)
            repeats = std::max(1, atoi(word.c_str() + 10));
        else
            counts.push_back(uint32_t(atol(word.c_str())));
    }
    if (counts.empty())
        counts = {1000000, 10000000};

    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    rcmp_init(true);
    bool agree = true;
    const uint32_t ks[3] = {1, 8, 64};

    for (uint32_t count : counts) {
        Map_manager::instance().set_size_limit_mb(16384.0f);
        Cloud cloud;
        cloud.points.resize(size_t(count) * 3);
        Random random{count};
        for (size_t i = 0; i < cloud.points.size(); ++i)
            cloud.points[i] = random.next() * BOX[i % 3];

        Map_declaration_impl declaration(3);
        declaration.add_integer("id");
        Map_impl map(declaration);
        Clock::time_point start = Clock::now();
        for (uint32_t i = 0; i < count; ++i) {
            float element[4];
            memcpy(element, &cloud.points[size_t(i) * 3], 12);
            memcpy(&element[3], &i, 4);
            map.append_raw(element);
        }
        map.build_bvh(0.6f, false, false);
        const double map_build = since(start);
        start = Clock::now();
        Kd_tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
        tree.buildIndex();
        const double tree_build = since(start);
        const uint32_t pages = map.global_bvh ? map.global_bvh->page_count() : 0;
        printf("%u points: map %u pages (%.0f MB), built in %.1f s (append and BVH); kd-tree built in %.1f s\n",
               count, pages, pages * (MAP_FILE_PAGE_BYTES / 1048576.0), map_build, tree_build);

        const std::vector<float> scattered = random_queries(20000, count + 1);
        const std::vector<float> walk = coherent_queries(200000, count + 2);

        // The same distances as the kd-tree, for a sample of both streams.
        Map_lookup_impl lookup(&map);
        std::vector<uint32_t> indices(64);
        std::vector<float> distances(64);
        for (uint32_t q = 0; q < 400 && agree; ++q) {
            const float* point = q % 2 ? &scattered[size_t(q) * 3] : &walk[size_t(q) * 3];
            const uint32_t k = ks[q % 3];
            const size_t found = tree.knnSearch(point, k, indices.data(), distances.data());
            lookup.search(Map_vector3{point[0], point[1], point[2]}, k, 1.0e30f);
            lookup.sort();
            if (found != lookup.size())
                agree = false;
            for (uint32_t r = 0; r < found && agree; ++r)
                if (std::fabs(lookup.entries()[r].distance - distances[r]) > 1e-6f * (1.0f + distances[r]))
                    agree = false;
        }
        if (!agree) {
            printf("lookup and kd-tree DISAGREE\n");
            break;
        }

        // kd-tree random, lookup random, lookup walk, out-of-core random, out-of-core walk, kd-tree walk
        double rates[3][6] = {};
        uint32_t next[6] = {};
        for (int k = 0; k < 3; ++k) {
            const uint32_t kk = ks[k];
            auto kd = [&](const float* p) { tree.knnSearch(p, kk, indices.data(), distances.data()); };
            auto ours = [&](const float* p) {
                lookup.search(Map_vector3{p[0], p[1], p[2]}, kk, 1.0e30f);
                lookup.sort();
            };
            const std::vector<double> medians = interleaved_medians(
                repeats, {[&] { return queries_per_second(scattered, seconds, next[0], kd); },
                          [&] { return queries_per_second(scattered, seconds, next[1], ours); },
                          [&] { return queries_per_second(walk, seconds, next[2], ours); },
                          [&] { return queries_per_second(walk, seconds, next[5], kd); }});
            rates[k][0] = medians[0], rates[k][1] = medians[1], rates[k][2] = medians[2], rates[k][5] = medians[3];
        }
        // Out of core: a cache of a tenth of the map's pages; every page goes to the swap file.
        Map_manager::instance().set_size_limit_mb(float(pages) * MAP_FILE_PAGE_BYTES / 10.0f / 1048576.0f);
        map.flush();
        for (int k = 0; k < 3; ++k) {
            const uint32_t kk = ks[k];
            auto ours = [&](const float* p) {
                lookup.search(Map_vector3{p[0], p[1], p[2]}, kk, 1.0e30f);
                lookup.sort();
            };
            const std::vector<double> medians = interleaved_medians(
                repeats, {[&] { return queries_per_second(scattered, seconds, next[3], ours); },
                          [&] { return queries_per_second(walk, seconds, next[4], ours); }});
            rates[k][3] = medians[0], rates[k][4] = medians[1];
        }
        printf("cache limit for the out-of-core rows: %.1f MB; swap file in use: %s\n",
               Map_manager::instance().size_limit(), map.page_store().has_swap_file ? "yes" : "no");
        printf("| points | k | stream | kd-tree q/s | lookup q/s | lookup / kd-tree | out of core q/s "
               "| out of core / in memory |\n");
        printf("|---|---|---|---|---|---|---|---|\n");
        for (int k = 0; k < 3; ++k) {
            printf("| %u | %u | random | %.0f | %.0f | %.2f | %.0f | %.2f |\n", count, ks[k], rates[k][0], rates[k][1],
                   rates[k][1] / rates[k][0], rates[k][3], rates[k][3] / rates[k][1]);
            printf("| %u | %u | coherent | %.0f | %.0f | %.2f | %.0f | %.2f |\n", count, ks[k], rates[k][5],
                   rates[k][2], rates[k][2] / rates[k][5], rates[k][4], rates[k][4] / rates[k][2]);
        }
        fflush(stdout);
    }
    return agree ? 0 : 1;
}
