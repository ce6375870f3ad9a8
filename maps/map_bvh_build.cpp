// The full build of a map's BVH and the update that decides between it and a cheaper rebuild
// of the global tree.
//
// The reorder is a counting sort by cell of a spatial subdivision: one pass over the pages
// counts elements per cell, a prefix sum hands out the first index of each cell, and a second pass
// in index order moves every element to its cell's next index. Both passes read the pages in
// order, and the writes stay near the cell order, so a map larger than the cache costs two
// sequential reads and one write of its pages, without a general sort.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "maps/map_page_table.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::RCMAP {

namespace {

// The counting tree's limits: its depth, and the smallest cell, relative to the map's extent.
constexpr uint32_t COUNT_TREE_MAX_DEPTH = 20;
constexpr float COUNT_TREE_MIN_CELL = 0.001f;

std::atomic<uint32_t> g_thread_count{1};

// The counting tree of the reorder splits a cell at the middle of its longest side (the lower
// axis on a tie) until the depth limit or the smallest cell, and a leaf away from the limits
// splits as soon as any element reaches it. Every element therefore goes down to a limit, and
// the cell it ends in depends on nothing but its position and the map's bounds: the path of
// lower/upper choices, computed with the same float operations a node would have stored, is the
// cell. The tree's walk hands out indices lower side first, which is the order of these paths
// read as binary numbers (left-aligned, so that a cell stopped early by the smallest-cell limit
// sorts before its siblings' descendants exactly as its subtree would). So the reorder is a
// stable counting sort by that number: one histogram slot per possible cell, no tree walks.
// (A tree of COUNT_TREE_MAX_DEPTH levels has fewer than 2^21 nodes, far below the node-count
// limit the tree form had to guard.)
template <uint32_t N>
class Cell_coder {
public:
    explicit Cell_coder(const Map_bounds& bounds)
    {
        for (uint32_t a = 0; a < N; ++a) {
            root_minimum_[a] = bounds.minimum[a];
            root_maximum_[a] = bounds.maximum[a];
            map_extent_[a] = bounds.maximum[a] - bounds.minimum[a];
            lanes_ok_ = lanes_ok_ && map_extent_[a] > 0.0f && map_extent_[a] < INFINITY;
            widest_stopped_[a] = lanes_ok_ ? widest_stopping(map_extent_[a]) : 0.0f;
        }
    }
    // Whether `codes` may be used; otherwise `code` gives every element's cell.
    bool lanes_ok() const { return lanes_ok_; }

    static constexpr uint32_t CELLS = 1u << COUNT_TREE_MAX_DEPTH;

    uint32_t code(const float* position) const
    {
        float minimum[N], maximum[N];
        for (uint32_t a = 0; a < N; ++a) {
            minimum[a] = root_minimum_[a];
            maximum[a] = root_maximum_[a];
        }
        uint32_t path = 0, depth = 0;
        for (; depth < COUNT_TREE_MAX_DEPTH; ++depth) {
            uint32_t axis = 0;
            for (uint32_t a = 1; a < N; ++a)
                if (maximum[a] - minimum[a] > maximum[axis] - minimum[axis])
                    axis = a;
            // Written as "not above" so that a map without extent on the axis (0 / 0) stops too.
            if (!((maximum[axis] - minimum[axis]) / map_extent_[axis] > COUNT_TREE_MIN_CELL))
                break;
            const float split = 0.5f * (minimum[axis] + maximum[axis]);
            // Selects rather than a branch: the side is a coin toss for the predictor.
            const bool upper = !(split > position[axis]);
            path = path << 1 | uint32_t(upper);
            const float low = minimum[axis], high = maximum[axis];
            minimum[axis] = upper ? split : low;
            maximum[axis] = upper ? high : split;
        }
        return path << (COUNT_TREE_MAX_DEPTH - depth);
    }

