// Nearest-first searches over a map's two tree levels, under a point, a segment or a caller's
// distance function.
//
// Global nodes come off a queue in order of distance; the pages of a leaf go on a second queue
// and are searched nearest first, each through its own page tree (or element by element when it
// has none). Results collect in a max-heap of the wanted size, whose top bounds the search as
// soon as it is full, so far pages are never fetched. One template serves every distance; the
// built-in ones are inlined, so only a caller's function costs a virtual call per test.
#include <algorithm>
#include <cmath>
#include <cstring>
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
// The node count, the root and its children, as far as they reach.
constexpr uint32_t PREFETCH_TREE_BYTES = 4 + 9 * 60;

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
    const float* point;
    float box(const float* minimum, const float* maximum) const { return box_distance<N>(minimum, maximum, point); }
    float node(const Map_bvh_node<N>& node) const { return box_distance<N>(node.minimum, node.maximum, point); }
    float element(const uint8_t* bytes) const
    {
        return point_distance<N>(reinterpret_cast<const float*>(bytes), point);
    }
};

struct Segment_distance {
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
};

template <uint32_t N>
struct Function_distance {
    const Map_distance_base_internal& function;
    float box(const float* minimum, const float* maximum) const { return function.box_distance(minimum, maximum); }
    float node(const Map_bvh_node<N>& node) const
    {
        return function.node_distance(reinterpret_cast<const float*>(&node));
    }
    float element(const uint8_t* bytes) const { return function.distance(bytes); }
};

// The search's queues, kept per thread so that a search allocates nothing in its steady state.
struct Search_queues {
    std::vector<Queued> nodes;
    std::vector<Queued> pages;
    std::vector<Queued> page_nodes;
};

Search_queues& thread_queues()
{
    static thread_local Search_queues queues;
    return queues;
}

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

// Queues grow by half their size rather than double: a thread keeps them for good.
[[gnu::always_inline]] inline void push_queued(std::vector<Queued>& queue, Queued item)
{
    if (queue.size() == queue.capacity())
        queue.reserve(queue.size() + queue.size() / 2 + 16);
    queue.push_back(item);
    sift_up(queue.data(), queue.size() - 1, Farther());
}

[[gnu::always_inline]] inline Queued pop_queued(std::vector<Queued>& queue)
{
    const Queued next = queue.front();
    const Queued last = queue.back();
    queue.pop_back();
    if (!queue.empty())
        sift_down(queue.data(), queue.size(), last, Farther());
    return next;
}

// Element range the search may report: all, or a subset.
struct Element_range {
    uint32_t first = 0;
    uint32_t last = UINT32_MAX;
};

