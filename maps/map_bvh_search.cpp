// Nearest-first searches over a map's two tree levels, under a point, a segment or a caller's
// distance function.
//
// The walk goes over the search index (Map_search_index below): one in-memory tree over the
// leaves of all page trees. Its nodes and leaves come off one queue in order of distance; a page
// is fetched when one of its leaves comes off, and only the page's elements under that leaf are
// tested. Results collect in a max-heap of the wanted size, whose top bounds the search as soon
// as it is full, so far pages are never fetched. One template serves every distance; the
// built-in ones are inlined, so only a caller's function costs a virtual call per test.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "maps/map_bvh.h"
#include "maps/map_lookup.h"
#include "maps/map_page_store.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using qv::shader_v3::Map_lookup_entry;

namespace {

constexpr float MAX_SEARCH_DISTANCE = 5.0e35f;
constexpr float BEHIND_DISTANCE = 1.0e36f;

struct Queued {
    float distance;
    uint32_t index;
};

// Nearest first; equal distances by index, so that a search is the same every time.
struct Farther {
    bool operator()(const Queued& a, const Queued& b) const
    {
        return a.distance > b.distance || (a.distance == b.distance && a.index > b.index);
    }
};

// Heap order of the results: the farthest, then the highest index, on top. A function object,
// so that the heap's sifts inline it.
struct Nearer {
    bool operator()(const Map_lookup_entry& a, const Map_lookup_entry& b) const
    {
        return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
    }
};

template <uint32_t N>
inline float box_distance(const float* minimum, const float* maximum, const float* point)
{
    float sum = 0.0f;
    for (uint32_t a = 0; a < N; ++a) {
        // Branch-free: at most one of the two differences is positive.
        const float d = std::max(std::max(minimum[a] - point[a], point[a] - maximum[a]), 0.0f);
        sum += d * d;
    }
    return sum;
}

template <uint32_t N>
inline float point_distance(const float* position, const float* point)
{
    float sum = 0.0f;
    for (uint32_t a = 0; a < N; ++a) {
        float d = position[a] - point[a];
        sum += d * d;
    }
    return sum;
}

// The distances of the three kinds. box(): a global node or page box; node(): a page tree's
// node; element(): an element's bytes, the position first.
template <uint32_t N>
struct Point_distance {
    // Point queries come in coherent streams; segments and caller's functions rarely do.
    static constexpr bool seeded = true;
    const float* point;
    float box(const float* minimum, const float* maximum) const { return box_distance<N>(minimum, maximum, point); }
    float node(const Map_bvh_node<N>& node) const { return box_distance<N>(node.minimum, node.maximum, point); }
    float element(const uint8_t* bytes) const
    {
        return point_distance<N>(reinterpret_cast<const float*>(bytes), point);
    }
    // All lanes of an index node at once (the empty ones too): a loop the compiler vectorises.
    template <class Index>
    void lanes(const Index& index, uint32_t node, float* out) const
    {
        const auto& lanes = index.lanes[node];
        float sum[Index::WIDTH] = {};
        for (uint32_t a = 0; a < N; ++a) {
            const float p = point[a];
            for (uint32_t i = 0; i < Index::WIDTH; ++i) {
                const float d = std::max(std::max(lanes.minimum[a][i] - p, p - lanes.maximum[a][i]), 0.0f);
                sum[i] += d * d;
            }
        }
        memcpy(out, sum, sizeof sum);
    }
};

struct Segment_distance {
    static constexpr bool seeded = false;
    const float* origin;
    const float* direction;
    float length;
    float box(const float* minimum, const float* maximum) const
    {
        return map_segment_box_distance(origin, direction, length, minimum, maximum);
    }
    float node(const Map_bvh_node<3>& node) const { return box(node.minimum, node.maximum); }
    float element(const uint8_t* bytes) const
    {
        return map_segment_point_distance(origin, direction, length, reinterpret_cast<const float*>(bytes));
    }
    template <class Index>
    void lanes(const Index& index, uint32_t node, float* out) const
    {
        float minimum[3], maximum[3];
        for (uint32_t i = 0; i < index.links[node].count; ++i) {
            index.lane_box(node, i, minimum, maximum);
            out[i] = box(minimum, maximum);
        }
    }
};

template <uint32_t N>
struct Function_distance {
    static constexpr bool seeded = false;
    const Map_distance_base_internal& function;
    float box(const float* minimum, const float* maximum) const { return function.box_distance(minimum, maximum); }
    float node(const Map_bvh_node<N>& node) const
    {
        return function.node_distance(reinterpret_cast<const float*>(&node));
    }
    // A page tree's leaf kept by the search index: the function sees it in its stored form.
    float leaf(const Map_bvh_box<N>& box, uint32_t count, uint32_t first_item) const
    {
        Map_bvh_node<N> stored;
        memcpy(stored.minimum, box.minimum, sizeof box.minimum);
        memcpy(stored.maximum, box.maximum, sizeof box.maximum);
        stored.count = count;
        stored.first_item = first_item;
        stored.first_child = 0;
        return node(stored);
    }
    float element(const uint8_t* bytes) const { return function.distance(bytes); }
    template <class Index>
    void lanes(const Index& index, uint32_t node, float* out) const
    {
        const auto& link = index.links[node];
        Map_bvh_box<N> lane;
        for (uint32_t i = 0; i < link.count; ++i) {
            index.lane_box(node, i, lane.minimum, lane.maximum);
            const auto* item = link.leaf ? &index.items[link.first + i] : nullptr;
            out[i] = item && item->count ? leaf(lane, item->count, item->first_slot)
                                         : box(lane.minimum, lane.maximum);
        }
    }
};

// Binary heaps with `before(a, b)` true when b belongs nearer the top: the layout of
// std::push_heap, with the comparison inlined and the top replaced by one sift.
template <class T, class Before>
[[gnu::always_inline]] inline void sift_up(T* heap, size_t at, Before before)
{
    const T value = heap[at];
    while (at > 0) {
        const size_t parent = (at - 1) / 2;
        if (!before(heap[parent], value))
            break;
        heap[at] = heap[parent];
        at = parent;
    }
    heap[at] = value;
}

template <class T, class Before>
[[gnu::always_inline]] inline void sift_down(T* heap, size_t size, T value, Before before)
{
    size_t at = 0;
    for (;;) {
        size_t child = 2 * at + 1;
        if (child >= size)
            break;
        if (child + 1 < size && before(heap[child], heap[child + 1]))
            ++child;
        if (!before(value, heap[child]))
            break;
        heap[at] = heap[child];
        at = child;
    }
    heap[at] = value;
}

// A heap of Queued, nearest on top, on storage that the thread keeps for good, so that a search
// allocates nothing in its steady state; the storage grows by half its size.
struct Queue {
    std::vector<Queued> storage;
    size_t size = 0;
    void clear() { size = 0; }
    bool empty() const { return size == 0; }
    const Queued& front() const { return storage.data()[0]; }
    [[gnu::noinline]] void grow() { storage.resize(storage.size() + storage.size() / 2 + 16); }
};

[[gnu::always_inline]] inline void push_queued(Queue& queue, Queued item)
{
    if (queue.size == queue.storage.size())
        queue.grow();
    queue.storage.data()[queue.size] = item;
    sift_up(queue.storage.data(), queue.size++, Farther());
}

[[gnu::always_inline]] inline Queued pop_queued(Queue& queue)
{
    Queued* const heap = queue.storage.data();
    const Queued next = heap[0];
    if (--queue.size)
        sift_down(heap, queue.size, heap[queue.size], Farther());
    return next;
}

// The children of an expanded node: the nearest is kept aside and taken next without a trip
// through the queue when nothing queued comes before it (the order is the queue's all the same);
// the others are queued.
struct Nearest_aside {
    Queued best = {0.0f, UINT32_MAX};
    [[gnu::always_inline]] void add(Queue& queue, Queued candidate)
    {
        if (best.index == UINT32_MAX) {
            best = candidate;
        } else if (Farther()(best, candidate)) {
            push_queued(queue, best);
            best = candidate;
        } else {
            push_queued(queue, candidate);
        }
    }
    // True, with `next` the kept child, when it goes next; otherwise it joins the queue.
    [[gnu::always_inline]] bool take(Queue& queue, Queued& next)
    {
        if (best.index == UINT32_MAX)
            return false;
        if (queue.empty() || !Farther()(best, queue.front())) {
            next = best;
            return true;
        }
        push_queued(queue, best);
        return false;
    }
};

// The search's queues, kept per thread, and where the thread's last point search began: the
// index leaf nearest to its point. Shading points of one thread come near each other, so the
// next point search scans that leaf first and starts the walk with its bound already tight.
// `seed_index` only tells which index the leaf number belongs to; a stale number (an index freed
// and another made at its address) is checked against the index and costs only time.
struct Search_queues {
    Queue nodes;
    Queue page_nodes;
    const void* seed_index = nullptr;
    uint32_t seed_leaf = UINT32_MAX;
    float seed_reach = 0.0f;   // the last point search's final limit
};

Search_queues& thread_queues()
{
    static thread_local Search_queues queues;
    return queues;
}

// Element range the search may report: all, or a subset.
struct Element_range {
    uint32_t first = 0;
    uint32_t last = UINT32_MAX;
};

// Queue entries of the index walk: items carry this bit, the index's own nodes do not.
constexpr uint32_t ITEM_BIT = 0x80000000u;

// First element of a page and the number it holds, from the segment that holds it (0: none).
uint32_t page_span(const Map_page_store& store, uint32_t page, uint32_t* first_element)
{
    for (const Map_segment& segment : store.segments()) {
        if (page >= segment.first_page && page <= segment.last_page) {
            *first_element = segment.first_element + (page - segment.first_page) * segment.elements_per_page;
            return page == segment.last_page ? segment.last_page_count : segment.elements_per_page;
        }
    }
    return 0;
}

// The node count and nodes of a page's tree; null when the page has none (or none that fits).
template <uint32_t N>
const Map_bvh_node<N>* page_tree(const uint8_t* data, uint32_t tree_offset, uint32_t* node_count)
{
    memcpy(node_count, data + tree_offset, 4);
    if (*node_count == 0 || tree_offset + 4 + size_t(*node_count) * sizeof(Map_bvh_node<N>) > MAP_FILE_PAGE_BYTES)
        return nullptr;
    return reinterpret_cast<const Map_bvh_node<N>*>(data + tree_offset + 4);
}

} // namespace

