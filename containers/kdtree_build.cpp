// Building the implicit tree in place: each inner node is chosen by a quickselect over the
// in-order sequence of its subtree, so that everything left of it in that sequence (its left
// subtree) has a key not above its own and everything right of it one not below.
//
// The selections move positions and record numbers only, in an array in in-order rank order;
// the records themselves are put into the tree's order at the end.
#include <algorithm>
#include <bit>
#include <cstring>
#include <latch>
#include <memory>
#include <vector>

#include "containers/kdtree_tree.h"
#include "containers/paged_array.h"
#include "runtime/threads.h"

namespace QV::LIB::detail {

namespace {

uint32_t depth_of(uint32_t node) { return uint32_t(std::bit_width(node)) - 1; }

}  // namespace

Inorder_iterator Inorder_iterator::first(uint32_t root, uint32_t n)
{
    Inorder_iterator it{root, depth_of(root), 0};
    while (2 * uint64_t(it.node) <= n) {
        it.node *= 2;
        ++it.depth;
    }
    return it;
}

Inorder_iterator Inorder_iterator::last(uint32_t root, uint32_t n, uint32_t size)
{
    Inorder_iterator it{root, depth_of(root), size - 1};
    while (2 * uint64_t(it.node) + 1 <= n) {
        it.node = it.node * 2 + 1;
        ++it.depth;
    }
    return it;
}

void Inorder_iterator::next(uint32_t n)
{
    ++rank;
    if (2 * uint64_t(node) + 1 <= n) {
        // Leftmost node of the right subtree.
        node = node * 2 + 1;
        ++depth;
        while (2 * uint64_t(node) <= n) {
            node *= 2;
            ++depth;
        }
        return;
    }
    // Up past every ancestor of which we are the right child; the next one up follows.
    while (node > 1 && (node & 1u)) {
        node >>= 1;
        --depth;
    }
    node >>= 1;
    --depth;
}

void Inorder_iterator::prev(uint32_t n)
{
    --rank;
    if (2 * uint64_t(node) <= n) {
        node *= 2;
        ++depth;
        while (2 * uint64_t(node) + 1 <= n) {
            node = node * 2 + 1;
            ++depth;
        }
        return;
    }
    while (node > 1 && !(node & 1u)) {
        node >>= 1;
        --depth;
    }
    node >>= 1;
    --depth;
}

bool inorder_before(const Inorder_iterator& a, const Inorder_iterator& b)
{
    if (a.node == b.node)
        return false;
    if (a.depth > b.depth) {
        const uint32_t shift = a.depth - b.depth;
        const uint32_t ancestor = a.node >> shift;
        if (ancestor == b.node)
            return ((a.node >> (shift - 1)) & 1u) == 0;  // a lies in b's left subtree
        return ancestor < b.node;
    }
    if (b.depth > a.depth) {
        const uint32_t shift = b.depth - a.depth;
        const uint32_t ancestor = b.node >> shift;
        if (ancestor == a.node)
            return ((b.node >> (shift - 1)) & 1u) == 1;  // b lies in a's right subtree
        return a.node < ancestor;
    }
    return a.node < b.node;
}

uint32_t subtree_size(uint32_t root, uint32_t n)
{
    uint64_t size = 0;
    for (uint64_t low = root, high = root; low <= n; low = 2 * low, high = 2 * high + 1)
        size += std::min<uint64_t>(high, n) - low + 1;
    return uint32_t(size);
}

namespace {

class Builder {
public:
    Builder(float* positions, Paged_array& data, uint8_t* axes, uint32_t n)
        : positions_(positions), data_(data), axes_(axes), n_(n), record_size_(data.element_size())
    {
    }

