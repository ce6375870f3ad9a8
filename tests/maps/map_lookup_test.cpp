// Map lookups against a full scan: k nearest by (distance, index) in every dimension, on uniform
// and clustered maps, in memory and through a cache a tenth of the map, from four threads at once,
// scattered and in a walk of small steps; resumed batches; caller distance functions, segments and subsets; searches after the tree
// changes and in a copy; statuses.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_bvh.h"
#include "maps/map_lookup.h"
#include "serial/media_queue.h"
#include "tests/maps/map_storage_support.h"

using namespace map_storage_test;
using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

bool nearer(const Map_lookup_entry& a, const Map_lookup_entry& b)
{
    return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
}

// A map of dimension N whose elements are the position and an integer "id", with the positions
// kept in index order as they are after the build.
struct Test_map {
    uint32_t dimension = 0;
    std::unique_ptr<Map_impl> map;
    std::vector<float> positions;

    const float* position(uint32_t i) const { return &positions[size_t(i) * dimension]; }
    uint32_t size() const { return uint32_t(positions.size() / dimension); }
};

void read_positions(Test_map& data)
{
    data.positions.resize(size_t(data.map->committed_size()) * data.dimension);
    for (uint32_t i = 0; i < data.size(); ++i)
        data.map->read_field(i, 0, 4 * data.dimension, &data.positions[size_t(i) * data.dimension]);
}

// `pages` pages of elements, uniform in [-50, 50]^N or around 12 centres, every 40th element
// on the position of the one before (ties for the index rule).
Test_map make_map(uint32_t dimension, uint32_t pages, bool clustered, uint32_t seed)
{
    Test_map result;
    result.dimension = dimension;
    Map_declaration_impl declaration(dimension);
    declaration.add_integer("id");
    result.map = std::make_unique<Map_impl>(declaration);
    Map_impl& map = *result.map;
    const uint32_t count = pages * map.page_store().elements_per_page - 7;
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> uniform(-50.0f, 50.0f);
    std::normal_distribution<float> spread(0.0f, 1.5f);
    std::vector<float> centres(12 * dimension);
    for (float& c : centres)
        c = uniform(random);
    std::vector<float> element(dimension + 1, 0.0f);
    for (uint32_t i = 0; i < count; ++i) {
        if (i % 40 != 0 || i == 0) {
            const float* centre = &centres[(random() % 12) * dimension];
            for (uint32_t a = 0; a < dimension; ++a)
                element[a] = clustered ? centre[a] + spread(random) : uniform(random);
        }
        const int32_t id = int32_t(i);
        memcpy(&element[dimension], &id, 4);
        EXPECT_EQ(map.append_raw(element.data()), MAP_SUCCESS);
    }
    EXPECT_EQ(map.build_bvh(0.6f, false, false), MAP_SUCCESS);
    read_positions(result);
    return result;
}

// The `count` nearest of a full scan by `distance` (of an element index), none beyond
// `max_distance`.
template <class Distance>
std::vector<Map_lookup_entry> ranked(uint32_t size, Distance distance, uint32_t count, float max_distance = 1.0e30f)
{
    std::vector<Map_lookup_entry> all;
    for (uint32_t i = 0; i < size; ++i) {
        const Map_lookup_entry entry{i, distance(i)};
        if (entry.distance <= max_distance)
            all.push_back(entry);
    }
    const size_t keep = std::min<size_t>(count, all.size());
    std::partial_sort(all.begin(), all.begin() + keep, all.end(), nearer);
    all.resize(keep);
    return all;
}

// The same by squared distance to `point`.
std::vector<Map_lookup_entry> scan(const Test_map& data, const float* point, uint32_t count, float max_distance)
{
    return ranked(
        data.size(),
        [&](uint32_t i) {
            float d = 0.0f;
            for (uint32_t a = 0; a < data.dimension; ++a)
                d += (data.position(i)[a] - point[a]) * (data.position(i)[a] - point[a]);
            return d;
        },
        count, max_distance);
}

