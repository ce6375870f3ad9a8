// The kd-tree store through its public functions, on the live database.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "containers/kdtree.h"
#include "containers/paged_array.h"
#include "database/db.h"
#include "database/scene_types.h"
#include "database/transaction.h"
#include "runtime/msg.h"
#include "runtime/threads.h"
#include "tests/test_support.h"

namespace {

// The payload: an id and some filler, like the 23-word final-gather payload.
struct Payload {
    uint32_t id;
    float value;
    uint32_t filler[3];
};

struct Captured {
    uint32_t level;
    int32_t number;
    std::string text;
};
std::vector<Captured> g_messages;

void capture(uint32_t level, const char*, const char* text, int32_t number)
{
    g_messages.push_back({level, number, text});
}

class KdtreeStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        // No host layer in this binary: this process is the master.
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        static bool started = false;
        if (!started) {
            qv_db_init();
            kdtree_register();
            started = true;
        }
        g_messages.clear();
        qv_errorhandler(capture);
        saved_levels_ = msg_level_mask();
    }
    void TearDown() override
    {
        msg_set_levels(saved_levels_);
        qv_errorhandler(nullptr);
        for (uint32_t tag : trees_)
            kdtree_delete(tag);
    }

    uint32_t make_tree()
    {
        const uint32_t tag = kdtree_create(1, sizeof(Payload));
        trees_.push_back(tag);
        return tag;
    }

    uint32_t saved_levels_ = 0;
    std::vector<uint32_t> trees_;
};

struct Point {
    float position[3];
    uint32_t id;
};

std::vector<Point> random_points(uint32_t n, uint32_t seed, float spread = 10.0f)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coordinate(-spread, spread);
    std::vector<Point> points(n);
    for (uint32_t i = 0; i < n; ++i)
        points[i] = {{coordinate(random), coordinate(random), coordinate(random)}, i};
    return points;
}

void add_points(uint32_t tag, const std::vector<Point>& points, size_t first, size_t last)
{
    Kdtree_handle* writer = kdtree_open_for_writing(tag, nullptr, 0);
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

struct Found {
    std::vector<uint32_t> ids;
    std::vector<float> distances;
    const float* query;
};

int collect(void* argument, const void* record, const float* position)
{
    auto* found = static_cast<Found*>(argument);
    const auto* payload = static_cast<const Payload*>(record);
    found->ids.push_back(payload->id);
    found->distances.push_back(distance_squared(position, found->query));
    return 1;
}

int accept_even(void*, const void* record, const float*)
{
    return static_cast<const Payload*>(record)->id % 2 == 0;
}

int collect_all(void* argument, const void* record, const float* position)
{
    auto* seen = static_cast<std::vector<std::pair<uint32_t, std::array<float, 3>>>*>(argument);
    seen->push_back({static_cast<const Payload*>(record)->id, {position[0], position[1], position[2]}});
    return 1;
}

// The k nearest within the radius by brute force, as sorted squared distances.
std::vector<float> brute_force(const std::vector<Point>& points, const float* query, uint32_t k,
                               float max_distance, bool even_only)
{
    std::vector<float> d;
    const float limit = max_distance * max_distance;
    for (const Point& p : points) {
        if (even_only && p.id % 2)
            continue;
        const float s = distance_squared(p.position, query);
        if (s <= limit)
            d.push_back(s);
    }
    std::sort(d.begin(), d.end());
    if (d.size() > k)
        d.resize(k);
    return d;
}

}  // namespace

