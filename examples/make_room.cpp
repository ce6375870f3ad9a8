// fg_make_room: writes a classic final-gather map of points on the surfaces of a simple room
// (floor, ceiling, four walls and a box standing on the floor), with inward normals, a smooth
// irradiance field with matching gradients, and ray counts. Deterministic for a given seed, so
// it makes reproducible test maps of any size.
//
//   fg_make_room [-n points] [-s seed] [-e] [-0] out_file
//     -n  number of points (default 2000)
//     -s  seed of the generator (default 1)
//     -e  write in the foreign (big-endian) byte order
//     -0  write format version 0 (world-space gradients) instead of 1
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int RECORD_WORDS = 26;
constexpr int HEADER_BYTES = 120;

struct Surface {
    float origin[3];
    float u[3];      // first edge
    float v[3];      // second edge
    float normal[3];
    float area;
};

std::vector<Surface> room_surfaces()
{
    // A 10 x 4 x 8 room with a 2 x 1 x 2 box near its middle.
    std::vector<Surface> s = {
        {{0, 0, 0}, {10, 0, 0}, {0, 0, 8}, {0, 1, 0}, 0},    // floor
        {{0, 4, 0}, {10, 0, 0}, {0, 0, 8}, {0, -1, 0}, 0},   // ceiling
        {{0, 0, 0}, {10, 0, 0}, {0, 4, 0}, {0, 0, 1}, 0},    // back wall
        {{0, 0, 8}, {10, 0, 0}, {0, 4, 0}, {0, 0, -1}, 0},   // front wall
        {{0, 0, 0}, {0, 0, 8}, {0, 4, 0}, {1, 0, 0}, 0},     // left wall
        {{10, 0, 0}, {0, 0, 8}, {0, 4, 0}, {-1, 0, 0}, 0},   // right wall
        {{4, 1, 3}, {2, 0, 0}, {0, 0, 2}, {0, 1, 0}, 0},     // box top
        {{4, 0, 3}, {2, 0, 0}, {0, 1, 0}, {0, 0, -1}, 0},    // box side facing back
        {{4, 0, 5}, {2, 0, 0}, {0, 1, 0}, {0, 0, 1}, 0},     // box side facing front
    };
    for (Surface& f : s) {
        float cx = f.u[1] * f.v[2] - f.u[2] * f.v[1];
        float cy = f.u[2] * f.v[0] - f.u[0] * f.v[2];
        float cz = f.u[0] * f.v[1] - f.u[1] * f.v[0];
        f.area = std::sqrt(cx * cx + cy * cy + cz * cz);
    }
    return s;
}

// A smooth light field: brighter near a lamp under the ceiling.
void irradiance(const float p[3], float out[3], float grad[3][3])
{
    const float lamp[3] = {5, 3.9f, 4};
    float d[3] = {p[0] - lamp[0], p[1] - lamp[1], p[2] - lamp[2]};
    float r2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2] + 1.0f;
    const float tint[3] = {1.0f, 0.9f, 0.75f};
    for (int c = 0; c < 3; ++c) {
        out[c] = 4.0f * tint[c] / r2;
        for (int a = 0; a < 3; ++a)
            grad[c][a] = -8.0f * tint[c] * d[a] / (r2 * r2);  // d(out)/d(axis)
    }
}

uint32_t bits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

uint32_t swap32(uint32_t u) { return __builtin_bswap32(u); }