std::vector<Map_lookup_entry> sorted_results(Map_lookup_impl& lookup)
{
    lookup.sort();
    return std::vector<Map_lookup_entry>(lookup.entries(), lookup.entries() + lookup.size());
}

bool same(const std::vector<Map_lookup_entry>& a, const std::vector<Map_lookup_entry>& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
               return x.index == y.index && x.distance == y.distance;
           });
}

// Query points: near elements, and anywhere in and around the map.
std::vector<float> queries(const Test_map& data, uint32_t count, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> anywhere(-70.0f, 70.0f);
    std::vector<float> points(size_t(count) * data.dimension);
    for (uint32_t q = 0; q < count; ++q)
        for (uint32_t a = 0; a < data.dimension; ++a)
            points[size_t(q) * data.dimension + a] =
                q % 2 ? anywhere(random) : data.position(random() % data.size())[a] + 0.01f * float(q % 5);
    return points;
}

// Squared distance with a weight per axis (dimension 2): the box's nearest point gives a lower bound.
class Weighted_distance final : public Map_distance_base_internal {
public:
    Weighted_distance(const float* point, const float* weights) : point_(point), weights_(weights) {}
    uint32_t get_dimension() const override { return 2; }
    float box_distance(const float* minimum, const float* maximum) const override
    {
        const float nearest[2] = {std::clamp(point_[0], minimum[0], maximum[0]),
                                  std::clamp(point_[1], minimum[1], maximum[1])};
        return weight(nearest);
    }
    float distance(const uint8_t* element) const override { return weight(reinterpret_cast<const float*>(element)); }
    float weight(const float* position) const
    {
        return weights_[0] * (position[0] - point_[0]) * (position[0] - point_[0]) +
               weights_[1] * (position[1] - point_[1]) * (position[1] - point_[1]);
    }

private:
    const float* point_;
    const float* weights_;
};

class Map_lookup_test : public Map_storage_test {};

} // namespace

TEST_F(Map_lookup_test, NearestEqualAFullScanInEveryDimensionInMemoryAndOutOfCore)
{
    const uint32_t ks[] = {1, 8, 64};
    for (bool out_of_core : {false, true})
        for (bool clustered : {false, true})
            for (uint32_t dimension = 1; dimension <= 6; ++dimension) {
                SCOPED_TRACE(testing::Message() << "dimension " << dimension << (clustered ? " clustered" : " uniform")
                                                << (out_of_core ? " out of core" : " in memory"));
                // Out of core: a cache of a tenth of the map, and every page in the swap file, so
                // that the searches fetch them back through the small cache.
                const uint32_t pages = out_of_core ? 30 : 10;
                Map_manager::instance().set_size_limit_mb(out_of_core ? pages * MAP_FILE_PAGE_BYTES / 10.0f / 1048576.0f
                                                                      : 64.0f);
                Test_map data = make_map(dimension, pages, clustered, dimension * 10 + clustered);
                if (out_of_core)
                    data.map->flush();
                // Four threads search the one map (and share its cache): three queries each, then a
                // walk in small steps from the first, where each search starts from the leaf the
                // last one found nearest.
                const std::vector<float> points = queries(data, 12, dimension);
                std::atomic<uint32_t> wrong{0}, last_wrong{0};
                std::vector<std::thread> pool;
                for (uint32_t t = 0; t < 4; ++t)
                    pool.emplace_back([&, t] {
                        thread_init_current();
                        {
                            Map_lookup_impl lookup(data.map.get());
                            auto check = [&](const float* point, uint32_t k, float max_distance, uint32_t q) {
                                if (lookup.search(point, dimension, k, max_distance) != MAP_SUCCESS ||
                                    lookup.get_kind() != MAP_LOOKUP_KIND_POINT ||
                                    !same(sorted_results(lookup), scan(data, point, k, max_distance))) {
                                    ++wrong;
                                    last_wrong = q;
                                }
                            };
                            for (uint32_t q = t; q < 12; q += 4)
                                check(&points[size_t(q) * dimension], ks[q % 3], q % 4 == 3 ? 40.0f : 1.0e30f, q);
                            std::vector<float> at(points.begin() + t * dimension, points.begin() + (t + 1) * dimension);
                            for (uint32_t step = 0; step < 24; ++step) {
                                for (uint32_t a = 0; a < dimension; ++a)
                                    at[a] += 0.25f * float((step + a) % 3) - 0.2f;
                                check(at.data(), 8, 1.0e30f, 100 + step);
                            }
                        }
                        thread_end_current();
                    });
                for (std::thread& thread : pool)
                    thread.join();
                EXPECT_EQ(wrong.load(), 0u) << "query " << last_wrong.load() << " among others";
                EXPECT_EQ(data.map->page_store().has_swap_file, out_of_core);
            }
}