    // The codes of LANES elements at once: the same operations as `code`, in lanes that go
    // down side by side without branches, so that the dependency chain of one element's walk
    // overlaps with the others' and the compiler can use vector registers. The smallest-cell
    // test compares with widest_stopped_ instead of dividing. A lane that stops keeps its path.
    static constexpr uint32_t LANES = 8;
    void codes(const uint8_t* elements, size_t stride, uint32_t* out) const
    {
        using Floats = float __attribute__((vector_size(16)));
        using Masks = int32_t __attribute__((vector_size(16)));
        constexpr uint32_t W = 4, G = LANES / W;
        Floats minimum[N][G], maximum[N][G], position[N][G];
        Masks path[G], depth[G], active[G];
        for (uint32_t g = 0; g < G; ++g) {
            const float* p[W];
            for (uint32_t l = 0; l < W; ++l)
                p[l] = reinterpret_cast<const float*>(elements + (g * W + l) * stride);
            for (uint32_t a = 0; a < N; ++a) {
                minimum[a][g] = Floats{} + root_minimum_[a];
                maximum[a][g] = Floats{} + root_maximum_[a];
                position[a][g] = Floats{p[0][a], p[1][a], p[2][a], p[3][a]};
            }
            path[g] = Masks{};
            depth[g] = Masks{};
            active[g] = Masks{} - 1;
        }
        for (uint32_t level = 0; level < COUNT_TREE_MAX_DEPTH; ++level) {
            Masks any = Masks{};
            for (uint32_t g = 0; g < G; ++g) {
                Masks axis = Masks{};
                Floats widest = maximum[0][g] - minimum[0][g];
                Floats low = minimum[0][g], high = maximum[0][g], at = position[0][g];
                Floats stopped = Floats{} + widest_stopped_[0];
                for (uint32_t a = 1; a < N; ++a) {
                    const Floats width = maximum[a][g] - minimum[a][g];
                    const Masks wider = width > widest;
                    axis = wider ? Masks{} + int32_t(a) : axis;
                    widest = wider ? width : widest;
                    low = wider ? minimum[a][g] : low;
                    high = wider ? maximum[a][g] : high;
                    at = wider ? position[a][g] : at;
                    stopped = wider ? Floats{} + widest_stopped_[a] : stopped;
                }
                const Masks go = active[g] & (widest > stopped);
                active[g] = go;
                any |= go;
                const Floats split = 0.5f * (low + high);
                const Masks upper = ~(split > at);
                path[g] = go ? ((path[g] << 1) | (upper & 1)) : path[g];
                depth[g] -= go;
                for (uint32_t a = 0; a < N; ++a) {
                    const Masks cut = go & (axis == int32_t(a));
                    minimum[a][g] = (cut & upper) ? split : minimum[a][g];
                    maximum[a][g] = (cut & ~upper) ? split : maximum[a][g];
                }
            }
            bool more = false;
            for (uint32_t l = 0; l < W; ++l)
                more |= any[l] != 0;
            if (!more)
                break;
        }
        for (uint32_t g = 0; g < G; ++g)
            for (uint32_t l = 0; l < W; ++l)
                out[g * W + l] = uint32_t(path[g][l]) << (COUNT_TREE_MAX_DEPTH - uint32_t(depth[g][l]));
    }

private:
    // The largest cell side that the smallest-cell test stops, for a map side of `extent`
    // (positive and finite). The rounded quotient side / extent does not fall as the side grows,
    // so "side / extent not above the limit" holds exactly for the sides up to this one (and
    // for NaN): one comparison in place of a division per level, with the same answers. Found
    // by bisecting the bit patterns of the non-negative floats, which order like their values.
    static float widest_stopping(float extent)
    {
        auto stops = [extent](uint32_t bits) {
            float side;
            memcpy(&side, &bits, sizeof side);
            return !(side / extent > COUNT_TREE_MIN_CELL);
        };
        uint32_t low = 0, high = 0x7F800000u;   // stops(0), not stops(infinity)
        while (high - low > 1) {
            const uint32_t middle = low + (high - low) / 2;
            (stops(middle) ? low : high) = middle;
        }
        float side;
        memcpy(&side, &low, sizeof side);
        return side;
    }