// The page-tree leaves are far tighter than the page boxes, which overlap a lot (a page is a run
// of the build's fixed element order and often spans two places): searched through their own
// tree, a query enters only the pages where a leaf can still hold something nearer.
template <uint32_t N>
struct Map_search_index {
    // A node's children, or a leaf's items, side by side.
    static constexpr uint32_t WIDTH = 8;
    static_assert(MAP_BVH_MAX_CHILDREN <= WIDTH, "an inner node's children fit its lanes");
    // The boxes of what lies under one node, lane by lane, so that a point's distances to all
    // of them are taken in one pass over a few cache lines. Lanes beyond the count are empty.
    struct alignas(64) Lanes {
        float minimum[N][WIDTH];
        float maximum[N][WIDTH];
    };
    struct Link {
        uint32_t first;   // first child, or a leaf's first item
        uint16_t count;
        uint16_t leaf;
    };
    struct Item {
        uint32_t page;
        uint16_t first_slot;    // the leaf's slots in the page (E is below 2^16)
        uint16_t count;         // 0: the page has no tree and is scanned whole
    };
    Map_bvh_box<N> root;
    std::vector<Lanes> lanes;   // by node
    std::vector<Link> links;    // by node; the root is node 0
    std::vector<Item> items;    // in leaf order

