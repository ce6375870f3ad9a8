// The picture: three orthographic views of the points, drawn into an RGB buffer and written by
// libpng.
#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "info/info_export.h"
#include "info/info_progress.h"
#include "info/info_walk.h"
#include "maps/map_impl.h"
#include "runtime/msg.h"

using QV::RCMAP::Map_impl;

namespace {

constexpr int32_t ERR_PNG_WRITE = 403;

constexpr uint8_t TEXT_COLOR[3] = {210, 210, 210};
constexpr uint8_t RULE_COLOR[3] = {70, 70, 76};

// Axes of the three views: the world axis along the panel's columns and its sign, the axis
// along the rows and its sign (rows grow downwards), and the axis that points at the viewer.
constexpr int U_AXIS[3] = {0, 0, 2};
constexpr float U_SIGN[3] = {1.0f, 1.0f, -1.0f};
constexpr int V_AXIS[3] = {2, 1, 1};
constexpr float V_SIGN[3] = {1.0f, -1.0f, -1.0f};
constexpr int DEPTH_AXIS[3] = {1, 2, 0};
const char* const VIEW_LABELS[3] = {"top (x z)", "front (x y)", "side (-z y)"};

// A 5 x 7 font for the few characters the labels use; bit 4 of a row is its leftmost pixel.
struct Glyph {
    char character;
    uint8_t rows[7];
};
constexpr Glyph FONT[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'.', {0, 0, 0, 0, 0, 0x0C, 0x0C}},                {'-', {0, 0, 0, 0x1F, 0, 0, 0}},
    {'+', {0, 0x04, 0x04, 0x1F, 0x04, 0x04, 0}},       {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}},
    {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}}, {'d', {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}},
    {'e', {0, 0, 0x0E, 0x11, 0x1F, 0x10, 0x0E}},       {'f', {0x06, 0x09, 0x08, 0x1C, 0x08, 0x08, 0x08}},
    {'i', {0x04, 0, 0x0C, 0x04, 0x04, 0x04, 0x0E}},    {'n', {0, 0, 0x16, 0x19, 0x11, 0x11, 0x11}},
    {'o', {0, 0, 0x0E, 0x11, 0x11, 0x11, 0x0E}},       {'p', {0, 0, 0x1E, 0x11, 0x1E, 0x10, 0x10}},
    {'r', {0, 0, 0x16, 0x19, 0x10, 0x10, 0x10}},       {'s', {0, 0, 0x0E, 0x10, 0x0E, 0x01, 0x1E}},
    {'t', {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}}, {'x', {0, 0, 0x11, 0x0A, 0x04, 0x0A, 0x11}},
    {'y', {0, 0, 0x11, 0x11, 0x0F, 0x01, 0x0E}},       {'z', {0, 0, 0x1F, 0x02, 0x04, 0x08, 0x1F}},
};

class Canvas {
public:
    Canvas(uint8_t* rgb, uint32_t width, uint32_t height) : rgb_(rgb), width_(width), height_(height) {}

    void fill(int x0, int y0, int x1, int y1, const uint8_t color[3])
    {
        x0 = std::max(x0, 0);
        y0 = std::max(y0, 0);
        x1 = std::min(x1, int(width_));
        y1 = std::min(y1, int(height_));
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x)
                std::memcpy(rgb_ + (size_t(y) * width_ + size_t(x)) * 3, color, 3);
    }
    // Left edge at x, top at y; unknown characters leave a gap.
    void text(int x, int y, const char* text, int scale)
    {
        for (const char* c = text; *c; ++c, x += 6 * scale) {
            const Glyph* glyph = std::find_if(std::begin(FONT), std::end(FONT),
                                              [c](const Glyph& g) { return g.character == *c; });
            if (glyph == std::end(FONT))
                continue;
            for (int row = 0; row < 7; ++row)
                for (int column = 0; column < 5; ++column)
                    if (glyph->rows[row] & (0x10 >> column))
                        fill(x + column * scale, y + row * scale, x + (column + 1) * scale,
                             y + (row + 1) * scale, TEXT_COLOR);
        }
    }
    static int text_width(const char* text, int scale) { return int(std::strlen(text)) * 6 * scale - scale; }

private:
    uint8_t* rgb_;
    uint32_t width_, height_;
};

// 1, 2 or 5 times a power of ten, the largest not above `target` (target > 0).
float nice_length(float target)
{
    const float decade = std::pow(10.0f, std::floor(std::log10(target)));
    for (float step : {5.0f, 2.0f})
        if (step * decade <= target)
            return step * decade;
    return decade;
}

