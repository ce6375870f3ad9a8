// Final-gather points for the blend and merge tests: every field distinct enough that a blend
// taking the wrong operand or weight shows.
#pragma once

#include <cstdint>

#include "finalgather/fg_point.h"

inline Fg_point make_point(float x, float y, float z, float nx, float ny, float nz, uint32_t rays)
{
    Fg_point p{};
    const float position[3] = {x, y, z}, normal[3] = {nx, ny, nz};
    for (int i = 0; i < 3; ++i) {
        p.position[i] = position[i];
        p.normal[i] = normal[i];
        p.grad_t1[i] = 0.5f + float(i) + y;
        p.grad_t2[i] = -1.0f + float(i) + z;
    }
    for (int i = 0; i < 4; ++i)
        p.irrad[i] = 0.25f * float(i + 1) + x;
    p.rays = rays;
    p.r_mean = 2.0f;
    p.min_dist = 0.5f;
    p.min_dist_dir[0] = 1.0f;
    p.occluded_min_dist = 0.75f;
    return p;
}