    void lane_box(uint32_t node, uint32_t lane, float* minimum, float* maximum) const
    {
        for (uint32_t a = 0; a < N; ++a) {
            minimum[a] = lanes[node].minimum[a][lane];
            maximum[a] = lanes[node].maximum[a][lane];
        }
    }
};

template <uint32_t N>
void Map_search_index_slot<N>::drop()
{
    // Called for every element a build adds to a page box: most often there is nothing to drop.
    if (ready_.load(std::memory_order_relaxed))
        delete ready_.exchange(nullptr, std::memory_order_acq_rel);
}

template <uint32_t N>
const Map_search_index<N>& Map_search_index_slot<N>::get(const Map_global_bvh<N>& tree)
{
    if (const Map_search_index<N>* index = ready_.load(std::memory_order_acquire))
        return *index;
    std::lock_guard<std::mutex> hold(lock_);
    if (const Map_search_index<N>* index = ready_.load(std::memory_order_relaxed))
        return *index;
    using Index = Map_search_index<N>;
    using Item = typename Index::Item;
    auto* index = new Index;
    std::vector<Item> items;
    std::vector<Map_bvh_box<N>> item_boxes;
    Map_page_store* store = tree.store();
    // Only the pages the global tree reaches, as a search through it would.
    if (store && !tree.nodes().empty() && store->elements_per_page) {
        const uint32_t tree_offset = store->elements_per_page * store->element_bytes;
        std::vector<uint32_t> stack;
        for (uint32_t page : tree.items()) {
            uint32_t first_element = 0;
            if (page >= tree.boxes().size() || !page_span(*store, page, &first_element))
                continue;
            const uint8_t* data = store->get_page(page, true);
            uint32_t node_count = 0;
            const Map_bvh_node<N>* nodes = page_tree<N>(data, tree_offset, &node_count);
            if (!nodes) {
                items.push_back(Item{page, 0, 0});
                item_boxes.push_back(tree.boxes()[page]);
                continue;
            }
            // Children lie after their parents; a child that does not is a damaged page's, which
            // the walk does not follow either.
            stack.assign(1, 0);
            while (!stack.empty()) {
                const uint32_t at = stack.back();
                stack.pop_back();
                const Map_bvh_node<N>& node = nodes[at];
                if (node.first_item != MAP_BVH_INNER) {
                    // Slots beyond the page are never reported; an empty leaf has nothing to give.
                    const uint32_t end = std::min(node.first_item + node.count, store->elements_per_page);
                    if (node.first_item < end) {
                        items.push_back(Item{page, uint16_t(node.first_item), uint16_t(end - node.first_item)});
                        Map_bvh_box<N> box;
                        memcpy(&box, node.minimum, sizeof box);
                        item_boxes.push_back(box);
                    }
                    continue;
                }
                for (uint32_t child = node.first_child; child < std::min(node.first_child + node.count, node_count);
                     ++child)
                    if (child > at)
                        stack.push_back(child);
            }
        }
    }
    if (!items.empty()) {
        std::vector<Map_bvh_node<N>> nodes;
        std::vector<uint32_t> order;
        std::unique_ptr<Map_bvh_scratch, void (*)(Map_bvh_scratch*)> scratch(map_bvh_scratch_create(),
                                                                             map_bvh_scratch_destroy);
        map_bvh_build_tree<N>(&item_boxes[0].minimum[0], uint32_t(items.size()), Index::WIDTH, nodes, order,
                              *scratch);
        // Items in leaf order, so that a leaf's items lie together.
        index->items.resize(order.size());
        for (size_t i = 0; i < order.size(); ++i)
            index->items[i] = items[order[i]];
        memcpy(&index->root, nodes[0].minimum, sizeof index->root);
        index->lanes.assign(nodes.size(), typename Index::Lanes{});
        index->links.resize(nodes.size());
        for (size_t n = 0; n < nodes.size(); ++n) {
            const Map_bvh_node<N>& node = nodes[n];
            const bool leaf = node.first_item != MAP_BVH_INNER;
            const uint32_t first = leaf ? node.first_item : node.first_child;
            const uint32_t count = std::min(node.count, Index::WIDTH);
            index->links[n] = {first, uint16_t(count), uint16_t(leaf)};
            for (uint32_t lane = 0; lane < count; ++lane) {
                const float* box = leaf ? item_boxes[order[first + lane]].minimum : nodes[first + lane].minimum;
                for (uint32_t a = 0; a < N; ++a) {
                    index->lanes[n].minimum[a][lane] = box[a];
                    index->lanes[n].maximum[a][lane] = box[N + a];
                }
            }
        }
    }
    ready_.store(index, std::memory_order_release);
    return *index;
}

