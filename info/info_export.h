// fg_info's outputs besides the summary: a PLY point cloud, the open ASCII map text, and a
// picture of three orthographic views. Each reports its own failure (module MAIN) and answers
// false then.
#pragma once

#include <cstdint>

#include "info/info_summary.h"

class Info_progress;
namespace QV::RCMAP {
class Map_impl;
}

// 8-bit display colour of an irradiance: exposure that puts the map's mean luminance at 0.18,
// the curve x / (1 + x) per channel, then a 2.2 display gamma, rounded. Negative and NaN values
// give 0.
struct Info_tone {
    float exposure = 1.0f;

    explicit Info_tone(const Info_stats& stats);
    void map(const float irrad[3], uint8_t rgb[3]) const;
};

// Binary little-endian PLY, one vertex per point with
//   float x y z nx ny nz, uchar red green blue, float irrad_r irrad_g irrad_b, uint rays.
bool info_write_ply(QV::RCMAP::Map_impl& map, const Info_stats& stats, const char* path, Info_progress* progress);

// The map in the open ASCII format of the map layer.
bool info_write_ascii(QV::RCMAP::Map_impl& map, const char* path);

// The picture's layout, shared by the renderer and whoever wants to find a point in it.
//
// The image is split into three panels of width / 3 pixels, side by side: top (seen from +y,
// x to the right, z downwards), front (seen from +z, x to the right, y upwards) and side (seen
// from +x, -z to the right, y upwards). All three share one scale, the largest at which every
// view's extent fits its panel inside a border of `border` pixels, and each view is centred in
// its panel. Every point is a square of 2 * splat + 1 pixels in its tone-mapped colour; where
// squares overlap, points that face the viewer win over points that face away, then the
// nearer one. Each panel is labelled; the first holds a scale bar, the last the point count.
struct Info_picture_layout {
    uint32_t width = 0, height = 0;
    uint32_t panel_width = 0;
    uint32_t border = 0;
    uint32_t glyph_scale = 1;       // pixels per font pixel
    int32_t splat = 1;
    float scale = 1.0f;             // pixels per world unit
    float offset_x[3] = {}, offset_y[3] = {};  // pixel of world (u, v) = (0, 0) in each panel

    Info_picture_layout(uint32_t width, uint32_t height, const Info_stats& stats);
    // Pixel column and row of `position` in view 0 (top), 1 (front) or 2 (side); may lie
    // outside the panel only for positions outside the stats' bounds.
    void project(int view, const float* position, float* column, float* row) const;
};

// Background and text colours of the picture.
constexpr uint8_t INFO_PICTURE_BACKGROUND[3] = {24, 24, 28};

// Renders the picture into `rgb` (width * height * 3 bytes, rows top first).
void info_render_picture(QV::RCMAP::Map_impl& map, const Info_stats& stats, const Info_picture_layout& layout,
                         uint8_t* rgb, Info_progress* progress);
// Renders and writes the picture as an 8-bit RGB PNG file.
bool info_write_png(QV::RCMAP::Map_impl& map, const Info_stats& stats, uint32_t width, uint32_t height,
                    const char* path, Info_progress* progress);
