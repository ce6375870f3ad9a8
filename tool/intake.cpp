// Intake: every input file, classic or current, into one new stored map.
#include "finalgather/fg_file.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_dbhandle.h"
#include "maps/map_impl.h"
#include "tool/stages.h"

using namespace QV::RCMAP;


Tag load_maps(char** names, int count)
{
    // The tool never looks points up by position, so all intake happens without a BVH.
    Map_impl* map = fg_map_new();
    map->bvh_enabled = false;

    // Only the test for zero uses the total: an input that fails adds 0 and the next one is read.
    uint32_t total = 0;
    for (int i = 0; i < count; ++i)
        if (names[i])
            total += fg_map_load(map, names[i], true);
    if (total == 0) {
        delete map;
        return 0;
    }

    map->build_bvh(STAGE_BUILD_FACTOR, false, false);
    Edit_map_dbhandle_impl handle(map);
    return handle.store();
}