    void run()
    {
        if (n_ == 0)
            return;
        float low[3] = {positions_[0], positions_[1], positions_[2]};
        float high[3] = {low[0], low[1], low[2]};
        for (uint32_t i = 1; i < n_; ++i) {
            const float* p = positions_ + 3 * size_t(i);
            for (int a = 0; a < 3; ++a) {
                low[a] = std::min(low[a], p[a]);
                high[a] = std::max(high[a], p[a]);
            }
        }
        // The subtree of a node covers a contiguous range of in-order ranks, so the selections
        // work on an array in rank order: plain indices instead of walks over the heap layout,
        // and neighbours in the sequence are neighbours in memory. Slot r starts with the record
        // of the node at rank r, as the heap layout holds it.
        // Every slot is written below: no clearing of the arrays first.
        keys_.reset(new Key[n_]);
        Inorder_iterator it = Inorder_iterator::first(1, n_);
        for (uint32_t r = 0; r < n_; ++r, it.next(n_)) {
            Key& key = keys_[r];
            std::memcpy(key.pos, positions_ + 3 * size_t(it.node - 1), sizeof key.pos);
            key.source = it.node - 1;
        }
        build(1, 0, low, high);
        // Back into the heap layout; the record now at position p goes to slot destination_[p].
        destination_.reset(new uint32_t[n_]);
        it = Inorder_iterator::first(1, n_);
        for (uint32_t r = 0; r < n_; ++r, it.next(n_)) {
            std::memcpy(positions_ + 3 * size_t(it.node - 1), keys_[r].pos, sizeof keys_[r].pos);
            destination_[keys_[r].source] = it.node - 1;
        }
        keys_.reset();
        permute_records();
    }

private:
    struct Key {
        float pos[3];
        uint32_t source;   // record number
    };

    float key(uint32_t rank, int axis) const { return keys_[rank].pos[axis]; }

    void swap_keys(uint32_t a, uint32_t b)
    {
        if (a != b)
            std::swap(keys_[a], keys_[b]);
    }

    // Moves every record to its slot in destination_. Following the permutation's cycles
    // directly over a large array waits on one cache miss per record, each step's index coming
    // from the previous one. So the records are first distributed into groups of consecutive
    // slots small enough for the cache, each group filling from its front as a stream (an
    // exchange places one record in its group), and then each group's cycles are followed
    // within the cache.
    void permute_records()
    {
        // The usual payload's size, known to the compiler, turns each copy into a few moves.
        constexpr uint32_t USUAL_RECORD_BYTES = 92;
        if (record_size_ == USUAL_RECORD_BYTES)
            permute_records_sized([](void* to, const void* from) { std::memcpy(to, from, USUAL_RECORD_BYTES); });
        else
            permute_records_sized([size = record_size_](void* to, const void* from) { std::memcpy(to, from, size); });
    }

