// Nearest-element searches over a map: QV::RCMAP::Map_lookup_impl, the iterator over its
// results, and the base of distance functions.
//
// A lookup keeps the (element index, distance) pairs of its last search in an array taken from
// a per-thread free list, so that a thread that searches again and again allocates nothing
// after its first searches. The pairs stay in the order of the search's max-heap (the farthest
// first) until sort() or sort_descending(). A search can be continued with next_batch(), which
// gives the next nearest elements after the farthest one seen so far.
//
// Thread rules: a lookup belongs to one thread; any number of lookups may search one map from
// many threads at once, as long as nobody rebuilds or edits the map meanwhile.
#pragma once

#include <cstdint>
#include <vector>

#include "maps/map_interfaces.h"

namespace QV::RCMAP {

class Map_impl;
using qv::shader_v3::Map_field_id;
using qv::shader_v3::Map_lookup_entry;
using qv::shader_v3::Map_status;

// A distance under which a lookup searches, built in or supplied by a caller. For exact
// answers the distance of a box (or of a page tree's node) must never exceed that of any
// element inside it: subtrees are skipped on that promise. Called from the searching thread
// only, many times per search, so it should be cheap.
class Map_distance_base_internal {
public:
    // Must equal the map's dimension, or the search answers MAP_LOOKUP_DIMENSION.
    virtual uint32_t get_dimension() const = 0;
    // An axis-aligned box of the global tree or a page's box: get_dimension() floats each.
    virtual float box_distance(const float* minimum, const float* maximum) const = 0;
    // A node of a page tree in its stored form: the minimum, then the maximum (get_dimension()
    // floats each), then count, first item and first child. The default takes its box.
    virtual float node_distance(const float* node) const { return box_distance(node, node + get_dimension()); }
    // An element, by its bytes in the map's layout (the position first).
    virtual float distance(const uint8_t* element) const = 0;
    virtual ~Map_distance_base_internal() = default;

protected:
    Map_distance_base_internal() = default;
    Map_distance_base_internal(const Map_distance_base_internal&) = default;
    Map_distance_base_internal& operator=(const Map_distance_base_internal&) = default;
};

// The distance of a box to the segment from `origin` along the unit `direction` for
// `length`, taken through the box's bounding sphere around its centre (3 floats each). 0 when
// the segment's line meets the sphere within reach, 1.0e36 for a sphere wholly behind the
// origin.
float map_segment_box_distance(const float* origin, const float* direction, float length, const float* minimum,
                               const float* maximum);
// The squared distance of a point to that segment.
float map_segment_point_distance(const float* origin, const float* direction, float length, const float* point);

// An array of results, recycled through the free list of the thread that gives it back.
struct Map_lookup_results {
    std::vector<Map_lookup_entry> entries;
};
// Takes an array (empty) from the calling thread's free list, or a new one.
Map_lookup_results* map_lookup_results_take();
// Gives an array back to the calling thread's free list (a full list frees it).
void map_lookup_results_give(Map_lookup_results* results);

// Search kinds, as `kind` holds them.
enum : uint32_t {
    MAP_LOOKUP_KIND_NONE = 0,
    MAP_LOOKUP_KIND_FUNCTION = 1,
    MAP_LOOKUP_KIND_POINT = 2,     // a point of the map's dimension, any dimension
    MAP_LOOKUP_KIND_POINT3 = 3,
    MAP_LOOKUP_KIND_SEGMENT3 = 4,
};

class Map_lookup_impl final : public qv::shader_v3::Map_lookup_base {
public:
    // `map` may be null: the lookup exists and every operation answers MAP_LOOKUP_NO_MAP, as
    // does `status` here. The map is not owned and must outlive the lookup.
    explicit Map_lookup_impl(Map_impl* map, Map_status* status = nullptr);
    // For a map reached through a handle: the interface must be a Map_impl's (the only one).
    explicit Map_lookup_impl(qv::shader_v3::Map_base* map, Map_status* status = nullptr);
    // The same map and search state, and a private copy of the results.
    Map_lookup_impl(const Map_lookup_impl& other);
    Map_lookup_impl& operator=(const Map_lookup_impl&) = delete;
    // Gives the result array back to the calling thread's free list.
    ~Map_lookup_impl() override;

