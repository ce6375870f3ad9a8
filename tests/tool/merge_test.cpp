#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tests/tool/fg_points.h"
#include "tool/merge.h"

namespace {

constexpr float FIVE_DEGREES = 5.0f;

void set_bounds(float lo, float hi)
{
    const float min[3] = {lo, lo, lo}, max[3] = {hi, hi, hi};
    merge_set_bounds(min, max);
}

uint64_t total_rays(const std::vector<Fg_point>& points, unsigned count)
{
    uint64_t sum = 0;
    for (unsigned i = 0; i < count; ++i)
        sum += points[i].rays;
    return sum;
}

std::vector<uint32_t> words_of(const Fg_point& p)
{
    std::vector<uint32_t> words(FG_POINT_WORDS);
    std::memcpy(words.data(), &p, sizeof p);
    return words;
}

float cos_limit(float degrees) { return float(std::cos(double(degrees / 180.0f) * 3.141592653589793)); }

// True when some pair among the first `count` records would still pass the merge's pair test.
bool has_mergeable_pair(const std::vector<Fg_point>& points, unsigned count, float distance, float degrees)
{
    const float limit = cos_limit(degrees);
    for (unsigned i = 0; i < count; ++i) {
        const Fg_point& p = points[i];
        for (unsigned j = 0; j < i; ++j) {
            const Fg_point& q = points[j];
            float d2 = 0.0f, c = 0.0f;
            for (int k = 0; k < 3; ++k) {
                d2 += (q.position[k] - p.position[k]) * (q.position[k] - p.position[k]);
                c += p.normal[k] * q.normal[k];
            }
            if (sqrtf(d2) <= distance && !(limit > c))
                return true;
        }
    }
    return false;
}

// Points on the floor and three walls of a 10 x 8 x 3 room, normals jittered by up to a few
// degrees, as a renderer's final gather leaves them.
std::vector<Fg_point> room_points(unsigned n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<Fg_point> points;
    points.reserve(n);
    for (unsigned i = 0; i < n; ++i) {
        float x = 10.0f * u(rng), y = 8.0f * u(rng), z = 3.0f * u(rng);
        float n3[3] = {0, 0, 0};
        switch (i % 4) {
        case 0: z = 0.0f; n3[2] = 1.0f; break;
        case 1: x = 0.0f; n3[0] = 1.0f; break;
        case 2: y = 8.0f; n3[1] = -1.0f; break;
        default: x = 10.0f; n3[0] = -1.0f; break;
        }
        for (float& v : n3)
            v += 0.08f * (u(rng) - 0.5f);
        float len = std::sqrt(n3[0] * n3[0] + n3[1] * n3[1] + n3[2] * n3[2]);
        Fg_point p = make_point(x, y, z, n3[0] / len, n3[1] / len, n3[2] / len, 1 + uint32_t(u(rng) * 500.0f));
        p.irrad[1] = u(rng);
        points.push_back(p);
    }
    const float min[3] = {0.0f, 0.0f, 0.0f}, max[3] = {10.0f, 8.0f, 3.0f};
    merge_set_bounds(min, max);
    return points;
}

// Runs a merge with the debug level on and gives the debug lines it printed.
std::vector<std::string> merge_debug_lines(std::vector<Fg_point>& pts, float distance, unsigned* count)
{
    Msg_collect messages;
    *count = merge_points(pts.data(), unsigned(pts.size()), distance, FIVE_DEGREES, 0);
    return Msg_collect::texts(MSG_DEBUG);
}

class MergeTest : public ::testing::Test {
protected:
    void SetUp() override { qv_test_init(); }
};

TEST_F(MergeTest, PointsExactlyAtTheDistanceMergeAndOneFloatBeyondDoNot)
{
    // Along x in a cube, and along a diagonal on a flat map, where the z axis has no cells.
    const float diagonal = sqrtf((1.3f - 1.0f) * (1.3f - 1.0f) + (1.4f - 1.0f) * (1.4f - 1.0f));
    const struct {
        float max_z;
        float second[3];
        float distance;
        unsigned survivors;
    } cases[] = {
        {4.0f, {1.25f, 1.0f, 1.0f}, 0.25f, 1},
        {4.0f, {std::nextafter(1.25f, 2.0f), 1.0f, 1.0f}, 0.25f, 2},
        {0.0f, {1.3f, 1.4f, 0.0f}, diagonal, 1},
        {0.0f, {1.3f, 1.4f, 0.0f}, std::nextafter(diagonal, 0.0f), 2},
    };
    for (const auto& c : cases) {
        const float min[3] = {0.0f, 0.0f, 0.0f}, max[3] = {4.0f, 4.0f, c.max_z};
        merge_set_bounds(min, max);
        std::vector<Fg_point> pts = {make_point(1.0f, 1.0f, c.second[2], 0, 0, 1, 1),
                                     make_point(c.second[0], c.second[1], c.second[2], 0, 0, 1, 1)};
        EXPECT_EQ(merge_points(pts.data(), 2, c.distance, FIVE_DEGREES, 0), c.survivors)
            << c.second[0] << " " << c.second[1] << " at distance " << c.distance;
        if (c.survivors == 1 && c.max_z > 0) {
            EXPECT_EQ(pts[0].position[0], 1.125f);
        }
    }
}

TEST_F(MergeTest, NormalsUpToFiveDegreesApartMergeAndWiderDoNot)
{
    set_bounds(0.0f, 4.0f);
    // At the limit the dot product with +z equals the cosine exactly: equality merges.
    const float at = cos_limit(FIVE_DEGREES), wide = float(std::cos(5.5 * 3.141592653589793 / 180.0));
    for (const float c : {at, wide}) {
        std::vector<Fg_point> pts = {make_point(1, 1, 1, 0, 0, 1, 1), make_point(1.01f, 1, 1, std::sqrt(1.0f - c * c), 0, c, 1)};
        EXPECT_EQ(merge_points(pts.data(), 2, 0.1f, FIVE_DEGREES, 0), c == at ? 1u : 2u) << "cosine " << c;
    }
}

TEST_F(MergeTest, DeadMarkedInputPointsAreDropped)
{
    set_bounds(0.0f, 4.0f);
    std::vector<Fg_point> pts = {
        make_point(3.0f, 3.0f, 3.0f, 0, 0, 1, FG_POINT_DEAD),  // alone
        make_point(1.0f, 1.0f, 1.0f, 0, 0, 1, 6),
        make_point(1.0f, 1.0f, 1.0f, 0, 0, 1, FG_POINT_DEAD),  // on top of a live point
        make_point(2.0f, 1.0f, 1.0f, 0, 0, 1, 2),
    };
    unsigned n = merge_points(pts.data(), unsigned(pts.size()), 0.1f, FIVE_DEGREES, 0);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(pts[0].rays + pts[1].rays, 8u) << "neither survivor is a dead mark";
}

// Pairs that straddle a cell corner blend into a third cell; they go through the side array,
// which must grow past its first capacities and come back whole.
TEST_F(MergeTest, BlendsLeavingBothCellsSurviveThroughTheSideArray)
{
    set_bounds(0.0f, 1000.0f);
    std::vector<Fg_point> pts;
    const unsigned pairs = 450;
    for (unsigned i = 0; i < pairs; ++i) {
        float base = 2.0f * float(i % 400);
        float z = 10.0f * float(i / 400);
        pts.push_back(make_point(base + 1.3f, 10.9f, z + 0.5f, 0, 0, 1, 1 + i));
        pts.push_back(make_point(base + 0.9f, 11.3f, z + 0.5f, 0, 0, 1, 1 + i));
    }
    const uint64_t before = total_rays(pts, unsigned(pts.size()));
    unsigned n = merge_points(pts.data(), unsigned(pts.size()), 1.0f, FIVE_DEGREES, 0);
    ASSERT_EQ(n, pairs);
    EXPECT_EQ(total_rays(pts, n), before);
    for (unsigned i = 0; i < n; ++i) {
        EXPECT_EQ(pts[i].rays % 2, 0u);
        EXPECT_NEAR(pts[i].position[1], 11.1f, 1e-4f);
    }
}

// A point with every blended field chosen so that the blends below are exact in binary.
Fg_point fixed_point(float x, float y, uint32_t rays, float first_grad, float r_mean, float min_dist, float dir)
{
    Fg_point p{};
    p.position[0] = x;
    p.position[1] = y;
    p.normal[2] = 1.0f;
    for (int i = 0; i < 4; ++i)
        p.irrad[i] = first_grad < 0.0f ? float(1 + i) : float(5 + i);  // a: 1 2 3 4, b: 5 6 7 8
    for (int i = 0; i < 3; ++i) {
        p.grad_t1[i] = first_grad + float(i);
        p.grad_t2[i] = first_grad < 0.0f ? -float(1 + i) : float(7 + i);
    }
    p.rays = rays;
    p.r_mean = r_mean;
    p.min_dist = min_dist;
    p.min_dist_dir[0] = dir;
    p.occluded_min_dist = min_dist * 2.0f;
    return p;
}

// Three pairs, one for each way a blend can go, on a grid of unit cells in x and y (z is flat).
// Worked by hand: normals are all +z, so the frame of the first operand is T = (1, 0, 0),
// C = (0, -1, 0), and each gradient is wa * (a.grad + b.grad) with wa the weight of the first
// operand, the earlier point in cell order. Of each pair, the earlier point has irradiance
// 1 2 3 4, t1 = -1 0 1 and t2 = -1 -2 -3; the later one 5 6 7 8, t1 = 4 5 6 and t2 = 7 8 9.
//  A: q (1.75, 0.5) 1 ray, p (2.25, 0.5) 3 rays: wa 0.25, x 2.125 stays in p's cell (in place).
//  B: q (3.75, 2.5) 3 rays, p (4.25, 2.5) 1 ray: wa 0.75, x 3.875 stays in q's cell (in place).
//  C: q (5.875, 4.625) 1 ray, p (6.125, 3.875) 3 rays: wa 0.25, (6.0625, 4.0625) lies in a
//     third cell and goes through the side array.
TEST_F(MergeTest, FixedCaseBlendsEachPairOnItsWay)
{
    const float min[3] = {0.0f, 0.0f, 0.0f}, max[3] = {8.0f, 8.0f, 0.0f};
    merge_set_bounds(min, max);
    std::vector<Fg_point> pts = {
        fixed_point(6.125f, 3.875f, 3, 4.0f, 1.0f, 0.5f, 2.0f),   // C p
        fixed_point(2.25f, 0.5f, 3, 4.0f, 3.0f, 0.25f, 2.0f),     // A p
        fixed_point(3.75f, 2.5f, 3, -1.0f, 3.0f, 0.5f, 1.0f),     // B q
        fixed_point(5.875f, 4.625f, 1, -1.0f, 1.0f, 0.5f, 1.0f),  // C q
        fixed_point(4.25f, 2.5f, 1, 4.0f, 1.0f, 0.25f, 2.0f),     // B p
        fixed_point(1.75f, 0.5f, 1, -1.0f, 1.0f, 0.5f, 1.0f),     // A q
    };
    unsigned n = 0;
    const std::vector<std::string> lines = merge_debug_lines(pts, 1.0f, &n);
    EXPECT_EQ(lines, (std::vector<std::string>{"merged 3 fg points, 2 in place", "merged 0 fg points, 0 in place"}));
    ASSERT_EQ(n, 3u);

    // Every word of each survivor, the unassigned ones (id, reserved, trailing) zero.
    const Fg_point expected[3] = {
        // wa 0.25: irradiance 0.25 a + 0.75 b, gradients 0.25 (a + b), r_mean 1 / (0.25 / 1 + 0.75 / 3).
        {{2.125f, 0.5f, 0}, {0, 0, 1}, {4, 5, 6, 7}, 4, {0.75f, 1.25f, 1.75f}, {1.5f, 1.5f, 1.5f}, 0, {0, 0}, 2.0f, 0.25f, {2.0f, 0, 0}, 0.5f, 0},
        // wa 0.75: irradiance 0.75 a + 0.25 b, gradients 0.75 (a + b), r_mean 1 / (0.75 / 3 + 0.25 / 1).
        {{3.875f, 2.5f, 0}, {0, 0, 1}, {2, 3, 4, 5}, 4, {2.25f, 3.75f, 5.25f}, {4.5f, 4.5f, 4.5f}, 0, {0, 0}, 2.0f, 0.25f, {2.0f, 0, 0}, 0.5f, 0},
        // wa 0.25 again; equal min_dist keeps the first operand's direction.
        {{6.0625f, 4.0625f, 0}, {0, 0, 1}, {4, 5, 6, 7}, 4, {0.75f, 1.25f, 1.75f}, {1.5f, 1.5f, 1.5f}, 0, {0, 0}, 1.0f, 0.5f, {1.0f, 0, 0}, 1.0f, 0},
    };
    for (unsigned k = 0; k < 3; ++k)
        EXPECT_EQ(words_of(pts[k]), words_of(expected[k])) << "survivor " << k;
}

// More than eight points per cell on average sends the merge to half the distance first, as
// far as that rule asks and at most ten levels deep; the debug lines tell the levels.
TEST_F(MergeTest, CrowdedGridMergesAtHalfTheDistanceFirst)
{
    auto starts = [](const std::string& line, const char* head) { return line.rfind(head, 0) == 0; };
    auto count_trying = [&](const std::vector<std::string>& lines) {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return starts(l, "trying merging"); });
    };

    // Bounds within the distance on every axis make one cell: eight points are not crowded.
    set_bounds(0.0f, 1.0f);
    std::vector<Fg_point> pts;
    for (int i = 0; i < 9; ++i)
        pts.push_back(make_point(0.1f * float(i), 0.5f, 0.5f, 0, 0, 1, 1));
    std::vector<Fg_point> eight(pts.begin(), pts.end() - 1);
    unsigned n = 0;
    std::vector<std::string> lines = merge_debug_lines(eight, 4.0f, &n);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(count_trying(lines), 0);

    // Nine are. At 2 and 1 the unit box is still one cell; at 0.5 it has 27, which is enough.
    lines = merge_debug_lines(pts, 4.0f, &n);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(pts[0].rays, 9u);
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(count_trying(lines), 3);
    EXPECT_EQ(lines[0], "trying merging with distance 2.000000 first");
    EXPECT_EQ(lines[1], "trying merging with distance 1.000000 first");
    EXPECT_EQ(lines[2], "trying merging with distance 0.500000 first");
    EXPECT_EQ(lines[lines.size() - 2], "merging 1 fg point with distance 4.000000");

    // Bounds of a single point never give more cells: the recursion stops at depth 10.
    set_bounds(0.0f, 0.0f);
    pts.assign(9, make_point(0.0f, 0.0f, 0.0f, 0, 0, 1, 2));
    lines = merge_debug_lines(pts, 4.0f, &n);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(pts[0].rays, 18u);
    EXPECT_EQ(count_trying(lines), 10);
    EXPECT_EQ(lines.at(9), "trying merging with distance 0.003906 first");
}