TEST_F(Map_lookup_test, ResumedBatchesConcatenateToTheFullSortedList)
{
    Test_map data = make_map(3, 12, true, 5);
    Map_lookup_impl lookup(data.map.get());
    const float point[3] = {data.position(100)[0], data.position(100)[1], data.position(100)[2]};
    const float max_distance = 30.0f;
    for (uint32_t k : {1u, 7u, 500u}) {
        SCOPED_TRACE(testing::Message() << "batches of " << k);
        const std::vector<Map_lookup_entry> expected = scan(data, point, UINT32_MAX, max_distance);
        ASSERT_GT(expected.size(), 1000u);
        std::vector<Map_lookup_entry> all;
        ASSERT_EQ(lookup.search(Map_vector3{point[0], point[1], point[2]}, k, max_distance), MAP_SUCCESS);
        for (uint32_t batch = 0; !lookup.is_empty(); ++batch) {
            ASSERT_LT(batch, expected.size() + 2) << "no end";
            const std::vector<Map_lookup_entry> part = sorted_results(lookup);
            EXPECT_EQ(part.size() < k, lookup.is_exhausted());
            all.insert(all.end(), part.begin(), part.end());
            ASSERT_EQ(lookup.next_batch(), MAP_SUCCESS);
        }
        EXPECT_TRUE(lookup.is_exhausted());
        ASSERT_TRUE(same(all, expected));
        // Once exhausted, a batch is empty and fine.
        EXPECT_EQ(lookup.next_batch(), MAP_SUCCESS);
        EXPECT_TRUE(lookup.is_empty());
    }
}

