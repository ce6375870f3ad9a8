// The blend of two final-gather points on the branches a merge of real maps rarely reaches; the
// ordinary blend is checked word for word through the merge (merge_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/test_support.h"
#include "tests/tool/fg_points.h"
#include "tool/blend.h"

namespace {

class BlendTest : public ::testing::Test {
protected:
    void SetUp() override { qv_test_init(); }
};

TEST_F(BlendTest, FrameTieBetweenXAndYTakesTheXZBranchAndZeroNormalGivesZeroFrame)
{
    const float h = std::sqrt(0.5f);
    const float n[3] = {h, -h, 0.0f}, zero[3] = {0.0f, 0.0f, 0.0f};
    float t[3], c[3];
    fg_tangent_frame(n, t, c);
    EXPECT_TRUE(t[0] == 0.0f && t[1] == 0.0f);
    EXPECT_FLOAT_EQ(t[2], -1.0f);
    fg_tangent_frame(zero, t, c);
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(t[k] == 0.0f && c[k] == 0.0f) << k;
}

// The gradient blend takes its frame from the first operand's unblended normal and weighs all
// terms with a's share. A "corrected" version (blended normal, wb on b's terms) fails here.
TEST_F(BlendTest, GradientsUseFirstOperandFrameAndItsWeightOnly)
{
    const Fg_point a = make_point(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 1.0f, 1);
    const Fg_point b = make_point(0.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f, 3);
    Fg_point big = a, flat = a;
    big.normal[2] = 2.0f;
    flat.normal[2] = 0.0f;
    Fg_point ab, ba, from_big, from_flat;
    blend_points(&ab, &a, &b);
    blend_points(&ba, &b, &a);
    blend_points(&from_big, &big, &b);
    blend_points(&from_flat, &flat, &b);
    for (int i = 0; i < 3; ++i) {
        const float t1 = a.grad_t1[i] + b.grad_t1[i], t2 = a.grad_t2[i] + b.grad_t2[i];
        EXPECT_FLOAT_EQ(ab.grad_t1[i], 0.25f * t1);
        EXPECT_FLOAT_EQ(ab.grad_t2[i], 0.25f * t2);
        EXPECT_FLOAT_EQ(ba.grad_t1[i], 0.75f * t1);
        EXPECT_FLOAT_EQ(ab.normal[i], ba.normal[i]) << "only the gradients depend on the order";
        // A non-unit first normal keeps T a unit vector but scales C, so grad_t2 takes |n|^2.
        EXPECT_FLOAT_EQ(from_big.grad_t1[i], 0.25f * t1);
        EXPECT_FLOAT_EQ(from_big.grad_t2[i], 4.0f * 0.25f * t2);
        // A zero first normal has no frame: the gradients vanish.
        EXPECT_TRUE(from_flat.grad_t1[i] == 0.0f && from_flat.grad_t2[i] == 0.0f) << i;
    }
}

TEST_F(BlendTest, WeightsAreUnsignedRayCountsOpposedNormalsCancelAndNanDistanceGivesWay)
{
    // A zero first weight gives the second point's fields, with zero gradients.
    Fg_point a = make_point(1.0f, 2.0f, 3.0f, 0.6f, 0.0f, 0.8f, 0);
    Fg_point b = make_point(-4.0f, 0.5f, 9.0f, 0.0f, 0.6f, 0.8f, 12);
    Fg_point out;
    blend_points(&out, &a, &b);
    EXPECT_EQ(out.rays, 12u);
    EXPECT_EQ(std::memcmp(out.position, b.position, sizeof b.position), 0);
    EXPECT_EQ(std::memcmp(out.irrad, b.irrad, sizeof b.irrad), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FLOAT_EQ(out.normal[i], b.normal[i]);
        EXPECT_TRUE(out.grad_t1[i] == 0.0f && out.grad_t2[i] == 0.0f) << i;
    }

    a = make_point(0, 0, 0, 1, 0, 0, 0xC0000000u);
    b = make_point(13.0f, 0, 0, -1, 0, 0, 0x10000000u);
    blend_points(&out, &a, &b);
    EXPECT_EQ(out.rays, 0xD0000000u);
    EXPECT_FLOAT_EQ(out.position[0], 1.0f);
    // Opposed normals of equal weight cancel, and a zero sum is not renormalised.
    a.rays = b.rays = 5;
    blend_points(&out, &a, &b);
    EXPECT_TRUE(out.normal[0] == 0.0f && out.normal[1] == 0.0f && out.normal[2] == 0.0f);

    // Both counts 0: the weights are 0/0, so every weighted field is NaN.
    a.rays = b.rays = 0;
    blend_points(&out, &a, &b);
    EXPECT_TRUE(std::isnan(out.position[0]) && std::isnan(out.irrad[3]) && std::isnan(out.r_mean));

    // A NaN distance takes the other side's distance and direction; a zero mean gives zero.
    a = b = make_point(0, 0, 0, 0, 0, 1, 1);
    a.min_dist = std::nanf("");
    b.min_dist = 2.0f;
    b.min_dist_dir[2] = 1.0f;
    a.r_mean = 0.0f;
    blend_points(&out, &a, &b);
    EXPECT_EQ(out.min_dist, 2.0f);
    EXPECT_EQ(std::memcmp(out.min_dist_dir, b.min_dist_dir, sizeof b.min_dist_dir), 0);
    EXPECT_EQ(out.r_mean, 0.0f);
}

}  // namespace
