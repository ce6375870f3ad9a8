// Tree construction shared by the global tree and the page trees: a binary surface-area build
// over item boxes, collapsed into nodes of up to MAP_BVH_MAX_CHILDREN children for storage.
#include <algorithm>
#include <cstring>

#include "maps/map_bvh.h"
#include "maps/map_page_store.h"

namespace QV::RCMAP {

namespace {

// Above this many items a node is split at the centre of its longest axis, without costs.
constexpr uint32_t MIDDLE_SPLIT_ABOVE = 262144;
// Up to this many items a node is split by a sweep over all candidates; above it, by the
// three-plane comparison. A sweep sorts per axis, which pays off only on small nodes.
constexpr uint32_t SWEEP_UP_TO = 32;
constexpr float AXIS_WEIGHT = 1.0f;

struct Binary_node {
    float minimum[6];
    float maximum[6];
    uint32_t begin;     // items order[begin .. end)
    uint32_t end;
    int32_t left;       // the right child is left + 1; -1 for a leaf
    // The items' order on every axis is already in Map_bvh_scratch::axis_order (left by the
    // parent's sweep).
    bool presorted;
};

} // namespace

struct Map_bvh_scratch {
    std::vector<float> boxes;            // page items: degenerate boxes of the positions
    std::vector<float> centres;          // N per item
    std::vector<uint32_t> order;
    std::vector<Binary_node> binary;
    std::vector<uint32_t> stack;
    std::vector<uint32_t> queue;         // binary node of each stored node
    std::vector<uint8_t> page_copy;      // elements before the leaf-order permutation
    // Per axis a, at a * count + begin .. a * count + end: a presorted node's items in sweep
    // order on that axis.
    std::vector<uint32_t> axis_order;
    std::vector<uint8_t> in_left;        // per item: in the lower child of the node just split
};

Map_bvh_scratch* map_bvh_scratch_create()
{
    return new Map_bvh_scratch();
}

void map_bvh_scratch_destroy(Map_bvh_scratch* scratch)
{
    delete scratch;
}

namespace {

// Surface measure of a box for the cost: length in 1-d, half perimeter in 2-d, half surface
// (sum of the pairwise products of the extents) from 3-d on.
template <uint32_t N>
inline float box_area(const float* minimum, const float* maximum)
{
    float extent[N];
    for (uint32_t a = 0; a < N; ++a)
        extent[a] = std::max(0.0f, maximum[a] - minimum[a]);
    if constexpr (N == 1) {
        return extent[0];
    } else if constexpr (N == 2) {
        return extent[0] + extent[1];
    } else {
        float area = 0.0f;
        for (uint32_t a = 0; a < N; ++a)
            for (uint32_t b = a + 1; b < N; ++b)
                area += extent[a] * extent[b];
        return area;
    }
}

template <uint32_t N>
inline void box_empty(float* minimum, float* maximum)
{
    for (uint32_t a = 0; a < N; ++a) {
        minimum[a] = 1.0e36f;
        maximum[a] = -1.0e36f;
    }
}

template <uint32_t N>
inline void box_grow(float* minimum, float* maximum, const float* item)
{
    for (uint32_t a = 0; a < N; ++a) {
        minimum[a] = std::min(minimum[a], item[a]);
        maximum[a] = std::max(maximum[a], item[N + a]);
    }
}

// Moves the items whose centre on `axis` is not above `plane` to the front of the range;
// returns the first item of the upper side.
template <uint32_t N>
uint32_t partition(uint32_t* order, uint32_t begin, uint32_t end, const float* centres, uint32_t axis, float plane)
{
    uint32_t low = begin, high = end;
    while (low < high) {
        if (centres[size_t(order[low]) * N + axis] <= plane) {
            ++low;
        } else {
            --high;
            std::swap(order[low], order[high]);
        }
    }
    return low;
}

// The cost terms of a sweep's cuts 1 .. n-1: box_area of the side's box at cut k times the
// side's item count (k on the left, n - k on the right), as box_area computes it.
template <uint32_t N>
inline void side_areas(const float (*side_min)[SWEEP_UP_TO], const float (*side_max)[SWEEP_UP_TO], uint32_t n,
                       float* out, bool left)
{
    for (uint32_t k = 1; k < n; ++k) {
        float extent[N];
        for (uint32_t a = 0; a < N; ++a)
            extent[a] = std::max(0.0f, side_max[a][k] - side_min[a][k]);
        float area;
        if constexpr (N == 1) {
            area = extent[0];
        } else if constexpr (N == 2) {
            area = extent[0] + extent[1];
        } else {
            area = 0.0f;
            for (uint32_t a = 0; a < N; ++a)
                for (uint32_t b = a + 1; b < N; ++b)
                    area += extent[a] * extent[b];
        }
        out[k] = area * float(left ? k : n - k);
    }
}

// Orders a sweep's items by centre on one axis, ties by item number: a strict total order, so
// any correct sort gives the same sequence. The nodes are small (at most SWEEP_UP_TO items):
// each item's place is the number of items before it, counted without branches (the compares
// of a general sort are coin tosses for the branch predictor).
inline void sort_sweep(float* keys, uint32_t* items, uint32_t n)
{
    float key_copy[SWEEP_UP_TO];
    uint32_t item_copy[SWEEP_UP_TO], place[SWEEP_UP_TO];
    for (uint32_t k = 0; k < n; ++k) {
        const float key = keys[k];
        const uint32_t item = items[k];
        uint32_t before = 0;
        for (uint32_t j = 0; j < n; ++j)
            before += uint32_t(keys[j] < key) | (uint32_t(keys[j] == key) & uint32_t(items[j] < item));
        place[k] = before;
    }
    std::copy(keys, keys + n, key_copy);
    std::copy(items, items + n, item_copy);
    for (uint32_t k = 0; k < n; ++k) {
        keys[place[k]] = key_copy[k];
        items[place[k]] = item_copy[k];
    }
}

// Chooses where node `node`'s items are cut and reorders them; returns the first item of the
// upper child, strictly inside the range. `cmin`, `cmax`: the bounds of the items' centres.
// `children_presorted` is set when the children's orders on every axis have been left in
// `s.axis_order`.
template <uint32_t N>
uint32_t split_node(const Binary_node& node, const float* boxes, const float* cmin, const float* cmax, Map_bvh_scratch& s,
                    bool& children_presorted)
{
    uint32_t* order = s.order.data();
    const float* centres = s.centres.data();
    uint32_t begin = node.begin, end = node.end, n = end - begin;

    bool any_extent = false;
    for (uint32_t a = 0; a < N; ++a)
        any_extent |= cmax[a] > cmin[a];
    // Coinciding centres: no plane separates them, so the list is cut in the middle.
    if (!any_extent)
        return begin + n / 2;

    uint32_t mid;
    if (n > MIDDLE_SPLIT_ABOVE) {
        uint32_t axis = 0;
        float widest = -1.0f;
        for (uint32_t a = 0; a < N; ++a) {
            float weighted = (cmax[a] - cmin[a]) * AXIS_WEIGHT;
            if (weighted > widest) {
                widest = weighted;
                axis = a;
            }
        }
        mid = partition<N>(order, begin, end, centres, axis, 0.5f * (cmin[axis] + cmax[axis]));
    } else if (n > SWEEP_UP_TO) {
        // One plane per axis, at the centre of the centre bounds; the cheapest side split wins.
        // All planes are tried in one pass over the items (min and max do not depend on the
        // order in which the boxes are merged).
        float plane[N], lmin[N][N], lmax[N][N], rmin[N][N], rmax[N][N];
        uint32_t left[N];
        for (uint32_t a = 0; a < N; ++a) {
            plane[a] = 0.5f * (cmin[a] + cmax[a]);
            box_empty<N>(lmin[a], lmax[a]);
            box_empty<N>(rmin[a], rmax[a]);
            left[a] = 0;
        }
        for (uint32_t i = begin; i < end; ++i) {
            uint32_t item = order[i];
            const float* box = boxes + size_t(item) * 2 * N;
            const float* c = centres + size_t(item) * N;
            for (uint32_t a = 0; a < N; ++a) {
                if (c[a] <= plane[a]) {
                    box_grow<N>(lmin[a], lmax[a], box);
                    ++left[a];
                } else {
                    box_grow<N>(rmin[a], rmax[a], box);
                }
            }
        }
        uint32_t best_axis = 0;
        float best_cost = 0.0f;
        for (uint32_t a = 0; a < N; ++a) {
            float cost = (left[a] ? box_area<N>(lmin[a], lmax[a]) * float(left[a]) : 0.0f) +
                         (left[a] < n ? box_area<N>(rmin[a], rmax[a]) * float(n - left[a]) : 0.0f);
            if (a == 0 || cost < best_cost) {
                best_cost = cost;
                best_axis = a;
            }
        }
        mid = partition<N>(order, begin, end, centres, best_axis, plane[best_axis]);
    } else {
        // Sweep: every cut between neighbours in centre order, on every axis. A node whose
        // parent was swept has its orders already: the parent's orders restricted to the
        // node's items, which is what sorting them again gives (the order is a strict total
        // one when no centre is NaN).
        float keys[SWEEP_UP_TO];
        uint32_t sorted[N][SWEEP_UP_TO];
        bool all_comparable = true;
        const size_t count = s.order.size();
        float right_area[SWEEP_UP_TO], left_area[SWEEP_UP_TO];
        float side_min[N][SWEEP_UP_TO], side_max[N][SWEEP_UP_TO];
        float best_cost = 0.0f;
        uint32_t best_cut = 0;
        bool found = false;
        uint32_t best_axis = 0;
        for (uint32_t a = 0; a < N; ++a) {
            uint32_t* items = sorted[a];
            bool comparable = true;
            if (node.presorted) {
                const uint32_t* known = s.axis_order.data() + a * count + begin;
                for (uint32_t k = 0; k < n; ++k) {
                    items[k] = known[k];
                    keys[k] = centres[size_t(items[k]) * N + a];
                }
            } else {
                for (uint32_t k = 0; k < n; ++k) {
                    items[k] = order[begin + k];
                    keys[k] = centres[size_t(items[k]) * N + a];
                    comparable &= keys[k] == keys[k];
                }
            }
            all_comparable &= comparable;
            if (node.presorted) {
            } else if (comparable) {
                sort_sweep(keys, items, n);
            } else {
                // A NaN centre leaves no order; the sequence is whatever the general sort makes
                // of it, as it always was.
                std::sort(items, items + n, [&](uint32_t x, uint32_t y) {
                    float cx = centres[size_t(x) * N + a], cy = centres[size_t(y) * N + a];
                    return cx < cy || (cx == cy && x < y);
                });
            }
            // The boxes of every suffix and prefix first, then their costs over all cuts at
            // once (the same operations per cut, in loops the compiler runs in vector lanes).
            float bmin[N], bmax[N];
            box_empty<N>(bmin, bmax);
            for (uint32_t k = n; k-- > 1;) {
                box_grow<N>(bmin, bmax, boxes + size_t(items[k]) * 2 * N);
                for (uint32_t a2 = 0; a2 < N; ++a2) {
                    side_min[a2][k] = bmin[a2];
                    side_max[a2][k] = bmax[a2];
                }
            }
            side_areas<N>(side_min, side_max, n, right_area, false);
            box_empty<N>(bmin, bmax);
            for (uint32_t k = 1; k < n; ++k) {
                box_grow<N>(bmin, bmax, boxes + size_t(items[k - 1]) * 2 * N);
                for (uint32_t a2 = 0; a2 < N; ++a2) {
                    side_min[a2][k] = bmin[a2];
                    side_max[a2][k] = bmax[a2];
                }
            }
            side_areas<N>(side_min, side_max, n, left_area, true);
            bool improved = false;
            for (uint32_t k = 1; k < n; ++k) {
                float cost = left_area[k] + right_area[k];
                if (!found || cost < best_cost) {
                    best_cost = cost;
                    best_cut = k;
                    found = true;
                    improved = true;
                }
            }
            if (improved)
                best_axis = a;
        }
        std::copy(sorted[best_axis], sorted[best_axis] + n, order + begin);
        mid = begin + best_cut;
        // The children's orders on every axis, for their own sweeps.
        if (all_comparable) {
            if (s.axis_order.size() < N * count)
                s.axis_order.resize(N * count);
            if (s.in_left.size() < count)
                s.in_left.resize(count, 0);   // cleared again after every use
            for (uint32_t k = 0; k < best_cut; ++k)
                s.in_left[sorted[best_axis][k]] = 1;
            for (uint32_t a = 0; a < N; ++a) {
                uint32_t* lower = s.axis_order.data() + a * count + begin;
                uint32_t* upper = lower + best_cut;
                for (uint32_t k = 0; k < n; ++k) {
                    const uint32_t item = sorted[a][k];
                    *(s.in_left[item] ? lower++ : upper++) = item;
                }
            }
            for (uint32_t k = 0; k < best_cut; ++k)
                s.in_left[sorted[best_axis][k]] = 0;
            children_presorted = true;
        }
    }
    // Everything on one side: one item goes over, so that both children hold something.
    if (mid == begin)
        mid = begin + 1;
    else if (mid == end)
        mid = end - 1;
    return mid;
}

// The binary tree down to nodes of at most `leaf_size` items.
template <uint32_t N>
void build_binary(const float* boxes, uint32_t count, uint32_t leaf_size, Map_bvh_scratch& s)
{
    s.binary.clear();
    s.stack.clear();
    Binary_node root = {};
    root.begin = 0;
    root.end = count;
    root.left = -1;
    root.presorted = false;
    s.binary.push_back(root);
    s.stack.push_back(0);
    while (!s.stack.empty()) {
        uint32_t index = s.stack.back();
        s.stack.pop_back();
        Binary_node node = s.binary[index];
        box_empty<N>(node.minimum, node.maximum);
        const bool split = node.end - node.begin > leaf_size;
        float cmin[N], cmax[N];
        box_empty<N>(cmin, cmax);
        if (split) {
            // The split needs the bounds of the centres too: one pass for both.
            const float* centres = s.centres.data();
            for (uint32_t i = node.begin; i < node.end; ++i) {
                const uint32_t item = s.order[i];
                box_grow<N>(node.minimum, node.maximum, boxes + size_t(item) * 2 * N);
                const float* c = centres + size_t(item) * N;
                for (uint32_t a = 0; a < N; ++a) {
                    cmin[a] = std::min(cmin[a], c[a]);
                    cmax[a] = std::max(cmax[a], c[a]);
                }
            }
        } else {
            for (uint32_t i = node.begin; i < node.end; ++i)
                box_grow<N>(node.minimum, node.maximum, boxes + size_t(s.order[i]) * 2 * N);
        }
        node.left = -1;
        if (split) {
            bool children_presorted = false;
            uint32_t mid = split_node<N>(node, boxes, cmin, cmax, s, children_presorted);
            node.left = int32_t(s.binary.size());
            Binary_node child = {};
            child.left = -1;
            child.presorted = children_presorted;
            child.begin = node.begin;
            child.end = mid;
            s.binary.push_back(child);
            child.begin = mid;
            child.end = node.end;
            s.binary.push_back(child);
            // Upper child pushed first so that the lower one is handled first: the stack then
            // holds at most one pending sibling per level.
            s.stack.push_back(uint32_t(node.left) + 1);
            s.stack.push_back(uint32_t(node.left));
        }
        s.binary[index] = node;
    }
}

template <uint32_t N>
inline void store_box(Map_bvh_node<N>& out, const Binary_node& in)
{
    memcpy(out.minimum, in.minimum, sizeof(float) * N);
    memcpy(out.maximum, in.maximum, sizeof(float) * N);
}

// Stored nodes of the binary tree, where a binary node of at most `leaf_size` items becomes a
// leaf and each inner node takes up to MAP_BVH_MAX_CHILDREN descendants as its children: the
// inner child of largest surface is opened until the node is full. `limit`: stop and answer
// false as soon as more nodes would be needed (0: no limit).
template <uint32_t N>
bool collapse(uint32_t leaf_size, uint32_t limit, std::vector<Map_bvh_node<N>>& nodes, Map_bvh_scratch& s)
{
    nodes.clear();
    s.queue.clear();
    const Binary_node* binary = s.binary.data();
    auto is_leaf = [&](uint32_t b) {
        return binary[b].left < 0 || binary[b].end - binary[b].begin <= leaf_size;
    };
    nodes.emplace_back();
    s.queue.push_back(0);
    for (size_t at = 0; at < nodes.size(); ++at) {
        uint32_t b = s.queue[at];
        Map_bvh_node<N>& out = nodes[at];
        store_box<N>(out, binary[b]);
        if (is_leaf(b)) {
            out.count = binary[b].end - binary[b].begin;
            out.first_item = binary[b].begin;
            out.first_child = 0;
            continue;
        }
        uint32_t children[MAP_BVH_MAX_CHILDREN];
        uint32_t child_count = 2;
        children[0] = uint32_t(binary[b].left);
        children[1] = uint32_t(binary[b].left) + 1;
        while (child_count < MAP_BVH_MAX_CHILDREN) {
            int32_t open = -1;
            float widest = -1.0f;
            for (uint32_t c = 0; c < child_count; ++c) {
                if (is_leaf(children[c]))
                    continue;
                float area = box_area<N>(binary[children[c]].minimum, binary[children[c]].maximum);
                if (area > widest) {
                    widest = area;
                    open = int32_t(c);
                }
            }
            if (open < 0)
                break;
            // The opened child's two children take its place, in order.
            uint32_t first = uint32_t(binary[children[open]].left);
            for (uint32_t c = child_count; c > uint32_t(open) + 1; --c)
                children[c] = children[c - 1];
            children[open] = first;
            children[open + 1] = first + 1;
            ++child_count;
        }
        if (limit && nodes.size() + child_count > limit)
            return false;
        uint32_t first_child = uint32_t(nodes.size());
        // `out` may move when the vector grows.
        nodes[at].count = child_count;
        nodes[at].first_item = MAP_BVH_INNER;
        nodes[at].first_child = first_child;
        for (uint32_t c = 0; c < child_count; ++c) {
            nodes.emplace_back();
            s.queue.push_back(children[c]);
        }
    }
    return true;
}

template <uint32_t N>
void prepare_items(const float* boxes, uint32_t count, Map_bvh_scratch& s)
{
    s.centres.resize(size_t(count) * N);
    for (uint32_t i = 0; i < count; ++i) {
        const float* box = boxes + size_t(i) * 2 * N;
        for (uint32_t a = 0; a < N; ++a)
            s.centres[size_t(i) * N + a] = 0.5f * (box[a] + box[N + a]);
    }
    s.order.resize(count);
    for (uint32_t i = 0; i < count; ++i)
        s.order[i] = i;
}

} // namespace

template <uint32_t N>
void map_bvh_build_tree(const float* boxes, uint32_t count, uint32_t leaf_size, std::vector<Map_bvh_node<N>>& nodes,
                        std::vector<uint32_t>& order, Map_bvh_scratch& scratch)
{
    nodes.clear();
    order.clear();
    if (count == 0)
        return;
    prepare_items<N>(boxes, count, scratch);
    build_binary<N>(boxes, count, leaf_size, scratch);
    collapse<N>(leaf_size, 0, nodes, scratch);
    order = scratch.order;
}

template <uint32_t N>
uint32_t map_page_bvh_build(uint8_t* page, uint32_t count, uint32_t elements_per_page, uint32_t element_bytes,
                            uint8_t* out, Map_bvh_scratch& s)
{
    using Node = Map_bvh_node<N>;
    const size_t data_bytes = size_t(elements_per_page) * element_bytes;
    uint32_t room = MAP_FILE_PAGE_BYTES - elements_per_page * element_bytes;
    // A page that gets no tree is the input page as it is, with a node count of 0.
    auto no_tree = [&]() -> uint32_t {
        uint32_t zero = 0;
        uint8_t* target = out ? out : page;
        if (out)
            memcpy(out, page, MAP_FILE_PAGE_BYTES);
        if (room >= 4)
            memcpy(target + data_bytes, &zero, 4);
        return 0;
    };
    if (count == 0 || room < 4)
        return no_tree();

    // Items are the positions, as boxes without extent.
    s.boxes.resize(size_t(count) * 2 * N);
    float* boxes = s.boxes.data();
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* element = page + size_t(i) * element_bytes;
        memcpy(boxes + size_t(i) * 2 * N, element, sizeof(float) * N);
        memcpy(boxes + size_t(i) * 2 * N + N, element, sizeof(float) * N);
    }
    prepare_items<N>(boxes, count, s);
    // A split does not depend on the leaf size, so one binary tree down to the smallest leaf
    // size serves every size tried: a larger one only stops the collapse higher up.
    build_binary<N>(boxes, count, MAP_BVH_PAGE_LEAF_SIZE_FIRST, s);
    uint32_t limit = (room - 4) / sizeof(Node);
    // Nodes are written to the page's own room; the vector only stages them.
    static thread_local std::vector<Node> staged;
    bool fits = false;
    for (uint32_t leaf_size = MAP_BVH_PAGE_LEAF_SIZE_FIRST; leaf_size <= MAP_BVH_PAGE_LEAF_SIZE_LAST; leaf_size += 4) {
        if (limit && collapse<N>(leaf_size, limit, staged, s)) {
            fits = true;
            break;
        }
    }
    if (!fits)
        return no_tree();
    // Elements into leaf order: slot k takes the element that the order lists at k. In place
    // the elements are read from a copy; into `out` straight from the page, whose other bytes
    // (free slots, the room behind the tree) `out` takes over as they are.
    const uint8_t* source = page;
    uint8_t* target = page;
    const size_t element_data = size_t(count) * element_bytes;
    if (out) {
        target = out;
        memcpy(out + element_data, page + element_data, MAP_FILE_PAGE_BYTES - element_data);
    } else {
        s.page_copy.assign(page, page + element_data);
        source = s.page_copy.data();
    }
    for (uint32_t k = 0; k < count; ++k)
        memcpy(target + size_t(k) * element_bytes, source + size_t(s.order[k]) * element_bytes, element_bytes);
    uint8_t* tree = target + data_bytes;
    uint32_t node_count = uint32_t(staged.size());
    memcpy(tree, &node_count, 4);
    memcpy(tree + 4, staged.data(), size_t(node_count) * sizeof(Node));
    return node_count;
}

#define QV_MAP_BVH_SAH_INSTANCE(N)                                                                           \
    template void map_bvh_build_tree<N>(const float*, uint32_t, uint32_t, std::vector<Map_bvh_node<N>>&,     \
                                        std::vector<uint32_t>&, Map_bvh_scratch&);                           \
    template uint32_t map_page_bvh_build<N>(uint8_t*, uint32_t, uint32_t, uint32_t, uint8_t*, Map_bvh_scratch&);
QV_MAP_BVH_SAH_INSTANCE(1)
QV_MAP_BVH_SAH_INSTANCE(2)
QV_MAP_BVH_SAH_INSTANCE(3)
QV_MAP_BVH_SAH_INSTANCE(4)
QV_MAP_BVH_SAH_INSTANCE(5)
QV_MAP_BVH_SAH_INSTANCE(6)
#undef QV_MAP_BVH_SAH_INSTANCE

} // namespace QV::RCMAP
