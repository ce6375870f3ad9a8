#include "database/scene_types.h"

#include <cstring>
#include <utility>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/element.h"
#include "database/scene_validate.h"
#include "database/scene_value.h"
#include "database/transaction.h"
#include "runtime/locks.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "serial/deserialization_manager.h"

namespace {

const char* const g_type_names[112] = {
    "null", "funcdecl", "func", "material", "light", "camera", "basislist", "object", "box",
    "linebox", "instance", "group", "options", "image", "polygon", "index", "geoindex", "vertex",
    "geovertex", "vector", "geovector", "face", "surface", "curve", "curvepoint", "scalar",
    "geoscalar", "invalid", "tag", "string", "spacecurve", "book", "page", "subdivsurf",
    "userdata", "world", "session", "transaction", "split", "qvmatter", "nbox", "local",
    "splitobject", "indexrange", "lightprofile", "invalid", "lightprofstd", "approxlist",
    "invalid", "fb_info", "colorprofile", "spectrum", "bsdf", "face_list", "assembly", "mapdecl",
    "quosl", "phenext", "invalid", "invalid", "invalid", "invalid", "invalid", "serializable",
    "rcb_box", "rcb_info_box", "contour_line", "lights_db", "fbarray", "io_data", "shmap_inst",
    "render_data", "rclm_4byte", "object_light_area", "rci_init_data", "photon_coll",
    "photon_map_info", "photon_extens_arr", "pe_arr_arr", "kdtree_access", "photon_arr",
    "projection_map", "volume_stack", "render_data", "fg_points", "fg_point_tree",
    "fg_grid_border", "job_return", "fg_session", "rcb_root", "func_ref", "rcb_split_job",
    "ogl_image", "grid_accel", "region_patch_list", "region_tri_list", "hair_param", "hair_bsp",
    "hair_tesselation", "region_idx_list", "invalid", "invalid", "invalid", "dshmap",
    "dshmap_tile", "rc_fb", "kdtree", "kdtree_data", "kdtree_pos", "kdtree_accel", "invalid",
    "invalid",
};

Scene_type_handlers g_handlers[DB_TYPES];
const Scene_type_handlers g_no_handlers{};
Scene_edit_hooks g_edit_hooks{};
Lock g_scene_lock = nullptr;  // made by qv_scene_init
bool g_started = false;

// Per-thread storage of the module: 440 bytes, zero until a walk of this thread uses it.
constexpr uint32_t SCENE_CONTEXT_BYTES = 440;

// The session's tag stack for the walks over sub-tags: 64 slots, made when the session's areas
// are created and freed when they are torn down.
constexpr int SCENE_SESSION_SLOTS = 64;
struct Scene_session {
    Db_tag* slots;            // SCENE_SESSION_SLOTS tags
    uint32_t used;
};

void scene_session_init(void* area)
{
    auto* session = static_cast<Scene_session*>(area);
    session->slots = static_cast<Db_tag*>(QV_ALLOC(SCENE_SESSION_SLOTS * sizeof(Db_tag)));
    session->used = 0;
}

void scene_session_exit(void* area)
{
    auto* session = static_cast<Scene_session*>(area);
    if (session->slots)
        QV_FREE(session->slots);
    session->slots = nullptr;
}

QV::SCENE::Options* g_options = nullptr;

int caller_module()
{
    Thread_context* context = thread_context();
    return context ? context->previous_module : MOD_NONE;
}

// ---- Sizes by type -----------------------------------------------------------------------------

// Bytes a record of `type` needs for the given counts; 0 when the type has no size rule here.
uint64_t record_size(int type, const Scene_args& args)
{
    const int64_t first = args.value[0] < 0 ? 0 : args.value[0];
    const int64_t second = args.value[1] < 0 ? 0 : args.value[1];
    if (const uint32_t element = qv_scene_array_element_size(type))
        return uint64_t(first) * element;
    if (const uint32_t item = qv_scene_item_size(type))
        return uint64_t(first) * item;
    switch (type) {
    case SCENE_FUNCDECL: return qv_scene_funcdecl_size(int32_t(first), int32_t(second));
    case SCENE_FUNC: return SCENE_FUNC_SIZE;
    case SCENE_MATERIAL: return SCENE_MATERIAL_SIZE;
    case SCENE_LIGHT: return SCENE_LIGHT_SIZE;
    case SCENE_CAMERA: return SCENE_CAMERA_SIZE;
    case SCENE_OBJECT: return SCENE_OBJECT_SIZE;
    case SCENE_INSTANCE: return SCENE_INSTANCE_SIZE;
    case SCENE_OPTIONS: return SCENE_OPTIONS_SIZE;
    case SCENE_BOX: return SCENE_BOX_FIXED + uint64_t(first) * SCENE_BOX_ITEM_SIZE;
    case SCENE_GROUP: return SCENE_GROUP_FIXED + uint64_t(first) * SCENE_GROUP_MEMBER_SIZE;
    case SCENE_USERDATA: return SCENE_USERDATA_FIXED + ((uint64_t(first) + 3) & ~uint64_t(3));
    case SCENE_BASISLIST: return SCENE_BASISLIST_FIXED + uint64_t(first) * SCENE_BASIS_SIZE;
    case SCENE_BOOK: return qv_scene_layout_size(scene_layout::book);
    case SCENE_PAGE: return qv_scene_layout_size(scene_layout::page);
    case SCENE_SUBDIVSURF: return qv_scene_layout_size(scene_layout::subdivsurf);
    case SCENE_NBOX: return qv_scene_layout_size(scene_layout::nbox);
    case SCENE_SPLITOBJECT: return qv_scene_layout_size(scene_layout::splitobject);
    case SCENE_COLORPROFILE: return qv_scene_layout_size(scene_layout::colorprofile);
    case SCENE_MAPDECL: return qv_scene_layout_size(scene_layout::mapdecl);
    default: return uint64_t(first);  // plain byte blocks: the first value is their size
    }
}

// The counters a record carries for its own size.
void write_counters(int type, void* data, const Scene_args& args)
{
    const int32_t first = int32_t(args.value[0]);
    switch (type) {
    case SCENE_FUNCDECL: {
        auto* decl = static_cast<Scene_funcdecl*>(data);
        decl->result_size = first;
        decl->subtag_count = int32_t(args.value[1]);
        break;
    }
    case SCENE_OBJECT: scene_set_word(data, SCENE_OBJECT_TYPE_WORD, first); break;
    case SCENE_BOX: scene_set_word(data, SCENE_BOX_ITEM_COUNT_WORD, first); break;
    case SCENE_GROUP: scene_set_word(data, SCENE_GROUP_COUNT_WORD, first); break;
    case SCENE_USERDATA: scene_set_word(data, SCENE_USERDATA_BYTES_WORD, first); break;
    case SCENE_BASISLIST: scene_set_word(data, SCENE_BASISLIST_COUNT_WORD, first); break;
    default: break;
    }
}

uint32_t clamp_size(uint64_t size) { return size > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(size); }

// The constructor and resize of every built-in record type: a zeroed record of the size its
// counts ask for, with the counters written. One instance per type, so the table row alone
// says which type a call is for.
template <int Type>
void* builtin_create(Db_tag* tag, const Scene_args& args)
{
    void* data = qv_db_create(tag, Type, clamp_size(record_size(Type, args)));
    write_counters(Type, data, args);
    return data;
}

template <int Type>
void* builtin_resize(Db_tag tag, const Scene_args& args)
{
    void* data = qv_db_realloc(tag, clamp_size(record_size(Type, args)));
    write_counters(Type, data, args);
    return data;
}

bool fixed_size_type(int type)
{
    switch (type) {
    case SCENE_MATERIAL:
    case SCENE_LIGHT:
    case SCENE_CAMERA:
    case SCENE_OBJECT:
    case SCENE_OPTIONS:
    case SCENE_LIGHTPROFILE:
    case SCENE_COLORPROFILE:
    case SCENE_PHENEXT: return true;
    default: return false;
    }
}

bool known_type(int type)
{
    if (type <= 0 || type >= DB_TYPES)
        return false;
    if (std::strcmp(qv_scene_type_name(type), "invalid") != 0)
        return true;
    const Scene_type_handlers& row = g_handlers[type];
    return row.constructor || row.validator || row.swap || row.resize || row.unlink;
}

// Sub-tags a record owns, as word indexes; what a deep copy duplicates and a delete deletes.
int owned_words(int type, int* words)
{
    switch (type) {
    case SCENE_CAMERA:
        words[0] = SCENE_CAMERA_OUTPUT_WORD;
        words[1] = SCENE_CAMERA_FB_WORD;
        return 2;
    case SCENE_INSTANCE: words[0] = SCENE_INSTANCE_PARAM_WORD; return 1;
    case SCENE_OPTIONS: words[0] = SCENE_OPTIONS_ELEMENT_WORD; return 1;
    default: return 0;
    }
}

template <int Type>
void fill_builtin_row()
{
    Scene_type_handlers& row = g_handlers[Type];
    // Array types and quosl are made by qv_scene_create itself.
    if (!qv_scene_array_element_size(Type) && Type != SCENE_QUOSL) {
        row.constructor = builtin_create<Type>;
        row.resize = builtin_resize<Type>;
    }
    row.validator = qv_scene_builtin_validator(Type);
    row.swap = qv_scene_builtin_swap(Type);
}

template <int... Offsets>
void fill_builtin_rows(std::integer_sequence<int, Offsets...>)
{
    (fill_builtin_row<Offsets + 1>(), ...);
}

struct Table_filler {
    Table_filler() { fill_builtin_rows(std::make_integer_sequence<int, SCENE_LAST_BUILTIN>()); }
} g_table_filler;

}  // namespace