    // ---- Map_lookup_base, in its order --------------------------------------------------
    uint32_t size() const override;
    bool is_empty() const override;
    Map_status reset() override;
    Map_status next() override;
    bool at_end() const override;
    // Rising distance, equal distances by rising index.
    void sort() override;
    // Falling distance, equal distances by falling index.
    void sort_descending() override;
    // Fields of the current result's element, as Map_iterator_impl reads them; 65 at the end.
    Map_status get(Map_field_id id, int32_t* values) const override;
    Map_status get(Map_field_id id, float* values) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_transform& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_color& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_vector3& value) const override;
    Map_status get(Map_field_id id, int32_t& value) const override;
    Map_status get(Map_field_id id, float& value) const override;
    Map_status get(qv::shader_v3::Map_element_base* element) const override;
    Map_status get_entry(Map_lookup_entry* entry) const override;
    Map_status get_entry(uint32_t position, Map_lookup_entry* entry) const override;
    uint32_t get_index(Map_status* status) const override;
    float get_distance(Map_status* status) const override;
    Map_status get_position(qv::shader_v3::Map_vector3& position) const override;
    Map_status get_position(float* position) const override;
    Map_status search(const qv::shader_v3::Map_vector3& origin, const qv::shader_v3::Map_vector3& direction,
                      float length, uint32_t max_count, float max_distance) override;
    Map_status search(const qv::shader_v3::Map_vector3& point, uint32_t max_count, float max_distance) override;
    // The function is not owned; it must live as long as next_batch may be called.
    Map_status search(const Map_distance_base_internal* distance_function, uint32_t max_count,
                      float max_distance) override;
    Map_status next_batch() override;

    // A point of `dimension` floats, for maps of any dimension (search kind 2).
    Map_status search(const float* point, uint32_t dimension, uint32_t max_count, float max_distance);

    // Walking by result position, for the iterator: 66 beyond the results (size is the end).
    Map_status set_position(uint32_t value);
    uint32_t get_walk_position() const { return position; }
    Map_impl* get_map() const { return map; }
    uint32_t get_kind() const { return kind; }
    bool is_exhausted() const { return exhausted; }
    // The results in their present order.
    const Map_lookup_entry* entries() const;

private:
    // Runs the stored search with the given resume pair into the results.
    Map_status run(uint32_t resume_index_in, float resume_distance_in);
    // Clears the search state and runs a new search of the stored query.
    Map_status start(uint32_t new_kind, uint32_t max_count_in, float max_distance_in);
    void after_search();
    Map_status current_index(uint32_t* index) const;

    Map_lookup_results* results = nullptr;   // owned, from the thread's free list
    Map_impl* map = nullptr;                 // not owned
    uint32_t position = 0;
    uint32_t kind = MAP_LOOKUP_KIND_NONE;
    uint32_t max_count = 0;
    float max_distance = 0.0f;
    const Map_distance_base_internal* distance_function = nullptr;
    float point[qv::shader_v3::MAP_MAX_DIMENSION] = {};   // also the segment's origin
    uint32_t point_dimension = 0;
    float direction[3] = {};
    float length = 0.0f;
    uint32_t resume_index = UINT32_MAX;      // none
    float resume_distance = -1.0f;           // none
    bool exhausted = false;
};

// The results of a lookup as a read-only map iterator: the walking operations move over the
// results, the getters read the current result's element, and the setters change nothing
// (MAP_NOT_EDITABLE). current() gives the current result's element index.
class Map_lookup_iterator_impl final : public qv::shader_v3::Map_iterator_base {
public:
    // The lookup is not owned.
    explicit Map_lookup_iterator_impl(Map_lookup_impl* lookup) : lookup(lookup) {}

    Map_status reset() override;
    Map_status set_to(uint32_t position) override;
    Map_status next() override;
    Map_status previous() override;
    Map_status skip(uint32_t count) override;
    bool at_end(Map_status* status) const override;
    uint32_t current(Map_status* status) const override;
    Map_status get(Map_field_id id, int32_t* values) const override;
    Map_status get(Map_field_id id, float* values) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_transform& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_color& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_vector3& value) const override;
    Map_status get(Map_field_id id, int32_t& value) const override;
    Map_status get(Map_field_id id, float& value) const override;
    Map_status get(qv::shader_v3::Map_element_base* element) const override;
    Map_status get_position(qv::shader_v3::Map_vector3& position) const override;
    Map_status get_position(float* position) const override;
    Map_status set(Map_field_id id, const int32_t* values) override;
    Map_status set(Map_field_id id, const float* values) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_transform* value) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_color* value) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_vector3* value) override;
    Map_status set(Map_field_id id, int32_t value) override;
    Map_status set(Map_field_id id, float value) override;
    Map_status set(const qv::shader_v3::Map_element_base* element) override;
    Map_status set_position(const qv::shader_v3::Map_vector3& position) override;
    Map_status set_position(const float* position) override;

    Map_lookup_impl* get_lookup() const { return lookup; }

private:
    Map_lookup_impl* lookup;
};

} // namespace QV::RCMAP
