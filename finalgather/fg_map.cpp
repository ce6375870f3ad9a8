// The final-gather declaration and the record/element conversions.
#include "finalgather/fg_map.h"

#include <cassert>
#include <cstring>

#include "finalgather/rcfg_module.h"
#include "maps/map_dbhandle.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "runtime/modules.h"

using QV::RCMAP::Map_declaration_impl;
using QV::RCMAP::Map_element_impl;
using QV::RCMAP::Map_impl;
using qv::shader_v3::Map_status;

namespace {

// First record word of each element field, in field order. Words 18, 19 and 26 have no field.
constexpr uint32_t FIELD_WORD[FG_FIELD_COUNT] = {3, 6, 10, 11, 14, 17, 20, 21, 22, 25};

}  // namespace

Map_declaration_impl* fg_map_declaration()
{
    Module_scope scope(MOD_RCFG);
    auto* declaration = new Map_declaration_impl(3);
    declaration->add_vector("normal");
    declaration->add_color("irrad");
    declaration->add_integer("rays");
    declaration->add_scalar_array("grad_t1", 3);
    declaration->add_scalar_array("grad_t2", 3);
    declaration->add_integer("point_id");
    declaration->add_scalar("r_mean");
    declaration->add_scalar("min_dist");
    declaration->add_vector("min_dist_dir");
    declaration->add_scalar("occluded_min_dist");
    return declaration;
}

namespace {

// The conversions copy each field's declared bytes into fixed record words, so an element of
// any other layout would write past the record.
[[maybe_unused]] bool has_final_gather_layout(const Map_declaration_impl* declaration)
{
    return declaration && declaration->element_bytes() == FG_ELEMENT_BYTES &&
           declaration->get_element_field_count() == FG_FIELD_COUNT;
}

}  // namespace

void fg_point_from_element(Fg_point* out, const Map_element_impl* element)
{
    const Map_declaration_impl* declaration = element->get_declaration();
    assert(has_final_gather_layout(declaration) && "element of the final-gather declaration");
    const uint8_t* bytes = element->get_data();
    auto* words = reinterpret_cast<uint8_t*>(out);
    std::memcpy(words, bytes, 3 * sizeof(float));
    for (uint32_t field = 0; field < FG_FIELD_COUNT; ++field)
        std::memcpy(words + 4 * FIELD_WORD[field], bytes + declaration->element_field_offset(field),
                    declaration->element_field_bytes(field));
}

void fg_point_to_element(Map_element_impl* element, const float* position, const void* data)
{
    const Map_declaration_impl* declaration = element->get_declaration();
    assert(has_final_gather_layout(declaration) && "element of the final-gather declaration");
    uint8_t* bytes = element->get_data();
    // `data` is record word 3: a field's record word w lies at data + 4 * (w - 3).
    const auto* payload = static_cast<const uint8_t*>(data) - 4 * FG_POINT_PAYLOAD_WORD;
    std::memcpy(bytes, position, 3 * sizeof(float));
    for (uint32_t field = 0; field < FG_FIELD_COUNT; ++field)
        std::memcpy(bytes + declaration->element_field_offset(field), payload + 4 * FIELD_WORD[field],
                    declaration->element_field_bytes(field));
}

Map_status fg_map_add_point(Map_impl* map, const float* position, const void* data)
{
    Module_scope scope(MOD_RCFG);
    Map_element_impl* element = fg_scratch_element();
    fg_point_to_element(element, position, data);
    return map->append(element);
}

Map_status fg_map_add_points(Map_impl* map, const Fg_point* points, uint32_t count)
{
    Module_scope scope(MOD_RCFG);
    Map_element_impl* element = fg_scratch_element();
    for (uint32_t n = 0; n < count; ++n) {
        fg_point_to_element(element, points[n].position, points[n].normal);
        if (const Map_status status = map->append(element); status != qv::shader_v3::MAP_SUCCESS)
            return status;
    }
    return qv::shader_v3::MAP_SUCCESS;
}

int fg_map_for_each(uint32_t tag, Fg_point_callback callback, void* context)
{
    Module_scope scope(MOD_RCFG);
    if (!tag)
        return 1;
    QV::RCMAP::Access_map_dbhandle_impl handle(tag);
    Map_impl* map = handle.get_map();
    Map_element_impl* element = fg_scratch_element();
    // A map of another layout holds no final-gather points; reading it would also retype the
    // scratch element.
    if (!map || !map->get_declaration() ||
        !map->get_declaration()->is_layout_equivalent(*element->get_declaration()))
        return 1;
    Fg_point* point = fg_scratch_point();
    QV::RCMAP::Map_iterator_impl iterator(map);
    for (; !iterator.at_end(nullptr); iterator.next()) {
        iterator.get(element);
        fg_point_from_element(point, element);
        if (!callback(context, point->normal, point->position))
            return 0;
    }
    return 1;
}
