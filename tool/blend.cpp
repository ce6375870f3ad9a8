#include "tool/blend.h"

void blend_points(Fg_point* out, const Fg_point* a, const Fg_point* b)
{
    // Built in a local record: `out` may alias an operand that is still being read, and the
    // zero start gives the unassigned fields their defined value.
    Fg_point w{};

    w.rays = a->rays + b->rays;
    const float sum = float(w.rays);
    const float wa = float(a->rays) / sum;
    const float wb = float(b->rays) / sum;

    for (int i = 0; i < 3; ++i)
        w.position[i] = wa * a->position[i] + wb * b->position[i];

    for (int i = 0; i < 3; ++i)
        w.normal[i] = wa * a->normal[i] + wb * b->normal[i];
    float len = sqrtf(w.normal[0] * w.normal[0] + w.normal[1] * w.normal[1] + w.normal[2] * w.normal[2]);
    if (len != 0.0f) {
        float inv = 1.0f / len;
        w.normal[0] *= inv;
        w.normal[1] *= inv;
        w.normal[2] *= inv;
    }

    for (int i = 0; i < 4; ++i)
        w.irrad[i] = wa * a->irrad[i] + wb * b->irrad[i];

    // Gradients: source and target frames both come from the first operand's own normal.
    float t[3], c[3];
    fg_tangent_frame(a->normal, t, c);
    const float p = wa * (t[1] * t[1] + t[0] * t[0] + t[2] * t[2]);
    const float q = wa * (c[1] * t[1] + c[0] * t[0] + c[2] * t[2]);
    const float r = wa * (t[1] * c[1] + t[0] * c[0] + t[2] * c[2]);
    const float s = wa * (c[1] * c[1] + c[0] * c[0] + c[2] * c[2]);
    for (int i = 0; i < 3; ++i) {
        w.grad_t1[i] = q * a->grad_t2[i] + p * a->grad_t1[i] + p * b->grad_t1[i] + q * b->grad_t2[i];
        w.grad_t2[i] = s * a->grad_t2[i] + r * a->grad_t1[i] + r * b->grad_t1[i] + s * b->grad_t2[i];
    }

    w.r_mean = 1.0f / (wa / a->r_mean + wb / b->r_mean);

    w.min_dist = b->min_dist > a->min_dist ? a->min_dist : b->min_dist;
    const float* dir = b->min_dist >= a->min_dist ? a->min_dist_dir : b->min_dist_dir;
    w.min_dist_dir[0] = dir[0];
    w.min_dist_dir[1] = dir[1];
    w.min_dist_dir[2] = dir[2];
    w.occluded_min_dist =
        b->occluded_min_dist > a->occluded_min_dist ? a->occluded_min_dist : b->occluded_min_dist;

    *out = w;
}