TEST_F(KdtreeStoreTest, LookupsMatchBruteForceAcrossChunks)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(5000, 42);
    // Three writers make three chunks.
    add_points(tag, points, 0, 1000);
    add_points(tag, points, 1000, 1001);
    add_points(tag, points, 1001, points.size());

    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(kdtree_count(reader), 5000u);

    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-12.0f, 12.0f);
    const uint32_t counts[] = {1, 2, 5, 17, 64, 300};
    const float radii[] = {0.5f, 2.0f, 6.0f, 100.0f};
    for (int q = 0; q < 200; ++q) {
        const float query[3] = {coordinate(random), coordinate(random), coordinate(random)};
        const uint32_t k = counts[q % 6];
        const float radius = radii[(q / 6) % 4];
        for (bool filtered : {false, true}) {
            Found found;
            found.query = query;
            float found_distance = -1;
            const uint32_t n = kdtree_lookup(reader, query, k, radius, &found_distance, collect, &found,
                                             filtered ? accept_even : nullptr, nullptr);
            const std::vector<float> expected = brute_force(points, query, k, radius, filtered);
            ASSERT_EQ(n, expected.size()) << "query " << q << " filtered " << filtered;
            ASSERT_EQ(found.ids.size(), n);
            std::vector<float> got = found.distances;
            std::sort(got.begin(), got.end());
            ASSERT_EQ(got, expected);
            std::sort(found.ids.begin(), found.ids.end());
            ASSERT_EQ(std::adjacent_find(found.ids.begin(), found.ids.end()), found.ids.end());
            if (filtered) {
                for (uint32_t id : found.ids)
                    ASSERT_EQ(id % 2, 0u);
            }
            if (n == k) {
                // A full heap: the farthest kept comes first, and it is the reported distance.
                ASSERT_EQ(found.distances[0], expected.back());
                ASSERT_FLOAT_EQ(found_distance, std::sqrt(expected.back()));
            } else {
                ASSERT_FLOAT_EQ(found_distance, radius);
            }
        }
    }
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, IterateVisitsEveryRecordOnceWithItsPosition)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(1234, 3);
    add_points(tag, points, 0, 600);
    add_points(tag, points, 600, points.size());

    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    std::vector<std::pair<uint32_t, std::array<float, 3>>> seen;
    EXPECT_EQ(kdtree_iterate(reader, collect_all, &seen), 1);
    ASSERT_EQ(seen.size(), points.size());
    std::vector<int> hits(points.size(), 0);
    for (const auto& [id, position] : seen) {
        ASSERT_LT(id, points.size());
        ++hits[id];
        for (int a = 0; a < 3; ++a)
            ASSERT_EQ(position[a], points[id].position[a]);
    }
    EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), ptrdiff_t(points.size()));

    // A callback result of 0 stops the walk at once.
    int calls = 0;
    auto stop_at_three = [](void* argument, const void*, const float*) {
        return ++*static_cast<int*>(argument) < 3 ? 1 : 0;
    };
    EXPECT_EQ(kdtree_iterate(reader, stop_at_three, &calls), 0);
    EXPECT_EQ(calls, 3);
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, FilterChangesAndDropsRecordsWhileBalancing)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(1000, 9);
    const uint32_t blob = 0xB10B;
    Kdtree_handle* writer = kdtree_open_for_writing(tag, &blob, sizeof blob);
    for (const Point& p : points) {
        const Payload payload{p.id, 0, {}};
        kdtree_add(writer, &payload, p.position);
    }
    kdtree_close(writer);

    // Keeps records with an id divisible by 3, marks them, and checks the chunk's blob.
    struct Filter_state {
        int calls = 0;
        int bad_blobs = 0;
    } state;
    auto filter = [](void* argument, void* record, float* position, const void* chunk_blob) {
        auto* s = static_cast<Filter_state*>(argument);
        ++s->calls;
        if (!chunk_blob || *static_cast<const uint32_t*>(chunk_blob) != 0xB10B)
            ++s->bad_blobs;
        auto* payload = static_cast<Payload*>(record);
        payload->value = 99.0f;
        position[1] += 1000.0f;
        return payload->id % 3 == 0 ? 1 : 0;
    };
    Kdtree_handle* reader = kdtree_open_for_reading(tag, filter, &state);
    EXPECT_EQ(state.calls, 1000);
    EXPECT_EQ(state.bad_blobs, 0);
    EXPECT_EQ(kdtree_count(reader), 334u);

    std::vector<std::pair<uint32_t, std::array<float, 3>>> seen;
    kdtree_iterate(reader, collect_all, &seen);
    ASSERT_EQ(seen.size(), 334u);
    for (const auto& [id, position] : seen) {
        EXPECT_EQ(id % 3, 0u);
        EXPECT_EQ(position[1], points[id].position[1] + 1000.0f);
    }
    // Lookups see the moved positions.
    const float query[3] = {points[0].position[0], points[0].position[1] + 1000.0f, points[0].position[2]};
    Found found;
    found.query = query;
    ASSERT_EQ(kdtree_lookup(reader, query, 1, 0.001f, nullptr, collect, &found, nullptr, nullptr), 1u);
    EXPECT_EQ(found.ids[0], 0u);
    kdtree_close(reader);

    // A second reader finds nothing to balance: the filter is not asked again.
    state.calls = 0;
    reader = kdtree_open_for_reading(tag, filter, &state);
    EXPECT_EQ(state.calls, 0);
    EXPECT_EQ(kdtree_count(reader), 334u);
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, EmptyTreesAndAFilterThatDropsEverything)
{
    const float query[3] = {0, 0, 0};
    for (bool drop_all : {false, true}) {
        const uint32_t tag = make_tree();
        if (drop_all)
            add_points(tag, random_points(50, 1), 0, 50);
        auto drop = [](void*, void*, float*, const void*) { return 0; };
        Kdtree_handle* reader = kdtree_open_for_reading(tag, drop_all ? +drop : nullptr, nullptr);
        ASSERT_NE(reader, nullptr);
        EXPECT_EQ(kdtree_count(reader), 0u);
        float found_distance = 0;
        EXPECT_EQ(kdtree_lookup(reader, query, 4, 3.5f, &found_distance, nullptr, nullptr, nullptr, nullptr), 0u);
        EXPECT_FLOAT_EQ(found_distance, 3.5f);
        int calls = 0;
        EXPECT_EQ(kdtree_iterate(reader, [](void* a, const void*, const float*) { return ++*static_cast<int*>(a); }, &calls), 1);
        EXPECT_EQ(calls, 0);
        kdtree_close(reader);
    }
}

