// The global tree of a map: one box per page, a tree over those boxes, its stored forms, the
// merge of another file's tree and the bottom-up refit.
//
// Stored form (map files and database streams alike), little-endian as in memory:
//   u32 dimension N, u32 box count P, u32 node count K, u32 item count I,
//   P boxes (N floats minimum, N floats maximum), K nodes (12 + 8 N bytes each), I u32 items.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_bvh.h"
#include "maps/map_impl.h"
#include "maps/map_page_store.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "serial/serializer.h"

namespace QV::RCMAP {

namespace {

// Counts a stored record may claim; beyond them the record is taken as damaged rather than
// trusted with an allocation.
constexpr uint32_t MAX_STORED_COUNT = 1u << 28;

void destroy_global_bvh(Map_global_bvh_base* bvh)
{
    delete bvh;
}

template <uint32_t N>
inline void grow(Map_bvh_box<N>& box, const float* minimum, const float* maximum)
{
    for (uint32_t a = 0; a < N; ++a) {
        box.minimum[a] = std::min(box.minimum[a], minimum[a]);
        box.maximum[a] = std::max(box.maximum[a], maximum[a]);
    }
}

template <uint32_t N>
inline void set_empty(float* minimum, float* maximum)
{
    for (uint32_t a = 0; a < N; ++a) {
        minimum[a] = 1.0e36f;
        maximum[a] = -1.0e36f;
    }
}

// Checks that a node list holds together: children after their parent and inside the list,
// leaf items inside the item list, items inside the box list.
template <uint32_t N>
bool consistent(const std::vector<Map_bvh_node<N>>& nodes, const std::vector<uint32_t>& items, uint32_t boxes)
{
    uint64_t count = nodes.size();
    for (uint64_t i = 0; i < count; ++i) {
        const Map_bvh_node<N>& node = nodes[i];
        if (node.first_item == MAP_BVH_INNER) {
            if (node.count == 0 || node.first_child <= i || uint64_t(node.first_child) + node.count > count)
                return false;
        } else if (uint64_t(node.first_item) + node.count > items.size()) {
            return false;
        }
    }
    for (uint32_t item : items)
        if (item >= boxes)
            return false;
    return true;
}

} // namespace

uint32_t map_bvh_page_elements(const Map_page_store& store, uint32_t size, uint32_t page)
{
    for (const Map_segment& segment : store.segments())
        if (page >= segment.first_page && page <= segment.last_page)
            return page == segment.last_page ? segment.last_page_count : segment.elements_per_page;
    uint64_t first = 0;
    if (!store.segments().empty()) {
        const Map_segment& last = store.segments().back();
        if (page <= last.last_page)
            return 0;
        first = uint64_t(last.last_element) + 1 + uint64_t(page - last.last_page - 1) * store.elements_per_page;
    } else {
        first = uint64_t(page) * store.elements_per_page;
    }
    return first >= size ? 0 : uint32_t(std::min<uint64_t>(store.elements_per_page, size - first));
}

// ---- Building -------------------------------------------------------------------------

template <uint32_t N>
void Map_global_bvh<N>::reset(uint32_t pages)
{
    index_.drop();
    nodes_.clear();
    items_.clear();
    boxes_.resize(pages);
    for (Box& box : boxes_)
        set_empty<N>(box.minimum, box.maximum);
    valid_ = false;
}

template <uint32_t N>
void Map_global_bvh<N>::add_to_box(uint32_t page, const float* position)
{
    index_.drop();
    grow<N>(boxes_[page], position, position);
}

template <uint32_t N>
bool Map_global_bvh<N>::build()
{
    Module_scope scope(MOD_RCMP);
    index_.drop();
    nodes_.clear();
    items_.clear();
    valid_ = false;
    for (const Box& box : boxes_)
        if (box.minimum[0] > box.maximum[0])
            return false;   // a page without a box: only a full build can give it one
    std::unique_ptr<Map_bvh_scratch, void (*)(Map_bvh_scratch*)> scratch(map_bvh_scratch_create(),
                                                                         map_bvh_scratch_destroy);
    static_assert(sizeof(Box) == 2 * N * sizeof(float), "boxes are read as a float array");
    map_bvh_build_tree<N>(reinterpret_cast<const float*>(boxes_.data()), uint32_t(boxes_.size()),
                          MAP_BVH_GLOBAL_LEAF_SIZE, nodes_, items_, *scratch);
    valid_ = true;
    return true;
}

template <uint32_t N>
bool Map_global_bvh<N>::add_subtree(const Map_global_bvh_base& other, uint32_t first_page)
{
    const Map_global_bvh_base* list[1] = {&other};
    return add_subtrees(list, &first_page, 1);
}

template <uint32_t N>
bool Map_global_bvh<N>::add_subtrees(const Map_global_bvh_base* const* others, const uint32_t* first_pages,
                                     uint32_t count)
{
    Module_scope scope(MOD_RCMP);
    index_.drop();
    for (uint32_t i = 0; i < count; ++i)
        if (!others[i] || others[i]->dimension() != N)
            return false;
    double* timer = msg_timer_start();
    for (uint32_t i = 0; i < count; ++i) {
        const auto& other = static_cast<const Map_global_bvh<N>&>(*others[i]);
        uint32_t first_page = first_pages[i];
        // Boxes of the new pages take their places in the box list.
        if (boxes_.size() < first_page + other.boxes_.size()) {
            size_t old = boxes_.size();
            boxes_.resize(first_page + other.boxes_.size());
            for (size_t p = old; p < boxes_.size(); ++p)
                set_empty<N>(boxes_[p].minimum, boxes_[p].maximum);
        }
        std::copy(other.boxes_.begin(), other.boxes_.end(), boxes_.begin() + first_page);
        if (other.nodes_.empty())
            continue;
        uint32_t item_base = uint32_t(items_.size());
        for (uint32_t item : other.items_)
            items_.push_back(item + first_page);
        if (nodes_.empty()) {
            nodes_ = other.nodes_;
            for (Node& node : nodes_)
                if (node.first_item != MAP_BVH_INNER)
                    node.first_item += item_base;
            continue;
        }
        // The other root becomes one more child of this root; a leaf root, or one that has its
        // full number of children, is first pushed down under a new one. Children must stay
        // adjacent and after their parent, so the whole tree is laid out anew, breadth first.
        struct Ref {
            bool other;
            uint32_t index;
        };
        std::vector<Ref> root_children;
        const Node& old_root = nodes_[0];
        if (old_root.first_item == MAP_BVH_INNER && old_root.count < MAP_BVH_MAX_CHILDREN) {
            for (uint32_t c = 0; c < old_root.count; ++c)
                root_children.push_back({false, old_root.first_child + c});
        } else {
            root_children.push_back({false, 0});
        }
        root_children.push_back({true, 0});

        std::vector<Node> laid;
        std::vector<Ref> queue;
        laid.reserve(nodes_.size() + other.nodes_.size() + 1);
        Node root = old_root;
        for (uint32_t a = 0; a < N; ++a) {
            root.minimum[a] = std::min(old_root.minimum[a], other.nodes_[0].minimum[a]);
            root.maximum[a] = std::max(old_root.maximum[a], other.nodes_[0].maximum[a]);
        }
        root.count = uint32_t(root_children.size());
        root.first_item = MAP_BVH_INNER;
        root.first_child = 1;
        laid.push_back(root);
        queue.push_back({false, 0});   // placeholder for the root, already laid
        for (const Ref& child : root_children) {
            laid.push_back(child.other ? other.nodes_[child.index] : nodes_[child.index]);
            queue.push_back(child);
        }
        for (size_t at = 1; at < laid.size(); ++at) {
            Ref ref = queue[at];
            const std::vector<Node>& source = ref.other ? other.nodes_ : nodes_;
            if (laid[at].first_item != MAP_BVH_INNER) {
                if (ref.other)
                    laid[at].first_item += item_base;
                continue;
            }
            uint32_t first = source[ref.index].first_child;
            uint32_t children = source[ref.index].count;
            laid[at].first_child = uint32_t(laid.size());
            for (uint32_t c = 0; c < children; ++c) {
                laid.push_back(source[first + c]);
                queue.push_back({ref.other, first + c});
            }
        }
        nodes_.swap(laid);
    }
    valid_ = true;
    if (store_) {
        char what[64];
        snprintf(what, sizeof what, "building the global BVH for map %u", uint32_t(store_->map_id));
        msg_timer_report(timer, what);
    }
    msg_timer_free(timer);
    return true;
}

// ---- Stored forms -----------------------------------------------------------------------

template <uint32_t N>
bool Map_global_bvh<N>::write(FILE* stream) const
{
    uint32_t header[4] = {N, uint32_t(boxes_.size()), uint32_t(nodes_.size()), uint32_t(items_.size())};
    if (fwrite(header, sizeof header, 1, stream) != 1)
        return false;
    if (!boxes_.empty() && fwrite(boxes_.data(), sizeof(Box), boxes_.size(), stream) != boxes_.size())
        return false;
    if (!nodes_.empty() && fwrite(nodes_.data(), sizeof(Node), nodes_.size(), stream) != nodes_.size())
        return false;
    if (!items_.empty() && fwrite(items_.data(), sizeof(uint32_t), items_.size(), stream) != items_.size())
        return false;
    return true;
}

template <uint32_t N>
bool Map_global_bvh<N>::read(FILE* stream, bool)
{
    Module_scope scope(MOD_RCMP);
    reset(0);
    uint32_t header[4];
    if (fread(header, sizeof header, 1, stream) != 1 || header[0] != N || header[1] > MAX_STORED_COUNT ||
        header[2] > MAX_STORED_COUNT || header[3] > MAX_STORED_COUNT)
        return false;
    boxes_.resize(header[1]);
    nodes_.resize(header[2]);
    items_.resize(header[3]);
    bool ok = (boxes_.empty() || fread(boxes_.data(), sizeof(Box), boxes_.size(), stream) == boxes_.size()) &&
              (nodes_.empty() || fread(nodes_.data(), sizeof(Node), nodes_.size(), stream) == nodes_.size()) &&
              (items_.empty() || fread(items_.data(), sizeof(uint32_t), items_.size(), stream) == items_.size()) &&
              consistent<N>(nodes_, items_, uint32_t(boxes_.size()));
    if (!ok) {
        reset(0);
        return false;
    }
    valid_ = true;
    return true;
}

template <uint32_t N>
const void* Map_global_bvh<N>::serialize(QV::SERIAL::Serializer* serializer) const
{
    serializer->write(uint32_t(N));
    serializer->write(uint32_t(boxes_.size()));
    serializer->write(uint32_t(nodes_.size()));
    serializer->write(uint32_t(items_.size()));
    serializer->write(valid_);
    serializer->write(boxes_.data(), boxes_.size() * sizeof(Box));
    serializer->write(nodes_.data(), nodes_.size() * sizeof(Node));
    serializer->write(items_.data(), items_.size() * sizeof(uint32_t));
    return this + 1;
}

template <uint32_t N>
void* Map_global_bvh<N>::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    reset(0);
    uint32_t dimension = 0, boxes = 0, nodes = 0, items = 0;
    bool valid = false;
    deserializer->read(&dimension);
    deserializer->read(&boxes);
    deserializer->read(&nodes);
    deserializer->read(&items);
    deserializer->read(&valid);
    if (dimension != N || boxes > MAX_STORED_COUNT || nodes > MAX_STORED_COUNT || items > MAX_STORED_COUNT)
        return this + 1;
    boxes_.resize(boxes);
    nodes_.resize(nodes);
    items_.resize(items);
    bool ok = deserializer->read(boxes_.data(), boxes_.size() * sizeof(Box)) == boxes_.size() * sizeof(Box) &&
              deserializer->read(nodes_.data(), nodes_.size() * sizeof(Node)) == nodes_.size() * sizeof(Node) &&
              deserializer->read(items_.data(), items_.size() * sizeof(uint32_t)) == items_.size() * sizeof(uint32_t) &&
              consistent<N>(nodes_, items_, boxes);
    if (!ok)
        reset(0);
    else
        valid_ = valid;
    return this + 1;
}

