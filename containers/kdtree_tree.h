// The implicit tree underneath the kd-tree store, on plain storage: building it in place and
// querying it. Nodes are numbered from 1; node k has the children 2k and 2k+1 where those are
// not above n, and node k's position and record lie at index k - 1. So the shape depends on n
// alone, like a complete binary tree, and no child pointers are stored.
//
// Separate from the database side so that the algorithms can be driven on any arrays.
#pragma once

#include <cstdint>

#include "containers/kdtree.h"

namespace QV::LIB::detail {

// Walks the in-order sequence of a subtree by heap index. It carries the depth (root of the
// whole tree at depth 0) so that two positions can be ordered without walking between them, and
// its rank inside the walk so that distances are known.
struct Inorder_iterator {
    uint32_t node = 0;
    uint32_t depth = 0;
    uint32_t rank = 0;

    // Leftmost and rightmost descendant of `root` (inclusive) in a tree of `n` nodes.
    static Inorder_iterator first(uint32_t root, uint32_t n);
    static Inorder_iterator last(uint32_t root, uint32_t n, uint32_t size);

    // In-order successor and predecessor within the shape of `n` nodes.
    void next(uint32_t n);
    void prev(uint32_t n);
    void advance(uint32_t steps, uint32_t n)
    {
        for (uint32_t s = 0; s < steps; ++s)
            next(n);
    }
};

// True when `a` comes before `b` in the in-order sequence, by heap index and depth only.
bool inorder_before(const Inorder_iterator& a, const Inorder_iterator& b);

// Number of nodes in the subtree of `root` in a tree of `n` nodes.
uint32_t subtree_size(uint32_t root, uint32_t n);

// Builds the tree in place: reorders `positions` (3 floats per record) and the records of `data`
// and writes the split axis of every inner node to `axes[node]` (0 x, 1 y, 2 z). `axes` must
// hold at least n bytes. n may be 0.
void build_tree(float* positions, Paged_array& data, uint8_t* axes, uint32_t n);

// Read-only view of a balanced tree for the query.
struct Tree_view {
    const float* positions;
    const Paged_array* data;
    const uint8_t* axes;
    uint32_t count;
};

// Growing max-heap of the query; storage belongs to the caller (the handle).
struct Query_heap {
    float* distance_squared;
    const float** position;
    const void** record;
    uint32_t capacity;
};

// The nearest-records query. Returns how many were found and leaves them in heap array order in
// `heap`; `limit_squared` ends as the squared search radius (max_distance squared unless the heap
// filled up). `accept` may be null, which takes the plain path.
uint32_t tree_query(const Tree_view& tree, const float* query, uint32_t max_count,
                    float* limit_squared, Query_heap& heap, Kdtree_accept accept,
                    void* accept_argument);

}  // namespace QV::LIB::detail
