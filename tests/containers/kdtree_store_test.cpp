// The kd-tree store through its public functions, on the live database.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "containers/kdtree.h"
#include "database/transaction.h"
#include "tests/maps_support.h"
#include "tests/test_support.h"

namespace {

// The payload: an id and some filler, like the 23-word final-gather payload.
struct Payload {
    uint32_t id;
    float value;
    uint32_t filler[3];
};

struct Point {
    float position[3];
    uint32_t id;
};

// With a grid, coordinates snap to it: long runs of equal keys on every axis for the build.
std::vector<Point> random_points(uint32_t n, uint32_t seed, float spread = 10.0f, float grid = 0.0f)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coordinate(-spread, spread);
    auto next = [&] { return grid > 0 ? float(int(coordinate(random) / grid)) * grid : coordinate(random); };
    std::vector<Point> points(n);
    for (uint32_t i = 0; i < n; ++i)
        points[i] = {{next(), next(), next()}, i};
    return points;
}

// One writer, so one chunk (with `blob`), per call.
void add_points(uint32_t tag, const std::vector<Point>& points, size_t first, size_t last, const uint32_t* blob = nullptr)
{
    Kdtree_handle* writer = kdtree_open_for_writing(tag, blob, blob ? sizeof *blob : 0);
    ASSERT_NE(writer, nullptr);
    for (size_t i = first; i < last; ++i) {
        const Payload payload{points[i].id, float(points[i].id) * 0.5f, {7, 8, 9}};
        ASSERT_EQ(kdtree_add(writer, &payload, points[i].position), 1);
    }
    EXPECT_EQ(kdtree_close(writer), 1);
}

float distance_squared(const float* a, const float* b)
{
    const float dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
    return (dx * dx + dy * dy) + dz * dz;
}

int accept_even(void*, const void* record, const float*) { return static_cast<const Payload*>(record)->id % 2 == 0; }

// What a lookup or a walk handed to its callback, in call order.
using Seen = std::vector<std::pair<uint32_t, std::array<float, 3>>>;

int collect_all(void* argument, const void* record, const float* position)
{
    static_cast<Seen*>(argument)->push_back({static_cast<const Payload*>(record)->id, {position[0], position[1], position[2]}});
    return 1;
}

// The k nearest within the radius by brute force, as sorted squared distances.
std::vector<float> brute_force(const std::vector<Point>& points, const float* query, uint32_t k, float max_distance,
                               bool even_only)
{
    std::vector<float> d;
    for (const Point& p : points) {
        const float s = distance_squared(p.position, query);
        if (!(even_only && p.id % 2) && s <= max_distance * max_distance)
            d.push_back(s);
    }
    std::sort(d.begin(), d.end());
    d.resize(std::min<size_t>(d.size(), k));
    return d;
}

class KdtreeStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_map_init(); // this process is the master: no host layer in this binary
        static bool started = false;
        if (!started) {
            kdtree_register();
            started = true;
        }
        saved_levels_ = msg_level_mask();
        qv_test::capture_messages(saved_levels_);
    }
    void TearDown() override
    {
        msg_set_levels(saved_levels_);
        qv_errorhandler(nullptr);
        for (uint32_t tag : trees_)
            kdtree_delete(tag);
    }

    uint32_t make_tree(const std::vector<Point>& points = {}, size_t split = 0)
    {
        const uint32_t tag = kdtree_create(1, sizeof(Payload));
        trees_.push_back(tag);
        if (split)
            add_points(tag, points, 0, split);
        if (split < points.size())
            add_points(tag, points, split, points.size());
        return tag;
    }

    uint32_t saved_levels_ = 0;
    std::vector<uint32_t> trees_;
};

}  // namespace