int usage()
{
    std::fprintf(stderr, "usage: fg_make_room [-n points] [-s seed] [-e] [-0] out_file\n");
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    long count = 2000;
    unsigned seed = 1;
    bool foreign = false;
    bool version0 = false;
    const char* out_name = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-n") && i + 1 < argc)
            count = std::atol(argv[++i]);
        else if (!std::strcmp(argv[i], "-s") && i + 1 < argc)
            seed = unsigned(std::atol(argv[++i]));
        else if (!std::strcmp(argv[i], "-e"))
            foreign = true;
        else if (!std::strcmp(argv[i], "-0"))
            version0 = true;
        else if (argv[i][0] != '-' && !out_name)
            out_name = argv[i];
        else
            return usage();
    }
    if (!out_name || count < 0 || count > 0xffffffffL)
        return usage();

    FILE* out = std::fopen(out_name, "wb");
    if (!out) {
        std::perror(out_name);
        return 1;
    }

    auto word = [foreign](uint32_t u) { return foreign ? swap32(u) : u; };

    // Header: file magic and version text, options header, byte-order word, version, count.
    unsigned char header[HEADER_BYTES] = {};
    std::memcpy(header, "qvFG    3.9.4.14", 16);
    std::memcpy(header + 32, "qvFH", 4);
    uint32_t fields[3] = {word(1), word(version0 ? 0u : 1u), word(0)};
    std::memcpy(header + 36, fields, 12);
    uint32_t stored_count = word(uint32_t(count));
    std::memcpy(header + 96, &stored_count, 4);
    std::fwrite(header, 1, HEADER_BYTES, out);

    std::vector<Surface> surfaces = room_surfaces();
    float total_area = 0;
    for (const Surface& f : surfaces)
        total_area += f.area;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::uniform_int_distribution<uint32_t> ray_count(32, 256);

    std::vector<uint32_t> buffer;
    buffer.reserve(size_t(RECORD_WORDS) * 4096);
    for (long n = 0; n < count; ++n) {
        float pick = unit(rng) * total_area;
        size_t which = 0;
        while (which + 1 < surfaces.size() && pick > surfaces[which].area) {
            pick -= surfaces[which].area;
            ++which;
        }
        const Surface& f = surfaces[which];
        float a = unit(rng), b = unit(rng);
        float p[3], e[3], g[3][3];
        for (int k = 0; k < 3; ++k)
            p[k] = f.origin[k] + a * f.u[k] + b * f.v[k];
        irradiance(p, e, g);

        // Tangent frame of the normal, by the rule every reader rebuilds it with.
        const float* nrm = f.normal;
        float t1[3];
        if (std::fabs(nrm[1]) > std::fabs(nrm[0])) {
            t1[0] = 0; t1[1] = -nrm[2]; t1[2] = nrm[1];
        } else {
            t1[0] = nrm[2]; t1[1] = 0; t1[2] = -nrm[0];
        }
        float len = std::sqrt(t1[1] * t1[1] + t1[0] * t1[0] + t1[2] * t1[2]);
        if (len != 0.0f)
            for (float& c : t1)
                c *= 1.0f / len;
        float t2[3] = {nrm[2] * t1[1] - nrm[1] * t1[2], nrm[0] * t1[2] - nrm[2] * t1[0],
                       nrm[1] * t1[0] - nrm[0] * t1[1]};

        float rec[RECORD_WORDS] = {};
        uint32_t* recu = reinterpret_cast<uint32_t*>(rec);
        std::memcpy(rec + 0, p, 12);
        std::memcpy(rec + 3, nrm, 12);
        rec[6] = e[0]; rec[7] = e[1]; rec[8] = e[2]; rec[9] = 1.0f;
        uint32_t rays = ray_count(rng);
        std::memcpy(&recu[10], &rays, 4);
        if (version0) {
            // Three world-space gradient vectors: red, green, blue.
            for (int c = 0; c < 3; ++c)
                for (int k = 0; k < 3; ++k)
                    rec[11 + 3 * c + k] = g[c][k];
        } else {
            for (int c = 0; c < 3; ++c) {
                rec[11 + c] = g[c][0] * t1[0] + g[c][1] * t1[1] + g[c][2] * t1[2];
                rec[14 + c] = g[c][0] * t2[0] + g[c][1] * t2[1] + g[c][2] * t2[2];
            }
        }
        int32_t id = int32_t(n);
        std::memcpy(&recu[17], &id, 4);
        float dist = 0.05f + 0.5f * unit(rng);
        rec[20] = dist * 2.0f;                 // r_mean
        rec[21] = dist;                        // min_dist
        rec[22] = -nrm[0]; rec[23] = -nrm[1]; rec[24] = -nrm[2];
        rec[25] = dist * 3.0f;                 // occluded_min_dist

        for (int w = 0; w < RECORD_WORDS; ++w)
            buffer.push_back(word(bits(rec[w])));
        if (buffer.size() >= size_t(RECORD_WORDS) * 4096) {
            std::fwrite(buffer.data(), 4, buffer.size(), out);
            buffer.clear();
        }
    }
    std::fwrite(buffer.data(), 4, buffer.size(), out);
    if (std::fclose(out) != 0) {
        std::perror(out_name);
        return 1;
    }
    return 0;
}