    template <class Copy>
    void permute_records_sized(Copy copy)
    {
        uint32_t shift = 12;
        while ((n_ - 1) >> shift > 1024)
            ++shift;
        const uint32_t groups = ((n_ - 1) >> shift) + 1;
        std::vector<uint32_t> front(groups);
        for (uint32_t g = 0; g < groups; ++g)
            front[g] = g << shift;
        std::vector<uint8_t> buffers(2 * size_t(record_size_));
        uint8_t* held = buffers.data();
        uint8_t* spare = held + record_size_;
        uint32_t* const destination = destination_.get();
        for (uint32_t g = 0; g + 1 < groups; ++g) {
            const uint32_t end = (g + 1) << shift;
            for (uint32_t& place = front[g]; place < end; ++place) {
                uint32_t to = destination[place];
                if (to >> shift == g)
                    continue;
                // Carried from group to group until one that belongs here turns up.
                copy(held, data_.at(place));
                do {
                    const uint32_t other = to >> shift;
                    uint32_t slot = front[other];
                    while (destination[slot] >> shift == other)
                        ++slot;
                    front[other] = slot + 1;
                    __builtin_prefetch(data_.at(std::min(slot + 2, n_ - 1)), 1);
                    uint8_t* record = data_.at(slot);
                    copy(spare, record);
                    copy(record, held);
                    std::swap(held, spare);
                    std::swap(to, destination[slot]);
                } while (to >> shift != g);
                copy(data_.at(place), held);
                destination[place] = to;
            }
        }
        // Within a group: each cycle once, one record held aside; a placed slot points at itself.
        // The group's slots fit in the cache, its records not always in the nearest: a runner a
        // few steps ahead along the cycle fetches them.
        constexpr int AHEAD = 6;
        for (uint32_t start = 0; start < n_; ++start) {
            uint32_t to = destination[start];
            if (to == start)
                continue;
            copy(held, data_.at(start));
            uint32_t runner = to;
            for (int k = 0; k < AHEAD && runner != start; ++k)
                runner = destination[runner];
            do {
                if (runner != start) {
                    const uint8_t* ahead = data_.at(runner);
                    __builtin_prefetch(ahead, 1);
                    __builtin_prefetch(ahead + record_size_ - 1, 1);
                    runner = destination[runner];
                }
                uint8_t* record = data_.at(to);
                copy(spare, record);
                copy(record, held);
                std::swap(held, spare);
                const uint32_t next = destination[to];
                destination[to] = to;
                to = next;
            } while (to != start);
            copy(data_.at(start), held);
            destination[start] = start;
        }
    }

    void order(uint32_t a, uint32_t b, int axis)
    {
        if (key(a, axis) > key(b, axis))
            swap_keys(a, b);
    }

    // The exchanges of the partition below pair the k-th key from the left that stops the
    // left scan (not below the pivot) with the k-th from the right that stops the right scan
    // (not above it), for as long as the two scans have not met. While the unscanned gap holds
    // whole blocks, the stops of a block are listed without a branch per key and paired off the
    // lists: the same exchanges as the scans would make, in another order (the pairs are
    // disjoint). `*i` and `*j` are left at the last pair exchanged, so the scans carry on from
    // there over keys that are still in their places, the listed stops not yet paired included.
    void partition_blocks(uint32_t* i, uint32_t* j, float pivot, int axis)
    {
        constexpr uint32_t BLOCK = 128;
        uint32_t left[BLOCK];
        uint32_t right[BLOCK];
        uint32_t left_count = 0, left_done = 0, right_count = 0, right_done = 0;
        uint32_t low = *i + 1;   // first key neither scan has listed
        uint32_t high = *j - 1;  // last such key
        Key* const keys = keys_.get();
        for (;;) {
            if (left_done == left_count) {
                if (high < low || high - low + 1 < BLOCK)
                    break;
                left_count = left_done = 0;
                for (uint32_t t = 0; t < BLOCK; ++t) {
                    left[left_count] = low + t;
                    left_count += !(keys[low + t].pos[axis] < pivot);
                }
                low += BLOCK;
            }
            if (right_done == right_count) {
                if (high < low || high - low + 1 < BLOCK)
                    break;
                right_count = right_done = 0;
                for (uint32_t t = 0; t < BLOCK; ++t) {
                    right[right_count] = high - t;
                    right_count += !(keys[high - t].pos[axis] > pivot);
                }
                high -= BLOCK;
            }
            const uint32_t pairs = std::min(left_count - left_done, right_count - right_done);
            for (uint32_t k = 0; k < pairs; ++k)
                std::swap(keys[left[left_done + k]], keys[right[right_done + k]]);
            if (pairs) {
                left_done += pairs;
                right_done += pairs;
                *i = left[left_done - 1];
                *j = right[right_done - 1];
            }
        }
    }

