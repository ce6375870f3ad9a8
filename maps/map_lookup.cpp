// Map lookups: the search state around the BVH's searches, the walk over the results, and the
// per-thread free list of result arrays.
#include "maps/map_lookup.h"

#include <algorithm>
#include <cstring>

#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

constexpr float MAX_SEARCH_DISTANCE = 5.0e35f;
// Arrays a thread keeps for reuse; more than this many lookups alive on one thread at once
// is rare, and the rest are freed.
constexpr size_t FREE_LIST_LIMIT = 64;

struct Results_free_list {
    std::vector<Map_lookup_results*> arrays;
    ~Results_free_list()
    {
        for (Map_lookup_results* results : arrays)
            delete results;
    }
};

Results_free_list& free_list()
{
    static thread_local Results_free_list list;
    return list;
}

// A function object rather than a function, so that the sorts inline it.
struct Nearer {
    bool operator()(const Map_lookup_entry& a, const Map_lookup_entry& b) const
    {
        return a.distance < b.distance || (a.distance == b.distance && a.index < b.index);
    }
};

} // namespace

Map_lookup_results* map_lookup_results_take()
{
    Results_free_list& list = free_list();
    if (list.arrays.empty())
        return new Map_lookup_results;
    Map_lookup_results* results = list.arrays.back();
    list.arrays.pop_back();
    results->entries.clear();
    return results;
}

void map_lookup_results_give(Map_lookup_results* results)
{
    if (!results)
        return;
    Results_free_list& list = free_list();
    if (list.arrays.size() >= FREE_LIST_LIMIT) {
        delete results;
        return;
    }
    results->entries.clear();
    list.arrays.push_back(results);
}

// ---- Construction -------------------------------------------------------------------------

Map_lookup_impl::Map_lookup_impl(Map_impl* map_in, Map_status* status) : map(map_in)
{
    if (status)
        *status = map ? MAP_SUCCESS : MAP_LOOKUP_NO_MAP;
}

Map_lookup_impl::Map_lookup_impl(Map_base* map_in, Map_status* status)
    : Map_lookup_impl(static_cast<Map_impl*>(map_in), status)
{
}

Map_lookup_impl::Map_lookup_impl(const Map_lookup_impl& other)
    : Map_lookup_base(other),
      map(other.map),
      position(other.position),
      kind(other.kind),
      max_count(other.max_count),
      max_distance(other.max_distance),
      distance_function(other.distance_function),
      point_dimension(other.point_dimension),
      length(other.length),
      resume_index(other.resume_index),
      resume_distance(other.resume_distance),
      exhausted(other.exhausted)
{
    memcpy(point, other.point, sizeof point);
    memcpy(direction, other.direction, sizeof direction);
    if (other.results) {
        results = map_lookup_results_take();
        results->entries = other.results->entries;
    }
}

Map_lookup_impl::~Map_lookup_impl()
{
    map_lookup_results_give(results);
}

// ---- Walking ------------------------------------------------------------------------------

uint32_t Map_lookup_impl::size() const
{
    return results ? uint32_t(results->entries.size()) : 0;
}

bool Map_lookup_impl::is_empty() const
{
    return size() == 0;
}

Map_status Map_lookup_impl::reset()
{
    position = 0;
    return map ? MAP_SUCCESS : MAP_LOOKUP_NO_MAP;
}

Map_status Map_lookup_impl::next()
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (position >= size())
        return MAP_LOOKUP_AT_END;
    ++position;
    return MAP_SUCCESS;
}

bool Map_lookup_impl::at_end() const
{
    return position >= size();
}

Map_status Map_lookup_impl::set_position(uint32_t value)
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (value > size())
        return MAP_LOOKUP_OUT_OF_RANGE;
    position = value;
    return MAP_SUCCESS;
}

const Map_lookup_entry* Map_lookup_impl::entries() const
{
    return results ? results->entries.data() : nullptr;
}

void Map_lookup_impl::sort()
{
    if (results)
        std::sort(results->entries.begin(), results->entries.end(), Nearer());
}

