// QV::RCMAP::Map_iterator_impl: walks a map by element index and reads or writes the element
// under it in place, through the page cache.
//
// The iterator does not own its map. With `check_end` set, every field and element access
// first tests for the end position and answers MAP_ITERATOR_AT_END there; with it clear (the
// iterators the tools keep on the stack) the access goes straight to the map and a bad index is
// the caller's fault. Positions range over the committed elements only. One thread at a time.
#pragma once

#include <cstdint>

#include "maps/map_interfaces.h"

namespace QV::RCMAP {

class Map_impl;
class Map_declaration_impl;
using qv::shader_v3::Map_field_id;
using qv::shader_v3::Map_status;

class Map_iterator_impl final : public qv::shader_v3::Map_iterator_base {
public:
    // `map` may be null (every operation then answers MAP_ITERATOR_NO_MAP). Index starts at 0.
    explicit Map_iterator_impl(Map_impl* map, bool check_end = false);
    // For a map reached through a handle: the interface must be a Map_impl's (the only one).
    explicit Map_iterator_impl(qv::shader_v3::Map_base* map, bool check_end = false);
    ~Map_iterator_impl() override = default;

    // ---- Map_iterator_base, in its order ----------------------------------------------------
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

    Map_impl* get_map() const { return map; }
    uint32_t get_index() const { return index; }
    bool get_check_end() const { return check_end; }
    void set_check_end(bool value) { check_end = value; }

private:
    // No map, or (with check_end) at the end: the status that stops an access, else 0.
    Map_status access_status() const;
    Map_status get_field(Map_field_id id, uint32_t type, void* out) const;
    Map_status set_field(Map_field_id id, uint32_t type, const void* in);
    Map_status write_position(const float* position, bool dimension3_only);

    Map_impl* map = nullptr; // not owned
    uint32_t index = 0;
    bool check_end = false;
};

} // namespace QV::RCMAP
