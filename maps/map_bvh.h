// The two-level bounding-volume hierarchy of a map.
//
// A global tree over the pages (Map_global_bvh<N>, small enough to stay in memory) and, in the
// spare room behind the elements of every file page, a tree over that page's elements (built by
// Map_page_bvh_job<N>), which travels with the page through the cache and the files. A full
// build first reorders all elements so that each page holds a compact region of space; indices
// taken before a build are void after it. N is the map's dimension, 1 to 6.
//
// Page layout after a build: E * element_bytes bytes of elements, then a u32 node count, then
// that many Map_bvh_node<N>. Node count 0 means "no tree, scan the page". In a page tree a leaf
// covers `count` consecutive slots from `first_item`, since the elements lie in leaf order.
// In the global tree a leaf covers `count` entries of the item list from `first_item`, and each
// entry is a page number. Children of an inner node lie next to each other from `first_child`.
// The root is node 0; every child has a larger index than its parent.
//
// Thread rules: a build needs the map to itself (the element order changes); searches read the
// global tree and the page trees from many threads once the build is done.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <vector>

#include "database/job.h"
#include "maps/map_interfaces.h"

namespace QV::SERIAL {
class Serializer;
class Deserializer;
} // namespace QV::SERIAL

namespace QV::RCMAP {

class Map_impl;
class Map_page_store;
class Map_page_table;
class Map_distance_base_internal;

// first_item of an inner node.
constexpr uint32_t MAP_BVH_INNER = 0xFFFFFFFFu;
// Leaf sizes: the global tree's, and the range tried for page trees (in steps of 4).
constexpr uint32_t MAP_BVH_GLOBAL_LEAF_SIZE = 4;
constexpr uint32_t MAP_BVH_PAGE_LEAF_SIZE_FIRST = 8;
constexpr uint32_t MAP_BVH_PAGE_LEAF_SIZE_LAST = 64;
// Widest node kept when binary nodes are collapsed for storage.
constexpr uint32_t MAP_BVH_MAX_CHILDREN = 8;
// The threshold update_bvh uses when given a negative one (the manager's default).
constexpr float MAP_BVH_DEFAULT_THRESHOLD = 0.4f;

// The node of both levels; its bytes are the stored form (pages and files), 12 + 8 N.
template <uint32_t N>
struct Map_bvh_node {
    float minimum[N];       // box
    float maximum[N];
    uint32_t count;         // leaf: items; inner node: children
    uint32_t first_item;    // leaf: first item; inner node: MAP_BVH_INNER
    uint32_t first_child;   // inner node: first of `count` adjacent children; leaf: 0
};
static_assert(sizeof(Map_bvh_node<1>) == 20 && sizeof(Map_bvh_node<2>) == 28 && sizeof(Map_bvh_node<3>) == 36 &&
              sizeof(Map_bvh_node<4>) == 44 && sizeof(Map_bvh_node<5>) == 52 && sizeof(Map_bvh_node<6>) == 60,
              "12 + 8 N bytes, no padding");

template <uint32_t N>
struct Map_bvh_box {
    float minimum[N];
    float maximum[N];
};

constexpr uint32_t map_bvh_node_bytes(uint32_t dimension) { return 12 + 8 * dimension; }

// What the searches walk in memory (map_bvh_search.cpp): the leaves of every page tree, with
// their pages, under one tree of their own. Made from the two stored levels on the first search
// after they change and never stored: a copy of the tree starts without one, and every change
// to the tree drops it.
template <uint32_t N>
struct Map_search_index;
template <uint32_t N>
class Map_global_bvh;

template <uint32_t N>
class Map_search_index_slot {
public:
    Map_search_index_slot() = default;
    Map_search_index_slot(const Map_search_index_slot&) {}
    Map_search_index_slot& operator=(const Map_search_index_slot&) = delete;
    ~Map_search_index_slot() { drop(); }
    // Needs the tree to itself, as every change to it does.
    void drop();
    // The index, made now under the lock when there is none; any number of searching threads.
    const Map_search_index<N>& get(const Map_global_bvh<N>& tree);

private:
    std::atomic<Map_search_index<N>*> ready_{nullptr};
    std::mutex lock_;
};

// The map's global tree, independent of the dimension. Owned by the map (Map_impl::global_bvh).
class Map_global_bvh_base {
public:
    virtual ~Map_global_bvh_base() = default;