void Map_lookup_impl::sort_descending()
{
    if (results)
        std::sort(results->entries.begin(), results->entries.end(),
                  [](const Map_lookup_entry& a, const Map_lookup_entry& b) { return Nearer()(b, a); });
}

// ---- The current result -------------------------------------------------------------------

Map_status Map_lookup_impl::current_index(uint32_t* index) const
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (position >= size())
        return MAP_LOOKUP_AT_END;
    *index = results->entries[position].index;
    return MAP_SUCCESS;
}

namespace {

// Reads from the current result's element through an iterator placed on it, so that the
// type and field checks are those of every other in-place reader.
template <class Read>
Map_status read_current(Map_impl* map, Map_status status, uint32_t index, Read read)
{
    if (status != MAP_SUCCESS)
        return status;
    Map_iterator_impl iterator(map, true);
    status = iterator.set_to(index);
    if (status != MAP_SUCCESS)
        return status;
    return read(iterator);
}

} // namespace

#define QV_LOOKUP_READ(call)                                                                                        \
    uint32_t index = 0;                                                                                             \
    Map_status status = current_index(&index);                                                                      \
    return read_current(map, status, index, [&](const Map_iterator_impl& iterator) { return iterator.call; })

Map_status Map_lookup_impl::get(Map_field_id id, int32_t* values) const { QV_LOOKUP_READ(get(id, values)); }
Map_status Map_lookup_impl::get(Map_field_id id, float* values) const { QV_LOOKUP_READ(get(id, values)); }
Map_status Map_lookup_impl::get(Map_field_id id, Map_transform& value) const { QV_LOOKUP_READ(get(id, value)); }
Map_status Map_lookup_impl::get(Map_field_id id, Map_color& value) const { QV_LOOKUP_READ(get(id, value)); }
Map_status Map_lookup_impl::get(Map_field_id id, Map_vector3& value) const { QV_LOOKUP_READ(get(id, value)); }
Map_status Map_lookup_impl::get(Map_field_id id, int32_t& value) const { QV_LOOKUP_READ(get(id, value)); }
Map_status Map_lookup_impl::get(Map_field_id id, float& value) const { QV_LOOKUP_READ(get(id, value)); }
Map_status Map_lookup_impl::get(Map_element_base* element) const { QV_LOOKUP_READ(get(element)); }
Map_status Map_lookup_impl::get_position(Map_vector3& value) const { QV_LOOKUP_READ(get_position(value)); }
Map_status Map_lookup_impl::get_position(float* value) const { QV_LOOKUP_READ(get_position(value)); }

#undef QV_LOOKUP_READ

Map_status Map_lookup_impl::get_entry(Map_lookup_entry* entry) const
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (position >= size())
        return MAP_LOOKUP_AT_END;
    *entry = results->entries[position];
    return MAP_SUCCESS;
}

Map_status Map_lookup_impl::get_entry(uint32_t at, Map_lookup_entry* entry) const
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (at >= size())
        return MAP_LOOKUP_OUT_OF_RANGE;
    *entry = results->entries[at];
    return MAP_SUCCESS;
}

uint32_t Map_lookup_impl::get_index(Map_status* status) const
{
    uint32_t index = 0;
    Map_status result = current_index(&index);
    if (status)
        *status = result;
    return index;
}

float Map_lookup_impl::get_distance(Map_status* status) const
{
    Map_lookup_entry entry = {0, 0.0f};
    Map_status result = get_entry(&entry);
    if (status)
        *status = result;
    return entry.distance;
}

// ---- Searches -----------------------------------------------------------------------------

