// Weighted blending of two final-gather points, and the tangent frame in which their irradiance
// gradients are expressed.
//
// Everything here is single precision and follows a fixed order of operations: merged maps must
// come out bit-identical whichever machine wrote them, so do not reassociate or "simplify".
#pragma once

#include <cmath>

#include "finalgather/fg_point.h"

// The tangent frame of a normal n: T, a unit vector perpendicular to n (zero when it cannot be
// built), and C = T x n. The frame is stateless, so any reader can rebuild it from a stored
// normal; the classic file loader converts gradients with the same rule.
inline void fg_tangent_frame(const float n[3], float t[3], float c[3])
{
    if (std::fabs(n[1]) > std::fabs(n[0])) {
        t[0] = 0.0f;
        t[1] = -n[2];
        t[2] = n[1];
    } else {
        t[0] = n[2];
        t[1] = 0.0f;
        t[2] = -n[0];
    }
    float len = sqrtf(t[1] * t[1] + t[0] * t[0] + t[2] * t[2]);
    if (len != 0.0f) {
        float inv = 1.0f / len;
        t[0] *= inv;
        t[1] *= inv;
        t[2] *= inv;
    }
    c[0] = n[2] * t[1] - n[1] * t[2];
    c[1] = n[0] * t[2] - n[2] * t[0];
    c[2] = n[1] * t[0] - n[0] * t[1];
}

// Blends `a` and `b` into `out`, each weighted by its share of the summed `rays`. `out` may be
// `a` or `b`.
//
// - `rays` is the unsigned 32-bit sum (it wraps); position, normal and irradiance are weighted
//   means, the normal renormalised unless it came out zero. Both rays 0 make every weighted
//   field NaN.
// - Gradients are re-expressed in the frame of `a.normal` alone and weighted by a's share on
//   all terms, so the blend is not symmetric in its operands. This is deliberate: it is how the
//   maps in circulation were merged, and merging again must agree with them.
// - `r_mean` is the weighted harmonic mean; `min_dist` and `occluded_min_dist` the smaller value
//   (b's unless b's is larger); `min_dist_dir` follows min_dist, taking a's on a tie.
// - Fields that blending does not assign (`point_id`, `reserved`, `trailing`) are set to zero.
void blend_points(Fg_point* out, const Fg_point* a, const Fg_point* b);
