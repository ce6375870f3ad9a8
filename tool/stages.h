// The four pipeline stages of fg_splice. Each takes and gives one database tag; a stage that
// changes the points builds a new map, stores it and removes the old tag, so exactly one map is
// alive in the database between stages.
#pragma once

#include <cstdint>

using Tag = uint32_t;

// The quality factor every stage builds its new map's BVH with. The stages switch bvh_enabled
// off, so the build only commits the appended points.
constexpr float STAGE_BUILD_FACTOR = 0.6f;

// Reads every input into one map and stores it; 0 when no input gave a point.
Tag load_maps(char** names, int count);
// Keeps the points inside (inside = 1) or outside (inside = 0) the box xmin ymin zmin xmax ymax zmax.
Tag select_box(Tag tag, const float box[6], int inside);
// Merges points within `distance` whose normals differ by at most `max_angle_degrees`.
Tag merge_map(Tag tag, float distance, float max_angle_degrees);
// Removes an existing output file, then writes the map in the current format, or in the classic
// one when `legacy` is set. Failures are reported by the writers only. The classic write gives
// the map's pages up as it walks them, so the map under `tag` is not to be read afterwards.
void save_map(const char* name, Tag tag, int legacy);