TEST_F(Map_lookup_test, CallerDistanceSegmentAndSubsetEqualAFullScan)
{
    Test_map flat = make_map(2, 10, false, 21);
    const float point[2] = {3.0f, -4.0f}, weights[2] = {1.0f, 9.0f};
    Weighted_distance weighted(point, weights);
    Map_lookup_impl lookup(flat.map.get());
    ASSERT_EQ(lookup.search(&weighted, 40, 1.0e30f), MAP_SUCCESS);
    const std::vector<Map_lookup_entry> expected =
        ranked(flat.size(), [&](uint32_t i) { return weighted.weight(flat.position(i)); }, 80);
    EXPECT_TRUE(same(sorted_results(lookup), std::vector<Map_lookup_entry>(expected.begin(), expected.begin() + 40)));
    // Resumed, the function's answer goes on where it stopped.
    ASSERT_EQ(lookup.next_batch(), MAP_SUCCESS);
    EXPECT_TRUE(same(sorted_results(lookup), std::vector<Map_lookup_entry>(expected.begin() + 40, expected.end())));

    // A segment through the whole map, from well before it to well beyond: every element by its
    // squared distance to the segment.
    Test_map solid = make_map(3, 10, true, 22);
    Map_lookup_impl segment(solid.map.get());
    const float origin[3] = {-200.0f, 1.0f, 2.0f}, direction[3] = {1.0f, 0.0f, 0.0f};
    ASSERT_EQ(segment.search(Map_vector3{-200.0f, 1.0f, 2.0f}, Map_vector3{1.0f, 0.0f, 0.0f}, 400.0f, 30, 1.0e30f),
              MAP_SUCCESS);
    auto along = [&](uint32_t i) { return map_segment_point_distance(origin, direction, 400.0f, solid.position(i)); };
    EXPECT_TRUE(same(sorted_results(segment), ranked(solid.size(), along, 30)));

    // A subset: the nearest among elements 5000 .. 8999 only.
    std::vector<Map_lookup_entry> found;
    const float centre[3] = {0.0f, 0.0f, 0.0f};
    solid.map->global_bvh->search_subset(centre, 5000, 8999, 25, 1.0e30f, UINT32_MAX, -1.0f, found);
    std::sort(found.begin(), found.end(), nearer);
    const std::vector<Map_lookup_entry> within = ranked(
        solid.size(),
        [&](uint32_t i) {
            const float* p = solid.position(i);
            return i >= 5000 && i <= 8999 ? p[0] * p[0] + p[1] * p[1] + p[2] * p[2] : 2.0e30f;
        },
        25);
    EXPECT_TRUE(same(found, within));
}

TEST_F(Map_lookup_test, SearchesFollowARefitARebuildAndACopy)
{
    Test_map data = make_map(3, 6, false, 41);
    Map_lookup_impl lookup(data.map.get());
    const float out[3] = {90.0f, 90.0f, 90.0f};
    auto agrees = [&](Map_lookup_impl& search, const float* point, uint32_t k) {
        return search.search(point, 3, k, 1.0e30f) == MAP_SUCCESS &&
               same(sorted_results(search), scan(data, point, k, 1.0e30f));
    };
    ASSERT_TRUE(agrees(lookup, out, 3));
    // An element moved out there is found there once the boxes are refitted.
    data.map->write_field(17, 0, 12, out);
    refit(*data.map, false);
    read_positions(data);
    EXPECT_TRUE(agrees(lookup, out, 3));
    // A full build after appending puts the elements in a new order.
    const float more[4] = {-90.0f, -90.0f, -90.0f, 0.0f};
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(data.map->append_raw(more), MAP_SUCCESS);
    ASSERT_EQ(data.map->build_bvh(0.6f, false, false), MAP_SUCCESS);
    read_positions(data);
    EXPECT_TRUE(agrees(lookup, more, 5));
    EXPECT_TRUE(agrees(lookup, out, 5));
    // A copy searches its own pages.
    Map_impl copy(*data.map);
    Map_lookup_impl in_copy(&copy);
    EXPECT_TRUE(agrees(in_copy, out, 8));
    EXPECT_TRUE(agrees(in_copy, data.position(40), 8));
}