uint32_t qv_scene_array_element_size(int type)
{
    switch (type) {
    case SCENE_POLYGON: return 20;
    case SCENE_INDEX: return 2;
    case SCENE_GEOINDEX:
    case SCENE_VERTEX:
    case SCENE_GEOVERTEX:
    case SCENE_SCALAR:
    case SCENE_TAG: return 4;
    case SCENE_VECTOR:
    case SCENE_FB_INFO: return 12;
    case SCENE_GEOVECTOR: return 24;
    case SCENE_CURVEPOINT: return 56;
    case SCENE_GEOSCALAR:
    case SCENE_INDEXRANGE: return 8;
    case SCENE_STRING:
    case SCENE_QVMATTER:
    case SCENE_LOCAL: return 1;
    case SCENE_FACE_LIST: return 80;
    default: return 0;
    }
}

uint32_t qv_scene_item_size(int type)
{
    switch (type) {
    case SCENE_POLYGON: return qv_scene_layout_size(scene_layout::polygon);
    case SCENE_FACE: return qv_scene_layout_size(scene_layout::face);
    case SCENE_SURFACE: return qv_scene_layout_size(scene_layout::surface);
    case SCENE_CURVE: return qv_scene_layout_size(scene_layout::curve);
    case SCENE_CURVEPOINT: return qv_scene_layout_size(scene_layout::curvepoint);
    case SCENE_SPACECURVE: return qv_scene_layout_size(scene_layout::spacecurve);
    case SCENE_APPROXLIST: return qv_scene_layout_size(scene_layout::approxlist);
    default: return 0;
    }
}

