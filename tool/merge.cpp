#include "tool/merge.h"

#include <algorithm>
#include <cmath>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <cstdint>
#include <cstring>
#include <vector>

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
// Discarded pages' buffers kept for reuse before they go back to the memory manager.
constexpr uint32_t SPARE_BUFFERS = 16;

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
// permutation's cycles, so each record moves once and no second record array is needed. On a
// first pass over points in no spatial order the cycles jump all over the array, so a runner
// goes a few steps ahead along the cycle and fetches the records before the copies reach them.
void permute_records(Fg_point* points, Cell_key* keys, uint32_t n)
{
    constexpr int AHEAD = 8;
    for (uint32_t start = 0; start < n; ++start) {
        if (keys[start].index == start)
            continue;
        Fg_point held = points[start];
        uint32_t j = start;
        uint32_t runner = start;
        for (int k = 0; k < AHEAD && keys[runner].index != start; ++k)
            runner = keys[runner].index;
        for (;;) {
            if (keys[runner].index != start) {
                runner = keys[runner].index;
                const char* record = reinterpret_cast<const char*>(&points[runner]);
                __builtin_prefetch(record);
                __builtin_prefetch(record + sizeof(Fg_point) - 1);
                __builtin_prefetch(&keys[runner]);
            }
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

// Integer cell keys. Packed lexicographically (x most significant), a point's cell numbers make
// one 64-bit key, so that the sort is a radix sort and the probes compare single integers in an
// array a quarter the size of the keys above. That order is compare_cells' order exactly when no
// coordinate gap test contradicts the cell numbers: the cell number of a coordinate never falls
// as the coordinate grows, so a gap of more than a cell size can only contradict the cells of two
// coordinates that share a cell, and only when that cell's extent rounds to more than its size.
// `lo` and `hi` hold, per axis and cell, the range of the live coordinates of the array, which
// bounds every such gap. A pass whose points could contradict sorts with sort_keys, and a probe
// that could compares with compare_keys; both give the same answers as the integers otherwise.
struct Int_grid {
    bool usable = false;
    int32_t min[3] = {0, 0, 0};    // smallest cell number of a point per axis
    uint32_t cells[3] = {1, 1, 1}; // cell numbers min .. min + cells - 1 hold points
    uint32_t shift[3] = {0, 0, 0}; // bit position of the axis field; a field holds cell - min + 1
    uint32_t key_bits = 0;
    std::vector<float> lo[3], hi[3];
};

constexpr float MAX_INT_CELL = 16777216.0f;  // cell numbers as exact integers in a float
constexpr uint32_t MAX_INT_CELLS = 1u << 22;  // per axis, for the coordinate ranges

inline uint32_t bits_for(uint64_t v)
{
    uint32_t b = 0;
    while (b < 64 && (v >> b) != 0)
        ++b;
    return b;
}

// The packed key of cell numbers known to be finite and within MAX_INT_CELL. A cell beyond the
// points' range is clamped one past it, which keeps its order against every point.
inline uint64_t pack_cells(const Int_grid& ig, const Grid& g, const float cell[3])
{
    uint64_t key = 0;
    for (int axis = 0; axis < 3; ++axis) {
        if (g.size[axis] == 0.0f)
            continue;
        int64_t c = int64_t(cell[axis]) - ig.min[axis] + 1;
        if (c < 0)
            c = 0;
        else if (c > int64_t(ig.cells[axis]) + 1)
            c = int64_t(ig.cells[axis]) + 1;
        key |= uint64_t(c) << ig.shift[axis];
    }
    return key;
}

// True when the cell numbers of `pos` are integers the grid can pack and no gap test between
// `pos` and a live coordinate of the array can contradict them.
inline bool int_safe(const Int_grid& ig, const Grid& g, const float pos[3], const float cell[3])
{
    for (int axis = 0; axis < 3; ++axis) {
        const float s = g.size[axis];
        if (s == 0.0f)
            continue;
        const float c = cell[axis];
        if (!(c >= -MAX_INT_CELL && c <= MAX_INT_CELL))
            return false;
        const int64_t at = int64_t(c) - ig.min[axis];
        if (at < 0 || at >= int64_t(ig.cells[axis]))
            continue;
        const float x = pos[axis];
        if (x - ig.lo[axis][size_t(at)] > s || ig.hi[axis][size_t(at)] - x > s)
            return false;
    }
    return true;
}

// Widens the coordinate ranges of a record's cells to its new position.
inline void int_widen(Int_grid& ig, const Grid& g, const Cell_key& key)
{
    for (int axis = 0; axis < 3; ++axis) {
        if (g.size[axis] == 0.0f)
            continue;
        const size_t at = size_t(int64_t(key.cell[axis]) - ig.min[axis]);
        const float x = key.pos[axis];
        if (x < ig.lo[axis][at])
            ig.lo[axis][at] = x;
        if (x > ig.hi[axis][at])
            ig.hi[axis][at] = x;
        if (!(x == x))
            ig.usable = false;
    }
}

// Sets up integer keys for the points' keys[0..n), or leaves `usable` false when the sizes,
// numbers or coordinates don't allow them. `index_bits` more bits must fit beside the key.
void int_grid_setup(Int_grid& ig, const Grid& g, const Cell_key* keys, uint32_t n, uint32_t index_bits)
{
    ig.usable = false;
    float cmin[3], cmax[3];
    for (int axis = 0; axis < 3; ++axis) {
        const float s = g.size[axis];
        if (s != 0.0f && !(s > 0.0f && s < INFINITY))
            return;
        cmin[axis] = MAX_INT_CELL;
        cmax[axis] = -MAX_INT_CELL;
    }
    for (uint32_t i = 0; i < n; ++i) {
        for (int axis = 0; axis < 3; ++axis) {
            const float c = keys[i].cell[axis];
            const float x = keys[i].pos[axis];
            if (!(c >= -MAX_INT_CELL && c <= MAX_INT_CELL) || !(x - x == 0.0f))
                return;
            cmin[axis] = c < cmin[axis] ? c : cmin[axis];
            cmax[axis] = c > cmax[axis] ? c : cmax[axis];
        }
    }
    uint32_t bits = 0;
    for (int axis = 2; axis >= 0; --axis) {
        if (g.size[axis] == 0.0f || n == 0) {
            ig.min[axis] = 0;
            ig.cells[axis] = 1;
            ig.shift[axis] = bits;
            continue;
        }
        const int64_t span = int64_t(cmax[axis]) - int64_t(cmin[axis]) + 1;
        if (span > int64_t(MAX_INT_CELLS))
            return;
        ig.min[axis] = int32_t(cmin[axis]);
        ig.cells[axis] = uint32_t(span);
        ig.shift[axis] = bits;
        bits += bits_for(uint64_t(span) + 1);
    }
    if (bits + index_bits > 64)
        return;
    ig.key_bits = bits;
    for (int axis = 0; axis < 3; ++axis) {
        ig.lo[axis].assign(ig.cells[axis], INFINITY);
        ig.hi[axis].assign(ig.cells[axis], -INFINITY);
    }
    ig.usable = true;
    for (uint32_t i = 0; i < n; ++i)
        int_widen(ig, g, keys[i]);
    for (int axis = 0; axis < 3; ++axis) {
        const float s = g.size[axis];
        if (s == 0.0f)
            continue;
        for (uint32_t c = 0; c < ig.cells[axis]; ++c)
            if (ig.hi[axis][c] - ig.lo[axis][c] > s)
                ig.usable = false;
    }
}

// Stable LSD radix sort of `a` by the bits above `low_bits`, using `b` as scratch; returns the
// array that holds the result. Elements with equal keys keep their order.
uint64_t* radix_sort(uint64_t* a, uint64_t* b, uint32_t n, uint32_t low_bits, uint32_t key_bits)
{
    if (key_bits == 0 || n < 2)
        return a;
    const uint32_t passes = (key_bits + 10) / 11;
    const uint32_t digit = (key_bits + passes - 1) / passes;
    const uint32_t buckets = 1u << digit;
    std::vector<uint32_t> counts(size_t(passes) * buckets, 0);
    for (uint32_t i = 0; i < n; ++i) {
        const uint64_t k = a[i] >> low_bits;
        for (uint32_t p = 0; p < passes; ++p)
            ++counts[size_t(p) * buckets + ((k >> (p * digit)) & (buckets - 1))];
    }
    for (uint32_t p = 0; p < passes; ++p) {
        uint32_t* c = &counts[size_t(p) * buckets];
        const uint64_t first = (a[0] >> low_bits >> (p * digit)) & (buckets - 1);
        if (c[first] == n)
            continue;  // one bucket: the pass would not move anything
        uint32_t sum = 0;
        for (uint32_t d = 0; d < buckets; ++d) {
            const uint32_t t = c[d];
            c[d] = sum;
            sum += t;
        }
        const uint32_t shift = low_bits + p * digit;
        for (uint32_t i = 0; i < n; ++i) {
            const uint64_t v = a[i];
            b[c[(v >> shift) & (buckets - 1)]++] = v;
        }
        uint64_t* t = a;
        a = b;
        b = t;
    }
    return a;
}

// First index in [0, i) whose key is not below `key`, or i: the start of the key's run when
// there is one. Gallops from `hint` in whichever direction the key lies, then bisects; sk is
// sorted, so the answer is the same from any hint.
inline uint32_t lower_bound_near(const uint64_t* sk, uint64_t key, uint32_t hint, uint32_t i)
{
    uint32_t lo, hi;
    if (hint > i)
        hint = i;
    if (hint < i && sk[hint] < key) {
        lo = hint + 1;
        hi = i;
        for (uint32_t step = 1; lo < i; step *= 2) {
            const uint32_t m = i - lo > step ? lo + step - 1 : i - 1;
            if (sk[m] < key) {
                lo = m + 1;
            } else {
                hi = m;
                break;
            }
        }
    } else {
        lo = 0;
        hi = hint;
        for (uint32_t step = 1; hi > 0; step *= 2) {
            const uint32_t m = hi > step ? hi - step : 0;
            if (sk[m] < key) {
                lo = m + 1;
                break;
            }
            hi = m;
        }
    }
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (sk[mid] < key)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// A point's probe coordinates per axis for the offsets -1, 0 and +1, with their cell numbers,
// packed key fields and whether integer keys may stand for them.
struct Axis_probes {
    float pos[3][3];
    float cell[3][3];
    uint64_t field[3][3];
    bool safe[3][3];

    void fill(const Int_grid& ig, const Grid& g, const float position[3], float distance)
    {
        for (int axis = 0; axis < 3; ++axis) {
            for (int o = 0; o < 3; ++o) {
                float c[3] = {0.0f, 0.0f, 0.0f};
                float x[3] = {0.0f, 0.0f, 0.0f};
                x[axis] = position[axis] + distance * float(o - 1);
                pos[axis][o] = x[axis];
                c[axis] = g.size[axis] != 0.0f ? cell_number(g, axis, x[axis]) : 0.0f;
                cell[axis][o] = c[axis];
                safe[axis][o] = false;
                field[axis][o] = 0;
                if (!ig.usable)
                    continue;
                Grid one = g;
                for (int other = 0; other < 3; ++other)
                    if (other != axis)
                        one.size[other] = 0.0f;
                safe[axis][o] = int_safe(ig, one, x, c);
                if (safe[axis][o])
                    field[axis][o] = pack_cells(ig, one, c);
            }
        }
    }
};

bool g_exact_only = false;

// Freed map pages lie in the heap below later allocations, where the allocator keeps them;
// the merge's array and keys are mappings of their own, so the pages go back to the system.
void give_heap_back()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
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
    // The integer keys live in the scratch the merge sort would use: two 8-byte arrays fit in
    // the room of one 28-byte key array.
    Int_grid ig;
    const uint32_t index_bits = bits_for(n);
    if (!g_exact_only)
        int_grid_setup(ig, g, keys, n, index_bits);
    uint64_t* sk = nullptr;
    if (ig.usable) {
        uint64_t* a = reinterpret_cast<uint64_t*>(scratch);
        uint64_t* b = a + n;
        for (uint32_t i = 0; i < n; ++i)
            a[i] = pack_cells(ig, g, keys[i].cell) << index_bits | i;
        sk = radix_sort(a, b, n, index_bits, ig.key_bits);
        const uint64_t index_mask = (uint64_t(1) << index_bits) - 1;
        for (uint32_t i = 0; i < n; ++i) {
            keys[i].index = uint32_t(sk[i] & index_mask);
            sk[i] >>= index_bits;
        }
        permute_records(points, keys, n);
        for (uint32_t i = 0; i < n; ++i) {
            Cell_key& key = keys[i];
            std::memcpy(key.pos, points[i].position, sizeof key.pos);
            cell_numbers(g, key.pos, key.cell);
        }
    } else {
        sort_keys(g, keys, scratch, n);
        permute_records(points, keys, n);
    }

    // Per probe k, where its run began for the point before: in integer mode a run's start is
    // the lower bound of its key, and the next point's is mostly near, so the search starts there.
    uint32_t hint[14] = {};
    Axis_probes axes;
    for (uint32_t i = 1; i < n; ++i) {
        Fg_point* p = &points[i];
        // A point that arrived dead-marked gathers nothing; compaction drops it.
        if (p->rays == FG_POINT_DEAD)
            continue;
        bool in_place = true;
        bool axes_stale = true;
        uint32_t bound = i;
        // The own cell and the 13 neighbours that sort before it, so each pair is met once,
        // from its later point.
        for (int k = 13; k >= 0 && in_place; --k) {
            const int offset[3] = {k / 9 - 1, (k % 9) / 3 - 1, k % 3 - 1};
            // A probe coordinate takes one of three values per axis; they are computed once per
            // point, and again after the point has moved.
            if (axes_stale) {
                axes.fill(ig, g, p->position, distance);
                axes_stale = false;
            }
            Cell_key probe;
            bool integer = ig.usable;
            uint64_t probe_key = 0;
            for (int axis = 0; axis < 3; ++axis) {
                const int o = offset[axis] + 1;
                probe.pos[axis] = axes.pos[axis][o];
                probe.cell[axis] = axes.cell[axis][o];
                integer = integer && axes.safe[axis][o];
                probe_key |= axes.field[axis][o];
            }

            uint32_t run;
            if (integer) {
                bound = lower_bound_near(sk, probe_key, hint[k], i);
                hint[k] = bound;
                run = bound < i && sk[bound] == probe_key ? bound : i;
            } else {
                run = find_run(g, keys, probe, bound, i);
            }
            if (run == i)
                continue;

            for (uint32_t j = run;
                 j < i && (integer ? sk[j] == probe_key : compare_keys(g, keys[j], probe) == 0); ++j) {
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
                    if (ig.usable)
                        int_widen(ig, g, keys[i]);
                    axes_stale = true;
                    q->rays = FG_POINT_DEAD;
                    continue;
                }
                if (compare_cells(g, result.position, result_cell, keys[j].pos, keys[j].cell) == 0) {
                    *q = result;
                    std::memcpy(keys[j].pos, result.position, sizeof keys[j].pos);
                    if (ig.usable)
                        int_widen(ig, g, keys[j]);
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

void merge_set_exact_only(bool on) { g_exact_only = on; }

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
        declaration = new Map_declaration_impl(*map->get_declaration());
        Map_element_impl element(map->get_declaration());
        // Each page is given up once its points are in the array: the map is released below and
        // nothing reads it again, and its buffers would otherwise sit in the cache's free list
        // through the whole merge, a second copy of the points beside the array.
        Map_page_store& store = map->page_store();
        Map_manager& manager = Map_manager::instance();
        uint32_t open_cache_page = UINT32_MAX;
        // New memory comes zeroed, so the array is touched as it is allocated. It grows a
        // sixteenth of the map at a time, each time after the pages read so far have been handed
        // back, so that the array and the pages do not add up.
        uint32_t capacity = 0;
        const uint32_t step = std::max(4096u, count / 16);
        for (uint32_t i = 0; i < count; ++i) {
            if (i == capacity) {
                give_heap_back();
                capacity = count - capacity > step ? capacity + step : count;
                points = static_cast<Fg_point*>(QV_REALLOC(points, size_t(capacity) * sizeof(Fg_point)));
            }
            uint32_t page, slot;
            store.locate(i, &page, &slot);
            const uint32_t cache_page = page >> store.cache_page_shift;
            if (cache_page != open_cache_page) {
                if (open_cache_page != UINT32_MAX) {
                    manager.discard_page(&store, open_cache_page);
                    // A clean page's buffer serves the next page read; only buffers that pile up,
                    // those of pages with changes and no file behind them, go back.
                    if (manager.free_buffers() > SPARE_BUFFERS)
                        manager.free_spare_buffers();
                }
                open_cache_page = cache_page;
            }
            map->get(i, &element);
            fg_point_from_element(&points[i], &element);
        }
        source.release();
    }
    if (!points)
        points = static_cast<Fg_point*>(QV_ALLOC(0));
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