TEST_F(Map_lookup_test, StatusesSortingAndTheResultWalk)
{
    // No map: the lookup exists and every operation says so.
    Map_status status = MAP_SUCCESS;
    Map_lookup_impl none(static_cast<Map_impl*>(nullptr), &status);
    EXPECT_EQ(status, MAP_LOOKUP_NO_MAP);
    Map_lookup_entry entry{};
    for (Map_status s : {none.search(Map_vector3{0, 0, 0}, 4, 1.0f), none.reset(), none.next(), none.next_batch(),
                         none.get_entry(&entry)})
        EXPECT_EQ(s, MAP_LOOKUP_NO_MAP);

    // Dimension 2: three-float searches do not fit; before a search there is no batch.
    Test_map flat = make_map(2, 2, false, 31);
    Map_lookup_impl lookup(flat.map.get(), &status);
    EXPECT_EQ(status, MAP_SUCCESS);
    EXPECT_EQ(lookup.next_batch(), MAP_LOOKUP_NO_SEARCH);
    const float three[3] = {0, 0, 0};
    for (Map_status s : {lookup.search(Map_vector3{0, 0, 0}, 4, 1.0e30f),
                         lookup.search(Map_vector3{0, 0, 0}, Map_vector3{1, 0, 0}, 1.0f, 4, 1.0e30f),
                         lookup.search(three, 3, 4, 1.0e30f)})
        EXPECT_EQ(s, MAP_LOOKUP_DIMENSION);
    EXPECT_EQ(lookup.next_batch(), MAP_LOOKUP_NO_SEARCH) << "a failed search leaves nothing to resume";
    Map_impl undeclared;
    Map_lookup_impl bare(&undeclared);
    EXPECT_EQ(bare.search(three, 3, 4, 1.0e30f), MAP_NO_DECLARATION);

    // A count of 0 finds nothing and is done.
    EXPECT_EQ(lookup.search(flat.position(0), 2, 0, 1.0e30f), MAP_SUCCESS);
    EXPECT_TRUE(lookup.is_empty());
    EXPECT_TRUE(lookup.is_exhausted());

    // Sorting breaks ties by index, both ways: search on a spot that two elements share.
    uint32_t twin = 0;
    for (uint32_t i = 1; i < flat.size() && !twin; ++i)
        for (uint32_t j = 0; j < i && !twin; ++j)
            if (memcmp(flat.position(i), flat.position(j), 8) == 0)
                twin = i;
    ASSERT_NE(twin, 0u);
    const float spot[2] = {flat.position(twin)[0], flat.position(twin)[1]};
    ASSERT_EQ(lookup.search(spot, 2, 100, 1.0e30f), MAP_SUCCESS);
    lookup.sort_descending();
    for (uint32_t k = 1; k < lookup.size(); ++k)
        ASSERT_TRUE(nearer(lookup.entries()[k], lookup.entries()[k - 1]));
    lookup.sort();
    for (uint32_t k = 1; k < lookup.size(); ++k)
        ASSERT_TRUE(nearer(lookup.entries()[k - 1], lookup.entries()[k]));
    ASSERT_EQ(lookup.get_entry(1, &entry), MAP_SUCCESS);
    EXPECT_EQ(entry.distance, 0.0f);
    EXPECT_EQ(lookup.get_entry(lookup.size(), &entry), MAP_LOOKUP_OUT_OF_RANGE);

    // The iterator walks the same results and reads their elements; it changes nothing.
    Map_lookup_iterator_impl walk(&lookup);
    const Map_field_id id = flat.map->get_declaration()->get_field_id("id", nullptr);
    uint32_t walked = 0;
    for (walk.reset(); !walk.at_end(nullptr); walk.next(), ++walked) {
        const uint32_t index = lookup.entries()[walked].index;
        int32_t value = -1, stored = -2;
        float position[2];
        ASSERT_EQ(walk.get(id, value), MAP_SUCCESS);
        ASSERT_EQ(walk.get_position(position), MAP_SUCCESS);
        flat.map->read_field(index, 8, 4, &stored);
        EXPECT_EQ(value, stored);
        EXPECT_EQ(walk.current(nullptr), index);
        EXPECT_EQ(0, memcmp(position, flat.position(index), sizeof position));
    }
    EXPECT_EQ(walked, lookup.size());
    EXPECT_EQ(lookup.next(), MAP_LOOKUP_AT_END);
    EXPECT_EQ(lookup.get_index(&status), 0u);
    EXPECT_EQ(status, MAP_LOOKUP_AT_END);
    EXPECT_EQ(walk.set_to(0), MAP_SUCCESS);
    EXPECT_EQ(walk.set(id, int32_t(5)), MAP_NOT_EDITABLE);
    EXPECT_EQ(walk.skip(lookup.size()), MAP_LOOKUP_OUT_OF_RANGE);

}