const char* qv_scene_type_name(int type)
{
    if (type < 0 || type >= 112)
        return "invalid";
    return g_type_names[type];
}

const Scene_type_handlers& qv_scene_handlers(int type)
{
    if (type < 0 || type >= DB_TYPES)
        return g_no_handlers;
    return g_handlers[type];
}

int qv_scene_register_type(int type, Scene_constructor constructor, Scene_resize_fn resize,
                           Scene_validate_fn validator, Scene_swap_fn swap, Scene_unlink_fn unlink)
{
    Module_scope scope(MOD_SCENE);
    if (type != SCENE_QVMATTER && (type < 64 || type > 127)) {
        msg_error_n(SCENE_ERROR_REGISTER_RANGE, "qv_scene_register_type: type number out of range");
        return 0;
    }
    // Readers take no lock; the module lock only keeps registering modules apart once SCENE is up.
    if (g_scene_lock)
        lock_enter(g_scene_lock);
    g_handlers[type] = Scene_type_handlers{constructor, resize, validator, swap, unlink};
    if (g_scene_lock)
        lock_leave(g_scene_lock);
    return 1;
}

void qv_scene_set_edit_hooks(const Scene_edit_hooks& hooks) { g_edit_hooks = hooks; }

void* qv_scene_create(Db_tag* tag, int type, int64_t first, int64_t second)
{
    Scene_args args{};
    args.value[0] = first;
    args.value[1] = second;
    return qv_scene_create(tag, type, args);
}

