#include "database/scene_validate.h"

#include <cstdio>
#include <cstring>

#include "database/scene_records.h"
#include "runtime/msg.h"

namespace {

// "decl 0x400" and the like, for the reports; also the prefix without its ": ".
struct Prefix {
    char text[64];
};

int check_size_fixed(const char* prefix, uint32_t size, uint64_t expected)
{
    if (size == expected)
        return 1;
    msg_error("%s: wrong db item size %d, expected %d", prefix, int(size), int(expected));
    return 0;
}

int check_size_multiple(const char* prefix, uint32_t size, uint32_t item, bool worded_expected)
{
    if (size != 0 && size % item == 0)
        return 1;
    if (worded_expected)
        msg_error("%s: wrong db item size %d, expected multiple of %d", prefix, int(size), int(item));
    else
        msg_error("%s: wrong db item size %d, not multiple of %d", prefix, int(size), int(item));
    return 0;
}

// A counter word, or 0 when the record is too short to hold it.
int32_t counter(const void* data, uint32_t size, int word)
{
    if (uint64_t(word) * 4 + 4 > size)
        return 0;
    const int32_t value = scene_word(data, word);
    return value < 0 ? 0 : value;
}

// ---- Function declarations ---------------------------------------------------------------------

int validate_funcdecl(Db_tag tag, uint32_t size, const void* data, int /*reserved*/)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "decl %#x", tag);
    if (size < SCENE_FUNCDECL_FIXED) {
        // Without the fixed head there is no field to read.
        msg_error("%s: wrong db item size %d, expected %d", prefix, int(size), int(SCENE_FUNCDECL_FIXED));
        return 0;
    }
    const auto* decl = static_cast<const Scene_funcdecl*>(data);
    int good = 1;

    // 1. Size from the counters.
    const uint32_t expected = qv_scene_funcdecl_size(decl->result_size < 0 ? 0 : decl->result_size,
                                                     decl->subtag_count < 0 ? 0 : decl->subtag_count);
    good &= check_size_fixed(prefix, size, expected);

    // 2. The name field must hold a terminated, non-empty name.
    const int name_length = int(strnlen(decl->name, SCENE_FUNCDECL_NAME_BYTES));
    if (decl->name[0] == '\0') {
        msg_error("decl %#x: missing function name", tag);
        good = 0;
    }
    if (decl->name[SCENE_FUNCDECL_NAME_BYTES - 1] != '\0') {
        msg_error("decl %#x: function name %.*s too long", tag, name_length, decl->name);
        good = 0;
    }

    // 3. What the language type allows.
    switch (decl->language) {
    case 0:
    case 2:
        if (decl->subtag_count != 0) {
            msg_error("decl %#x (%.*s): has unexpected subtags", tag, name_length, decl->name);
            good = 0;
        }
        break;
    case 3:
    case 4: break;
    case 1: {
        const char kind = size > SCENE_FUNCDECL_FIXED ? decl->result[0] : '\0';
        if (kind == 'l')
            good &= qv_scene_check_tag(decl->root, SCENE_INSTANCE, 0, "root light inst", prefix);
        else if (kind == 'm')
            good &= qv_scene_check_tag(decl->root, SCENE_MATERIAL, 0, "root material", prefix);
        else
            good &= qv_scene_check_tag(decl->root, SCENE_FUNC, SCENE_TAG_NULL_OK, "root shader", prefix);
        break;
    }
    default:
        msg_error("decl %#x (%.*s): bad language type", tag, name_length, decl->name);
        good = 0;
        break;
    }
    return good;
}

// ---- The rest of the family --------------------------------------------------------------------

int validate_func(Db_tag tag, uint32_t size, const void*, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "function %#x", tag);
    return check_size_fixed(prefix, size, SCENE_FUNC_SIZE);
}

int validate_material(Db_tag tag, uint32_t size, const void*, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "material %#x", tag);
    return check_size_fixed(prefix, size, SCENE_MATERIAL_SIZE);
}

int validate_light(Db_tag tag, uint32_t size, const void* data, int)
{
    static const char* const kinds[3] = {"point light", "directional light", "spot light"};
    const int32_t kind = size >= 4 ? scene_word(data, SCENE_LIGHT_KIND_WORD) : -1;
    char prefix[48];
    std::snprintf(prefix, sizeof prefix, "%s %#x", kind >= 0 && kind < 3 ? kinds[kind] : "light", tag);
    return check_size_fixed(prefix, size, SCENE_LIGHT_SIZE);
}

int validate_camera(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "camera %#x", tag);
    int good = check_size_fixed(prefix, size, SCENE_CAMERA_SIZE);
    if (size >= SCENE_CAMERA_SIZE) {
        good &= qv_scene_check_tag(Db_tag(scene_word(data, SCENE_CAMERA_OUTPUT_WORD)), SCENE_TAG_ANY_TYPE,
                                   SCENE_TAG_NULL_OK, "output list", prefix);
        good &= qv_scene_check_tag(Db_tag(scene_word(data, SCENE_CAMERA_FB_WORD)), SCENE_TAG_ANY_TYPE,
                                   SCENE_TAG_NULL_OK, "frame buffer", prefix);
    }
    return good;
}

int validate_basislist(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "basis %#x", tag);
    const int32_t bases = counter(data, size, SCENE_BASISLIST_COUNT_WORD);
    return check_size_fixed(prefix, size, SCENE_BASISLIST_FIXED + uint64_t(bases) * SCENE_BASIS_SIZE);
}

