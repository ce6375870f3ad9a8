// A reference merge for tool_bench.sh, written on a general-purpose kd-tree library: reads a
// classic final-gather file (native byte order), merges greedily within a radius, and writes the
// survivors as a classic file. Benchmark-only; built when the library's header is installed.
//
//   nanoflann_merge distance max_angle_degrees in.fg out.fg
//
// Greedy: points are visited in file order; a point not yet absorbed takes every point within
// `distance` whose normal is within `max_angle` of its own and that is not yet absorbed, blending
// each into itself weighted by ray counts (positions, normals renormalised, irradiance and its
// gradients; ray counts add; the distance words keep the smaller).
#include <nanoflann.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr int WORDS = 26;
constexpr int HEADER = 120;

struct Record {
    float w[WORDS];
    uint32_t rays() const { uint32_t r; std::memcpy(&r, &w[10], 4); return r; }
    void set_rays(uint32_t r) { std::memcpy(&w[10], &r, 4); }
};

struct Cloud {
    const std::vector<Record>* records;
    size_t kdtree_get_point_count() const { return records->size(); }
    float kdtree_get_pt(size_t i, size_t dim) const { return (*records)[i].w[dim]; }
    template <class Box>
    bool kdtree_get_bbox(Box&) const { return false; }
};

using Tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Cloud>, Cloud, 3, uint32_t>;

void blend_into(Record& a, const Record& b)
{
    const uint32_t ra = a.rays(), rb = b.rays();
    const float sum = float(ra) + float(rb);
    const float wa = sum > 0 ? float(ra) / sum : 0.5f;
    const float wb = 1.0f - wa;
    for (int i = 0; i < 10; ++i)
        a.w[i] = wa * a.w[i] + wb * b.w[i];
    for (int i = 11; i < 17; ++i)
        a.w[i] = wa * a.w[i] + wb * b.w[i];
    const float len = std::sqrt(a.w[3] * a.w[3] + a.w[4] * a.w[4] + a.w[5] * a.w[5]);
    if (len > 0)
        for (int i = 3; i < 6; ++i)
            a.w[i] /= len;
    for (int i = 20; i < WORDS; ++i)
        a.w[i] = std::fmin(a.w[i], b.w[i]);
    a.set_rays(ra + rb);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: nanoflann_merge distance max_angle_degrees in.fg out.fg\n");
        return 2;
    }
    const float distance = float(std::atof(argv[1]));
    const float cos_max = std::cos(float(std::atof(argv[2])) * 3.14159265f / 180.0f);
    FILE* in = std::fopen(argv[3], "rb");
    if (!in) {
        std::perror(argv[3]);
        return 1;
    }
    char header[HEADER];
    uint32_t count = 0;
    if (std::fread(header, 1, HEADER, in) != HEADER) {
        std::fprintf(stderr, "%s: short header\n", argv[3]);
        return 1;
    }
    std::memcpy(&count, header + 96, 4);
    std::vector<Record> records(count);
    if (std::fread(records.data(), sizeof(Record), count, in) != count) {
        std::fprintf(stderr, "%s: short file\n", argv[3]);
        return 1;
    }
    std::fclose(in);

    // The index keeps positions as they were read: blends move a survivor, but the search is
    // about the input points.
    std::vector<Record> original = records;
    Cloud cloud{&original};
    Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(16));
    tree.buildIndex();

    std::vector<uint8_t> absorbed(count, 0);
    std::vector<std::pair<uint32_t, float>> found;
    nanoflann::SearchParams params(32, 0.0f, false);
    const float radius2 = distance * distance;
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (absorbed[i])
            continue;
        absorbed[i] = 1;  // a survivor is never absorbed by a later point
        Record& a = records[i];
        found.clear();
        tree.radiusSearch(original[i].w, radius2, found, params);
        for (const auto& hit : found) {
            const uint32_t j = hit.first;
            if (absorbed[j])
                continue;
            const Record& b = original[j];
            if (a.w[3] * b.w[3] + a.w[4] * b.w[4] + a.w[5] * b.w[5] < cos_max)
                continue;
            blend_into(a, b);
            absorbed[j] = 1;
        }
        records[kept++] = a;
    }

    FILE* out = std::fopen(argv[4], "wb");
    if (!out) {
        std::perror(argv[4]);
        return 1;
    }
    std::memcpy(header + 96, &kept, 4);
    bool ok = std::fwrite(header, 1, HEADER, out) == HEADER &&
              std::fwrite(records.data(), sizeof(Record), kept, out) == kept;
    ok = std::fclose(out) == 0 && ok;
    std::printf("%u of %u points kept\n", kept, count);
    return ok ? 0 : 1;
}