void* qv_scene_create(Db_tag* tag, int type, const Scene_args& args)
{
    Module_scope scope(MOD_SCENE);
    *tag = 0;
    void* data = nullptr;
    if (type >= 1 && type <= SCENE_LAST_BUILTIN) {
        if (const uint32_t element = qv_scene_array_element_size(type)) {
            const int64_t count = args.value[0] < 0 ? 0 : args.value[0];
            data = qv_db_create(tag, type, clamp_size(uint64_t(count) * element));
        } else if (type == SCENE_QUOSL) {
            data = qv_db_create(tag, type, 32);
        } else {
            data = g_handlers[type].constructor(tag, args);
        }
    } else if (type > 0 && type < DB_TYPES && g_handlers[type].constructor) {
        data = g_handlers[type].constructor(tag, args);
    }
    if (*tag) {
        Db_record* record = qv_db_pin(*tag);
        record->module = uint8_t(caller_module());
        record->refs = 0;
        record->flags = 7;
        record->priv = 0;
        qv_db_unpin(*tag);
    }
    return data;
}

Db_record* qv_scene_edit(Db_tag tag)
{
    Module_scope scope(MOD_SCENE);
    Db_record* record = qv_db_access_record(tag);
    if (record->type == SCENE_FUNC && g_edit_hooks.func_forget)
        g_edit_hooks.func_forget(tag, record->data);
    else if (record->type == SCENE_OBJECT && g_edit_hooks.object_changes)
        g_edit_hooks.object_changes(tag);
    record->flags |= 7;
    return record;
}

int qv_scene_validate(Db_tag tag)
{
    Module_scope scope(MOD_SCENE);
    const int type = qv_db_type(tag);
    if (type == 0 || type >= DB_TYPES) {
        msg_error("tag %#x has unknown type %d", tag, type);
        return 0;
    }
    Scene_validate_fn validator = g_handlers[type].validator;
    if (!validator)
        return 1;
    Db_record* record = qv_db_access_record(tag);
    const int good = validator(tag, record->size, record->data, 0);
    qv_db_unpin(tag);
    return good;
}

void* qv_scene_resize(Db_tag tag, int64_t first, int64_t second)
{
    Scene_args args{};
    args.value[0] = first;
    args.value[1] = second;
    return qv_scene_resize(tag, args);
}

void* qv_scene_resize(Db_tag tag, const Scene_args& args)
{
    Module_scope scope(MOD_SCENE);
    const int type = qv_db_type(tag);
    if (fixed_size_type(type)) {
        msg_debug("can't grow a %s", qv_scene_type_name(type));
        return qv_scene_edit(tag)->data;
    }
    if (type >= 1 && type <= SCENE_LAST_BUILTIN) {
        if (const uint32_t element = qv_scene_array_element_size(type)) {
            const int64_t count = args.value[0] < 0 ? 0 : args.value[0];
            return qv_db_realloc(tag, clamp_size(uint64_t(count) * element));
        }
        if (type == SCENE_QUOSL)
            return qv_scene_edit(tag)->data;
        return g_handlers[type].resize(tag, args);
    }
    if (type > 0 && type < DB_TYPES && g_handlers[type].resize)
        return g_handlers[type].resize(tag, args);
    return qv_scene_edit(tag)->data;
}