namespace {

// `Filtered`: a resume pair or a subset leaves elements out; the plain search has no such test.
template <uint32_t N, bool Filtered, class Distance>
void run_search(Map_page_store* store, const Map_search_index<N>& index, const std::vector<Map_bvh_box<N>>& boxes,
                const Distance& distance, uint32_t max_count, float max_distance, uint32_t resume_index,
                float resume_distance, Element_range range, std::vector<Map_lookup_entry>& results)
{
    using Node = Map_bvh_node<N>;
    using Index = Map_search_index<N>;
    using Item = typename Index::Item;
    using Link = typename Index::Link;
    results.clear();
    if (index.links.empty() || max_count == 0 || !store || store->segments().empty())
        return;
    // The heap lives in the caller's array, sized once: never more than the map holds.
    const uint32_t capacity = std::min(max_count, store->segments().back().last_element + 1);
    results.resize(capacity);
    Map_lookup_entry* const heap = results.data();
    uint32_t held_results = 0;
    float limit = std::min(max_distance, MAX_SEARCH_DISTANCE);
    const bool resuming = resume_index != UINT32_MAX;
    Search_queues& queues = thread_queues();
    const uint32_t element_bytes = store->element_bytes;
    const uint32_t tree_offset = store->elements_per_page * element_bytes;

    auto offer = [&](uint32_t element, float d) __attribute__((always_inline)) {
        if (d > limit)
            return;
        if constexpr (Filtered) {
            if (resuming && (d < resume_distance || (d == resume_distance && element <= resume_index)))
                return;
            if (element < range.first || element > range.last)
                return;
        }
        const Map_lookup_entry entry = {element, d};
        if (held_results < capacity) {
            heap[held_results] = entry;
            sift_up(heap, held_results++, Nearer());
        } else if (Nearer()(entry, heap[0])) {
            sift_down(heap, held_results, entry, Nearer());
        } else {
            return;
        }
        if (held_results == capacity)
            limit = heap[0].distance;
    };
    // Whatever way the walk ends, the array keeps just the results.
    struct Trim {
        std::vector<Map_lookup_entry>& results;
        const uint32_t& held;
        ~Trim() { results.resize(held); }
    } trim{results, held_results};

    // The page being searched. Its bytes are fetched once each time the walk moves to it; the
    // pointer holds until the next fetch, and only this page's items use it.
    uint32_t page_now = UINT32_MAX;
    const uint8_t* data = nullptr;   // null: nothing of the page may be reported
    const Node* page_nodes = nullptr;
    uint32_t node_count = 0, first_element = 0, held = 0;
    auto enter = [&](uint32_t page) __attribute__((always_inline)) {
        if (page == page_now)
            return data != nullptr;
        page_now = page;
        data = nullptr;
        held = page_span(*store, page, &first_element);
        if (!held || first_element > range.last || uint64_t(first_element) + held <= range.first)
            return false;
        data = store->get_page(page, true);
        page_nodes = page_tree<N>(data, tree_offset, &node_count);
        return true;
    };
    auto scan = [&](uint32_t first_slot, uint32_t end_slot) __attribute__((always_inline)) {
        end_slot = std::min(end_slot, held);
        const uint8_t* bytes = data + size_t(first_slot) * element_bytes;
        for (uint32_t slot = first_slot; slot < end_slot; ++slot, bytes += element_bytes)
            offer(first_element + slot, distance.element(bytes));
    };
    // Best first down the entered page's tree from `next`.
    auto walk_page = [&](Queued next) {
        Queue& queue = queues.page_nodes;
        queue.clear();
        for (;;) {
            if (next.distance > limit)
                break;
            const Node& node = page_nodes[next.index];
            Nearest_aside aside;
            if (node.first_item == MAP_BVH_INNER) {
                const uint32_t end = std::min(node.first_child + node.count, node_count);
                for (uint32_t child = node.first_child; child < end; ++child) {
                    const Node& below = page_nodes[child];
                    const float d = distance.node(below);
                    if (d > limit)
                        continue;
                    // What the child leads to is somewhere else in the page: start its load
                    // now, so that the misses of the children overlap.
                    __builtin_prefetch(below.first_item == MAP_BVH_INNER
                                           ? static_cast<const void*>(page_nodes + below.first_child)
                                           : static_cast<const void*>(data + size_t(below.first_item) * element_bytes));
                    aside.add(queue, {d, child});
                }
            } else {
                scan(node.first_item, node.first_item + node.count);
            }
            if (aside.take(queue, next))
                continue;
            if (queue.empty())
                break;
            next = pop_queued(queue);
        }
    };

    const Link* const links = index.links.data();
    const Item* const items = index.items.data();
    const float root = distance.box(index.root.minimum, index.root.maximum);
    if (root > limit)
        return;

    // A resumed search starts in the page of the last element it gave, where the next nearest
    // ones most likely are; its items are passed over afterwards.
    uint32_t hint_page = UINT32_MAX;
    if (resuming) {
        uint32_t slot;
        store->locate(resume_index, &hint_page, &slot);
        if (hint_page < boxes.size() && distance.box(boxes[hint_page].minimum, boxes[hint_page].maximum) <= limit &&
            enter(hint_page)) {
            if (page_nodes)
                walk_page({distance.node(page_nodes[0]), 0});
            else
                scan(0, held);
        }
    }

    auto scan_item = [&](const Item& item) __attribute__((always_inline)) {
        if (item.page != hint_page && enter(item.page))
            scan(item.first_slot, item.count == 0 ? held : uint32_t(item.first_slot) + item.count);
    };
    float d[Index::WIDTH];
    // The seed leaf's items are all scanned up front (those within the limit; it only falls),
    // so the walk passes over that leaf when it comes to it: every element is still tested once.
    constexpr bool Seeded = !Filtered && Distance::seeded;
    uint32_t seed = UINT32_MAX, nearest_leaf = UINT32_MAX;
    if constexpr (Seeded) {
        const uint32_t leaf = queues.seed_leaf;
        if (queues.seed_index == &index && leaf < index.links.size() && links[leaf].leaf) {
            distance.lanes(index, leaf, d);
            // Only a leaf that reaches as near as the last search's farthest result is worth it:
            // a query elsewhere (a random stream) would pay the items' misses for a bound that
            // prunes little.
            const uint32_t count = links[leaf].count;
            if (*std::min_element(d, d + count) <= queues.seed_reach) {
                seed = leaf;
                for (uint32_t lane = 0; lane < count; ++lane)
                    if (d[lane] <= limit)
                        scan_item(items[links[leaf].first + lane]);
            }
        }
    }
    Queue& queue = queues.nodes;
    queue.clear();
    Queued next = {root, 0};
    for (;;) {
        if (next.distance > limit)
            break;
        Nearest_aside aside;
        if (next.index & ITEM_BIT) {
            scan_item(items[next.index & ~ITEM_BIT]);
        } else if (!links[next.index].leaf) {
            const Link link = links[next.index];
            distance.lanes(index, next.index, d);
            for (uint32_t lane = 0; lane < link.count; ++lane) {
                if (d[lane] > limit)
                    continue;
                // What a child within reach leads to starts loading now, so that the misses of
                // the children overlap.
                const uint32_t child = link.first + lane;
                const char* ahead = reinterpret_cast<const char*>(&index.lanes[child]);
                for (size_t line = 0; line < sizeof(typename Index::Lanes); line += 64)
                    __builtin_prefetch(ahead + line);
                aside.add(queue, {d[lane], child});
            }
        } else {
            const Link link = links[next.index];
            if constexpr (Seeded)
                if (nearest_leaf == UINT32_MAX)
                    nearest_leaf = next.index;
            if (next.index != seed) {
                __builtin_prefetch(items + link.first);
                distance.lanes(index, next.index, d);
                for (uint32_t lane = 0; lane < link.count; ++lane) {
                    if (d[lane] > limit)
                        continue;
                    const uint32_t i = link.first + lane;
                    // Its elements, when they are in the page at hand, can start loading now.
                    if (items[i].page == page_now && data)
                        __builtin_prefetch(data + size_t(items[i].first_slot) * element_bytes);
                    aside.add(queue, {d[lane], i | ITEM_BIT});
                }
            }
        }
        if (aside.take(queue, next))
            continue;
        if (queue.empty())
            break;
        next = pop_queued(queue);
    }
    if constexpr (Seeded) {
        if (nearest_leaf != UINT32_MAX) {
            queues.seed_index = &index;
            queues.seed_leaf = nearest_leaf;
            queues.seed_reach = limit;
        }
    }
}

template <uint32_t N, class Distance>
void run_search(Map_page_store* store, const Map_search_index<N>& index, const std::vector<Map_bvh_box<N>>& boxes,
                const Distance& distance, uint32_t max_count, float max_distance, uint32_t resume_index,
                float resume_distance, Element_range range, std::vector<Map_lookup_entry>& results)
{
    if (resume_index == UINT32_MAX && range.first == 0 && range.last == UINT32_MAX)
        run_search<N, false>(store, index, boxes, distance, max_count, max_distance, resume_index, resume_distance,
                             range, results);
    else
        run_search<N, true>(store, index, boxes, distance, max_count, max_distance, resume_index, resume_distance,
                            range, results);
}
} // namespace