    // Builds the tree over the page boxes as they are. False (and the tree invalid) when the
    // box list does not cover the map's pages, so that the caller runs a full build instead.
    virtual bool build() = 0;
    // Hangs the tree of `other` (pages of another file whose page 0 is this map's page
    // `first_page`) under this tree's root; its boxes join the box list. False when the
    // dimensions differ. Gives the timer line "building the global BVH for map %u".
    virtual bool add_subtree(const Map_global_bvh_base& other, uint32_t first_page) = 0;
    // The same for a list: others[i] starts at first_pages[i].
    virtual bool add_subtrees(const Map_global_bvh_base* const* others, const uint32_t* first_pages,
                              uint32_t count) = 0;
    // Stored form in a map file, at the stream's position (see map_global_bvh.cpp for the
    // bytes). False on a write error.
    virtual bool write(FILE* stream) const = 0;
    // Reads what write wrote. `asynchronous` is accepted and the read is done at once. False,
    // leaving the tree empty and invalid, on a short read or a record that does not hold
    // together (other dimension, indices out of range).
    virtual bool read(FILE* stream, bool asynchronous) = 0;
    // Stored form in a database stream: the same fields.
    virtual const void* serialize(QV::SERIAL::Serializer* serializer) const = 0;
    virtual void* deserialize(QV::SERIAL::Deserializer* deserializer) = 0;

    // Point search over both levels: the at most `max_count` elements nearest to `point` (N
    // floats) by squared Euclidean distance, none farther than `max_distance` (cut to 5.0e35).
    // With `resume_index` not UINT32_MAX, elements at or before the pair (resume_distance,
    // resume_index) in the order of distance, then index, are left out. `results` becomes a
    // binary max-heap by (distance, index), its first entry the farthest found. Uses the
    // calling thread's page table; the map must not be rebuilt meanwhile.
    virtual void find_nearest(const float* point, uint32_t max_count, float max_distance, uint32_t resume_index,
                              float resume_distance, std::vector<qv::shader_v3::Map_lookup_entry>& results) = 0;

    // The four search forms of the lookups. All share find_nearest's rules for `max_count`,
    // `max_distance`, the resume pair and the heap in `results`; when a resume pair is given, the
    // page of its element is searched before any other, so that the heap fills from the right
    // region and the limit falls early.
    // Under a caller's distance function, which must have this tree's dimension and, for exact
    // answers, never give a box or node more than any element inside it.
    virtual void search_function(const Map_distance_base_internal& distance, uint32_t max_count, float max_distance,
                                 uint32_t resume_index, float resume_distance,
                                 std::vector<qv::shader_v3::Map_lookup_entry>& results) = 0;
    // Nearest to a point of N floats, by squared Euclidean distance.
    virtual void search_point(const float* point, uint32_t max_count, float max_distance, uint32_t resume_index,
                              float resume_distance, std::vector<qv::shader_v3::Map_lookup_entry>& results) = 0;
    // Nearest to the segment from `origin` along the unit `direction` for `length` (3 floats
    // each; dimension 3 only, an empty result otherwise). Elements by squared distance to the
    // segment; boxes by their bounding sphere (see map_bvh_search.cpp).
    virtual void search_segment(const float* origin, const float* direction, float length, uint32_t max_count,
                                float max_distance, uint32_t resume_index, float resume_distance,
                                std::vector<qv::shader_v3::Map_lookup_entry>& results) = 0;
    // A point search over the elements with indices first_element .. last_element only; pages
    // outside that range are never fetched.
    virtual void search_subset(const float* point, uint32_t first_element, uint32_t last_element, uint32_t max_count,
                               float max_distance, uint32_t resume_index, float resume_distance,
                               std::vector<qv::shader_v3::Map_lookup_entry>& results) = 0;

    virtual uint32_t dimension() const = 0;
    virtual bool is_valid() const = 0;
    virtual void set_valid(bool valid) = 0;
    virtual uint32_t node_count() const = 0;
    virtual uint32_t page_count() const = 0;   // entries of the box list
    // Forgets nodes, items and boxes; `pages` empty boxes remain.
    virtual void reset(uint32_t pages) = 0;
    // Grows box `page` by `position` (N floats).
    virtual void add_to_box(uint32_t page, const float* position) = 0;
    // Recomputes every page tree's boxes and the page boxes from the elements, then the
    // global tree's boxes, bottom-up. For maps whose elements moved while the pages stand.
    virtual void refit(Map_impl& map) = 0;
    // A deep copy bound to `store`.
    virtual Map_global_bvh_base* copy(Map_page_store* store) const = 0;
};

template <uint32_t N>
class Map_global_bvh final : public Map_global_bvh_base {
public:
    using Node = Map_bvh_node<N>;
    using Box = Map_bvh_box<N>;