Map_status Map_lookup_impl::run(uint32_t resume_index_in, float resume_distance_in)
{
    if (!results)
        results = map_lookup_results_take();
    std::vector<Map_lookup_entry>& entries = results->entries;
    entries.clear();
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    const uint32_t dimension = declaration->dimension();
    switch (kind) {
    case MAP_LOOKUP_KIND_FUNCTION:
        if (!distance_function || distance_function->get_dimension() != dimension)
            return MAP_LOOKUP_DIMENSION;
        break;
    case MAP_LOOKUP_KIND_POINT:
        if (point_dimension != dimension)
            return MAP_LOOKUP_DIMENSION;
        break;
    default:
        if (dimension != 3)
            return MAP_LOOKUP_DIMENSION;
        break;
    }
    Map_global_bvh_base* bvh = map->global_bvh;
    if (!bvh || bvh->node_count() == 0)
        return MAP_SUCCESS;
    // Room for the whole answer up front; never more than the map could give.
    entries.reserve(std::min(max_count, map->committed_size()));
    const float limit = std::min(max_distance, MAX_SEARCH_DISTANCE);
    switch (kind) {
    case MAP_LOOKUP_KIND_FUNCTION:
        bvh->search_function(*distance_function, max_count, limit, resume_index_in, resume_distance_in, entries);
        break;
    case MAP_LOOKUP_KIND_SEGMENT3:
        bvh->search_segment(point, direction, length, max_count, limit, resume_index_in, resume_distance_in,
                            entries);
        break;
    default:
        bvh->search_point(point, max_count, limit, resume_index_in, resume_distance_in, entries);
        break;
    }
    return MAP_SUCCESS;
}

void Map_lookup_impl::after_search()
{
    const std::vector<Map_lookup_entry>& entries = results->entries;
    // The heap's top is the farthest element found: the next batch starts beyond it.
    if (!entries.empty()) {
        resume_index = entries.front().index;
        resume_distance = entries.front().distance;
    }
    // A count of 0 can never fill up; it is done at once rather than never.
    exhausted = entries.size() < max_count || max_count == 0;
}

Map_status Map_lookup_impl::start(uint32_t new_kind, uint32_t max_count_in, float max_distance_in)
{
    resume_index = UINT32_MAX;
    resume_distance = -1.0f;
    exhausted = false;
    position = 0;
    kind = new_kind;
    max_count = max_count_in;
    max_distance = std::min(max_distance_in, MAX_SEARCH_DISTANCE);
    Map_status status = run(UINT32_MAX, -1.0f);
    if (status != MAP_SUCCESS) {
        kind = MAP_LOOKUP_KIND_NONE;
        return status;
    }
    after_search();
    return MAP_SUCCESS;
}

Map_status Map_lookup_impl::search(const Map_vector3& origin, const Map_vector3& direction_in, float length_in,
                                   uint32_t max_count_in, float max_distance_in)
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    point[0] = origin.x, point[1] = origin.y, point[2] = origin.z;
    direction[0] = direction_in.x, direction[1] = direction_in.y, direction[2] = direction_in.z;
    length = length_in;
    point_dimension = 3;
    return start(MAP_LOOKUP_KIND_SEGMENT3, max_count_in, max_distance_in);
}

Map_status Map_lookup_impl::search(const Map_vector3& query, uint32_t max_count_in, float max_distance_in)
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    point[0] = query.x, point[1] = query.y, point[2] = query.z;
    point_dimension = 3;
    return start(MAP_LOOKUP_KIND_POINT3, max_count_in, max_distance_in);
}

Map_status Map_lookup_impl::search(const Map_distance_base_internal* function, uint32_t max_count_in,
                                   float max_distance_in)
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    distance_function = function;
    return start(MAP_LOOKUP_KIND_FUNCTION, max_count_in, max_distance_in);
}

Map_status Map_lookup_impl::search(const float* query, uint32_t dimension, uint32_t max_count_in,
                                   float max_distance_in)
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    // A query of more coordinates than any map has fails the dimension check in start().
    if (query)
        memcpy(point, query, std::min(dimension, MAP_MAX_DIMENSION) * sizeof(float));
    point_dimension = query ? dimension : 0;
    return start(MAP_LOOKUP_KIND_POINT, max_count_in, max_distance_in);
}

