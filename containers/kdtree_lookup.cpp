// Nearest-records query over the implicit tree, and its public face kdtree_lookup.
//
// The descent touches only positions and axes; a record's address is computed when it enters
// the heap. The accepting and the plain query are separate instantiations, so the plain one has
// no indirect call in its loop.
#include <algorithm>
#include <cmath>

#include "base/lib/mem/i_mem_allocatable.h"
#include "containers/kdtree.h"
#include "containers/kdtree_tree.h"
#include "containers/paged_array.h"
#include "runtime/msg.h"

namespace QV::LIB::detail {

namespace {

// Restores the max-heap property below `slot` in the three parallel arrays.
void sift_down(Query_heap& heap, uint32_t slot, uint32_t size)
{
    const float distance = heap.distance_squared[slot];
    const float* position = heap.position[slot];
    const void* record = heap.record[slot];
    for (;;) {
        uint32_t child = 2 * slot + 1;
        if (child >= size)
            break;
        if (child + 1 < size && heap.distance_squared[child + 1] > heap.distance_squared[child])
            ++child;
        if (!(heap.distance_squared[child] > distance))
            break;
        heap.distance_squared[slot] = heap.distance_squared[child];
        heap.position[slot] = heap.position[child];
        heap.record[slot] = heap.record[child];
        slot = child;
    }
    heap.distance_squared[slot] = distance;
    heap.position[slot] = position;
    heap.record[slot] = record;
}

template <bool ACCEPT>
class Query {
public:
    Query(const Tree_view& tree, const float* query, uint32_t max_count, float limit_squared,
          Query_heap& heap, Kdtree_accept accept, void* accept_argument)
        : positions_(tree.positions), axes_(tree.axes), data_(tree.data), n_(tree.count),
          query_{query[0], query[1], query[2]}, max_count_(max_count), limit_(limit_squared),
          heap_(heap), accept_(accept), accept_argument_(accept_argument)
    {
    }

    uint32_t run()
    {
        if (n_ != 0)
            visit(1);
        return found_;
    }

    float limit() const { return limit_; }

private:
    void visit(uint32_t node)
    {
        const float* p = positions_ + 3 * size_t(node - 1);
        const uint64_t left = 2 * uint64_t(node);
        if (left <= n_) {
            const int axis = axes_[node];
            const float delta = query_[axis] - p[axis];
            // Records equal to the split may lie on either side, hence `>` and not `>=` below.
            if (delta < 0) {
                visit(uint32_t(left));
                if (limit_ > delta * delta && left < n_)
                    visit(uint32_t(left + 1));
            } else {
                if (left < n_)
                    visit(uint32_t(left + 1));
                if (limit_ > delta * delta)
                    visit(uint32_t(left));
            }
        }
        const float dx = p[0] - query_[0];
        const float dy = p[1] - query_[1];
        const float dz = p[2] - query_[2];
        const float distance = (dx * dx + dy * dy) + dz * dz;
        if (distance > limit_)
            return;
        if constexpr (ACCEPT) {
            if (!accept_(accept_argument_, data_->at(node - 1), p))
                return;
        }
        insert(distance, p, data_->at(node - 1));
    }

    void insert(float distance, const float* position, const void* record)
    {
        if (found_ < max_count_) {
            heap_.distance_squared[found_] = distance;
            heap_.position[found_] = position;
            heap_.record[found_] = record;
            if (++found_ == max_count_) {
                for (uint32_t slot = found_ / 2; slot-- > 0;)
                    sift_down(heap_, slot, found_);
                limit_ = heap_.distance_squared[0];
            }
            return;
        }
        if (!(heap_.distance_squared[0] > distance))
            return;
        heap_.distance_squared[0] = distance;
        heap_.position[0] = position;
        heap_.record[0] = record;
        sift_down(heap_, 0, found_);
        limit_ = heap_.distance_squared[0];
    }

    const float* positions_;
    const uint8_t* axes_;
    const Paged_array* data_;
    uint32_t n_;
    float query_[3];
    uint32_t max_count_;
    float limit_;
    uint32_t found_ = 0;
    Query_heap& heap_;
    Kdtree_accept accept_;
    void* accept_argument_;
};

}  // namespace

uint32_t tree_query(const Tree_view& tree, const float* query, uint32_t max_count,
                    float* limit_squared, Query_heap& heap, Kdtree_accept accept,
                    void* accept_argument)
{
    if (accept) {
        Query<true> q(tree, query, max_count, *limit_squared, heap, accept, accept_argument);
        const uint32_t found = q.run();
        *limit_squared = q.limit();
        return found;
    }
    Query<false> q(tree, query, max_count, *limit_squared, heap, nullptr, nullptr);
    const uint32_t found = q.run();
    *limit_squared = q.limit();
    return found;
}

}  // namespace QV::LIB::detail

using namespace QV::LIB;

namespace {

void grow_heap(Kdtree_handle* handle, uint32_t max_count)
{
    const uint32_t capacity = std::max(max_count, uint32_t(double(handle->heap_capacity) * 1.4));
    if (handle->heap_distance_squared) {
        QV_FREE(handle->heap_distance_squared);
        QV_FREE(handle->heap_position);
        QV_FREE(handle->heap_record);
    }
    handle->heap_distance_squared = static_cast<float*>(QV_ALLOC(sizeof(float) * capacity));
    handle->heap_position = static_cast<const float**>(QV_ALLOC(sizeof(float*) * capacity));
    handle->heap_record = static_cast<const void**>(QV_ALLOC(sizeof(void*) * capacity));
    handle->heap_capacity = capacity;
}

}  // namespace

uint32_t kdtree_lookup(Kdtree_handle* handle, const float* query, uint32_t max_count,
                       float max_distance, float* found_distance, Kdtree_callback callback,
                       void* argument, Kdtree_accept accept, void* accept_argument)
{
    Module_scope scope(MOD_LIB);
    if (!handle->header) {
        msg_error_n(52, "Cannot lookup kdtree 0x%x: not opened for reading", handle->tag);
        return 0;
    }
    if (max_count == 0)
        return 0;
    if (max_count > handle->heap_capacity)
        grow_heap(handle, max_count);

    const detail::Tree_view tree{handle->positions, handle->data_access, handle->axes, handle->header->count};
    detail::Query_heap heap{handle->heap_distance_squared, handle->heap_position, handle->heap_record,
                            handle->heap_capacity};
    float limit = max_distance * max_distance;
    const uint32_t found = detail::tree_query(tree, query, max_count, &limit, heap, accept, accept_argument);

    if (found_distance)
        *found_distance = std::sqrt(limit);
    if (callback) {
        for (uint32_t i = 0; i < found; ++i)
            if (!callback(argument, heap.record[i], heap.position[i]))
                break;
    }
    return found;
}