// The sphere around the box's centre through its corners stands for the box: one square root
// and a few products instead of a slab test per axis.
float map_segment_box_distance(const float* origin, const float* direction, float length, const float* minimum,
                               const float* maximum)
{
    float c[3], w[3];
    float r2 = 0.0f, b = 0.0f, ww = 0.0f;
    for (int a = 0; a < 3; ++a) {
        c[a] = 0.5f * (minimum[a] + maximum[a]);
        const float half = 0.5f * (maximum[a] - minimum[a]);
        r2 += half * half;
        w[a] = origin[a] - c[a];
        b += direction[a] * w[a];
        ww += w[a] * w[a];
    }
    const float q = b * b + r2 - ww;
    if (q >= 0.0f) {
        const float root = std::sqrt(q);
        const float t = -b - root;
        if (t > 0.0f && t >= length)
            return (t - length) * (t - length);
        if (t <= 0.0f && root - b < 0.0f)
            return BEHIND_DISTANCE;
        return 0.0f;
    }
    const float t = std::clamp(-b, 0.0f, length);
    float p = 0.0f;
    for (int a = 0; a < 3; ++a) {
        const float d = origin[a] + t * direction[a] - c[a];
        p += d * d;
    }
    return p + r2 - 2.0f * std::sqrt(p * r2);
}