// With the grid at 0.1 and cells of 0.01, the float below 0.23f and 0.24f share cell 13 although
// their difference rounds to more than 0.01f: a gap test then disagrees with the cell numbers.
// Points at both make the pass sort by the comparisons; without 0.24f only the probe from 0.25f
// to cell 13 searches by them. Around each x, points spread over a few cells in y and z.
std::vector<Fg_point> border_points(bool both)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.1f, 0.13f);
    std::vector<Fg_point> points;
    for (float x : {0.21f, std::nextafter(0.23f, 0.0f), both ? 0.24f : 0.25f, 0.26f})
        for (int i = 0; i < 40; ++i)
            points.push_back(make_point(x, u(rng), u(rng), 0.0f, 0.0f, 1.0f, 1 + rng() % 9));
    const float min[3] = {0.1f, 0.1f, 0.1f}, max[3] = {0.3f, 0.13f, 0.13f};
    merge_set_bounds(min, max);
    return points;
}

// On any realistic set the merge conserves rays and leaves no pair that its own test would
// still merge: sparse, crowded (half-distance recursion first), and a floor alone, whose flat
// z axis has no cells, so that probes of different offsets land in the same cell. The integer
// cell keys must give the result of the plain comparisons to the byte, on these sets and where
// the two disagree on a cell border.
TEST_F(MergeTest, MergeConservesRaysAndLeavesNoMergeablePair)
{
    struct Case {
        unsigned points;
        float distance;
        bool floor_only;
        bool borders;
    };
    for (Case c : {Case{3000, 0.3f, false, false}, Case{3000, 2.5f, false, false}, Case{1500, 20.0f, false, false},
                   Case{3000, 0.2f, true, false}, Case{1, 0.01f, false, true}, Case{0, 0.01f, false, true}}) {
        std::vector<Fg_point> pts = c.borders ? border_points(c.points != 0) : room_points(c.points, 11 + c.points);
        if (c.floor_only) {
            std::erase_if(pts, [](const Fg_point& p) { return p.position[2] != 0.0f; });
            const float min[3] = {0.0f, 0.0f, 0.0f}, max[3] = {10.0f, 8.0f, 0.0f};
            merge_set_bounds(min, max);
        }
        std::vector<Fg_point> plain = pts;
        const uint64_t before = total_rays(pts, unsigned(pts.size()));
        unsigned n = merge_points(pts.data(), unsigned(pts.size()), c.distance, FIVE_DEGREES, 0);
        merge_set_exact_only(true);
        unsigned plain_n = merge_points(plain.data(), unsigned(plain.size()), c.distance, FIVE_DEGREES, 0);
        merge_set_exact_only(false);
        ASSERT_EQ(n, plain_n) << "distance " << c.distance;
        EXPECT_EQ(std::memcmp(pts.data(), plain.data(), n * sizeof(Fg_point)), 0) << "distance " << c.distance;
        EXPECT_LT(n, pts.size()) << "distance " << c.distance;
        EXPECT_EQ(total_rays(pts, n), before) << "distance " << c.distance;
        // On the borders the plain comparisons themselves can leave a pair within reach.
        if (!c.borders) {
            EXPECT_FALSE(has_mergeable_pair(pts, n, c.distance, FIVE_DEGREES)) << "distance " << c.distance;
        }
        for (unsigned i = 0; i < n; ++i)
            ASSERT_NE(pts[i].rays, FG_POINT_DEAD);
    }
}

// NaN coordinates make the cell order inconsistent (a NaN compares equal to everything). The
// merge must still finish inside the array; the sort may then give any order.
TEST_F(MergeTest, InconsistentOrderStaysInsideTheArray)
{
    std::vector<Fg_point> pts = room_points(2000, 5);
    std::mt19937 rng(9);
    for (unsigned i = 0; i < pts.size(); i += 7)
        pts[i].position[rng() % 3] = std::nanf("");
    const uint32_t before = uint32_t(total_rays(pts, unsigned(pts.size())));
    unsigned n = merge_points(pts.data(), unsigned(pts.size()), 0.4f, FIVE_DEGREES, 0);
    EXPECT_LE(n, pts.size());
    EXPECT_EQ(uint32_t(total_rays(pts, n)), before);
}

}  // namespace