template <uint32_t N>
Map_global_bvh_base* Map_global_bvh<N>::copy(Map_page_store* store) const
{
    auto* result = new Map_global_bvh<N>(*this);
    result->store_ = store;
    return result;
}

// ---- Refit --------------------------------------------------------------------------------

template <uint32_t N>
void Map_global_bvh<N>::refit(Map_impl& map)
{
    Module_scope scope(MOD_RCMP);
    index_.drop();
    Map_page_store& store = map.page_store();
    uint32_t element_bytes = store.element_bytes;
    uint32_t tree_offset = store.elements_per_page * element_bytes;
    auto position = [&](const uint8_t* page, uint32_t slot) {
        return reinterpret_cast<const float*>(page + size_t(slot) * element_bytes);
    };
    for (uint32_t p = 0; p < boxes_.size(); ++p) {
        uint32_t count = map_bvh_page_elements(store, map.committed_size(), p);
        Box& box = boxes_[p];
        set_empty<N>(box.minimum, box.maximum);
        const uint8_t* view = store.get_page(p, true);
        uint32_t node_count = 0;
        memcpy(&node_count, view + tree_offset, 4);
        if (node_count == 0 || 4 + size_t(node_count) * sizeof(Node) > MAP_FILE_PAGE_BYTES - tree_offset) {
            for (uint32_t slot = 0; slot < count; ++slot)
                grow<N>(box, position(view, slot), position(view, slot));
            continue;
        }
        // Children lie after their parents, so a backward pass sees every child first.
        uint8_t* page = store.get_page(p, false);
        Node* nodes = reinterpret_cast<Node*>(page + tree_offset + 4);
        for (uint32_t j = node_count; j-- > 0;) {
            Node& node = nodes[j];
            Box fitted;
            set_empty<N>(fitted.minimum, fitted.maximum);
            if (node.first_item == MAP_BVH_INNER) {
                for (uint32_t c = 0; c < node.count && node.first_child + c < node_count; ++c)
                    grow<N>(fitted, nodes[node.first_child + c].minimum, nodes[node.first_child + c].maximum);
            } else {
                for (uint32_t slot = node.first_item; slot < node.first_item + node.count && slot < count; ++slot)
                    grow<N>(fitted, position(page, slot), position(page, slot));
            }
            memcpy(node.minimum, fitted.minimum, sizeof(float) * N);
            memcpy(node.maximum, fitted.maximum, sizeof(float) * N);
        }
        memcpy(box.minimum, nodes[0].minimum, sizeof(float) * N);
        memcpy(box.maximum, nodes[0].maximum, sizeof(float) * N);
    }
    for (size_t j = nodes_.size(); j-- > 0;) {
        Node& node = nodes_[j];
        Box fitted;
        set_empty<N>(fitted.minimum, fitted.maximum);
        if (node.first_item == MAP_BVH_INNER) {
            for (uint32_t c = 0; c < node.count; ++c)
                grow<N>(fitted, nodes_[node.first_child + c].minimum, nodes_[node.first_child + c].maximum);
        } else {
            for (uint32_t i = 0; i < node.count; ++i)
                grow<N>(fitted, boxes_[items_[node.first_item + i]].minimum, boxes_[items_[node.first_item + i]].maximum);
        }
        memcpy(node.minimum, fitted.minimum, sizeof(float) * N);
        memcpy(node.maximum, fitted.maximum, sizeof(float) * N);
    }
}

// ---- Creation -----------------------------------------------------------------------------

Map_global_bvh_base* map_global_bvh_create(uint32_t dimension, Map_page_store* store)
{
    // The map frees what it owns through this hook; set before the first tree exists, once,
    // since maps on several threads may make their trees at the same time.
    static std::once_flag hooked;
    std::call_once(hooked, [] { map_global_bvh_destroy = destroy_global_bvh; });
    switch (dimension) {
    case 1: return new Map_global_bvh<1>(store);
    case 2: return new Map_global_bvh<2>(store);
    case 3: return new Map_global_bvh<3>(store);
    case 4: return new Map_global_bvh<4>(store);
    case 5: return new Map_global_bvh<5>(store);
    case 6: return new Map_global_bvh<6>(store);
    default: return nullptr;
    }
}

template class Map_global_bvh<1>;
template class Map_global_bvh<2>;
template class Map_global_bvh<3>;
template class Map_global_bvh<4>;
template class Map_global_bvh<5>;
template class Map_global_bvh<6>;

} // namespace QV::RCMAP
