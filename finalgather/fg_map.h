// The final-gather map declaration and the conversions between Fg_point records and map elements.
//
// A map element of the declaration is 96 bytes: the position (3 floats), then "normal",
// "irrad", "rays", "grad_t1", "grad_t2", "point_id", "r_mean", "min_dist", "min_dist_dir" and
// "occluded_min_dist", packed. The conversions go through the offsets and sizes of the
// declaration that the element holds, never through constants, so they follow any element of an
// equivalent declaration. Record words 18, 19 and 26 have no field: element-to-record leaves
// them untouched, record-to-element drops them.
//
// All functions belong to module RCFG. The add and walk functions use the calling thread's
// scratch objects (rcfg_module.h) and are therefore not reentrant on one thread: a callback of
// fg_map_for_each must not call fg_map_add_point, fg_map_add_points or fg_map_for_each.
#pragma once

#include <cstdint>

#include "finalgather/fg_point.h"
#include "maps/map_interfaces.h"

namespace QV::RCMAP {
class Map_declaration_impl;
class Map_element_impl;
class Map_impl;
}  // namespace QV::RCMAP

// Element field indices of the declaration (the position is not a field).
enum Fg_field : uint32_t {
    FG_FIELD_NORMAL = 0,
    FG_FIELD_IRRAD = 1,
    FG_FIELD_RAYS = 2,
    FG_FIELD_GRAD_T1 = 3,
    FG_FIELD_GRAD_T2 = 4,
    FG_FIELD_POINT_ID = 5,
    FG_FIELD_R_MEAN = 6,
    FG_FIELD_MIN_DIST = 7,
    FG_FIELD_MIN_DIST_DIR = 8,
    FG_FIELD_OCCLUDED_MIN_DIST = 9,
    FG_FIELD_COUNT = 10,
};

constexpr uint32_t FG_ELEMENT_BYTES = 96;

// A new declaration of dimension 3 with the ten fields; owned by the caller.
QV::RCMAP::Map_declaration_impl* fg_map_declaration();

// Copies position and every field of `element` into `out`; words 18, 19 and 26 stay as they were.
// REQUIRES: `element` has a declaration equivalent to the final-gather one.
void fg_point_from_element(Fg_point* out, const QV::RCMAP::Map_element_impl* element);
// Fills `element` from `position` (3 floats) and `data` (the 23 words behind the position, i.e.
// record word 3). REQUIRES: as above.
void fg_point_to_element(QV::RCMAP::Map_element_impl* element, const float* position, const void* data);

// Appends one point to `map` through the scratch element, with the map's lock taken and its
// bounds grown. The point is pending until the map is committed (build_bvh).
qv::shader_v3::Map_status fg_map_add_point(QV::RCMAP::Map_impl* map, const float* position, const void* data);
// The same for `count` packed records; stops at the first failing append and returns its status.
qv::shader_v3::Map_status fg_map_add_points(QV::RCMAP::Map_impl* map, const Fg_point* points, uint32_t count);

// Called with the scratch record's word 3 as `data` and its word 0 as `position`; 0 ends the walk.
using Fg_point_callback = int (*)(void* context, const void* data, const float* position);
// Walks the map stored under `tag` in element order. 0 when the callback ended the walk, else 1
// (also for tag 0, an unknown tag or an empty map, where the callback is never called).
int fg_map_for_each(uint32_t tag, Fg_point_callback callback, void* context);
