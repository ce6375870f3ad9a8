// The PLY and open ASCII outputs, and the tone map the PLY and the picture share.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "info/info_export.h"
#include "info/info_progress.h"
#include "info/info_walk.h"
#include "maps/map_impl.h"
#include "runtime/msg.h"

using QV::RCMAP::Map_impl;

namespace {

// Message numbers of fg_info (module MAIN, level error).
constexpr int32_t ERR_PLY_WRITE = 401;

// Bytes of one PLY vertex: 6 floats, 3 bytes, 3 floats, 1 uint, packed.
constexpr size_t PLY_VERTEX_BYTES = 6 * 4 + 3 + 3 * 4 + 4;
constexpr size_t PLY_CHUNK_VERTICES = 8192;

}  // namespace

Info_tone::Info_tone(const Info_stats& stats)
{
    const double luminance = stats.mean_luminance();
    if (std::isfinite(luminance) && luminance > 0.0)
        exposure = float(0.18 / luminance);
}

void Info_tone::map(const float irrad[3], uint8_t rgb[3]) const
{
    for (int c = 0; c < 3; ++c) {
        const float x = irrad[c] * exposure;
        // The test is written so that NaN fails it.
        if (!(x > 0.0f)) {
            rgb[c] = 0;
            continue;
        }
        const float curve = std::isinf(x) ? 1.0f : x / (1.0f + x);
        rgb[c] = uint8_t(std::lround(255.0f * std::pow(curve, 1.0f / 2.2f)));
    }
}

bool info_write_ply(Map_impl& map, const Info_stats& stats, const char* path, Info_progress* progress)
{
    FILE* file = std::fopen(path, "wb");
    if (!file) {
        msg_error_n(ERR_PLY_WRITE, "cannot write PLY file \"%s\": %s", path, std::strerror(errno));
        return false;
    }
    const uint32_t count = map.size();
    bool ok = std::fprintf(file,
                           "ply\nformat binary_little_endian 1.0\ncomment final-gather map written by fg_info\n"
                           "element vertex %u\n"
                           "property float x\nproperty float y\nproperty float z\n"
                           "property float nx\nproperty float ny\nproperty float nz\n"
                           "property uchar red\nproperty uchar green\nproperty uchar blue\n"
                           "property float irrad_r\nproperty float irrad_g\nproperty float irrad_b\n"
                           "property uint rays\nend_header\n",
                           count) > 0;
    const Info_tone tone(stats);
    std::vector<uint8_t> chunk(PLY_CHUNK_VERTICES * PLY_VERTEX_BYTES);
    size_t filled = 0;
    if (progress)
        progress->start("writing PLY", count);
    info_walk(map, progress, [&](uint32_t, const Fg_point& point) {
        uint8_t* v = chunk.data() + filled * PLY_VERTEX_BYTES;
        // This platform is little-endian, the order the header announces.
        std::memcpy(v, point.position, 12);
        std::memcpy(v + 12, point.normal, 12);
        tone.map(point.irrad, v + 24);
        std::memcpy(v + 27, point.irrad, 12);
        std::memcpy(v + 39, &point.rays, 4);
        if (++filled == PLY_CHUNK_VERTICES) {
            ok = ok && std::fwrite(chunk.data(), PLY_VERTEX_BYTES, filled, file) == filled;
            filled = 0;
        }
    });
    ok = ok && std::fwrite(chunk.data(), PLY_VERTEX_BYTES, filled, file) == filled;
    if (progress)
        progress->finish();
    ok = std::fclose(file) == 0 && ok;
    if (!ok)
        msg_error_n(ERR_PLY_WRITE, "cannot write PLY file \"%s\": %s", path, std::strerror(errno));
    return ok;
}

bool info_write_ascii(Map_impl& map, const char* path)
{
    // The map layer's writer reports its own failures.
    return map.write(path, qv::shader_v3::MAP_FORMAT_OPEN_ASCII, true) == qv::shader_v3::MAP_SUCCESS;
}
