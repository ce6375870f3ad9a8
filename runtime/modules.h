// Numbered modules and the per-thread context.
//
// Every piece of the system belongs to a module id (1..86). The id of the code that runs now
// lives in the calling thread's Thread_context, pushed and popped by Module_scope at each module
// entry; the message layer prints it, the memory manager charges it, and per-module private
// areas are found by it. Tables indexed by module id have MODULE_TABLE_ROWS rows so that the id
// indexes them directly (row 0 is never a module).
#pragma once

#include <cstddef>
#include <cstdint>

enum Module_id : int32_t {
    MOD_NONE = 0,
    MOD_MSG = 1, MOD_PAR = 2, MOD_MEM = 3, MOD_DB = 4, MOD_PHEN = 5, MOD_RCRM = 6, MOD_SCENE = 7,
    MOD_RC = 8, MOD_GAPQV = 9, MOD_IMG = 10, MOD_ECHO = 11, MOD_QV = 12, MOD_RCLM = 13,
    MOD_SBS = 14, MOD_RCH = 15, MOD_GEOSI = 17, MOD_LINK = 19, MOD_P2SD = 20, MOD_DISP = 21,
    MOD_LPROF = 22, MOD_JOB = 23, MOD_MAIN = 24, MOD_GEOQV = 25, MOD_EXR = 26, MOD_TRANS = 27,
    MOD_INVENTOR = 28, MOD_LIB = 29, MOD_API = 30, MOD_SPDL = 31, MOD_PHCR = 32, MOD_RCB = 33,
    MOD_RCC = 34, MOD_RCI = 35, MOD_RCGI = 36, MOD_SIMP = 38, MOD_SURF = 39, MOD_CAPI = 40,
    MOD_GAPAD = 41, MOD_GAPCU = 42, MOD_GAPDI = 43, MOD_GAPIS = 44, MOD_GAPPO = 45, MOD_GAPFA = 46,
    MOD_GAPTE = 47, MOD_GEOCO = 48, MOD_GEOEV = 49, MOD_GEOMO = 50, MOD_GEOST = 51, MOD_GEOTE = 52,
    MOD_JPG = 53, MOD_RCFG = 54, MOD_BSP2 = 55, MOD_DBN = 56, MOD_RCQ = 57, MOD_BRDF = 58,
    MOD_MATH = 59, MOD_BVH = 60, MOD_N2SD = 61, MOD_PARTICLEMAP = 62, MOD_SCHED = 63,
    MOD_SERIAL = 64, MOD_EXTERNAL = 65, MOD_CONT = 66, MOD_SAMP = 67, MOD_QSL = 68, MOD_DISK = 70,
    MOD_RQSL = 71, MOD_CFLA = 72, MOD_SHDB = 73, MOD_QSLC = 74, MOD_CB12 = 75, MOD_BQSL = 76,
    MOD_MCMP = 77, MOD_CFRO = 78, MOD_GCPP = 79, MOD_SYNT = 80, MOD_HALF = 81, MOD_RCMP = 82,
    MOD_LLVM = 83, MOD_ZRAY = 84, MOD_CUDA = 85, MOD_IBL = 86,
};

constexpr int MODULE_LAST_ID = 86;
constexpr int MODULE_TABLE_ROWS = 87;

// Name of module `id` as listed in the module table; "" for a retired id or one out of range.
const char* module_name(int id);

// One record per thread, reached through the thread-local slot. Created zeroed and owned by
// the thread table. The field order is part of the runtime's contract.
struct Thread_context {
    int32_t thread_number;      // row in the thread table, 0 = main; 1024 = left the table
    uint32_t host_number;       // 0 on the master
    void* db_held;              // head of the chain of database records this thread holds
    void* stack_base;           // near the top of the thread's stack
    int64_t stack_size;         // bytes
    void** transaction_areas;   // shared array by module id (global areas)
    void** session_areas;       // shared array by module id
    void** world_areas;         // shared array by module id
    void** context_areas;       // MODULE_TABLE_ROWS pointers, private to this thread; null until used
    int32_t previous_module;    // module current before the current one
    int32_t current_module;     // module now executing
    uint32_t* db_pins;          // 32,767 pin counters, created on first use
    char* error_text;           // 256-byte buffer of the last OS error text, created on first use
};