float map_segment_point_distance(const float* origin, const float* direction, float length, const float* point)
{
    float b = 0.0f;
    for (int a = 0; a < 3; ++a)
        b += direction[a] * (point[a] - origin[a]);
    const float t = std::clamp(b, 0.0f, length);
    float p = 0.0f;
    for (int a = 0; a < 3; ++a) {
        const float d = origin[a] + t * direction[a] - point[a];
        p += d * d;
    }
    return p;
}

template <uint32_t N>
void Map_global_bvh<N>::find_nearest(const float* point, uint32_t max_count, float max_distance,
                                     uint32_t resume_index, float resume_distance,
                                     std::vector<Map_lookup_entry>& results)
{
    search_point(point, max_count, max_distance, resume_index, resume_distance, results);
}

template <uint32_t N>
void Map_global_bvh<N>::search_point(const float* point, uint32_t max_count, float max_distance,
                                     uint32_t resume_index, float resume_distance,
                                     std::vector<Map_lookup_entry>& results)
{
    Module_scope scope(MOD_RCMP);
    run_search<N>(store_, index_.get(*this), boxes_, Point_distance<N>{point}, max_count, max_distance, resume_index,
                  resume_distance, Element_range(), results);
}

template <uint32_t N>
void Map_global_bvh<N>::search_function(const Map_distance_base_internal& distance, uint32_t max_count,
                                        float max_distance, uint32_t resume_index, float resume_distance,
                                        std::vector<Map_lookup_entry>& results)
{
    Module_scope scope(MOD_RCMP);
    results.clear();
    if (distance.get_dimension() != N)
        return;
    run_search<N>(store_, index_.get(*this), boxes_, Function_distance<N>{distance}, max_count, max_distance,
                  resume_index, resume_distance, Element_range(), results);
}