    // Puts the record that belongs at rank `target` there, with smaller keys before it in the
    // ranks [l, r] and larger ones after.
    void select(uint32_t l, uint32_t r, uint32_t target, int axis)
    {
        for (;;) {
            if (r <= l + 1) {
                if (r == l + 1)
                    order(l, r, axis);
                return;
            }
            // Median of three, with the middle moved next to l as the pivot.
            const uint32_t middle = l + (r - l) / 2;
            const uint32_t l1 = l + 1;
            swap_keys(middle, l1);
            order(l, r, axis);
            order(l1, r, axis);
            order(l, l1, axis);
            const float pivot = key(l1, axis);
            uint32_t i = l1;
            uint32_t j = r;
            partition_blocks(&i, &j, pivot, axis);
            for (;;) {
                do
                    ++i;
                while (key(i, axis) < pivot);
                do
                    --j;
                while (key(j, axis) > pivot);
                if (j < i)
                    break;
                swap_keys(i, j);
            }
            swap_keys(l1, j);
            if (j >= target)
                r = j - 1;
            if (target >= j)
                l = i;
        }
    }

    // `base`: the in-order rank of the first node of `node`'s subtree. The two subtrees of a
    // node cover disjoint ranges of ranks and nodes, so below the root, when the tree is large,
    // the left one is built on a second thread while this one builds the right: the same
    // selections on the same ranges, so the same tree.
    void build(uint32_t node, uint32_t base, float* low, float* high)
    {
        if (2 * uint64_t(node) > n_)
            return;  // a leaf carries no axis

        // Widest extent; ties go to the later axis.
        const float dx = high[0] - low[0];
        const float dy = high[1] - low[1];
        const float dz = high[2] - low[2];
        int axis;
        if (dx > dy)
            axis = dx > dz ? 0 : 2;
        else
            axis = dy > dz ? 1 : 2;
        axes_[node] = uint8_t(axis);

        const uint32_t size = subtree_size(node, n_);
        const uint32_t left = subtree_size(2 * node, n_);
        select(base, base + size - 1, base + left, axis);

        const float split = keys_[base + left].pos[axis];
        const bool has_right = 2 * uint64_t(node) + 1 <= n_;
        if (node == 1 && has_right && size >= PARALLEL_SIZE && processor_count() > 1) {
            Subtree job{this, 2 * node, base, {low[0], low[1], low[2]}, {high[0], high[1], high[2]}};
            job.high[axis] = split;
            std::latch done(1);
            const int row = thread_alloc(Subtree::run, &job, false);
            if (row >= 0)
                thread_notify_end(row, [](void* latch) { static_cast<std::latch*>(latch)->count_down(); }, &done);
            const bool started = row >= 0 && thread_start(row);
            if (!started) {
                Subtree::run(&job);
                done.count_down();
            }
            const float saved_low = low[axis];
            low[axis] = split;
            build(2 * node + 1, base + left + 1, low, high);
            low[axis] = saved_low;
            done.wait();
            return;
        }

        const float saved_high = high[axis];
        high[axis] = split;
        build(2 * node, base, low, high);
        high[axis] = saved_high;

        if (has_right) {
            const float saved_low = low[axis];
            low[axis] = split;
            build(2 * node + 1, base + left + 1, low, high);
            low[axis] = saved_low;
        }
    }

    // Below this many records a second thread costs more than it saves.
    static constexpr uint32_t PARALLEL_SIZE = 1u << 16;

    struct Subtree {
        Builder* builder;
        uint32_t node;
        uint32_t base;
        float low[3];
        float high[3];

        static void run(void* raw)
        {
            auto* job = static_cast<Subtree*>(raw);
            job->builder->build(job->node, job->base, job->low, job->high);
        }
    };

    float* positions_;
    Paged_array& data_;
    uint8_t* axes_;
    uint32_t n_;
    uint32_t record_size_;
    std::unique_ptr<Key[]> keys_;              // rank order while the tree is built
    std::unique_ptr<uint32_t[]> destination_;  // slot due to the record now at each position
};

}  // namespace

void build_tree(float* positions, Paged_array& data, uint8_t* axes, uint32_t n)
{
    Builder(positions, data, axes, n).run();
}

}  // namespace QV::LIB::detail
