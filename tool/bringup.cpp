#include "tool/bringup.h"

#include <algorithm>
#include <thread>

#include "base/lib/mem/i_mem_allocatable.h"
#include "containers/kdtree.h"
#include "database/db.h"
#include "database/dbn.h"
#include "database/host_messaging.h"
#include "database/scene_types.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_bvh.h"
#include "maps/rcmp_module.h"
#include "runtime/api_start.h"
#include "runtime/modules.h"

void bring_up_modules()
{
    mem_init();
    qv_net_init();
    qv_msg_init(0);
    qv_db_init();
    qv_dbn_init();
    qv_scene_init();
    kdtree_register();
    mod_report_context_areas();
    mod_create_global_areas();
    // Registered after the global areas were made: in this program the LIB world area and the
    // RCFG and RCMP session areas stay null, and only their context areas exist.
    qv_api_init(0);
    fg_module_init();
    rcmp_init(true);  // the cache is bounded by physical memory alone
    // The BVH build's per-page job runs on every core: each page's tree is built on its own,
    // so the pages come out the same whichever thread builds them.
    QV::RCMAP::map_bvh_set_thread_count(std::clamp(std::thread::hardware_concurrency(), 1u, 8u));
    // Areas made while modules were still registering are released (each module's exit runs):
    // the work that follows builds its own areas with the sizes now known.
    mod_attach_context(nullptr);
}
