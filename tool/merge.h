// The neighbour merge: replaces final-gather points that lie within a distance of one another
// and whose normals agree by their weighted blends (tool/blend.h).
//
// Neighbours are found on a uniform grid that is never built: the array is sorted by cell, and
// each neighbouring cell is found by binary search in the sorted array. The grid state below is
// process-wide and shared with compare_points, so none of this is reentrant: one merge at a
// time, on one thread.
#pragma once

#include "finalgather/fg_point.h"
#include "tool/stages.h"

struct Merge_grid {
    float grid_min[3];     // lower corner of the map's committed bounds; fixed for a whole merge
    float grid_max[3];     // upper corner of those bounds
    float cell_origin[3];  // origin of the cells: grid_min, copied by each merge_points call
    float cell_size[3];    // cell edge per axis; 0.0 leaves the axis out of the grid
};
extern Merge_grid merge_grid;

// Sets grid_min and grid_max for the following merge_points calls. merge_map takes them from the
// map's committed bounds; a caller merging a plain array must give bounds that enclose it (points
// outside still merge correctly, only the cell-count estimate and the flat-axis rule go by it).
void merge_set_bounds(const float min[3], const float max[3]);

// Orders two records by grid cell, x most significant, from their first three words only, under
// the current cell_origin and cell_size. 0 means the same cell. Single precision with the cell
// number floored in double, as the merge's in-cell tests expect. Not a strict weak ordering for
// a negative cell size, NaN coordinates or positions on a cell border: callers must not feed it
// to a sort or search that relies on one.
int compare_points(const void* a, const void* b);

// Merges `points[0..count)` in place and returns the new count; survivors come first, in grid
// order, then the blends that landed in a third cell. A pair merges when its distance is at most
// `distance` and the cosine between the normals at least cos(angle_degrees); `rays` with every
// bit set marks a dead input point, which is dropped. When the grid would average more than
// eight points per cell, merges at half the distance first (at most 10 levels deep). The first
// call passes depth 0. Never fails; allocation failures follow the memory manager's rules.
unsigned merge_points(Fg_point* points, unsigned count, float distance, float angle_degrees, int depth);

// With `on`, every pass sorts and searches by compare_points' own comparisons instead of integer
// cell keys. Both give the same result; the switch lets tests hold the fast path against the
// plain one.
void merge_set_exact_only(bool on);

// merge_map (declared in tool/stages.h) is the pipeline stage around merge_points: it takes the
// grid bounds from the map's committed bounds, copies the points out, releases the map under
// `tag` (which removes that tag), merges, and stores the survivors as a new map of the same
// declaration, committed with build_bvh(0.6). Returns the new tag; 0 for tag 0 or a tag that
// holds no map.
