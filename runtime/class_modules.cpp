// Class-based modules: the entry list, start and stop by name, and the two 190-row tables.
#include "runtime/class_modules.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace QV::SYSTEM {

namespace {

using Name_table = std::array<const char*, CLASS_MODULE_ROWS>;

// Names known before any registration runs. Constant-initialised, so static registrations in
// other files may write rows in their constructors whatever the order of initialisation.
constexpr Name_table startup_names()
{
    Name_table names{};
    names[0] = "MAIN";
    names[1] = "ATTR";
    names[4] = "DATA";
    names[5] = "DB";
    names[10] = "DFLU";
    names[11] = "PAGE";
    names[12] = "SCH";
    names[16] = "DISK";
    names[18] = "HAL";
    names[20] = "LINK";
    names[23] = "THRD";
    names[24] = "TIME";
    names[26] = "COLR";
    names[28] = "CONT";
    names[29] = "DFEQ";
    names[30] = "ENTY";
    names[31] = "KDTR";
    names[33] = "LALG";
    names[40] = "REGX";
    names[42] = "STRM";
    names[43] = "STR";
    names[44] = "ZLIB";
    names[45] = "CT";
    names[46] = "DDS";
    names[47] = "EXR";
    names[50] = "JPEG";
    names[51] = "PIC";
    names[52] = "PNG";
    names[53] = "TIFF";
    names[54] = "ANTL";
    names[57] = "XML";
    names[58] = "BRD";
    names[60] = "CAM";
    names[61] = "DBAS";
    names[62] = "DBIM";
    names[63] = "DECL";
    names[64] = "FSRC";
    names[65] = "FUNC";
    names[66] = "GRP";
    names[67] = "INST";
    names[68] = "LIT";
    names[69] = "LPRF";
    names[70] = "MTL";
    names[71] = "OPT";
    names[73] = "SEL";
    names[74] = "TEX";
    names[80] = "NAPI";
    names[89] = "GVIW";
    names[90] = "MPRP";
    names[91] = "MMIB";
    names[93] = "SCPP";
    names[94] = "SCPC";
    names[95] = "GVGI";
    names[96] = "GVSC";
    names[97] = "GVWG";
    names[98] = "MESH";
    names[99] = "MCOD";
    names[100] = "MEXP";
    names[102] = "MLTX";
    names[105] = "MPAR";
    names[107] = "MSET";
    names[109] = "MWXH";
    names[110] = "MTOL";
    names[116] = "CL12";
    names[123] = "DISP";
    names[124] = "FFS";
    names[144] = "BRDF";
    names[145] = "FBFR";
    names[149] = "SAMP";
    names[150] = "SHDR";
    names[154] = "SWBU";
    names[163] = "CKNN";
    names[165] = "BVH";
    names[166] = "SCAM";
    names[171] = "RTTR";
    names[174] = "SLGT";
    names[176] = "RAL";
    names[182] = "GPRM";
    names[183] = "COPT";
    names[184] = "GCMP";
    names[185] = "SIMP";
    names[187] = "WELD";
    return names;
}

constinit Name_table g_names = startup_names();
constinit std::array<IModule*, CLASS_MODULE_ROWS> g_objects{};
constinit detail::Linked_list* g_list_head = nullptr;

const char* const UNKNOWN_MODULE_NAME = "UNKNOWN_MODULE";

Module_registration_entry* find_entry(const char* name)
{
    if (!name)
        return nullptr;
    for (detail::Linked_list* link = g_list_head; link; link = link->next) {
        auto* entry = static_cast<Module_registration_entry*>(link);
        if (entry->name() && strcmp(entry->name(), name) == 0)
            return entry;
    }
    return nullptr;
}

}  // namespace

Module::Module(uint32_t id, const char* name) : id_(id), name_(name)
{
    if (id_ < CLASS_MODULE_ROWS)
        g_objects[id_] = this;
}

Module::~Module()
{
    if (id_ < CLASS_MODULE_ROWS && g_objects[id_] == this)
        g_objects[id_] = nullptr;
}

Module_registration_entry::Module_registration_entry(const char* name) : name_(name)
{
    next = g_list_head;
    g_list_head = this;
}

Module_registration_entry::~Module_registration_entry() { g_list_head = next; }

void Module_registration_entry::start()
{
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (use_count_++ == 0) {
        status_ = MODULE_STARTING;
        status_ = init_module() ? MODULE_INITIALIZED : MODULE_FAILED;
        return;
    }
    // Only the starting thread gets past the lock while the status says STARTING: the module
    // has been reached again from its own start-up.
    if (status_ == MODULE_STARTING) {
        fprintf(stderr, "Module %s has circular dependencies. Please fix. Will abort now.", name_);
        fflush(stderr);
        abort();
    }
}

void Module_registration_entry::stop()
{
    std::lock_guard<std::recursive_mutex> hold(lock_);
    if (use_count_ == 0)
        return;
    if (--use_count_ == 0) {
        exit_module();
        status_ = MODULE_EXITED;
    }
}

Module_registration_entry* module_start(const char* name)
{
    Module_registration_entry* entry = find_entry(name);
    if (entry)
        entry->start();
    return entry;
}

bool module_stop(const char* name)
{
    Module_registration_entry* entry = find_entry(name);
    if (!entry)
        return false;
    entry->stop();
    return true;
}

const char* module_class_name(uint32_t id)
{
    if (id >= CLASS_MODULE_ROWS)
        return nullptr;
    if (IModule* object = g_objects[id])
        return object->get_name();
    return g_names[id];
}

uint32_t module_class_id(const char* name)
{
    if (!name)
        return CLASS_MODULE_NOT_FOUND;
    for (uint32_t id = 1; id < CLASS_MODULE_ROWS; ++id) {
        const char* row = module_class_name(id);
        if (!row)
            row = UNKNOWN_MODULE_NAME;
        if (strncasecmp(row, name, 4) == 0)
            return id;
    }
    return CLASS_MODULE_NOT_FOUND;
}

IModule* module_object(uint32_t id) { return id < CLASS_MODULE_ROWS ? g_objects[id] : nullptr; }

void module_set_class_name(uint32_t id, const char* name)
{
    if (id < CLASS_MODULE_ROWS)
        g_names[id] = name;
}

const char* module_status_text(int32_t status)
{
    switch (status) {
    case MODULE_UNINITIALIZED: return "UNINITIALIZED";
    case MODULE_STARTING: return "STARTING";
    case MODULE_INITIALIZED: return "INITIALIZED";
    case MODULE_EXITED: return "EXITED";
    case MODULE_FAILED: return "FAILED";
    default: return "unknown";
    }
}

void module_list_print()
{
    for (detail::Linked_list* link = g_list_head; link; link = link->next) {
        auto* entry = static_cast<Module_registration_entry*>(link);
        fprintf(stderr, "Module %s\t(%s)\n", entry->name(), module_status_text(entry->status()));
    }
}

}  // namespace QV::SYSTEM