TEST_F(KdtreeStoreTest, LookupsMatchBruteForceAcrossChunks)
{
    const uint32_t counts[] = {1, 2, 5, 17, 64, 300};
    const float radii[] = {0.5f, 2.0f, 6.0f, 100.0f};
    // Three chunks (one of a single record); a tree deep enough to need long descents; and one
    // of many equal keys, where the build's splits must still keep each side on its side.
    for (const auto& [n, spread, grid, queries] : {std::tuple{5000u, 10.0f, 0.0f, 200}, std::tuple{200000u, 100.0f, 0.0f, 20},
                                                   std::tuple{3000u, 10.0f, 4.0f, 100}}) {
        const std::vector<Point> points = random_points(n, 42 + n, spread, grid);
        const uint32_t tag = make_tree();
        add_points(tag, points, 0, 1000);
        add_points(tag, points, 1000, 1001);
        add_points(tag, points, 1001, points.size());
        Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
        ASSERT_NE(reader, nullptr);
        EXPECT_EQ(kdtree_count(reader), n);

        std::mt19937 random(7);
        std::uniform_real_distribution<float> coordinate(-1.2f * spread, 1.2f * spread);
        for (int q = 0; q < queries; ++q) {
            const float query[3] = {coordinate(random), coordinate(random), coordinate(random)};
            const uint32_t k = counts[q % 6];
            const float radius = radii[(q / 6) % 4] * spread / 10.0f;
            for (bool filtered : {false, true}) {
                SCOPED_TRACE(testing::Message() << n << " records, query " << q << " filtered " << filtered);
                Seen found;
                float found_distance = -1;
                const uint32_t got_n = kdtree_lookup(reader, query, k, radius, &found_distance, collect_all, &found,
                                                     filtered ? accept_even : nullptr, nullptr);
                const std::vector<float> expected = brute_force(points, query, k, radius, filtered);
                ASSERT_EQ(got_n, expected.size());
                ASSERT_EQ(found.size(), got_n);
                std::vector<float> got;
                for (const auto& [id, position] : found) {
                    got.push_back(distance_squared(position.data(), query));
                    ASSERT_TRUE(!filtered || id % 2 == 0) << id;
                }
                const float first = got.empty() ? 0.0f : got[0];
                std::sort(got.begin(), got.end());
                ASSERT_EQ(got, expected);
                std::sort(found.begin(), found.end());
                ASSERT_EQ(std::adjacent_find(found.begin(), found.end()), found.end()) << "a record found twice";
                if (got_n == k) {
                    // A full heap: the farthest kept comes first, and it is the reported distance.
                    ASSERT_EQ(first, expected.back());
                    ASSERT_FLOAT_EQ(found_distance, std::sqrt(expected.back()));
                } else {
                    ASSERT_FLOAT_EQ(found_distance, radius);
                }
            }
        }
        kdtree_close(reader);
    }
}

