#include "tool/merge.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "finalgather/fg_map.h"
#include "maps/map_dbhandle.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "runtime/msg.h"
#include "tool/blend.h"

Merge_grid merge_grid;

namespace {

constexpr int MAX_DEPTH = 10;

// A point's sort key: its position and its cell numbers. The cell numbers are the ones
// compare_points would compute, taken once per point instead of twice per comparison; the
// position is still needed because the comparison first tests the coordinate gap. During a pass
// `pos` mirrors the record's live position, while `cell` stays valid because a record only ever
// changes within its own cell.
struct Cell_key {
    float pos[3];
    float cell[3];
    uint32_t index;  // record index before the sort; only used to permute the records
};

// The one side array: blends that left both cells. Calls of merge_points never overlap (a
// recursive call ends before its caller's passes start), so they share it. Kept for the life of
// the process, as the grown capacity is likely to be wanted again.
struct Side_array {
    Fg_point* records = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;
};
Side_array g_side;

// Snapshot of the cell parameters, so the hot loops read locals rather than a global that every
// store through a record pointer might alias.
struct Grid {
    float origin[3];
    float size[3];
};

Grid current_grid()
{
    Grid g;
    for (int axis = 0; axis < 3; ++axis) {
        g.origin[axis] = merge_grid.cell_origin[axis];
        g.size[axis] = merge_grid.cell_size[axis];
    }
    return g;
}

inline float cell_number(const Grid& g, int axis, float x)
{
    float q = (x - g.origin[axis]) / g.size[axis];
    return float(std::floor(double(q)));
}

inline void cell_numbers(const Grid& g, const float pos[3], float cell[3])
{
    for (int axis = 0; axis < 3; ++axis)
        cell[axis] = g.size[axis] != 0.0f ? cell_number(g, axis, pos[axis]) : 0.0f;
}

// compare_points with both cell numbers at hand; gives the same answer for every pair.
inline int compare_cells(const Grid& g, const float* pa, const float* ca, const float* pb, const float* cb)
{
    for (int axis = 0; axis < 3; ++axis) {
        float s = g.size[axis];
        if (s == 0.0f)
            continue;
        if (pb[axis] - pa[axis] > s)
            return -1;
        if (pa[axis] - pb[axis] > s)
            return 1;
        if (cb[axis] > ca[axis])
            return -1;
        if (ca[axis] > cb[axis])
            return 1;
    }
    return 0;
}

inline int compare_keys(const Grid& g, const Cell_key& a, const Cell_key& b)
{
    return compare_cells(g, a.pos, a.cell, b.pos, b.cell);
}

// Stable merge sort of the keys. Every loop is bounded by indices, so an inconsistent comparison
// only yields some order, never a read outside the arrays.
void sort_keys(const Grid& g, Cell_key* keys, Cell_key* scratch, uint32_t n)
{
    constexpr uint32_t RUN = 16;
    for (uint32_t lo = 0; lo < n; lo += RUN) {
        uint32_t hi = n - lo < RUN ? n : lo + RUN;
        for (uint32_t i = lo + 1; i < hi; ++i) {
            Cell_key x = keys[i];
            uint32_t j = i;
            while (j > lo && compare_keys(g, x, keys[j - 1]) < 0) {
                keys[j] = keys[j - 1];
                --j;
            }
            keys[j] = x;
        }
    }
    Cell_key* from = keys;
    Cell_key* to = scratch;
    for (uint32_t width = RUN; width < n; width = width > n / 2 ? n : width * 2) {
        for (uint32_t lo = 0; lo < n; lo += 2 * width) {
            uint32_t mid = n - lo < width ? n : lo + width;
            uint32_t hi = n - mid < width ? n : mid + width;
            uint32_t i = lo, j = mid, out = lo;
            while (i < mid && j < hi)
                to[out++] = compare_keys(g, from[j], from[i]) < 0 ? from[j++] : from[i++];
            while (i < mid)
                to[out++] = from[i++];
            while (j < hi)
                to[out++] = from[j++];
        }
        Cell_key* t = from;
        from = to;
        to = t;
    }
    if (from != keys)
        std::memcpy(keys, from, size_t(n) * sizeof(Cell_key));
}

// Puts the records into key order: record i becomes the one keys[i].index named. Follows the
// permutation's cycles, so each record moves once and no second record array is needed.
void permute_records(Fg_point* points, Cell_key* keys, uint32_t n)
{
    for (uint32_t start = 0; start < n; ++start) {
        if (keys[start].index == start)
            continue;
        Fg_point held = points[start];
        uint32_t j = start;
        for (;;) {
            uint32_t from = keys[j].index;
            keys[j].index = j;
            if (from == start) {
                points[j] = held;
                break;
            }
            points[j] = points[from];
            j = from;
        }
    }
}

// First record among keys[0..i) that compares equal to the probe, or i when there is none: the
// start of the probe's cell run, as a hit of a binary search followed by the walk back to the
// run's first record would give it in the sorted array.
//
// The 14 probes of one point come in falling cell order, so each run lies before the previous
// probe's lower bound, kept in `bound`. The search gallops back from there instead of bisecting
// the whole prefix: most neighbour cells are near, which saves most of the comparisons. Should
// rounding at a cell border break that order, the bound is dropped and the whole prefix searched.
// All indices stay within [0, i) whatever the comparison answers.
inline uint32_t find_run(const Grid& g, const Cell_key* keys, const Cell_key& probe, uint32_t& bound, uint32_t i)
{
    uint32_t hi = bound;
    if (hi < i && compare_keys(g, probe, keys[hi]) >= 0)
        hi = i;
    uint32_t lo = 0;
    for (uint64_t step = 1; step <= hi; step *= 2) {
        uint32_t m = hi - uint32_t(step);
        if (compare_keys(g, keys[m], probe) < 0) {
            lo = m + 1;
            break;
        }
        hi = m;
    }
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (compare_keys(g, keys[mid], probe) < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    bound = lo;
    return lo < i && compare_keys(g, keys[lo], probe) == 0 ? lo : i;
}

void side_append(const Fg_point& record)
{
    if (g_side.count == g_side.capacity) {
        uint32_t capacity = g_side.capacity * 2 < 100 ? 100 : g_side.capacity * 2;
        g_side.records = static_cast<Fg_point*>(QV_REALLOC(g_side.records, size_t(capacity) * sizeof(Fg_point)));
        g_side.capacity = capacity;
    }
    g_side.records[g_side.count++] = record;
}

// Number of cells along one axis, in single precision as the bounds give it. The truncation is
// clamped so that absurd ratios (a tiny or negative distance) stay defined; the product of the
// three counts is then taken modulo 2^32 like the rest of the estimate.
uint32_t cells_on_axis(float min, float max, float distance)
{
    if (!(max > min + distance))
        return 1;
    float ratio = (max - min) / distance;
    int64_t n;
    if (ratio >= 4294967295.0f)
        n = 4294967295LL;
    else if (ratio <= -2147483648.0f)
        n = -2147483648LL;
    else
        n = int64_t(ratio);
    return uint32_t(n) + 1;
}

// One pass: sort, gather every pair within reach from its later point, compact.
// Returns the number of blends done.
uint32_t merge_pass(Fg_point* points, uint32_t& count, Cell_key* keys, Cell_key* scratch, float distance,
                    float cos_limit)
{
    const Grid g = current_grid();
    const uint32_t n = count;
    uint32_t merged = 0;
    g_side.count = 0;

    for (uint32_t i = 0; i < n; ++i) {
        Cell_key& key = keys[i];
        std::memcpy(key.pos, points[i].position, sizeof key.pos);
        cell_numbers(g, key.pos, key.cell);
        key.index = i;
    }
    sort_keys(g, keys, scratch, n);
    permute_records(points, keys, n);

    for (uint32_t i = 1; i < n; ++i) {
        Fg_point* p = &points[i];
        // A point that arrived dead-marked gathers nothing; compaction drops it.
        if (p->rays == FG_POINT_DEAD)
            continue;
        bool in_place = true;
        uint32_t bound = i;
        // The own cell and the 13 neighbours that sort before it, so each pair is met once,
        // from its later point.
        for (int k = 13; k >= 0 && in_place; --k) {
            const int offset[3] = {k / 9 - 1, (k % 9) / 3 - 1, k % 3 - 1};
            Cell_key probe;
            for (int axis = 0; axis < 3; ++axis)
                probe.pos[axis] = p->position[axis] + distance * float(offset[axis]);
            cell_numbers(g, probe.pos, probe.cell);

            const uint32_t run = find_run(g, keys, probe, bound, i);
            if (run == i)
                continue;

            for (uint32_t j = run; j < i && compare_keys(g, keys[j], probe) == 0; ++j) {
                Fg_point* q = &points[j];
                if (q->rays == FG_POINT_DEAD)
                    continue;
                float dx = q->position[0] - p->position[0];
                float dy = q->position[1] - p->position[1];
                float dz = q->position[2] - p->position[2];
                if (sqrtf(dx * dx + dy * dy + dz * dz) > distance)
                    continue;
                float c = p->normal[0] * q->normal[0] + p->normal[1] * q->normal[1] + p->normal[2] * q->normal[2];
                if (cos_limit > c)
                    continue;

                Fg_point result;
                blend_points(&result, q, p);
                ++merged;
                float result_cell[3];
                cell_numbers(g, result.position, result_cell);

                // Staying in p's or q's cell keeps the array sorted without moving anything.
                if (compare_cells(g, result.position, result_cell, keys[i].pos, keys[i].cell) == 0) {
                    *p = result;
                    std::memcpy(keys[i].pos, result.position, sizeof keys[i].pos);
                    q->rays = FG_POINT_DEAD;
                    continue;
                }
                if (compare_cells(g, result.position, result_cell, keys[j].pos, keys[j].cell) == 0) {
                    *q = result;
                    std::memcpy(keys[j].pos, result.position, sizeof keys[j].pos);
                    p->rays = FG_POINT_DEAD;
                } else {
                    // A third cell would break the order: park the blend until compaction.
                    p->rays = FG_POINT_DEAD;
                    q->rays = FG_POINT_DEAD;
                    side_append(result);
                }
                in_place = false;
                break;
            }
        }
    }
    msg_debug("merged %i fg points, %i in place", int(merged), int(merged - g_side.count));

    // Compact: survivors keep their order, the side records follow.
    uint32_t kept = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (points[i].rays == FG_POINT_DEAD)
            continue;
        if (kept != i)
            points[kept] = points[i];
        ++kept;
    }
    if (g_side.count)
        std::memcpy(points + kept, g_side.records, size_t(g_side.count) * sizeof(Fg_point));
    count = kept + g_side.count;
    return merged;
}

}  // namespace