Db_tag qv_scene_copy(Db_tag tag)
{
    Module_scope scope(MOD_SCENE);
    const int type = qv_db_type(tag);
    const Db_tag copy = qv_db_dup(tag);
    int words[4];
    const int owned = owned_words(type, words);
    if (owned == 0)
        return copy;
    // The three deep types are untracked: their data is reached without pins.
    void* data = qv_db_access(copy);
    const uint32_t size = qv_db_size(copy);
    for (int n = 0; n < owned; ++n) {
        if (uint32_t(words[n]) * 4 + 4 > size)
            continue;
        const Db_tag sub = Db_tag(scene_word(data, words[n]));
        if (!sub)
            continue;
        Db_tag sub_copy = 0;
        if (type == SCENE_OPTIONS) {
            // The Options element is an object: copy it as one and store it anew.
            auto* element = qv_db_type(sub) == DB_TYPE_SERIALIZABLE
                                ? static_cast<QV::DB::Element_base*>(qv_db_access(sub))
                                : nullptr;
            if (element)
                QV::DB::get_transaction()->store(&sub_copy, element->copy(), nullptr);
        } else {
            sub_copy = qv_db_dup(sub);
        }
        scene_set_word(data, words[n], int32_t(sub_copy));
    }
    return copy;
}

void qv_scene_delete(Db_tag tag)
{
    Module_scope scope(MOD_SCENE);
    const int type = qv_db_type(tag);
    if (!known_type(type)) {
        msg_error("qv_scene_delete fails, unknown object type");
        return;
    }
    int words[4];
    const int owned = owned_words(type, words);
    if (owned > 0) {
        const void* data = qv_db_access(tag);
        const uint32_t size = qv_db_size(tag);
        Db_tag subs[4];
        int count = 0;
        for (int n = 0; n < owned; ++n)
            if (data && uint32_t(words[n]) * 4 + 4 <= size)
                if (Db_tag sub = Db_tag(scene_word(data, words[n])))
                    subs[count++] = sub;
        for (int n = 0; n < count; ++n)
            qv_scene_delete(subs[n]);
    }
    qv_db_delete(tag);
}

int qv_scene_unlink(Db_tag parent, Db_tag child)
{
    Module_scope scope(MOD_SCENE);
    const int parent_type = qv_db_type(parent);
    int linked = -1;  // -1: the parent's type cannot hold tags
    if (parent_type == SCENE_TAG) {
        Db_record* record = qv_scene_edit(parent);
        auto* tags = static_cast<Db_tag*>(record->data);
        const uint32_t count = record->size / 4;
        linked = 0;
        for (uint32_t n = 0; n < count; ++n) {
            if (tags[n] != child)
                continue;
            std::memmove(tags + n, tags + n + 1, (count - n - 1) * sizeof(Db_tag));
            qv_db_realloc(parent, (count - 1) * sizeof(Db_tag));
            qv_db_unpin(parent);
            linked = 1;
            break;
        }
        if (!linked)
            qv_db_unpin(parent);
    } else if (parent_type > 0 && parent_type < DB_TYPES && g_handlers[parent_type].unlink) {
        linked = g_handlers[parent_type].unlink(parent, child);
    }
    if (linked == 1)
        return 1;
    if (linked == 0)
        msg_error("tag to unlink is not linked");
    else
        msg_error("don't know how to unlink %s tag %#x from %s tag %#x",
                  qv_scene_type_name(qv_db_type(child)), child, qv_scene_type_name(parent_type), parent);
    return 0;
}

bool qv_scene_started() { return g_started; }

void qv_scene_init()
{
    Module_scope scope(MOD_SCENE);
    if (g_started)
        return;
    lock_create(&g_scene_lock);
    mod_register_context_area(MOD_SCENE, nullptr, nullptr, SCENE_CONTEXT_BYTES);
    mod_register_session_area(MOD_SCENE, scene_session_init, scene_session_exit, sizeof(Scene_session));
    qv_db_set_type_name_hook(qv_scene_type_name);
    QV::DB::element_install_db_handler();
    g_options = new QV::SCENE::Options();
    QV::SCENE::options_register();
    g_started = true;
}
