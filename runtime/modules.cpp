// The numbered module frame: names, area registration, per-thread context areas and the three
// kinds of global area.
//
// Registration, creation and teardown of global areas run on one thread before other threads
// exist or after they end, so nothing here takes a lock. Context areas belong to one thread.
#include "runtime/modules.h"

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"

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
    uint32_t size;  // bytes; 0 = the module has no area of this kind
};

enum Area_kind { AREA_CONTEXT, AREA_TRANSACTION, AREA_SESSION, AREA_WORLD, AREA_KINDS };

Area_row g_rows[AREA_KINDS][MODULE_TABLE_ROWS];

// The global areas, shared by every thread through its Thread_context fields 6 to 8.
void* g_transaction_areas[MODULE_TABLE_ROWS];
void* g_session_areas[MODULE_TABLE_ROWS];
void* g_world_areas[MODULE_TABLE_ROWS];
void** const g_global_arrays[AREA_KINDS] = {nullptr, g_transaction_areas, g_session_areas,
                                            g_world_areas};
const char* const g_kind_names[AREA_KINDS] = {"context", "transaction", "session", "world"};

Mod_context_fold_hook g_fold_hook = nullptr;

// API owns the scene's public handles and SCENE the scene itself: both go before the rest.
const int g_teardown_priority[] = {MOD_API, MOD_SCENE};

bool valid_id(int id) { return id > 0 && id < MODULE_TABLE_ROWS; }

void register_area(Area_kind kind, int id, Area_callback init, Area_callback exit, uint32_t size)
{
    Area_row& row = g_rows[kind][id];
    if (init)
        row.init = init;
    if (exit)
        row.exit = exit;
    row.size = size;
}

void* global_area(Area_kind kind, int id) { return valid_id(id) ? g_global_arrays[kind][id] : nullptr; }

}  // namespace

const char* module_name(int id)
{
    if (id < 0 || id >= MODULE_TABLE_ROWS)
        return "";
    return g_module_names[id];
}

void mod_register_context_area(int id, Area_callback init, Area_callback exit, uint32_t size)
{
    register_area(AREA_CONTEXT, id, init, exit, size);
}

void mod_register_transaction_area(int id, Area_callback init, Area_callback exit, uint32_t size)
{
    register_area(AREA_TRANSACTION, id, init, exit, size);
}

void mod_register_session_area(int id, Area_callback init, Area_callback exit, uint32_t size)
{
    register_area(AREA_SESSION, id, init, exit, size);
}

void mod_register_world_area(int id, Area_callback init, Area_callback exit, uint32_t size)
{
    register_area(AREA_WORLD, id, init, exit, size);
}

void* mod_context_area(int id)
{
    Thread_context* context = thread_context();
    if (!context)
        return nullptr;
    if (!context->context_areas)
        context->context_areas =
            static_cast<void**>(mem_raw_alloc(__FILE__, __LINE__, sizeof(void*) * MODULE_TABLE_ROWS));
    const Area_row& row = g_rows[AREA_CONTEXT][id];
    if (context->context_areas[id] || row.size == 0)
        return context->context_areas[id];
    void* area = mem_raw_alloc(__FILE__, __LINE__, row.size);
    context->context_areas[id] = area;
    if (row.init)
        row.init(area);
    return area;
}

void* mod_transaction_area(int id) { return global_area(AREA_TRANSACTION, id); }
void* mod_session_area(int id) { return global_area(AREA_SESSION, id); }
void* mod_world_area(int id) { return global_area(AREA_WORLD, id); }

void mod_report_context_areas()
{
    Module_scope scope(MOD_TRANS);
    for (int id = 1; id <= MODULE_LAST_ID; ++id) {
        if (g_rows[AREA_CONTEXT][id].size)
            msg_debug("module %s registered for %d byte context area", module_name(id),
                      int(g_rows[AREA_CONTEXT][id].size));
    }
}