Map_status Map_lookup_impl::next_batch()
{
    if (!map)
        return MAP_LOOKUP_NO_MAP;
    if (kind == MAP_LOOKUP_KIND_NONE)
        return MAP_LOOKUP_NO_SEARCH;
    position = 0;
    if (exhausted) {
        if (results)
            results->entries.clear();
        return MAP_SUCCESS;
    }
    Map_status status = run(resume_index, resume_distance);
    if (status != MAP_SUCCESS)
        return status;
    after_search();
    return MAP_SUCCESS;
}

// ---- The iterator over the results --------------------------------------------------------

Map_status Map_lookup_iterator_impl::reset()
{
    return lookup->reset();
}

Map_status Map_lookup_iterator_impl::set_to(uint32_t at)
{
    if (at >= lookup->size())
        return lookup->get_map() ? MAP_LOOKUP_OUT_OF_RANGE : MAP_LOOKUP_NO_MAP;
    return lookup->set_position(at);
}

Map_status Map_lookup_iterator_impl::next()
{
    return lookup->next();
}

Map_status Map_lookup_iterator_impl::previous()
{
    if (!lookup->get_map())
        return MAP_LOOKUP_NO_MAP;
    const uint32_t at = lookup->get_walk_position();
    if (at >= lookup->size())
        return MAP_LOOKUP_AT_END;
    if (at == 0)
        return MAP_LOOKUP_OUT_OF_RANGE;
    return lookup->set_position(at - 1);
}

Map_status Map_lookup_iterator_impl::skip(uint32_t count)
{
    if (!lookup->get_map())
        return MAP_LOOKUP_NO_MAP;
    const uint32_t at = lookup->get_walk_position();
    if (at >= lookup->size())
        return MAP_LOOKUP_AT_END;
    // As on a map: count + 1 results on, never onto the end.
    const uint64_t target = uint64_t{at} + count + 1;
    if (target >= lookup->size())
        return MAP_LOOKUP_OUT_OF_RANGE;
    return lookup->set_position(uint32_t(target));
}

bool Map_lookup_iterator_impl::at_end(Map_status* status) const
{
    if (status)
        *status = lookup->get_map() ? MAP_SUCCESS : MAP_LOOKUP_NO_MAP;
    return lookup->at_end();
}

uint32_t Map_lookup_iterator_impl::current(Map_status* status) const
{
    Map_status result = MAP_SUCCESS;
    uint32_t index = lookup->get_index(&result);
    if (result == MAP_LOOKUP_AT_END)
        index = lookup->get_map()->committed_size() + 1;
    if (status)
        *status = result;
    return index;
}

Map_status Map_lookup_iterator_impl::get(Map_field_id id, int32_t* values) const { return lookup->get(id, values); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, float* values) const { return lookup->get(id, values); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, Map_transform& value) const { return lookup->get(id, value); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, Map_color& value) const { return lookup->get(id, value); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, Map_vector3& value) const { return lookup->get(id, value); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, int32_t& value) const { return lookup->get(id, value); }
Map_status Map_lookup_iterator_impl::get(Map_field_id id, float& value) const { return lookup->get(id, value); }
Map_status Map_lookup_iterator_impl::get(Map_element_base* element) const { return lookup->get(element); }
Map_status Map_lookup_iterator_impl::get_position(Map_vector3& value) const { return lookup->get_position(value); }
Map_status Map_lookup_iterator_impl::get_position(float* value) const { return lookup->get_position(value); }

// Results are read-only: an element is changed through the map, not through a search.
Map_status Map_lookup_iterator_impl::set(Map_field_id, const int32_t*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, const float*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, const Map_transform*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, const Map_color*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, const Map_vector3*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, int32_t) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(Map_field_id, float) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set(const Map_element_base*) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set_position(const Map_vector3&) { return MAP_NOT_EDITABLE; }
Map_status Map_lookup_iterator_impl::set_position(const float*) { return MAP_NOT_EDITABLE; }

} // namespace QV::RCMAP
