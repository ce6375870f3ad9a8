// Nearest-first point search over a map's two tree levels.
//
// Global nodes come off a queue in order of distance; the pages of a leaf go on a second queue
// and are searched nearest first, each through its own page tree (or element by element when it
// has none). Results collect in a max-heap of the wanted size, whose top bounds the search as
// soon as it is full, so far pages are never fetched.
#include <algorithm>
#include <cstring>
#include <vector>

#include "maps/map_bvh.h"
#include "maps/map_page_store.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using qv::shader_v3::Map_lookup_entry;

namespace {

constexpr float MAX_SEARCH_DISTANCE = 5.0e35f;

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

// Heap order of the results: the farthest, then the highest index, on top.
inline bool nearer(const Map_lookup_entry& a, const Map_lookup_entry& b)
{
    return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
}

template <uint32_t N>
inline float box_distance(const float* minimum, const float* maximum, const float* point)
{
    float sum = 0.0f;
    for (uint32_t a = 0; a < N; ++a) {
        float d = point[a] < minimum[a] ? minimum[a] - point[a] : point[a] > maximum[a] ? point[a] - maximum[a] : 0.0f;
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

} // namespace

template <uint32_t N>
void Map_global_bvh<N>::find_nearest(const float* point, uint32_t max_count, float max_distance,
                                     uint32_t resume_index, float resume_distance,
                                     std::vector<Map_lookup_entry>& results)
{
    Module_scope scope(MOD_RCMP);
    results.clear();
    if (nodes_.empty() || max_count == 0 || !store_)
        return;
    float limit = std::min(max_distance, MAX_SEARCH_DISTANCE);
    bool resuming = resume_index != UINT32_MAX;
    Search_queues& queues = thread_queues();
    Farther farther;
    const uint32_t element_bytes = store_->element_bytes;
    const uint32_t tree_offset = store_->elements_per_page * element_bytes;

    auto offer = [&](uint32_t index, float distance) {
        if (distance > limit)
            return;
        if (resuming && (distance < resume_distance || (distance == resume_distance && index <= resume_index)))
            return;
        Map_lookup_entry entry = {index, distance};
        if (results.size() < max_count) {
            results.push_back(entry);
            std::push_heap(results.begin(), results.end(), nearer);
        } else if (nearer(entry, results.front())) {
            std::pop_heap(results.begin(), results.end(), nearer);
            results.back() = entry;
            std::push_heap(results.begin(), results.end(), nearer);
        } else {
            return;
        }
        if (results.size() == max_count)
            limit = results.front().distance;
    };

    auto search_page = [&](uint32_t page) {
        // Element numbers of the page come from the segment that holds it.
        uint32_t first_element = 0, held = 0;
        for (const Map_segment& segment : store_->segments()) {
            if (page >= segment.first_page && page <= segment.last_page) {
                first_element = segment.first_element + (page - segment.first_page) * segment.elements_per_page;
                held = page == segment.last_page ? segment.last_page_count : segment.elements_per_page;
                break;
            }
        }
        if (!held)
            return;
        const uint8_t* data = store_->get_page(page, true);
        auto position = [&](uint32_t slot) {
            return reinterpret_cast<const float*>(data + size_t(slot) * element_bytes);
        };
        uint32_t node_count = 0;
        memcpy(&node_count, data + tree_offset, 4);
        if (node_count == 0 || tree_offset + 4 + size_t(node_count) * sizeof(Node) > MAP_FILE_PAGE_BYTES) {
            for (uint32_t slot = 0; slot < held; ++slot)
                offer(first_element + slot, point_distance<N>(position(slot), point));
            return;
        }
        const Node* nodes = reinterpret_cast<const Node*>(data + tree_offset + 4);
        std::vector<Queued>& queue = queues.page_nodes;
        queue.clear();
        queue.push_back({box_distance<N>(nodes[0].minimum, nodes[0].maximum, point), 0});
        while (!queue.empty()) {
            std::pop_heap(queue.begin(), queue.end(), farther);
            Queued next = queue.back();
            queue.pop_back();
            if (next.distance > limit)
                break;
            const Node& node = nodes[next.index];
            if (node.first_item == MAP_BVH_INNER) {
                for (uint32_t c = 0; c < node.count; ++c) {
                    uint32_t child = node.first_child + c;
                    if (child >= node_count)
                        break;
                    float d = box_distance<N>(nodes[child].minimum, nodes[child].maximum, point);
                    if (d <= limit) {
                        queue.push_back({d, child});
                        std::push_heap(queue.begin(), queue.end(), farther);
                    }
                }
            } else {
                uint32_t end = std::min(node.first_item + node.count, held);
                for (uint32_t slot = node.first_item; slot < end; ++slot)
                    offer(first_element + slot, point_distance<N>(position(slot), point));
            }
        }
    };

    std::vector<Queued>& queue = queues.nodes;
    queue.clear();
    float root = box_distance<N>(nodes_[0].minimum, nodes_[0].maximum, point);
    if (root > limit)
        return;
    queue.push_back({root, 0});
    while (!queue.empty()) {
        std::pop_heap(queue.begin(), queue.end(), farther);
        Queued next = queue.back();
        queue.pop_back();
        if (next.distance > limit)
            break;
        const Node& node = nodes_[next.index];
        if (node.first_item == MAP_BVH_INNER) {
            for (uint32_t c = 0; c < node.count; ++c) {
                const Node& child = nodes_[node.first_child + c];
                float d = box_distance<N>(child.minimum, child.maximum, point);
                if (d <= limit) {
                    queue.push_back({d, node.first_child + c});
                    std::push_heap(queue.begin(), queue.end(), farther);
                }
            }
            continue;
        }
        std::vector<Queued>& pages = queues.pages;
        pages.clear();
        for (uint32_t k = node.first_item; k < node.first_item + node.count; ++k) {
            uint32_t page = items_[k];
            float d = box_distance<N>(boxes_[page].minimum, boxes_[page].maximum, point);
            if (d <= limit)
                pages.push_back({d, page});
        }
        std::sort(pages.begin(), pages.end(), [](const Queued& a, const Queued& b) {
            return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
        });
        for (const Queued& page : pages) {
            if (page.distance > limit)
                break;
            search_page(page.index);
        }
    }
}

template void Map_global_bvh<1>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);
template void Map_global_bvh<2>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);
template void Map_global_bvh<3>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);
template void Map_global_bvh<4>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);
template void Map_global_bvh<5>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);
template void Map_global_bvh<6>::find_nearest(const float*, uint32_t, float, uint32_t, float, std::vector<Map_lookup_entry>&);

} // namespace QV::RCMAP