int validate_object(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "object %#x", tag);
    int good = check_size_fixed(prefix, size, SCENE_OBJECT_SIZE);
    if (size >= 4) {
        const int32_t object_type = scene_word(data, SCENE_OBJECT_TYPE_WORD);
        if (object_type < 0 || object_type > 3) {
            msg_error("%s: bad object type %d", prefix, int(object_type));
            good = 0;
        }
    }
    return good;
}

int validate_box(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "box %d", int(tag));
    const int32_t items = counter(data, size, SCENE_BOX_ITEM_COUNT_WORD);
    return check_size_fixed(prefix, size, SCENE_BOX_FIXED + uint64_t(items) * SCENE_BOX_ITEM_SIZE);
}

int validate_instance(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "instance %#x", tag);
    int good = check_size_fixed(prefix, size, SCENE_INSTANCE_SIZE);
    if (size >= SCENE_INSTANCE_SIZE) {
        good &= qv_scene_check_tag(Db_tag(scene_word(data, SCENE_INSTANCE_ITEM_WORD)), SCENE_TAG_ANY_TYPE, 0,
                                   "item", prefix);
        good &= qv_scene_check_tag(Db_tag(scene_word(data, SCENE_INSTANCE_MATERIAL_WORD)), SCENE_MATERIAL,
                                   SCENE_TAG_NULL_OK, "material", prefix);
    }
    return good;
}

int validate_group(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "group %#x", tag);
    const int32_t members = counter(data, size, SCENE_GROUP_COUNT_WORD);
    return check_size_fixed(prefix, size, SCENE_GROUP_FIXED + uint64_t(members) * SCENE_GROUP_MEMBER_SIZE);
}

int validate_options(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "options %#x", tag);
    int good = check_size_fixed(prefix, size, SCENE_OPTIONS_SIZE);
    if (size >= SCENE_OPTIONS_SIZE)
        good &= qv_scene_check_tag(Db_tag(scene_word(data, SCENE_OPTIONS_ELEMENT_WORD)), SCENE_SERIALIZABLE,
                                   SCENE_TAG_NULL_OK, "options element", prefix);
    return good;
}

int validate_userdata(Db_tag tag, uint32_t size, const void* data, int)
{
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "user data %#x", tag);
    const int32_t bytes = counter(data, size, SCENE_USERDATA_BYTES_WORD);
    return check_size_fixed(prefix, size, SCENE_USERDATA_FIXED + ((uint64_t(bytes) + 3) & ~uint64_t(3)));
}

template <int Type>
int validate_items(Db_tag tag, uint32_t size, const void*, int)
{
    const char* format = "";
    switch (Type) {
    case SCENE_POLYGON: format = "poly %#x"; break;
    case SCENE_FACE: format = "face %#x"; break;
    case SCENE_SURFACE: format = "surf %#x"; break;
    case SCENE_CURVE: format = "curve %#x"; break;
    case SCENE_SPACECURVE: format = "spacecurve %#x"; break;
    case SCENE_APPROXLIST: format = "approx_list %#x"; break;
    default: break;
    }
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, format, tag);
    return check_size_multiple(prefix, size, qv_scene_item_size(Type), Type == SCENE_APPROXLIST);
}

}  // namespace

int qv_scene_check_tag(Db_tag tag, int wanted_type, int flags, const char* word, const char* owner)
{
    if (tag == 0) {
        if (flags & SCENE_TAG_NULL_OK)
            return 1;
        msg_error("%s: null %s tag", owner, word);
        return 0;
    }
    // Peek, never access: a validator must not end the process over a dangling reference.
    const Db_record* record = qv_db_peek(tag);
    const int type = record && record->state != DB_STATE_FREE ? record->type : 0;
    if (record && record->state != DB_STATE_FREE && (wanted_type == SCENE_TAG_ANY_TYPE || type == wanted_type))
        return 1;
    char referenced[32];
    std::snprintf(referenced, sizeof referenced, "%#x", tag);
    msg_error("cannot put reference to %s %s into %s %s", qv_scene_type_name(type), referenced, word, owner);
    return 0;
}

Scene_validate_fn qv_scene_builtin_validator(int type)
{
    switch (type) {
    case SCENE_FUNCDECL: return validate_funcdecl;
    case SCENE_FUNC: return validate_func;
    case SCENE_MATERIAL: return validate_material;
    case SCENE_LIGHT: return validate_light;
    case SCENE_CAMERA: return validate_camera;
    case SCENE_BASISLIST: return validate_basislist;
    case SCENE_OBJECT: return validate_object;
    case SCENE_BOX: return validate_box;
    case SCENE_INSTANCE: return validate_instance;
    case SCENE_GROUP: return validate_group;
    case SCENE_OPTIONS: return validate_options;
    case SCENE_USERDATA: return validate_userdata;
    case SCENE_POLYGON: return validate_items<SCENE_POLYGON>;
    case SCENE_FACE: return validate_items<SCENE_FACE>;
    case SCENE_SURFACE: return validate_items<SCENE_SURFACE>;
    case SCENE_CURVE: return validate_items<SCENE_CURVE>;
    case SCENE_SPACECURVE: return validate_items<SCENE_SPACECURVE>;
    case SCENE_APPROXLIST: return validate_items<SCENE_APPROXLIST>;
    default: return nullptr;
    }
}
