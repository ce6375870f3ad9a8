// QV::RCMAP::Map_element_impl: one free-standing map element, filled here and then appended to
// or stored into a map, or received from a map read.
//
// The element owns a private copy of its declaration and a byte block of exactly the
// declaration's element size, zero-filled at creation and laid out as the declaration says
// (position first, then the fields, packed). An element without declaration has no block and
// answers MAP_NO_DECLARATION to every accessor. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "maps/map_declaration.h"
#include "maps/map_interfaces.h"

namespace QV::RCMAP {

class Map_element_impl final : public qv::shader_v3::Map_element_base {
public:
    Map_element_impl() = default;
    // An element of a copy of `declaration`, zero-filled.
    explicit Map_element_impl(const Map_declaration_impl* declaration);
    Map_element_impl(const Map_element_impl& other);
    Map_element_impl& operator=(const Map_element_impl& other);
    ~Map_element_impl() override;

    // Objects are charged to the module current at allocation.
    static void* operator new(size_t size);
    static void operator delete(void* pointer);

    // ---- Map_element_base, in its order -----------------------------------------------------
    // Null `declaration` leaves the element without one.
    void set_declaration(const qv::shader_v3::Map_declaration_base* declaration) override;
    Map_status get_position(qv::shader_v3::Map_vector3& position) const override;
    Map_status get_position(float* position) const override;
    Map_status get(Map_field_id id, int32_t* values) const override;
    Map_status get(Map_field_id id, float* values) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_transform& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_color& value) const override;
    Map_status get(Map_field_id id, qv::shader_v3::Map_vector3& value) const override;
    Map_status get(Map_field_id id, int32_t& value) const override;
    Map_status get(Map_field_id id, float& value) const override;
    Map_status set_position(const qv::shader_v3::Map_vector3& position) override;
    Map_status set_position(const float* position) override;
    Map_status set(Map_field_id id, const int32_t* values) override;
    Map_status set(Map_field_id id, const float* values) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_transform* value) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_color* value) override;
    Map_status set(Map_field_id id, const qv::shader_v3::Map_vector3* value) override;
    Map_status set(Map_field_id id, int32_t value) override;
    Map_status set(Map_field_id id, float value) override;

    // ---- Raw access for the map family and the record converters -----------------------
    const Map_declaration_impl* get_declaration() const { return declaration; }
    // The element's bytes; null without declaration. data_bytes() is the element size.
    uint8_t* get_data() { return data; }
    const uint8_t* get_data() const { return data; }
    uint32_t data_bytes() const { return declaration ? declaration->element_bytes() : 0; }
    // Takes a copy of `declaration` unless the element already has one of the same dimension
    // and element signature; the bytes are kept when the layout stays.
    void ensure_layout(const Map_declaration_impl& declaration);

private:
    Map_status get_field(Map_field_id id, uint32_t type, void* out) const;
    Map_status set_field(Map_field_id id, uint32_t type, const void* in);

    Map_declaration_impl* declaration = nullptr; // owned private copy, null when unset
    uint8_t* data = nullptr;                     // owned, the declaration's element size
};

// The typed-accessor data path shared by elements, iterators, lookups and maps.
namespace detail {

// Accessors copy the field's declared bytes, which equal the accessor's value size except for
// arrays (the caller's buffer of `count` values) and the colour accessor on a scalar array of
// 3, which reads three floats and gets alpha 1.0 here.
inline void finish_color_read(uint32_t field_type, void* out)
{
    if (field_type == qv::shader_v3::MAP_TYPE_SCALAR_ARRAY)
        static_cast<qv::shader_v3::Map_color*>(out)->a = 1.0f;
}

} // namespace detail

} // namespace QV::RCMAP