    // `store` is the map's page store, not owned.
    explicit Map_global_bvh(Map_page_store* store) : store_(store) {}

    bool build() override;
    bool add_subtree(const Map_global_bvh_base& other, uint32_t first_page) override;
    bool add_subtrees(const Map_global_bvh_base* const* others, const uint32_t* first_pages,
                      uint32_t count) override;
    bool write(FILE* stream) const override;
    bool read(FILE* stream, bool asynchronous) override;
    const void* serialize(QV::SERIAL::Serializer* serializer) const override;
    void* deserialize(QV::SERIAL::Deserializer* deserializer) override;
    void find_nearest(const float* point, uint32_t max_count, float max_distance, uint32_t resume_index,
                      float resume_distance, std::vector<qv::shader_v3::Map_lookup_entry>& results) override;
    void search_function(const Map_distance_base_internal& distance, uint32_t max_count, float max_distance,
                         uint32_t resume_index, float resume_distance,
                         std::vector<qv::shader_v3::Map_lookup_entry>& results) override;
    void search_point(const float* point, uint32_t max_count, float max_distance, uint32_t resume_index,
                      float resume_distance, std::vector<qv::shader_v3::Map_lookup_entry>& results) override;
    void search_segment(const float* origin, const float* direction, float length, uint32_t max_count,
                        float max_distance, uint32_t resume_index, float resume_distance,
                        std::vector<qv::shader_v3::Map_lookup_entry>& results) override;
    void search_subset(const float* point, uint32_t first_element, uint32_t last_element, uint32_t max_count,
                       float max_distance, uint32_t resume_index, float resume_distance,
                       std::vector<qv::shader_v3::Map_lookup_entry>& results) override;

    uint32_t dimension() const override { return N; }
    bool is_valid() const override { return valid_; }
    void set_valid(bool valid) override { valid_ = valid; }
    uint32_t node_count() const override { return uint32_t(nodes_.size()); }
    uint32_t page_count() const override { return uint32_t(boxes_.size()); }
    void reset(uint32_t pages) override;
    void add_to_box(uint32_t page, const float* position) override;
    void refit(Map_impl& map) override;
    Map_global_bvh_base* copy(Map_page_store* store) const override;

    // For searches and tests.
    const std::vector<Node>& nodes() const { return nodes_; }
    const std::vector<uint32_t>& items() const { return items_; }   // page numbers
    const std::vector<Box>& boxes() const { return boxes_; }        // by page
    Map_page_store* store() const { return store_; }
    void set_store(Map_page_store* store)
    {
        index_.drop();
        store_ = store;
    }

private:
    Map_page_store* store_;
    Map_search_index_slot<N> index_;
    std::vector<Box> boxes_;
    std::vector<Node> nodes_;
    std::vector<uint32_t> items_;
    bool valid_ = false;
};

// A page-tree builder for all pages of a map, run as a job: thread t takes pages t,
// t + threads, ... Each thread has its own page table and page buffer, so two threads never
// write the same page, and the result does not depend on the thread count.
//
// Reads page i of `staged` (E elements, `last_page_count` in the last page), puts the
// elements of the page in the order of its tree's leaves, writes the tree behind them and
// stores the whole file page as page i of `target`.
template <uint32_t N>
class Map_page_bvh_job final : public QV::SCHED::Job {
public:
    static constexpr uint32_t CLASS_ID = 0x2A4D5042; // "*MPB"

    Map_page_bvh_job(uint32_t threads, Map_page_store* target, Map_page_store* staged, uint32_t pages,
                     uint32_t first_staged_page, uint32_t elements_per_page, uint32_t last_page_count);
    Map_page_bvh_job(const Map_page_bvh_job& other);
    ~Map_page_bvh_job() override;

    uint32_t get_class_id() const override { return CLASS_ID; }
    // Runs all threads and returns when every page is done; the result is no element (null).
    QV::DB::Element_base* execute(QV::SCHED::Job_execution_context* context) override;
    QV::SCHED::Job* copy() const override { return new Map_page_bvh_job(*this); }
    uint64_t get_size() const override { return sizeof(*this); }

    // The pages of thread `t` (0 <= t < threads).
    void run_thread(uint32_t t);