void mod_create_global_areas()
{
    Module_scope scope(MOD_TRANS);
    for (int id = 1; id <= MODULE_LAST_ID; ++id) {
        for (int kind = AREA_TRANSACTION; kind <= AREA_WORLD; ++kind) {
            const Area_row& row = g_rows[kind][id];
            // An area that exists already stays: the routine runs once per process.
            if (row.size == 0 || g_global_arrays[kind][id])
                continue;
            void* area = mem_raw_alloc(__FILE__, __LINE__, row.size);
            g_global_arrays[kind][id] = area;
            if (row.init)
                row.init(area);
            msg_debug("module %s registered for %d byte %s area", module_name(id), int(row.size),
                      g_kind_names[kind]);
        }
    }
    if (Thread_context* context = thread_context()) {
        context->transaction_areas = g_transaction_areas;
        context->session_areas = g_session_areas;
        context->world_areas = g_world_areas;
        context->host_number = msg_host_number();
    }
}

void mod_exit_order(const int* priority, int priority_count, int* order)
{
    int position_of[MODULE_TABLE_ROWS];
    for (int i = 0; i < MODULE_TABLE_ROWS; ++i) {
        order[i] = i;
        position_of[i] = i;
    }
    for (int i = 0; i < priority_count && i < MODULE_TABLE_ROWS; ++i) {
        int listed = priority[i];
        if (listed < 0 || listed >= MODULE_TABLE_ROWS)
            continue;
        // The occupant of position i moves to where `listed` stood; `listed` takes position i.
        int listed_position = position_of[listed];
        int occupant = order[i];
        order[listed_position] = occupant;
        position_of[occupant] = listed_position;
        order[i] = listed;
        position_of[listed] = i;
    }
}

void mod_destroy_global_areas()
{
    Module_scope scope(MOD_TRANS);
    int order[MODULE_TABLE_ROWS];
    mod_exit_order(g_teardown_priority, int(sizeof g_teardown_priority / sizeof g_teardown_priority[0]),
                   order);
    // Whole passes per kind: every transaction area is gone before the first session area goes.
    for (int kind = AREA_TRANSACTION; kind <= AREA_WORLD; ++kind) {
        for (int position = 0; position < MODULE_TABLE_ROWS; ++position) {
            int id = order[position];
            if (id == 0)
                continue;
            const Area_row& row = g_rows[kind][id];
            void* area = g_global_arrays[kind][id];
            // A module registered after the areas were made has a size but never got an area.
            if (row.size == 0 || !area)
                continue;
            if (row.exit)
                row.exit(area);
            mem_raw_free(__FILE__, __LINE__, area);
            g_global_arrays[kind][id] = nullptr;
        }
    }
}

void mod_set_context_fold_hook(Mod_context_fold_hook hook) { g_fold_hook = hook; }

void** mod_detach_context()
{
    Thread_context* context = thread_context();
    if (!context)
        return nullptr;
    void** array = context->context_areas;
    if (array && array[MOD_MEM] && g_fold_hook)
        g_fold_hook(array[MOD_MEM]);
    context->context_areas = nullptr;
    return array;
}

void mod_attach_context(void** array)
{
    Module_scope scope(MOD_TRANS);
    Thread_context* context = thread_context();
    if (!context)
        return;
    void** held = context->context_areas;
    if (!held) {
        context->context_areas = array;
        return;
    }
    // Sweep until nothing comes back: an exit may ask for an area that an earlier row of this
    // sweep already released. The array stays installed meanwhile so such requests land in it.
    int sweeps = 0;
    int released;
    do {
        released = 0;
        for (int id = 1; id <= MODULE_LAST_ID; ++id) {
            void* area = held[id];
            if (!area)
                continue;
            if (Area_callback exit = g_rows[AREA_CONTEXT][id].exit)
                exit(area);
            mem_raw_free(__FILE__, __LINE__, area);
            held[id] = nullptr;
            ++released;
        }
        ++sweeps;
    } while (released && sweeps < MODULE_ATTACH_MAX_SWEEPS);
    mem_raw_free(__FILE__, __LINE__, held);
    context->context_areas = array;
}
