// Throughput of the neighbour merge on final-gather points as a renderer leaves them: spread over
// the floor and three walls of a 10 x 8 x 3 room in proportion to their areas, normals jittered
// by a couple of degrees, ray counts from 1 to 500.
//
// Each case picks the merge distance from the density so that a point has about `neighbours`
// others within it; the crowded case takes a distance with far more, which makes the merge go
// through its half-distance recursion first. Prints the best of `repeats` runs; points/second
// are per second of the thread's CPU time, which a busy machine disturbs less than wall time.
//
//   merge_bench [repeats]     (default 3)
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "tests/test_support.h"
#include "tool/merge.h"

namespace {

constexpr float ROOM[3] = {10.0f, 8.0f, 3.0f};

std::vector<Fg_point> room_points(unsigned n, uint32_t seed)
{
    const float floor_area = ROOM[0] * ROOM[1];
    const float wall_x = ROOM[1] * ROOM[2];
    const float wall_y = ROOM[0] * ROOM[2];
    const float total = floor_area + 2.0f * wall_x + wall_y;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<Fg_point> points(n);
    for (unsigned i = 0; i < n; ++i) {
        Fg_point& p = points[i];
        float x = ROOM[0] * u(rng), y = ROOM[1] * u(rng), z = ROOM[2] * u(rng);
        float pick = u(rng) * total;
        float normal[3] = {0.0f, 0.0f, 0.0f};
        if (pick < floor_area) {
            z = 0.0f;
            normal[2] = 1.0f;
        } else if (pick < floor_area + wall_x) {
            x = 0.0f;
            normal[0] = 1.0f;
        } else if (pick < floor_area + 2.0f * wall_x) {
            x = ROOM[0];
            normal[0] = -1.0f;
        } else {
            y = ROOM[1];
            normal[1] = -1.0f;
        }
        for (float& v : normal)
            v += 0.06f * (u(rng) - 0.5f);
        float len = std::sqrt(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2]);
        p.position[0] = x;
        p.position[1] = y;
        p.position[2] = z;
        for (int k = 0; k < 3; ++k) {
            p.normal[k] = normal[k] / len;
            p.grad_t1[k] = u(rng) - 0.5f;
            p.grad_t2[k] = u(rng) - 0.5f;
            p.min_dist_dir[k] = normal[k] / len;
        }
        for (int k = 0; k < 4; ++k)
            p.irrad[k] = u(rng);
        p.rays = 1 + uint32_t(u(rng) * 500.0f);
        p.r_mean = 0.5f + u(rng);
        p.min_dist = 0.1f + u(rng);
        p.occluded_min_dist = 0.2f + u(rng);
        p.point_id = int32_t(i);
    }
    return points;
}

double thread_cpu_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

struct Case {
    const char* name;
    unsigned points;
    float neighbours;  // expected others within the distance, from the area density
};

}  // namespace

int main(int argc, char** argv)
{
    qv_test_init();
    const int repeats = argc > 1 ? std::atoi(argv[1]) : 3;
    const float area = ROOM[0] * ROOM[1] + 2.0f * ROOM[1] * ROOM[2] + ROOM[0] * ROOM[2];
    const float min[3] = {0.0f, 0.0f, 0.0f};

    const Case cases[] = {
        {"sparse 100k", 100000, 2.0f},    {"typical 100k", 100000, 5.0f}, {"crowded 100k", 100000, 500.0f},
        {"sparse 1M", 1000000, 2.0f},     {"typical 1M", 1000000, 5.0f},  {"crowded 1M", 1000000, 500.0f},
    };
    std::printf("%-14s %9s %9s %9s %8s %8s %14s\n", "case", "points", "distance", "survivors", "wall s", "cpu s",
                "points/cpu s");
    for (const Case& c : cases) {
        const std::vector<Fg_point> input = room_points(c.points, 1234 + c.points);
        const float density = float(c.points) / area;
        const float distance = std::sqrt(c.neighbours / (3.14159265f * density));
        double best = 1e30, best_cpu = 1e30;
        unsigned survivors = 0;
        for (int r = 0; r < repeats; ++r) {
            std::vector<Fg_point> work = input;
            merge_set_bounds(min, ROOM);
            auto start = std::chrono::steady_clock::now();
            const double cpu_start = thread_cpu_seconds();
            survivors = merge_points(work.data(), unsigned(work.size()), distance, 5.0f, 0);
            double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            double cpu = thread_cpu_seconds() - cpu_start;
            if (seconds < best)
                best = seconds;
            if (cpu < best_cpu)
                best_cpu = cpu;
        }
        std::printf("%-14s %9u %9.4f %9u %8.3f %8.3f %14.0f\n", c.name, c.points, double(distance), survivors, best,
                    best_cpu, double(c.points) / best_cpu);
        std::fflush(stdout);
    }
    return 0;
}
