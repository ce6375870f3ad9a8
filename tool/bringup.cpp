#include "tool/bringup.h"

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/host_messaging.h"
#include "runtime/api_start.h"
#include "runtime/modules.h"

void bring_up_modules()
{
    mem_init();
    qv_net_init();
    qv_msg_init(0);
    // DB, DBN, SCENE and the kd-tree registration join here.
    mod_report_context_areas();
    mod_create_global_areas();
    qv_api_init(0);
    // RCFG and RCMP (with the tool's cache bypass flag) join here.
    // The array is parked and dropped on purpose: the work that follows builds its own areas
    // with the sizes now known.
    mod_detach_context();
}
