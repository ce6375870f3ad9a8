// First cut of the module frame; being completed (global areas, sweeps, exit order).
#include "runtime/modules.h"

#include "base/lib/mem/i_mem_allocatable.h"

namespace {

const char* const g_module_names[MODULE_TABLE_ROWS] = {
    "",      "MSG",   "PAR",   "MEM",   "DB",    "PHEN",  "RCRM",  "SCENE", "RC",    "GAPQV",
    "IMG",   "ECHO",  "QV",    "RCLM",  "SBS",   "RCH",   "",      "GEOSI", "",      "LINK",
    "P2SD",  "DISP",  "LPROF", "JOB",   "MAIN",  "GEOQV", "EXR",   "TRANS", "INVENTOR", "LIB",
    "API",   "SPDL",  "PHCR",  "RCB",   "RCC",   "RCI",   "RCGI",  "",      "SIMP",  "SURF",
    "CAPI",  "GAPAD", "GAPCU", "GAPDI", "GAPIS", "GAPPO", "GAPFA", "GAPTE", "GEOCO", "GEOEV",
    "GEOMO", "GEOST", "GEOTE", "JPG",   "RCFG",  "BSP2",  "DBN",   "RCQ",   "BRDF",  "MATH",
    "BVH",   "N2SD",  "PARTICLEMAP", "SCHED", "SERIAL", "EXTERNAL", "CONT", "SAMP", "QSL", "",
    "DISK",  "RQSL",  "CFLA",  "SHDB",  "QSLC",  "CB12",  "BQSL",  "MCMP",  "CFRO",  "GCPP",
    "SYNT",  "HALF",  "RCMP",  "LLVM",  "ZRAY",  "CUDA",  "IBL",
};

struct Area_row {
    Area_callback init;
    Area_callback exit;
    uint32_t size;
};

Area_row g_context_rows[MODULE_TABLE_ROWS];

}  // namespace

const char* module_name(int id)
{
    if (id < 0 || id >= MODULE_TABLE_ROWS)
        return "";
    return g_module_names[id];
}

void mod_register_context_area(int id, Area_callback init, Area_callback exit, uint32_t size)
{
    if (init)
        g_context_rows[id].init = init;
    if (exit)
        g_context_rows[id].exit = exit;
    g_context_rows[id].size = size;
}

void* mod_context_area(int id)
{
    Thread_context* context = thread_context();
    if (!context)
        return nullptr;
    if (!context->context_areas)
        context->context_areas = static_cast<void**>(mem_raw_alloc("context", 0, sizeof(void*) * MODULE_TABLE_ROWS));
    if (context->context_areas[id] || g_context_rows[id].size == 0)
        return context->context_areas[id];
    void* area = mem_raw_alloc("context", 0, g_context_rows[id].size);
    context->context_areas[id] = area;
    if (g_context_rows[id].init)
        g_context_rows[id].init(area);
    return area;
}

void mod_attach_context(void** array)
{
    Thread_context* context = thread_context();
    if (context)
        context->context_areas = array;
}

// ---- first-cut placeholders, replaced by the complete module frame ----
void mod_register_transaction_area(int, Area_callback, Area_callback, uint32_t) {}
void mod_register_session_area(int, Area_callback, Area_callback, uint32_t) {}
void mod_register_world_area(int, Area_callback, Area_callback, uint32_t) {}
void* mod_transaction_area(int) { return nullptr; }
void* mod_session_area(int) { return nullptr; }
void* mod_world_area(int) { return nullptr; }
void mod_report_context_areas() {}
void mod_create_global_areas() {}
void mod_destroy_global_areas() {}
void** mod_detach_context()
{
    Thread_context* context = thread_context();
    if (!context)
        return nullptr;
    void** array = context->context_areas;
    context->context_areas = nullptr;
    return array;
}
