// Free-standing map elements.

#include "maps/map_element.h"

#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

Map_element_impl::Map_element_impl(const Map_declaration_impl* declaration_in)
{
    set_declaration(declaration_in);
}

Map_element_impl::Map_element_impl(const Map_element_impl& other) : Map_element_base(other)
{
    *this = other;
}

Map_element_impl& Map_element_impl::operator=(const Map_element_impl& other)
{
    if (this == &other)
        return *this;
    set_declaration(other.declaration);
    if (data)
        std::memcpy(data, other.data, declaration->element_bytes());
    return *this;
}

Map_element_impl::~Map_element_impl()
{
    Module_scope scope(MOD_RCMP);
    delete declaration;
    QV_FREE(data);
}

void* Map_element_impl::operator new(size_t size)
{
    return QV_ALLOC(size);
}

void Map_element_impl::operator delete(void* pointer)
{
    QV_FREE(pointer);
}

void Map_element_impl::set_declaration(const Map_declaration_base* declaration_in)
{
    Module_scope scope(MOD_RCMP);
    // The copy is made before the old one goes, so an element may be given its own declaration.
    const auto* source = dynamic_cast<const Map_declaration_impl*>(declaration_in);
    Map_declaration_impl* copy = source ? new Map_declaration_impl(*source) : nullptr;
    delete declaration;
    QV_FREE(data);
    declaration = copy;
    data = nullptr;
    // A declaration without fields and dimension 0 has no bytes; mem_alloc(0) is null, which
    // the accessors never reach because every field lies inside the block.
    if (declaration && declaration->element_bytes() > 0)
        data = static_cast<uint8_t*>(QV_ALLOC(declaration->element_bytes()));
}

void Map_element_impl::ensure_layout(const Map_declaration_impl& wanted)
{
    if (declaration && declaration->is_layout_equivalent(wanted))
        return;
    set_declaration(&wanted);
}

// ---- Position ---------------------------------------------------------------------------------

Map_status Map_element_impl::get_position(Map_vector3& position) const
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (declaration->dimension() != 3)
        return MAP_WRONG_DIMENSION;
    std::memcpy(&position, data, sizeof position);
    return MAP_SUCCESS;
}

Map_status Map_element_impl::get_position(float* position) const
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (data)
        std::memcpy(position, data, declaration->position_bytes());
    return MAP_SUCCESS;
}

Map_status Map_element_impl::set_position(const Map_vector3& position)
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (declaration->dimension() != 3)
        return MAP_WRONG_DIMENSION;
    std::memcpy(data, &position, sizeof position);
    return MAP_SUCCESS;
}

Map_status Map_element_impl::set_position(const float* position)
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (data)
        std::memcpy(data, position, declaration->position_bytes());
    return MAP_SUCCESS;
}

// ---- Typed fields -----------------------------------------------------------------------------

Map_status Map_element_impl::get_field(Map_field_id id, uint32_t type, void* out) const
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    uint32_t field_type, offset, bytes;
    const Map_status status =
        declaration->resolve_access(id, false, type, &field_type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    if (bytes)
        std::memcpy(out, data + offset, bytes);
    if (type == MAP_TYPE_COLOR)
        detail::finish_color_read(field_type, out);
    return MAP_SUCCESS;
}

Map_status Map_element_impl::set_field(Map_field_id id, uint32_t type, const void* in)
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    uint32_t field_type, offset, bytes;
    const Map_status status =
        declaration->resolve_access(id, false, type, &field_type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    // A colour into a scalar array of 3 copies the field's 12 bytes: alpha is dropped.
    if (bytes)
        std::memcpy(data + offset, in, bytes);
    return MAP_SUCCESS;
}

Map_status Map_element_impl::get(Map_field_id id, int32_t* values) const
{
    return get_field(id, MAP_TYPE_INTEGER_ARRAY, values);
}

Map_status Map_element_impl::get(Map_field_id id, float* values) const
{
    return get_field(id, MAP_TYPE_SCALAR_ARRAY, values);
}

Map_status Map_element_impl::get(Map_field_id id, Map_transform& value) const
{
    return get_field(id, MAP_TYPE_TRANSFORM, &value);
}

Map_status Map_element_impl::get(Map_field_id id, Map_color& value) const
{
    return get_field(id, MAP_TYPE_COLOR, &value);
}

Map_status Map_element_impl::get(Map_field_id id, Map_vector3& value) const
{
    return get_field(id, MAP_TYPE_VECTOR, &value);
}

Map_status Map_element_impl::get(Map_field_id id, int32_t& value) const
{
    return get_field(id, MAP_TYPE_INTEGER, &value);
}

Map_status Map_element_impl::get(Map_field_id id, float& value) const
{
    return get_field(id, MAP_TYPE_SCALAR, &value);
}

Map_status Map_element_impl::set(Map_field_id id, const int32_t* values)
{
    return set_field(id, MAP_TYPE_INTEGER_ARRAY, values);
}

Map_status Map_element_impl::set(Map_field_id id, const float* values)
{
    return set_field(id, MAP_TYPE_SCALAR_ARRAY, values);
}

Map_status Map_element_impl::set(Map_field_id id, const Map_transform* value)
{
    return set_field(id, MAP_TYPE_TRANSFORM, value);
}

Map_status Map_element_impl::set(Map_field_id id, const Map_color* value)
{
    return set_field(id, MAP_TYPE_COLOR, value);
}

Map_status Map_element_impl::set(Map_field_id id, const Map_vector3* value)
{
    return set_field(id, MAP_TYPE_VECTOR, value);
}

Map_status Map_element_impl::set(Map_field_id id, int32_t value)
{
    return set_field(id, MAP_TYPE_INTEGER, &value);
}

Map_status Map_element_impl::set(Map_field_id id, float value)
{
    return set_field(id, MAP_TYPE_SCALAR, &value);
}

} // namespace QV::RCMAP