constexpr int THREAD_NUMBER_DETACHED = 1024;

// The thread-local slot. Null on a thread the system does not know.
// constinit: the slot needs no dynamic initialisation, so reads are a plain TLS load.
extern constinit thread_local Thread_context* qv_tls_context;
inline Thread_context* thread_context() { return qv_tls_context; }
inline void thread_context_set(Thread_context* context) { qv_tls_context = context; }

// Module entry guard: makes `module` current for the lifetime of the scope and restores the two
// module fields on every exit path. Without a Thread_context it does nothing.
class Module_scope {
public:
    explicit Module_scope(int32_t module) : context_(qv_tls_context)
    {
        if (context_) {
            saved_previous_ = context_->previous_module;
            context_->previous_module = context_->current_module;
            context_->current_module = module;
        }
    }
    ~Module_scope()
    {
        if (context_) {
            context_->current_module = context_->previous_module;
            context_->previous_module = saved_previous_;
        }
    }
    Module_scope(const Module_scope&) = delete;
    Module_scope& operator=(const Module_scope&) = delete;

private:
    Thread_context* context_;
    int32_t saved_previous_ = 0;
};

// ---- Per-module areas -------------------------------------------------------------------
// Registration is done on the main thread during start-up and takes no lock. A null init or
// exit keeps what the row held; size always overwrites.
using Area_callback = void (*)(void* area);

void mod_register_context_area(int id, Area_callback init, Area_callback exit, uint32_t size);
void mod_register_transaction_area(int id, Area_callback init, Area_callback exit, uint32_t size);
void mod_register_session_area(int id, Area_callback init, Area_callback exit, uint32_t size);
void mod_register_world_area(int id, Area_callback init, Area_callback exit, uint32_t size);

// The calling thread's context area of module `id`, created (zeroed, then init) on first
// request; null when the module registered no context area or there is no Thread_context.
void* mod_context_area(int id);

// Global areas of module `id`, null when none was created.
void* mod_transaction_area(int id);
void* mod_session_area(int id);
void* mod_world_area(int id);

void mod_report_context_areas();
void mod_create_global_areas();
void mod_destroy_global_areas();

// Takes the calling thread's context-area array away (folding MEM's accounts first) and
// returns it; the caller owns it and may hand it to mod_attach_context on any thread. Null when
// the thread has no array or no Thread_context.
void** mod_detach_context();
// The memory manager's fold of a thread's MEM context area into the process totals, called by
// mod_detach_context before the array leaves the thread. Null (the default) folds nothing.
using Mod_context_fold_hook = void (*)(void* mem_context_area);
void mod_set_context_fold_hook(Mod_context_fold_hook hook);
// Destroys the calling thread's array, if any, and installs `array` (may be null). Destroying
// runs each area's exit and frees it, sweeping again while a sweep released something (an exit
// may bring back another module's area), at most MODULE_ATTACH_MAX_SWEEPS sweeps; whatever is
// left after that is abandoned with the array.
void mod_attach_context(void** array);
constexpr int MODULE_ATTACH_MAX_SWEEPS = 87;

// The exit permutation of 0..86 built from a priority list; `order` gets MODULE_TABLE_ROWS ids.
// The listed ids come first; each id they displace takes the position the listed id left, so
// (30, 7) gives 30, 7, 2, 3, 4, 5, 6, 1, 8..29, 0, 31..86 (0 is never a module: skip it).
void mod_exit_order(const int* priority, int priority_count, int* order);