    struct Thread_state;

private:
    uint32_t threads_;
    Map_page_store* store_;           // target pages 0 .. pages - 1
    Map_page_store* staged_;          // staged pages first_staged_page ..
    uint32_t pages_;
    uint32_t first_staged_page_;
    uint32_t elements_per_page_;      // E
    uint32_t last_page_count_;
    Thread_state** states_ = nullptr; // one per thread, made by execute
    void* particle_info_ = nullptr;   // carried, not used by the build
    bool debug_names_ = false;
};

// ---- Entry points ----------------------------------------------------------------------

// Brings the map's BVH up to date (update_bvh): nothing without bvh_enabled; makes an empty
// global tree when there is none; `forced` demands a full build; a refit-only state rebuilds
// the global tree over the page boxes and falls back to a full build when that fails; a full
// build takes `threshold` (negative: MAP_BVH_DEFAULT_THRESHOLD). `verbose` gives the timer
// lines. Both state flags are clear afterwards.
void update_bvh(Map_impl& map, float threshold, bool forced, bool verbose);
inline void build_bvh(Map_impl& map, float threshold, bool forced, bool verbose)
{
    update_bvh(map, threshold, forced, verbose);
}
// Map_base::build_bvh: 7 for a map that is not editable but has bvh_enabled; otherwise
// commits the pending elements and, unless `skip_update`, runs update_bvh with the threshold
// 1 - quality, without timer lines (callers that want them call update_bvh with `verbose`).
// Map_impl::build_bvh forwards here.
qv::shader_v3::Map_status map_commit_and_build_bvh(Map_impl& map, float quality, bool forced, bool skip_update);

// The full build of the map's committed elements: reorder, page trees, global tree. Selects
// the instance by dimension; any dimension outside 1 to 6 builds nothing (false). Lets go of
// the map's backing files (the elements now live in its own pages, one segment). `verbose`
// gives the timer line "building the BVH for map %u".
bool build(Map_impl& map, bool verbose = false);

// Recomputes the boxes of a built map whose elements moved inside their pages; the timer line
// "refitting the BVH for map %u" with `verbose`. Nothing without a global tree.
void refit(Map_impl& map, bool verbose);

// An empty global tree for `dimension` (null outside 1 to 6), owned by the caller (normally
// stored in Map_impl::global_bvh, which frees it through map_global_bvh_destroy).
Map_global_bvh_base* map_global_bvh_create(uint32_t dimension, Map_page_store* store);

// Threads of the per-page job (the job system runs none of its own here): 0 means one.
void map_bvh_set_thread_count(uint32_t threads);
uint32_t map_bvh_thread_count();
// Runs work(0) on the calling thread and work(1 .. threads - 1) on runtime threads (or here,
// when one cannot start), and returns when all are done.
void map_run_threads(uint32_t threads, const std::function<void(uint32_t)>& work);

// ---- Tree construction shared by both levels -------------------------------------------

// Builds a tree over `count` items given by their boxes (minimum then maximum, N floats each,
// item i at boxes[2 N i]). Writes the nodes to `nodes` (cleared first) and the item order of
// the leaves to `order`: leaf items are order[first_item .. first_item + count). Leaves hold
// at most `leaf_size` items, inner nodes at most MAP_BVH_MAX_CHILDREN children. `scratch` is
// reused between calls to avoid allocation.
struct Map_bvh_scratch;
template <uint32_t N>
void map_bvh_build_tree(const float* boxes, uint32_t count, uint32_t leaf_size, std::vector<Map_bvh_node<N>>& nodes,
                        std::vector<uint32_t>& order, Map_bvh_scratch& scratch);

// Builds the tree of one page in place: `page` holds `count` elements of `element_bytes`
// (position first) and E of room for elements; the room behind them receives the tree. The
// elements are permuted into leaf order. Returns the node count written (0: no tree fitted).
// `out`, when not null, receives the finished page (a whole file page) instead of `page`, which
// is then only read.
template <uint32_t N>
uint32_t map_page_bvh_build(uint8_t* page, uint32_t count, uint32_t elements_per_page, uint32_t element_bytes,
                            uint8_t* out, Map_bvh_scratch& scratch);

Map_bvh_scratch* map_bvh_scratch_create();
void map_bvh_scratch_destroy(Map_bvh_scratch* scratch);

// Elements that file page `page` holds in a map of `size` committed elements, by its segments
// (a segment's last page may be partly filled); 0 beyond the last element.
uint32_t map_bvh_page_elements(const Map_page_store& store, uint32_t size, uint32_t page);

} // namespace QV::RCMAP