    float root_minimum_[N];
    float root_maximum_[N];
    float map_extent_[N];
    float widest_stopped_[N];
    bool lanes_ok_ = true;
};

// Walks elements [first, end) of a map of `count` page by page in index order, handing out runs
// that lie in one page. `table`: the thread's page table (null: the calling thread's own).
template <class Visit>
void for_each_run(Map_page_store& store, uint32_t count, uint32_t first, uint32_t end, Map_page_table* table,
                  Visit visit)
{
    uint32_t done = first;
    while (done < end) {
        uint32_t page, slot;
        store.locate(done, &page, &slot);
        uint32_t held = map_bvh_page_elements(store, count, page);
        uint32_t run = held > slot ? std::min(held - slot, end - done) : 1;
        const uint8_t* data = store.get_page(page, true, table);
        visit(data + size_t(slot) * store.element_bytes, done, run);
        done += run;
    }
}

template <class Visit>
void for_each_run(Map_page_store& store, uint32_t count, Visit visit)
{
    for_each_run(store, count, 0, count, nullptr, visit);
}

// Below this many elements the cell codes are computed on one thread: a second one would cost
// its start and its own table of cell counts (4 MB) for little.
constexpr uint32_t CELL_CODES_THREADS_FROM = 1u << 16;

// Every element's cell into `cells`, and the count of each cell into `counts` (zero on entry).
// The elements are shared out in contiguous ranges, one per thread; each thread reads its pages
// through a page table of its own and counts into a table of its own, added up at the end (the
// counts do not depend on the order in which they were taken).
template <uint32_t N>
void cell_codes(Map_page_store& store, uint32_t count, const Cell_coder<N>& coder, std::vector<uint32_t>& cells,
                std::vector<uint32_t>& counts)
{
    const uint32_t element_bytes = store.element_bytes;
    const uint32_t threads = count >= CELL_CODES_THREADS_FROM ? std::max(1u, map_bvh_thread_count()) : 1;
    std::vector<std::vector<uint32_t>> own_counts(threads - 1);
    map_run_threads(threads, [&](uint32_t t) {
        std::vector<uint32_t>& histogram = t ? own_counts[t - 1] : counts;
        if (t)
            histogram.assign(counts.size(), 0);
        std::unique_ptr<Map_page_table> table;
        if (t)
            table = std::make_unique<Map_page_table>(Map_manager::instance().thread_table_capacity());
        const uint32_t first = uint32_t(uint64_t(count) * t / threads);
        const uint32_t end = uint32_t(uint64_t(count) * (t + 1) / threads);
        // The table is far larger than the caches and the cells come in any order: each slot
        // is prefetched when its cell is known and counted a few elements later.
        constexpr uint32_t AHEAD = 8;
        for_each_run(store, count, first, end, table.get(), [&](const uint8_t* data, uint32_t done, uint32_t run) {
            uint32_t i = 0;
            for (; coder.lanes_ok() && i + Cell_coder<N>::LANES <= run; i += Cell_coder<N>::LANES)
                coder.codes(data + size_t(i) * element_bytes, element_bytes, &cells[done + i]);
            for (; i < run; ++i)
                cells[done + i] = coder.code(reinterpret_cast<const float*>(data + size_t(i) * element_bytes));
            for (i = 0; i < run; ++i) {
                __builtin_prefetch(&histogram[cells[done + i]], 1);
                if (done + i >= first + AHEAD)
                    ++histogram[cells[done + i - AHEAD]];
            }
        });
        for (uint32_t i = end - first > AHEAD ? end - AHEAD : first; i < end; ++i)
            ++histogram[cells[i]];
        // The table gives its pages back to the cache here, on its own thread.
    });
    for (const std::vector<uint32_t>& histogram : own_counts)
        for (size_t c = 0; c < counts.size(); ++c)
            counts[c] += histogram[c];
}

// Moves every element i of [first, end) to index dest[i] inside the store's own pages by
// following the permutation's cycles: each element is read and written once, and one element is
// in hand at a time. UINT32_MAX marks an element without a place (it is overwritten); every
// other dest[i] lies in [first, end). `slot_of(index)` gives the bytes of an element.
template <class Slot_of>
void follow_cycles(const uint32_t* dest, uint32_t first, uint32_t end, uint32_t element_bytes, Slot_of slot_of)
{
    // A cycle is a chain of dependent reads; the next steps' indices are looked up first and
    // their slots prefetched, so that the slots' cache misses overlap instead of following each
    // other.
    constexpr uint32_t RUN_AHEAD = 16;
    std::vector<uint64_t> placed((size_t(end - first) + 63) / 64, 0);
    auto is_placed = [&](uint32_t index) { return placed[(index - first) >> 6] >> ((index - first) & 63) & 1; };
    auto place = [&](uint32_t index) { placed[(index - first) >> 6] |= uint64_t(1) << ((index - first) & 63); };
    std::vector<uint8_t> hand(element_bytes), swap(element_bytes);
    for (uint32_t start = first; start < end; ++start) {
        if (is_placed(start))
            continue;
        place(start);
        uint32_t to = dest[start];
        if (to == start || to == UINT32_MAX)
            continue;
        memcpy(hand.data(), slot_of(start), element_bytes);
        // The element in hand goes to `to`; the one found there is taken up next, unless `to`
        // closes the cycle (its old element is the one taken up first).
        bool open = true;
        while (open) {
            uint32_t steps[RUN_AHEAD];
            uint32_t batch = 0;
            for (uint32_t at = to; batch < RUN_AHEAD;) {
                steps[batch++] = at;
                if (at == start || at == UINT32_MAX || is_placed(at))
                    break;
                at = dest[at];
            }
            for (uint32_t k = 0; k < batch && steps[k] != UINT32_MAX; ++k) {
                const uint8_t* slot = slot_of(steps[k]);
                __builtin_prefetch(slot, 1);
                __builtin_prefetch(slot + element_bytes - 1, 1);
            }
            for (uint32_t k = 0; k < batch; ++k) {
                to = steps[k];
                if (to == UINT32_MAX || (to != start && is_placed(to))) {
                    open = false;
                    break;
                }
                uint8_t* slot = slot_of(to);
                if (to == start) {
                    memcpy(slot, hand.data(), element_bytes);
                    open = false;
                    break;
                }
                memcpy(swap.data(), slot, element_bytes);
                memcpy(slot, hand.data(), element_bytes);
                hand.swap(swap);
                place(to);
            }
            if (open)
                to = dest[to];
        }
    }
}

// Below this many elements the permutation runs on one thread.
constexpr uint32_t PERMUTE_HALVES_FROM = 1u << 16;

// Splits a permutation into two that threads can follow side by side: elements and their
// destinations are exchanged across the middle (a sequential pass from both ends) until every
// element of [0, half) has its destination in [0, half), and so every one of [half, count) in
// [half, count). Where each element ends up does not change. False, with nothing moved, when
// some element has no place (its destination is UINT32_MAX).
template <class Slot_of>
bool split_halves(std::vector<uint32_t>& dest, uint32_t half, uint32_t element_bytes, Slot_of slot_of)
{
    for (uint32_t to : dest)
        if (to == UINT32_MAX)
            return false;
    std::vector<uint8_t> swap(element_bytes);
    uint32_t low = 0, high = uint32_t(dest.size());
    for (;;) {
        while (low < high && dest[low] < half)
            ++low;
        while (low < high && dest[high - 1] >= half)
            --high;
        if (high - low < 2)
            break;
        --high;
        uint8_t* a = slot_of(low);
        uint8_t* b = slot_of(high);
        memcpy(swap.data(), a, element_bytes);
        memcpy(a, b, element_bytes);
        memcpy(b, swap.data(), element_bytes);
        std::swap(dest[low], dest[high]);
        ++low;
    }
    return true;
}

// The permutation of a store's elements in its own pages. When the store's pages fit in a
// thread table, they are all taken into a table of their own, where nothing can evict them
// (the build runs alone and allocates nothing meanwhile), and the elements are addressed
// through the pages' bytes directly, by two threads when there are two; otherwise every access
// goes through the page cache. `dest` is used up.
void permute_in_place(Map_page_store& store, std::vector<uint32_t>& dest, uint32_t pages)
{
    const uint32_t element_bytes = store.element_bytes, per_page = store.elements_per_page;
    const uint32_t capacity = Map_manager::instance().thread_table_capacity();
    const uint32_t cache_pages = (pages + store.file_pages_per_cache_page - 1) >> store.cache_page_shift;
    if (uint64_t(cache_pages) + 4 <= capacity) {
        // On the heap, not the stack: a table's lock at an address that a map's lock held
        // before reads to lock checkers as one lock taken in both orders.
        auto table_owner = std::make_unique<Map_page_table>(capacity);
        Map_page_table& table = *table_owner;
        std::vector<uint8_t*> page_bytes(pages);
        for (uint32_t page = 0; page < pages; ++page)
            page_bytes[page] = store.get_page(page, false, &table);
        // Fetching the last pages may have taken earlier ones back for lack of memory: each
        // must still be in the table, at the same address.
        bool pinned = true;
        for (uint32_t page = 0; page < pages && pinned; ++page)
            pinned = store.get_page(page, false, &table, MAP_PAGE_NO_LOAD) == page_bytes[page];
        if (pinned) {
            auto slot_of = [&](uint32_t index) {
                return page_bytes[index / per_page] + size_t(index % per_page) * element_bytes;
            };
            const uint32_t count = uint32_t(dest.size()), half = count / 2;
            if (map_bvh_thread_count() >= 2 && count >= PERMUTE_HALVES_FROM &&
                split_halves(dest, half, element_bytes, slot_of)) {
                map_run_threads(2, [&](uint32_t t) {
                    follow_cycles(dest.data(), t ? half : 0, t ? count : half, element_bytes, slot_of);
                });
            } else {
                follow_cycles(dest.data(), 0, count, element_bytes, slot_of);
            }
            return;
        }
    }
    follow_cycles(dest.data(), 0, uint32_t(dest.size()), element_bytes, [&](uint32_t index) {
        return store.get_page(index / per_page, false) + size_t(index % per_page) * element_bytes;
    });
}

// The reorder's writes into a second store: each element of `store` in index order to the
// next index of its cell, as a copy into the staged page of that index.
template <class Bvh>
void copy_to_staged(Map_page_store& store, Map_page_store& staged, Bvh& bvh, uint32_t count,
                    const std::vector<uint32_t>& cells, std::vector<uint32_t>& next_index,
                    std::vector<uint64_t>& chosen, Map_bounds& bounds)
{
    const uint32_t element_bytes = store.element_bytes, dimension = store.dimension;
    const uint32_t per_page = store.elements_per_page;
    constexpr uint32_t AHEAD = 8;
    std::vector<uint8_t> run_copy(MAP_FILE_PAGE_BYTES);
    Map_manager& manager = Map_manager::instance();
    for_each_run(store, count, [&](const uint8_t* data, uint32_t done, uint32_t run) {
        // The staged writes below may push the old page out of the thread's table.
        memcpy(run_copy.data(), data, size_t(run) * element_bytes);
        uint32_t open_page = UINT32_MAX;
        uint8_t* open_data = nullptr;
        for (uint32_t i = 0; i < run; ++i) {
            const uint8_t* element = run_copy.data() + size_t(i) * element_bytes;
            const float* position = reinterpret_cast<const float*>(element);
            if (done + i + AHEAD < count)
                __builtin_prefetch(&next_index[cells[done + i + AHEAD]], 1);
            uint32_t p = next_index[cells[done + i]]++;
            if (p >= count) {
                msg_warn("--- entry %u already set!", p);
                continue;
            }
            uint64_t bit = uint64_t(1) << (p & 63);
            if (chosen[p >> 6] & bit)
                msg_warn("--- entry %u already set!", p);
            chosen[p >> 6] |= bit;
            uint32_t page = p / per_page;
            // Only the most recently fetched page is sure to stay in the table.
            if (page != open_page) {
                open_data = staged.get_page(page, false);
                open_page = page;
            }
            memcpy(open_data + size_t(p % per_page) * element_bytes, element, element_bytes);
            bvh.add_to_box(page, position);
            bounds.add(position, dimension);
        }
        // An old page that has been passed is never read again before the store is dropped:
        // its buffer goes to the free list and serves the next staged page, so a map in
        // roughly spatial order is not held twice while it is rewritten.
        uint32_t page, slot;
        store.locate(done + run - 1, &page, &slot);
        uint32_t cache_page = page >> store.cache_page_shift;
        if (done + run < count) {
            uint32_t next_page, next_slot;
            store.locate(done + run, &next_page, &next_slot);
            if (next_page >> store.cache_page_shift == cache_page)
                return;
        }
        manager.discard_page(&store, cache_page);
    });
}

template <uint32_t N>
bool full_build(Map_impl& map, bool verbose)
{
    Module_scope scope(MOD_RCMP);
    double* timer = verbose ? msg_timer_start() : nullptr;
    Map_page_store& store = map.page_store();
    uint32_t element_bytes = store.element_bytes;
    uint32_t dimension = store.dimension;
    if (!map.global_bvh)
        map.global_bvh = map_global_bvh_create(N, &store);
    auto* bvh = static_cast<Map_global_bvh<N>*>(map.global_bvh);

    // 1.
    uint32_t count = map.committed_size();
    uint32_t per_page = store.elements_per_page;
    uint32_t pages = uint32_t((uint64_t(count) + per_page - 1) / per_page);
    uint32_t last_page_count = count % per_page ? count % per_page : per_page;
    bvh->reset(pages);

    // Elements appended but not committed lie behind the committed ones; they are carried over
    // as they are and stay pending.
    std::vector<uint8_t> pending(size_t(map.get_pending_count()) * element_bytes);
    for (uint32_t i = 0; i < map.get_pending_count(); ++i)
        map.read_element(count + i, pending.data() + size_t(i) * element_bytes);

    // 2. Count the elements per cell; each element's cell is kept for the scatter.
    const Cell_coder<N> coder(map.get_bounds());
    std::vector<uint32_t> cells(count);
    std::vector<uint32_t> next_index(Cell_coder<N>::CELLS + 1, 0);
    cell_codes<N>(store, count, coder, cells, next_index);
    constexpr uint32_t AHEAD = 8;
    // 3. The first index of every cell, in cell order.
    uint32_t running = 0;
    for (uint32_t& slot : next_index) {
        const uint32_t cell_count = slot;
        slot = running;
        running += cell_count;
    }

    // 4.
    std::vector<uint64_t> chosen((size_t(count) + 63) / 64, 0);
    Map_bounds bounds;
    bounds.clear();

    // A map whose elements all lie in one memory segment from element 0 (what appends leave)
    // has element i at page i / E, slot i % E, the layout of the staged pages. Its elements are
    // then permuted in place, in its own pages, instead of being copied into a second set of
    // pages: the build holds one copy of the map, whatever the input order.
    const std::vector<Map_segment>& segments = store.segments();
    const bool one_memory_segment = segments.size() == 1 && segments[0].file_index < 0 &&
                                    segments[0].first_element == 0 && segments[0].last_element + 1 == count &&
                                    segments[0].elements_per_page == per_page;
    const bool in_place = count > 0 && store.file_count() == 0 && (segments.empty() || one_memory_segment);
    Map_page_store staged;
    if (in_place) {
        // 5. Every element's new index replaces its cell; the boxes grow as in the copy.
        for_each_run(store, count, [&](const uint8_t* data, uint32_t done, uint32_t run) {
            for (uint32_t i = 0; i < run; ++i) {
                const float* position = reinterpret_cast<const float*>(data + size_t(i) * element_bytes);
                if (done + i + AHEAD < count)
                    __builtin_prefetch(&next_index[cells[done + i + AHEAD]], 1);
                uint32_t p = next_index[cells[done + i]]++;
                cells[done + i] = UINT32_MAX;
                if (p >= count) {
                    msg_warn("--- entry %u already set!", p);
                    continue;
                }
                uint64_t bit = uint64_t(1) << (p & 63);
                if (chosen[p >> 6] & bit) {
                    msg_warn("--- entry %u already set!", p);
                    continue;
                }
                chosen[p >> 6] |= bit;
                cells[done + i] = p;
                bvh->add_to_box(p / per_page, position);
                bounds.add(position, dimension);
            }
        });
        permute_in_place(store, cells, pages);
    } else {
        // 5. Into staged pages, which live in a store of their own so that dropping the old
        //    pages and their segments leaves them alone.
        staged.configure(element_bytes, dimension);
        copy_to_staged(store, staged, *bvh, count, cells, next_index, chosen, bounds);
    }
    std::vector<uint32_t>().swap(cells);
    std::vector<uint32_t>().swap(next_index);
    // 6.
    for (uint32_t i = 0; i < count; ++i)
        if (!(chosen[i >> 6] >> (i & 63) & 1))
            msg_warn("entry %u has not been chosen", i);

    // 7. The old pages go, with their segments and the files behind them.
    if (!in_place) {
        store.reset();
        store.configure(element_bytes, dimension);
    }

    // 8.
    if (pages) {
        Map_page_bvh_job<N> job(map_bvh_thread_count(), &store, in_place ? &store : &staged, pages, 0, per_page,
                                last_page_count);
        job.execute(nullptr);
    }
    // 9. The staged pages go with their store; the map has one segment.
    staged.reset();
    if (store.segments().empty())
        store.add_memory_segment(0, count);
    for (uint32_t i = 0; i < map.get_pending_count(); ++i)
        map.write_element(count + i, pending.data() + size_t(i) * element_bytes);
    {
        std::lock_guard<std::mutex> hold(map.map_lock());
        if (bounds.valid)
            map.set_bounds(bounds);
        else
            map.bounds.clear();
    }

    // 10.
    bool built = bvh->build();
    // 11.
    if (timer) {
        char what[64];
        snprintf(what, sizeof what, "building the BVH for map %u", uint32_t(store.map_id));
        msg_timer_report(timer, what);
        msg_timer_free(timer);
    }
    return built;
}

} // namespace