template <uint32_t N>
void Map_global_bvh<N>::search_segment(const float* origin, const float* direction, float length,
                                       uint32_t max_count, float max_distance, uint32_t resume_index,
                                       float resume_distance, std::vector<Map_lookup_entry>& results)
{
    Module_scope scope(MOD_RCMP);
    results.clear();
    if constexpr (N == 3) {
        run_search<3>(store_, index_.get(*this), boxes_, Segment_distance{origin, direction, length}, max_count,
                      max_distance, resume_index, resume_distance, Element_range(), results);
    } else {
        (void)origin, (void)direction, (void)length, (void)max_count, (void)max_distance, (void)resume_index,
            (void)resume_distance;
    }
}

template <uint32_t N>
void Map_global_bvh<N>::search_subset(const float* point, uint32_t first_element, uint32_t last_element,
                                      uint32_t max_count, float max_distance, uint32_t resume_index,
                                      float resume_distance, std::vector<Map_lookup_entry>& results)
{
    Module_scope scope(MOD_RCMP);
    results.clear();
    if (first_element > last_element)
        return;
    run_search<N>(store_, index_.get(*this), boxes_, Point_distance<N>{point}, max_count, max_distance, resume_index,
                  resume_distance, Element_range{first_element, last_element}, results);
}

#define QV_MAP_BVH_SEARCH_INSTANCES(N)                                                                          \
    template class Map_search_index_slot<N>;                                                                      \
    template void Map_global_bvh<N>::find_nearest(const float*, uint32_t, float, uint32_t, float,                \
                                                  std::vector<Map_lookup_entry>&);                                \
    template void Map_global_bvh<N>::search_point(const float*, uint32_t, float, uint32_t, float,                \
                                                  std::vector<Map_lookup_entry>&);                                \
    template void Map_global_bvh<N>::search_function(const Map_distance_base_internal&, uint32_t, float,         \
                                                     uint32_t, float, std::vector<Map_lookup_entry>&);            \
    template void Map_global_bvh<N>::search_segment(const float*, const float*, float, uint32_t, float, uint32_t, \
                                                    float, std::vector<Map_lookup_entry>&);                       \
    template void Map_global_bvh<N>::search_subset(const float*, uint32_t, uint32_t, uint32_t, float, uint32_t,  \
                                                   float, std::vector<Map_lookup_entry>&);

QV_MAP_BVH_SEARCH_INSTANCES(1)
QV_MAP_BVH_SEARCH_INSTANCES(2)
QV_MAP_BVH_SEARCH_INSTANCES(3)
QV_MAP_BVH_SEARCH_INSTANCES(4)
QV_MAP_BVH_SEARCH_INSTANCES(5)
QV_MAP_BVH_SEARCH_INSTANCES(6)
#undef QV_MAP_BVH_SEARCH_INSTANCES

} // namespace QV::RCMAP
