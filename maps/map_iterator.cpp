// Iterators over maps: index walking and in-place access through the page cache.

#include "maps/map_iterator.h"

#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

Map_iterator_impl::Map_iterator_impl(Map_impl* map_in, bool check_end_in)
    : map(map_in), check_end(check_end_in)
{
}

Map_iterator_impl::Map_iterator_impl(Map_base* map_in, bool check_end_in)
    : map(static_cast<Map_impl*>(map_in)), check_end(check_end_in)
{
}

// ---- Walking ------------------------------------------------------------------------------

Map_status Map_iterator_impl::reset()
{
    index = 0;
    return map ? MAP_SUCCESS : MAP_ITERATOR_NO_MAP;
}

Map_status Map_iterator_impl::set_to(uint32_t position)
{
    if (!map)
        return MAP_ITERATOR_NO_MAP;
    if (position >= map->committed_size())
        return MAP_ITERATOR_OUT_OF_RANGE;
    index = position;
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::next()
{
    if (!map)
        return MAP_ITERATOR_NO_MAP;
    if (index >= map->committed_size())
        return MAP_ITERATOR_AT_END;
    ++index;
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::previous()
{
    if (!map)
        return MAP_ITERATOR_NO_MAP;
    // One cannot step back from the end position.
    if (index >= map->committed_size())
        return MAP_ITERATOR_AT_END;
    if (index == 0)
        return MAP_ITERATOR_OUT_OF_RANGE;
    --index;
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::skip(uint32_t count)
{
    if (!map)
        return MAP_ITERATOR_NO_MAP;
    const uint32_t size = map->committed_size();
    if (index >= size)
        return MAP_ITERATOR_AT_END;
    // skip(0) moves one element like next(), but never onto the end position.
    const uint64_t target = uint64_t{index} + count + 1;
    if (target >= size)
        return MAP_ITERATOR_OUT_OF_RANGE;
    index = static_cast<uint32_t>(target);
    return MAP_SUCCESS;
}

bool Map_iterator_impl::at_end(Map_status* status) const
{
    if (!map) {
        if (status)
            *status = MAP_ITERATOR_NO_MAP;
        return true;
    }
    if (status)
        *status = MAP_SUCCESS;
    return index >= map->committed_size();
}

uint32_t Map_iterator_impl::current(Map_status* status) const
{
    Map_status result = MAP_SUCCESS;
    uint32_t value = index;
    if (!map) {
        result = MAP_ITERATOR_NO_MAP;
        value = 0;
    } else if (index >= map->committed_size()) {
        result = MAP_ITERATOR_AT_END;
        value = map->committed_size() + 1;
    }
    if (status)
        *status = result;
    return value;
}

// ---- In-place access ------------------------------------------------------------------------

Map_status Map_iterator_impl::access_status() const
{
    if (!map)
        return MAP_ITERATOR_NO_MAP;
    if (check_end && index >= map->committed_size())
        return MAP_ITERATOR_AT_END;
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::get_field(Map_field_id id, uint32_t type, void* out) const
{
    Module_scope scope(MOD_RCMP);
    Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    uint32_t field_type, offset, bytes;
    status = declaration->resolve_access(id, false, type, &field_type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    map->read_field(index, offset, bytes, out);
    if (type == MAP_TYPE_COLOR)
        detail::finish_color_read(field_type, out);
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::set_field(Map_field_id id, uint32_t type, const void* in)
{
    Module_scope scope(MOD_RCMP);
    Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    if (!map->editable)
        return MAP_NOT_EDITABLE;
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    uint32_t field_type, offset, bytes;
    status = declaration->resolve_access(id, false, type, &field_type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    // Only positions enter the BVH, so a field write leaves it valid.
    map->write_field(index, offset, bytes, in);
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::get(Map_field_id id, int32_t* values) const
{
    return get_field(id, MAP_TYPE_INTEGER_ARRAY, values);
}

Map_status Map_iterator_impl::get(Map_field_id id, float* values) const
{
    return get_field(id, MAP_TYPE_SCALAR_ARRAY, values);
}

Map_status Map_iterator_impl::get(Map_field_id id, Map_transform& value) const
{
    return get_field(id, MAP_TYPE_TRANSFORM, &value);
}

Map_status Map_iterator_impl::get(Map_field_id id, Map_color& value) const
{
    return get_field(id, MAP_TYPE_COLOR, &value);
}

Map_status Map_iterator_impl::get(Map_field_id id, Map_vector3& value) const
{
    return get_field(id, MAP_TYPE_VECTOR, &value);
}

Map_status Map_iterator_impl::get(Map_field_id id, int32_t& value) const
{
    return get_field(id, MAP_TYPE_INTEGER, &value);
}

Map_status Map_iterator_impl::get(Map_field_id id, float& value) const
{
    return get_field(id, MAP_TYPE_SCALAR, &value);
}

Map_status Map_iterator_impl::get(Map_element_base* element) const
{
    Module_scope scope(MOD_RCMP);
    const Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    return map->get(index, element);
}

Map_status Map_iterator_impl::get_position(Map_vector3& position) const
{
    Module_scope scope(MOD_RCMP);
    Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (declaration->dimension() != 3)
        return MAP_WRONG_DIMENSION;
    map->read_field(index, 0, sizeof position, &position);
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::get_position(float* position) const
{
    Module_scope scope(MOD_RCMP);
    Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    map->read_field(index, 0, declaration->position_bytes(), position);
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::set(Map_field_id id, const int32_t* values)
{
    return set_field(id, MAP_TYPE_INTEGER_ARRAY, values);
}

Map_status Map_iterator_impl::set(Map_field_id id, const float* values)
{
    return set_field(id, MAP_TYPE_SCALAR_ARRAY, values);
}

Map_status Map_iterator_impl::set(Map_field_id id, const Map_transform* value)
{
    return set_field(id, MAP_TYPE_TRANSFORM, value);
}

Map_status Map_iterator_impl::set(Map_field_id id, const Map_color* value)
{
    return set_field(id, MAP_TYPE_COLOR, value);
}

Map_status Map_iterator_impl::set(Map_field_id id, const Map_vector3* value)
{
    return set_field(id, MAP_TYPE_VECTOR, value);
}

Map_status Map_iterator_impl::set(Map_field_id id, int32_t value)
{
    return set_field(id, MAP_TYPE_INTEGER, &value);
}

Map_status Map_iterator_impl::set(Map_field_id id, float value)
{
    return set_field(id, MAP_TYPE_SCALAR, &value);
}

Map_status Map_iterator_impl::set(const Map_element_base* element)
{
    Module_scope scope(MOD_RCMP);
    const Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    return map->set(index, element);
}

Map_status Map_iterator_impl::write_position(const float* position, bool dimension3_only)
{
    Module_scope scope(MOD_RCMP);
    Map_status status = access_status();
    if (status != MAP_SUCCESS)
        return status;
    if (!map->editable)
        return MAP_NOT_EDITABLE;
    const Map_declaration_impl* declaration = map->get_declaration();
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (dimension3_only && declaration->dimension() != 3)
        return MAP_WRONG_DIMENSION;
    map->write_field(index, 0, declaration->position_bytes(), position);
    // A moved element invalidates the BVH and may widen the bounds.
    map->note_position_changed(position);
    return MAP_SUCCESS;
}

Map_status Map_iterator_impl::set_position(const Map_vector3& position)
{
    return write_position(&position.x, true);
}

Map_status Map_iterator_impl::set_position(const float* position)
{
    return write_position(position, false);
}

} // namespace QV::RCMAP