void merge_set_bounds(const float min[3], const float max[3])
{
    for (int axis = 0; axis < 3; ++axis) {
        merge_grid.grid_min[axis] = min[axis];
        merge_grid.grid_max[axis] = max[axis];
    }
}

int compare_points(const void* a, const void* b)
{
    const float* pa = static_cast<const float*>(a);
    const float* pb = static_cast<const float*>(b);
    const Grid g = current_grid();
    for (int axis = 0; axis < 3; ++axis) {
        float s = g.size[axis];
        if (s == 0.0f)
            continue;
        if (pb[axis] - pa[axis] > s)
            return -1;
        if (pa[axis] - pb[axis] > s)
            return 1;
        float ca = cell_number(g, axis, pa[axis]);
        float cb = cell_number(g, axis, pb[axis]);
        if (cb > ca)
            return -1;
        if (ca > cb)
            return 1;
    }
    return 0;
}

unsigned merge_points(Fg_point* points, unsigned count, float distance, float angle_degrees, int depth)
{
    const float cos_limit = float(std::cos(double(angle_degrees / 180.0f) * 3.141592653589793));

    // Crowded grid: thin the points out at half the distance first, which keeps the runs that
    // every probe walks short.
    uint32_t cells = 1;
    for (int axis = 0; axis < 3; ++axis)
        cells *= cells_on_axis(merge_grid.grid_min[axis], merge_grid.grid_max[axis], distance);
    if (depth < MAX_DEPTH && cells * 8u < count) {
        msg_debug("trying merging with distance %f first", double(distance) * 0.5);
        count = merge_points(points, count, float(double(distance) * 0.5), angle_degrees, depth + 1);
        msg_debug("merging %i fg point with distance %f", int(count), double(distance));
    }

    // After the recursion, which leaves its own smaller cells behind.
    for (int axis = 0; axis < 3; ++axis) {
        merge_grid.cell_origin[axis] = merge_grid.grid_min[axis];
        merge_grid.cell_size[axis] =
            merge_grid.grid_max[axis] > merge_grid.grid_min[axis] + distance ? distance : 0.0f;
    }

    // Passes never grow the array, so buffers for the count at entry serve them all.
    Cell_key* keys = static_cast<Cell_key*>(QV_ALLOC(size_t(count) * sizeof(Cell_key)));
    Cell_key* scratch = static_cast<Cell_key*>(QV_ALLOC(size_t(count) * sizeof(Cell_key)));
    while (merge_pass(points, count, keys, scratch, distance, cos_limit) != 0) {
    }
    QV_FREE(scratch);
    QV_FREE(keys);
    return count;
}