void draw_frame(Canvas& canvas, const Info_picture_layout& layout, const Info_stats& stats)
{
    const int gs = int(layout.glyph_scale);
    const int pw = int(layout.panel_width);
    const int h = int(layout.height);
    const int label_top = (int(layout.border) - 7 * gs) / 2;
    for (int view = 0; view < 3; ++view) {
        if (view > 0)
            canvas.fill(view * pw, 0, view * pw + 1, h, RULE_COLOR);
        canvas.text(view * pw + 2 * gs, label_top, VIEW_LABELS[view], gs);
    }
    const int bottom_text = h - int(layout.border) + label_top;
    char label[48];
    std::snprintf(label, sizeof label, "%u points", stats.count);
    canvas.text(3 * pw - 2 * gs - Canvas::text_width(label, gs), bottom_text, label, gs);

    // The bar spans a round length of about a quarter of the first panel's drawing area.
    const float area = float(pw) - 2.0f * float(layout.border);
    if (stats.count == 0 || !(layout.scale > 0.0f) || area <= 0.0f)
        return;
    const float length = nice_length(0.25f * area / layout.scale);
    if (!std::isfinite(length) || length <= 0.0f)
        return;
    const int bar = std::max(1, int(std::lround(length * layout.scale)));
    const int x0 = 2 * gs;
    const int y_mid = bottom_text + 7 * gs / 2;
    canvas.fill(x0, y_mid - gs / 2, x0 + bar, y_mid - gs / 2 + gs, TEXT_COLOR);
    canvas.fill(x0, bottom_text, x0 + gs, bottom_text + 7 * gs, TEXT_COLOR);
    canvas.fill(x0 + bar - gs, bottom_text, x0 + bar, bottom_text + 7 * gs, TEXT_COLOR);
    std::snprintf(label, sizeof label, "%g", double(length));
    canvas.text(x0 + bar + 3 * gs, bottom_text, label, gs);
}

struct Png_failure {
    std::jmp_buf jump;
};

void png_failed(png_structp png, png_const_charp)
{
    std::longjmp(static_cast<Png_failure*>(png_get_error_ptr(png))->jump, 1);
}

void png_warning_ignored(png_structp, png_const_charp) {}