// `Filtered`: a resume pair or a subset leaves elements out; the plain search has no such test.
template <uint32_t N, bool Filtered, class Distance>
void run_search(Map_page_store* store, const std::vector<Map_bvh_node<N>>& global_nodes,
                const std::vector<uint32_t>& items, const std::vector<Map_bvh_box<N>>& boxes, const Distance& distance,
                uint32_t max_count, float max_distance, uint32_t resume_index, float resume_distance,
                Element_range range, std::vector<Map_lookup_entry>& results)
{
    using Node = Map_bvh_node<N>;
    results.clear();
    if (global_nodes.empty() || max_count == 0 || !store || store->segments().empty())
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

    auto offer = [&](uint32_t index, float d) {
        if (d > limit)
            return;
        if constexpr (Filtered) {
            if (resuming && (d < resume_distance || (d == resume_distance && index <= resume_index)))
                return;
            if (index < range.first || index > range.last)
                return;
        }
        const Map_lookup_entry entry = {index, d};
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

    // First element of a page and the number it holds, from the segment that holds it.
    auto page_span = [&](uint32_t page, uint32_t* first_element) -> uint32_t {
        for (const Map_segment& segment : store->segments()) {
            if (page >= segment.first_page && page <= segment.last_page) {
                *first_element = segment.first_element + (page - segment.first_page) * segment.elements_per_page;
                return page == segment.last_page ? segment.last_page_count : segment.elements_per_page;
            }
        }
        return 0;
    };

    auto search_page = [&](uint32_t page) {
        uint32_t first_element = 0;
        const uint32_t held = page_span(page, &first_element);
        if (!held || first_element > range.last || uint64_t(first_element) + held <= range.first)
            return;
        const uint8_t* data = store->get_page(page, true);
        uint32_t node_count = 0;
        memcpy(&node_count, data + tree_offset, 4);
        if (node_count == 0 || tree_offset + 4 + size_t(node_count) * sizeof(Node) > MAP_FILE_PAGE_BYTES) {
            for (uint32_t slot = 0; slot < held; ++slot)
                offer(first_element + slot, distance.element(data + size_t(slot) * element_bytes));
            return;
        }
        const Node* nodes = reinterpret_cast<const Node*>(data + tree_offset + 4);
        std::vector<Queued>& queue = queues.page_nodes;
        queue.clear();
        // Best first. An expanded node's nearest child is taken next without a trip through
        // the queue when nothing queued comes before it: the order is the queue's all the same.
        Queued next = {distance.node(nodes[0]), 0};
        for (;;) {
            if (next.distance > limit)
                break;
            const Node& node = nodes[next.index];
            bool descend = false;
            if (node.first_item == MAP_BVH_INNER) {
                Queued best = {0.0f, UINT32_MAX};
                const uint32_t end = std::min(node.first_child + node.count, node_count);
                for (uint32_t child = node.first_child; child < end; ++child) {
                    const Node& below = nodes[child];
                    const float d = distance.node(below);
                    if (d > limit)
                        continue;
                    // What the child leads to is somewhere else in the page: start its load
                    // now, so that the misses of the children overlap.
                    __builtin_prefetch(below.first_item == MAP_BVH_INNER
                                           ? static_cast<const void*>(nodes + below.first_child)
                                           : static_cast<const void*>(data + size_t(below.first_item) * element_bytes));
                    const Queued candidate = {d, child};
                    if (best.index == UINT32_MAX) {
                        best = candidate;
                    } else if (Farther()(best, candidate)) {
                        push_queued(queue, best);
                        best = candidate;
                    } else {
                        push_queued(queue, candidate);
                    }
                }
                if (best.index != UINT32_MAX && (queue.empty() || !Farther()(best, queue.front()))) {
                    next = best;
                    descend = true;
                } else if (best.index != UINT32_MAX) {
                    push_queued(queue, best);
                }
            } else {
                const uint32_t end = std::min(node.first_item + node.count, held);
                for (uint32_t slot = node.first_item; slot < end; ++slot)
                    offer(first_element + slot, distance.element(data + size_t(slot) * element_bytes));
            }
            if (descend)
                continue;
            if (queue.empty())
                break;
            next = pop_queued(queue);
        }
    };

    float root = distance.box(global_nodes[0].minimum, global_nodes[0].maximum);
    if (root > limit)
        return;

    // A resumed search starts in the page of the last element it gave, where the next nearest
    // ones most likely are.
    uint32_t hint_page = UINT32_MAX;
    if (resuming) {
        uint32_t slot;
        store->locate(resume_index, &hint_page, &slot);
        if (hint_page < boxes.size() && distance.box(boxes[hint_page].minimum, boxes[hint_page].maximum) <= limit)
            search_page(hint_page);
    }

    std::vector<Queued>& queue = queues.nodes;
    queue.clear();
    push_queued(queue, {root, 0});
    while (!queue.empty()) {
        Queued next = pop_queued(queue);
        if (next.distance > limit)
            break;
        const Node& node = global_nodes[next.index];
        if (node.first_item == MAP_BVH_INNER) {
            for (uint32_t c = 0; c < node.count; ++c) {
                const Node& child = global_nodes[node.first_child + c];
                float d = distance.box(child.minimum, child.maximum);
                if (d <= limit)
                    push_queued(queue, {d, node.first_child + c});
            }
            continue;
        }
        std::vector<Queued>& pages = queues.pages;
        pages.clear();
        for (uint32_t k = node.first_item; k < node.first_item + node.count; ++k) {
            uint32_t page = items[k];
            if (page == hint_page)
                continue;
            float d = distance.box(boxes[page].minimum, boxes[page].maximum);
            if (d <= limit)
                push_queued(pages, {d, page});
        }
        // The pages of a leaf are searched one after the other, and each starts with a miss on
        // its tree's first nodes: start those loads together for the pages already in the
        // thread's table (none is loaded for this).
        if (pages.size() > 1) {
            for (const Queued& queued : pages) {
                const uint8_t* data = store->get_page(queued.index, true, nullptr, MAP_PAGE_NO_LOAD);
                if (data)
                    for (uint32_t line = 0; line < PREFETCH_TREE_BYTES; line += 64)
                        __builtin_prefetch(data + tree_offset + line);
            }
        }
        while (!pages.empty()) {
            Queued page = pop_queued(pages);
            if (page.distance > limit)
                break;
            search_page(page.index);
        }
    }
}

template <uint32_t N, class Distance>
void run_search(Map_page_store* store, const std::vector<Map_bvh_node<N>>& global_nodes,
                const std::vector<uint32_t>& items, const std::vector<Map_bvh_box<N>>& boxes, const Distance& distance,
                uint32_t max_count, float max_distance, uint32_t resume_index, float resume_distance,
                Element_range range, std::vector<Map_lookup_entry>& results)
{
    if (resume_index == UINT32_MAX && range.first == 0 && range.last == UINT32_MAX)
        run_search<N, false>(store, global_nodes, items, boxes, distance, max_count, max_distance, resume_index,
                             resume_distance, range, results);
    else
        run_search<N, true>(store, global_nodes, items, boxes, distance, max_count, max_distance, resume_index,
                            resume_distance, range, results);
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
    run_search<N>(store_, nodes_, items_, boxes_, Point_distance<N>{point}, max_count, max_distance, resume_index,
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
    run_search<N>(store_, nodes_, items_, boxes_, Function_distance<N>{distance}, max_count, max_distance,
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
        run_search<3>(store_, nodes_, items_, boxes_, Segment_distance{origin, direction, length}, max_count,
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
    run_search<N>(store_, nodes_, items_, boxes_, Point_distance<N>{point}, max_count, max_distance, resume_index,
                  resume_distance, Element_range{first_element, last_element}, results);
}

#define QV_MAP_BVH_SEARCH_INSTANCES(N)                                                                          \
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