void map_bvh_set_thread_count(uint32_t threads)
{
    g_thread_count.store(threads ? threads : 1);
}

uint32_t map_bvh_thread_count()
{
    return g_thread_count.load();
}

bool build(Map_impl& map, bool verbose)
{
    // An element larger than a page leaves no place for any element (E = 0): nothing to build.
    if (!map.get_declaration() || !map.page_store().is_configured() || map.page_store().elements_per_page == 0)
        return false;
    switch (map.page_store().dimension) {
    case 1: return full_build<1>(map, verbose);
    case 2: return full_build<2>(map, verbose);
    case 3: return full_build<3>(map, verbose);
    case 4: return full_build<4>(map, verbose);
    case 5: return full_build<5>(map, verbose);
    case 6: return full_build<6>(map, verbose);
    default: return false;
    }
}

void update_bvh(Map_impl& map, float threshold, bool forced, bool verbose)
{
    if (!map.bvh_enabled || !map.get_declaration())
        return;
    Module_scope scope(MOD_RCMP);
    Map_page_store& store = map.page_store();
    // 1.
    if (!map.global_bvh) {
        map.global_bvh = map_global_bvh_create(store.dimension, &store);
        if (!map.global_bvh)
            return;
        map.needs_refit = true;
    }
    // 2.
    if (forced)
        map.needs_build = true;
    if (map.needs_build)
        map.needs_refit = true;
    // 3. The global tree over the page boxes as they stand; boxes that do not cover the map's
    //    pages can only come from a full build.
    if (map.needs_refit && !map.needs_build) {
        double* timer = verbose ? msg_timer_start() : nullptr;
        bool built = map.global_bvh->page_count() == store.page_count(map.committed_size()) &&
                     map.global_bvh->build();
        if (timer) {
            char what[64];
            snprintf(what, sizeof what, "building the global BVH for map %u", uint32_t(store.map_id));
            msg_timer_report(timer, what);
            msg_timer_free(timer);
        }
        map.needs_refit = false;
        if (!built)
            map.needs_build = true;
    }
    // 4. The threshold is carried for the build's callers; the build itself has no use for it.
    if (map.needs_build) {
        if (threshold < 0.0f)
            threshold = MAP_BVH_DEFAULT_THRESHOLD;
        (void)threshold;
        build(map, verbose);
        map.needs_build = false;
        map.needs_refit = false;
    }
}

qv::shader_v3::Map_status map_commit_and_build_bvh(Map_impl& map, float quality, bool forced, bool skip_update)
{
    Module_scope scope(MOD_RCMP);
    if (!map.editable && map.bvh_enabled)
        return qv::shader_v3::MAP_NOT_EDITABLE;
    map.commit();
    if (!skip_update)
        update_bvh(map, 1.0f - quality, forced, false);
    return qv::shader_v3::MAP_SUCCESS;
}

void refit(Map_impl& map, bool verbose)
{
    if (!map.global_bvh)
        return;
    Module_scope scope(MOD_RCMP);
    double* timer = verbose ? msg_timer_start() : nullptr;
    map.global_bvh->refit(map);
    if (timer) {
        char what[64];
        snprintf(what, sizeof what, "refitting the BVH for map %u", uint32_t(map.page_store().map_id));
        msg_timer_report(timer, what);
        msg_timer_free(timer);
    }
}

} // namespace QV::RCMAP