// Writes `rgb` to `file`; false on any libpng failure.
bool encode_png(FILE* file, const uint8_t* rgb, uint32_t width, uint32_t height)
{
    Png_failure failure;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &failure, png_failed, png_warning_ignored);
    if (!png)
        return false;
    png_infop info = png_create_info_struct(png);
    std::vector<png_bytep> rows(height);
    if (!info || setjmp(failure.jump)) {
        png_destroy_write_struct(&png, info ? &info : nullptr);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    for (uint32_t y = 0; y < height; ++y)
        rows[y] = const_cast<png_bytep>(rgb + size_t(y) * width * 3);
    png_set_rows(png, info, rows.data());
    png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

Info_picture_layout::Info_picture_layout(uint32_t width_, uint32_t height_, const Info_stats& stats)
    : width(width_), height(height_), panel_width(width_ / 3)
{
    glyph_scale = std::max(1u, height / 200);
    // Room for a line of text above and below the drawing area, cut down for tiny pictures.
    border = std::min(13 * glyph_scale, (std::min(panel_width, height) - 1) / 4);
    const float area_w = std::max(1.0f, float(panel_width) - 2.0f * float(border));
    const float area_h = std::max(1.0f, float(height) - 2.0f * float(border));

    float low[3], high[3];
    for (int a = 0; a < 3; ++a) {
        const bool known = std::isfinite(stats.bounds_min[a]) && std::isfinite(stats.bounds_max[a]);
        low[a] = known ? stats.bounds_min[a] : 0.0f;
        high[a] = known ? stats.bounds_max[a] : 0.0f;
    }
    scale = std::numeric_limits<float>::infinity();
    for (int view = 0; view < 3; ++view) {
        const float extent_u = high[U_AXIS[view]] - low[U_AXIS[view]];
        const float extent_v = high[V_AXIS[view]] - low[V_AXIS[view]];
        if (extent_u > 0.0f)
            scale = std::min(scale, area_w / extent_u);
        if (extent_v > 0.0f)
            scale = std::min(scale, area_h / extent_v);
    }
    if (!std::isfinite(scale))
        scale = 1.0f;
    for (int view = 0; view < 3; ++view) {
        const float centre_u = 0.5f * (low[U_AXIS[view]] + high[U_AXIS[view]]) * U_SIGN[view];
        const float centre_v = 0.5f * (low[V_AXIS[view]] + high[V_AXIS[view]]) * V_SIGN[view];
        offset_x[view] = float(view * panel_width) + 0.5f * float(panel_width) - centre_u * scale;
        offset_y[view] = 0.5f * float(height) - centre_v * scale;
    }
    // Sparse maps get larger squares, so that their surfaces still read as surfaces.
    const double per_point = area_w * area_h / std::max<double>(1.0, stats.count);
    splat = std::clamp(int(0.5 * std::sqrt(per_point)), 1, 4);
}

void Info_picture_layout::project(int view, const float* position, float* column, float* row) const
{
    *column = offset_x[view] + U_SIGN[view] * position[U_AXIS[view]] * scale;
    *row = offset_y[view] + V_SIGN[view] * position[V_AXIS[view]] * scale;
}

void info_render_picture(Map_impl& map, const Info_stats& stats, const Info_picture_layout& layout, uint8_t* rgb,
                         Info_progress* progress)
{
    const uint32_t width = layout.width, height = layout.height;
    for (size_t p = 0; p < size_t(width) * height; ++p)
        std::memcpy(rgb + 3 * p, INFO_PICTURE_BACKGROUND, 3);
    // Per pixel the winning point's key: depth towards the viewer in [0, 1], plus 2 when the
    // point faces the viewer.
    std::vector<float> keys(size_t(width) * height, -1.0f);
    float depth_low[3], depth_span[3];
    for (int view = 0; view < 3; ++view) {
        const int axis = DEPTH_AXIS[view];
        depth_low[view] = stats.bounds_min[axis];
        const float span = stats.bounds_max[axis] - stats.bounds_min[axis];
        depth_span[view] = std::isfinite(span) && span > 0.0f ? span : 1.0f;
    }
    const Info_tone tone(stats);
    const int splat = layout.splat;
    const int panel = int(layout.panel_width);
    if (progress)
        progress->start("drawing picture", map.size());
    info_walk(map, progress, [&](uint32_t, const Fg_point& point) {
        uint8_t color[3];
        tone.map(point.irrad, color);
        for (int view = 0; view < 3; ++view) {
            float column, row;
            layout.project(view, point.position, &column, &row);
            // NaN and far-off positions are not drawn; the comparison also keeps int conversion safe.
            if (!(column >= 0.0f && column < float(width) && row >= 0.0f && row < float(height)))
                continue;
            const int cx = int(column), cy = int(row);
            const int axis = DEPTH_AXIS[view];
            float key = (point.position[axis] - depth_low[view]) / depth_span[view];
            if (point.normal[axis] >= 0.0f)
                key += 2.0f;
            const int x0 = std::max(cx - splat, view * panel), x1 = std::min(cx + splat, (view + 1) * panel - 1);
            const int y0 = std::max(cy - splat, 0), y1 = std::min(cy + splat, int(height) - 1);
            for (int y = y0; y <= y1; ++y) {
                float* key_row = keys.data() + size_t(y) * width;
                uint8_t* pixel_row = rgb + size_t(y) * width * 3;
                for (int x = x0; x <= x1; ++x)
                    if (key >= key_row[x]) {
                        key_row[x] = key;
                        std::memcpy(pixel_row + 3 * x, color, 3);
                    }
            }
        }
    });
    if (progress)
        progress->finish();
    Canvas canvas(rgb, width, height);
    draw_frame(canvas, layout, stats);
}

bool info_write_png(Map_impl& map, const Info_stats& stats, uint32_t width, uint32_t height, const char* path,
                    Info_progress* progress)
{
    const Info_picture_layout layout(width, height, stats);
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    info_render_picture(map, stats, layout, rgb.data(), progress);
    FILE* file = std::fopen(path, "wb");
    if (!file) {
        msg_error_n(ERR_PNG_WRITE, "cannot write picture file \"%s\": %s", path, std::strerror(errno));
        return false;
    }
    bool ok = encode_png(file, rgb.data(), width, height);
    ok = std::fclose(file) == 0 && ok;
    if (!ok)
        msg_error_n(ERR_PNG_WRITE, "cannot write picture file \"%s\"", path);
    return ok;
}