Tag merge_map(Tag tag, float distance, float angle_degrees)
{
    using namespace QV::RCMAP;
    if (tag == 0)
        return 0;

    // Out of the database into a flat array. Releasing the handle removes the old tag, so from
    // there on the points exist only in the array.
    Fg_point* points = nullptr;
    uint32_t count = 0;
    Map_declaration_impl* declaration = nullptr;
    {
        Edit_map_dbhandle_impl source(tag);
        Map_impl* map = source.get_map();
        if (!map || !map->get_declaration())
            return 0;
        // The committed bounds fix the grid for the whole merge, however the points move.
        const Map_bounds& bounds = map->get_bounds();
        merge_set_bounds(bounds.minimum, bounds.maximum);
        count = map->size();
        points = static_cast<Fg_point*>(QV_ALLOC(size_t(count) * sizeof(Fg_point)));
        declaration = new Map_declaration_impl(*map->get_declaration());
        Map_element_impl element(map->get_declaration());
        // Each page is given up once its points are in the array: the map is released below and
        // nothing reads it again, and its buffers would otherwise sit in the cache's free list
        // through the whole merge, a second copy of the points beside the array.
        Map_page_store& store = map->page_store();
        Map_manager& manager = Map_manager::instance();
        uint32_t open_cache_page = UINT32_MAX;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t page, slot;
            store.locate(i, &page, &slot);
            const uint32_t cache_page = page >> store.cache_page_shift;
            if (cache_page != open_cache_page) {
                if (open_cache_page != UINT32_MAX)
                    manager.discard_page(&store, open_cache_page);
                open_cache_page = cache_page;
            }
            map->get(i, &element);
            fg_point_from_element(&points[i], &element);
        }
        source.release();
    }

    const unsigned new_count = merge_points(points, count, distance, angle_degrees, 0);

    // The survivors become a new map; its BVH is built once, at the commit below.
    Edit_map_dbhandle_impl target(declaration);
    Map_impl* map = target.get_map();
    map->bvh_enabled = false;
    {
        Map_element_impl element(declaration);
        for (unsigned i = 0; i < new_count; ++i) {
            fg_point_to_element(&element, points[i].position, points[i].normal);
            map->append(&element);
        }
    }
    QV_FREE(points);
    map->build_bvh(STAGE_BUILD_FACTOR, false, false);
    const Tag result = target.store();
    delete declaration;
    return result;
}