TEST_F(KdtreeStoreTest, SmallTreesAndRecordsExactlyAtTheDistance)
{
    // One record: node 1 is a leaf.
    uint32_t tag = make_tree();
    std::vector<Point> one = {{{1, 2, 3}, 0}};
    add_points(tag, one, 0, 1);
    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    const float query[3] = {1, 2, 5};  // exactly 2 away
    EXPECT_EQ(kdtree_lookup(reader, query, 3, 2.0f, nullptr, nullptr, nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(kdtree_lookup(reader, query, 3, 1.999f, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(kdtree_lookup(reader, query, 0, 10.0f, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    kdtree_close(reader);

    // Two records: node 1 has only a left child.
    tag = make_tree();
    std::vector<Point> two = {{{0, 0, 0}, 0}, {{4, 0, 0}, 1}};
    add_points(tag, two, 0, 2);
    reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    const float middle[3] = {2, 0, 0};
    Found found;
    found.query = middle;
    EXPECT_EQ(kdtree_lookup(reader, middle, 5, 2.0f, nullptr, collect, &found, nullptr, nullptr), 2u);
    const float near_first[3] = {-1, 0, 0};
    EXPECT_EQ(kdtree_lookup(reader, near_first, 5, 1.0f, nullptr, nullptr, nullptr, nullptr, nullptr), 1u);
    kdtree_close(reader);

    // All positions equal: everything within range is found.
    tag = make_tree();
    std::vector<Point> same(300);
    for (uint32_t i = 0; i < 300; ++i)
        same[i] = {{5, 5, 5}, i};
    add_points(tag, same, 0, 300);
    reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    const float at[3] = {5, 5, 5.25f};
    EXPECT_EQ(kdtree_lookup(reader, at, 1000, 0.5f, nullptr, nullptr, nullptr, nullptr, nullptr), 300u);
    EXPECT_EQ(kdtree_lookup(reader, at, 7, 0.5f, nullptr, nullptr, nullptr, nullptr, nullptr), 7u);
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, AddingAfterReadingRebalancesOnTheNextRead)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(400, 21);
    add_points(tag, points, 0, 200);

    msg_set_levels(msg_level_mask() | MSG_DEBUG);
    auto balancings = [] {
        return std::count_if(g_messages.begin(), g_messages.end(), [](const Captured& m) {
            return m.text.rfind("balancing kdtree", 0) == 0;
        });
    };
    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    kdtree_close(reader);
    reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    EXPECT_EQ(balancings(), 1);
    EXPECT_EQ(kdtree_count(reader), 200u);
    kdtree_close(reader);

    add_points(tag, points, 200, 400);
    reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    EXPECT_EQ(balancings(), 2);
    EXPECT_EQ(kdtree_count(reader), 400u);
    const std::string expected = "balancing kdtree 0x" + [&] {
        char hex[16];
        snprintf(hex, sizeof hex, "%x", tag);
        return std::string(hex);
    }() + " with 400 elements";
    EXPECT_TRUE(std::any_of(g_messages.begin(), g_messages.end(), [&](const Captured& m) { return m.text == expected; }));
    // The chunk table is gone from the header once merged.
    EXPECT_EQ(qv_db_size(tag), kdtree_header_bytes(0));
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, ChunksFromConcurrentWriters)
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
    std::vector<std::pair<uint32_t, std::array<float, 3>>> seen;
    kdtree_iterate(reader, collect_all, &seen);
    std::vector<uint32_t> ids;
    for (const auto& s : seen)
        ids.push_back(s.first);
    std::sort(ids.begin(), ids.end());
    for (uint32_t i = 0; i < 8000; ++i)
        ASSERT_EQ(ids[i], i);
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, WrongModeCallsReportTheirCodesAndTexts)
{
    EXPECT_EQ(kdtree_create(2, 8), 0u);
    EXPECT_EQ(kdtree_open_for_writing(0, nullptr, 0), nullptr);
    EXPECT_EQ(kdtree_open_for_reading(0, nullptr, nullptr), nullptr);

    const uint32_t tag = make_tree();
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", tag);
    const std::string t = hex;

    Kdtree_handle* writer = kdtree_open_for_writing(tag, nullptr, 0);
    const float query[3] = {0, 0, 0};
    EXPECT_EQ(kdtree_lookup(writer, query, 3, 1.0f, nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(kdtree_iterate(writer, collect_all, nullptr), 0);
    EXPECT_EQ(kdtree_count(writer), 0u);
    kdtree_close(writer);

    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    const Payload payload{};
    EXPECT_EQ(kdtree_add(reader, &payload, query), 0);
    EXPECT_EQ(kdtree_count(reader), 0u);
    kdtree_close(reader);

    // Printed numbers are (module LIB 29 * 10 + error class 1) * 1000 + the code.
    const std::vector<Captured> expected = {
        {MSG_ERROR, 41, "Cannot create kdtree of unknown type 2"},
        {MSG_ERROR, 52, "Cannot lookup kdtree " + t + ": not opened for reading"},
        {MSG_ERROR, 54, "cannot add elements to kdtree " + t + ": it is not opened for writing"},
        {MSG_ERROR, 55, "cannot get number elements to kdtree " + t + "while it is opened for writing"},
        {MSG_ERROR, 53, "cannot add elements to kdtree " + t + ": it is not opened for writing"},
    };
    std::vector<Captured> errors;
    for (const Captured& m : g_messages)
        if (m.level == MSG_ERROR)
            errors.push_back(m);
    ASSERT_EQ(errors.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(errors[i].number, 291000 + expected[i].number);
        EXPECT_EQ(errors[i].text, expected[i].text);
    }
}

TEST_F(KdtreeStoreTest, ProgressHookRunsAfterEveryAdd)
{
    const uint32_t tag = make_tree();
    int calls = 0;
    kdtree_set_progress([](void* argument) { ++*static_cast<int*>(argument); }, &calls);
    add_points(tag, random_points(10, 2), 0, 10);
    kdtree_set_progress(nullptr, nullptr);
    EXPECT_EQ(calls, 10);
}

TEST_F(KdtreeStoreTest, TwoHundredThousandRecordsBalanceAndAnswer)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(200000, 1234, 100.0f);
    add_points(tag, points, 0, points.size());
    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    ASSERT_EQ(kdtree_count(reader), 200000u);
    std::mt19937 random(5);
    std::uniform_real_distribution<float> coordinate(-100.0f, 100.0f);
    for (int q = 0; q < 20; ++q) {
        const float query[3] = {coordinate(random), coordinate(random), coordinate(random)};
        Found found;
        found.query = query;
        const uint32_t n = kdtree_lookup(reader, query, 40, 20.0f, nullptr, collect, &found, nullptr, nullptr);
        std::vector<float> got = found.distances;
        std::sort(got.begin(), got.end());
        ASSERT_EQ(n, got.size());
        ASSERT_EQ(got, brute_force(points, query, 40, 20.0f, false));
    }
    kdtree_close(reader);
}

TEST_F(KdtreeStoreTest, HeaderFromAHostOfTheOtherByteOrder)
{
    // A header with two chunks as a big-endian host would send it.
    struct {
        Kdtree_header header;
        Kdtree_chunk chunks[2];
    } bytes{};
    bytes.header.type = int32_t(__builtin_bswap32(1));
    bytes.header.element_size = __builtin_bswap32(92);
    bytes.header.count = __builtin_bswap32(1000);
    bytes.header.chunk_count = __builtin_bswap32(2);
    bytes.header.reserved[7] = __builtin_bswap32(0xABCD);
    std::memcpy(bytes.header.name, "fgmap-name", 11);
    bytes.chunks[1] = {__builtin_bswap32(17), __builtin_bswap32(0x401), __builtin_bswap32(0x402)};

    Db_record record{};
    record.data = &bytes;
    record.size = sizeof bytes;
    const Scene_swap_fn swap = qv_scene_handlers(KDTREE_TYPE_HEADER).swap;
    ASSERT_NE(swap, nullptr);
    swap(&record, false);
    EXPECT_EQ(bytes.header.count, __builtin_bswap32(1000));
    swap(&record, true);
    EXPECT_EQ(bytes.header.type, 1);
    EXPECT_EQ(bytes.header.element_size, 92u);
    EXPECT_EQ(bytes.header.count, 1000u);
    EXPECT_EQ(bytes.header.chunk_count, 2u);
    EXPECT_EQ(bytes.header.reserved[7], 0xABCDu);
    EXPECT_STREQ(bytes.header.name, "fgmap-name");
    EXPECT_EQ(bytes.chunks[1].count, 17u);
    EXPECT_EQ(bytes.chunks[1].positions, 0x401u);
    EXPECT_EQ(bytes.chunks[1].data, 0x402u);

    float positions[2] = {1.5f, -2.0f};
    uint32_t raw[2];
    std::memcpy(raw, positions, sizeof raw);
    raw[0] = __builtin_bswap32(raw[0]);
    raw[1] = __builtin_bswap32(raw[1]);
    record.data = raw;
    record.size = sizeof raw;
    qv_scene_handlers(KDTREE_TYPE_POSITIONS).swap(&record, true);
    std::memcpy(positions, raw, sizeof raw);
    EXPECT_EQ(positions[0], 1.5f);
    EXPECT_EQ(positions[1], -2.0f);
}

TEST_F(KdtreeStoreTest, ShutdownClosesOpenHandlesAndWritesTheirChunks)
{
    const uint32_t tag = make_tree();
    const std::vector<Point> points = random_points(30, 8);
    Kdtree_handle* writer = kdtree_open_for_writing(tag, nullptr, 0);
    for (const Point& p : points) {
        const Payload payload{p.id, 0, {}};
        kdtree_add(writer, &payload, p.position);
    }
    Kdtree_handle* idle = kdtree_open_for_writing(tag, nullptr, 0);
    ASSERT_NE(idle, nullptr);
    kdtree_shutdown();
    // One chunk from the writer with records; none from the idle one.
    EXPECT_EQ(qv_db_size(tag), kdtree_header_bytes(1));
    Kdtree_handle* reader = kdtree_open_for_reading(tag, nullptr, nullptr);
    EXPECT_EQ(kdtree_count(reader), 30u);
    kdtree_close(reader);
}