TEST_F(KdtreeStoreTest, FilterChangesAndDropsRecordsWhileBalancing)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(1000, 9);
    const uint32_t blob = 0xB10B;
    add_points(tag, points, 0, points.size(), &blob);

    // Keeps records with an id divisible by 3, moves them, and checks the chunk's blob.
    struct Filter_state {
        int calls = 0;
        int bad_blobs = 0;
    } state;
    auto filter = [](void* argument, void* record, float* position, const void* chunk_blob) {
        auto* s = static_cast<Filter_state*>(argument);
        ++s->calls;
        if (!chunk_blob || *static_cast<const uint32_t*>(chunk_blob) != 0xB10B)
            ++s->bad_blobs;
        position[1] += 1000.0f;
        return static_cast<Payload*>(record)->id % 3 == 0 ? 1 : 0;
    };
    Kdtree_handle* reader = kdtree_open_for_reading(tag, filter, &state);
    EXPECT_EQ(state.calls, 1000);
    EXPECT_EQ(state.bad_blobs, 0);
    EXPECT_EQ(kdtree_count(reader), 334u);
    Seen seen;
    kdtree_iterate(reader, collect_all, &seen);
    ASSERT_EQ(seen.size(), 334u);
    for (const auto& [id, position] : seen) {
        EXPECT_EQ(id % 3, 0u);
        EXPECT_EQ(position[1], points[id].position[1] + 1000.0f);
    }
    // Lookups see the moved positions.
    const float query[3] = {points[0].position[0], points[0].position[1] + 1000.0f, points[0].position[2]};
    Seen found;
    ASSERT_EQ(kdtree_lookup(reader, query, 1, 0.001f, nullptr, collect_all, &found, nullptr, nullptr), 1u);
    EXPECT_EQ(found[0].first, 0u);
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, EmptyAndSmallTreesAndRecordsExactlyAtTheDistance)
{
    std::vector<Point> same(300);
    for (uint32_t i = 0; i < 300; ++i)
        same[i] = {{5, 5, 5}, i};
    const struct {
        std::vector<Point> points;  // one record: node 1 is a leaf; two: node 1 has only a left child
        bool drop_all;              // by the filter while balancing
        float query[3];
        uint32_t k;
        float radius;
        uint32_t found;
    } cases[] = {
        {{}, false, {0, 0, 0}, 4, 3.5f, 0},
        {random_points(50, 1), true, {0, 0, 0}, 4, 3.5f, 0},
        {{{{1, 2, 3}, 0}}, false, {1, 2, 5}, 3, 2.0f, 1},  // exactly 2 away
        {{{{1, 2, 3}, 0}}, false, {1, 2, 5}, 3, 1.999f, 0},
        {{{{1, 2, 3}, 0}}, false, {1, 2, 5}, 0, 10.0f, 0},
        {{{{0, 0, 0}, 0}, {{4, 0, 0}, 1}}, false, {2, 0, 0}, 5, 2.0f, 2},
        {same, false, {5, 5, 5.25f}, 1000, 0.5f, 300},  // all positions equal
    };
    int progress_calls = 0;
    kdtree_set_progress([](void* argument) { ++*static_cast<int*>(argument); }, &progress_calls);
    auto drop = [](void*, void*, float*, const void*) { return 0; };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.points.size() << " records, k " << c.k << " radius " << c.radius);
        Kdtree_handle* reader = kdtree_open_for_reading(make_tree(c.points), c.drop_all ? +drop : nullptr, nullptr);
        ASSERT_NE(reader, nullptr);
        const uint32_t count = c.drop_all ? 0 : uint32_t(c.points.size());
        EXPECT_EQ(kdtree_count(reader), count);
        float found_distance = 0;
        EXPECT_EQ(kdtree_lookup(reader, c.query, c.k, c.radius, &found_distance, nullptr, nullptr, nullptr, nullptr), c.found);
        if (c.found < c.k) {
            EXPECT_FLOAT_EQ(found_distance, c.radius);
        }
        Seen seen;
        EXPECT_EQ(kdtree_iterate(reader, collect_all, &seen), 1);
        EXPECT_EQ(seen.size(), count);
        kdtree_close(reader);
    }
    kdtree_set_progress(nullptr, nullptr);
    EXPECT_EQ(progress_calls, 50 + 3 * 1 + 2 + 300) << "the progress hook runs after every add";
}

TEST_F(KdtreeStoreTest, ChunksFromConcurrentWritersAreWalkedOnceEachWithTheirPositions)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(8000, 77);
    constexpr int WRITERS = 4;
    std::vector<std::thread> threads;
    for (int w = 0; w < WRITERS; ++w) {
        threads.emplace_back([&, w] {
            thread_init_current();
            add_points(tag, points, size_t(w) * 2000, size_t(w + 1) * 2000);
            // Without DBN's context area nobody else frees this thread's list of stored tags.
            QV::DB::created_tags_free(QV::DB::created_tags());
            thread_end_current();
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(qv_db_size(tag), kdtree_header_bytes(WRITERS));

    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    EXPECT_EQ(kdtree_count(reader), 8000u);
    Seen seen;
    EXPECT_EQ(kdtree_iterate(reader, collect_all, &seen), 1);
    std::sort(seen.begin(), seen.end());
    ASSERT_EQ(seen.size(), 8000u);
    for (uint32_t i = 0; i < 8000; ++i) {
        ASSERT_EQ(seen[i].first, i);
        ASSERT_EQ(std::memcmp(seen[i].second.data(), points[i].position, sizeof points[i].position), 0) << i;
    }
    // A callback result of 0 stops the walk at once.
    int calls = 0;
    auto stop_at_three = [](void* argument, const void*, const float*) { return ++*static_cast<int*>(argument) < 3 ? 1 : 0; };
    EXPECT_EQ(kdtree_iterate(reader, stop_at_three, &calls), 0);
    EXPECT_EQ(calls, 3);
    kdtree_close(reader);
}
