// Type numbers, layouts and sizes of the plain scene records (module SCENE).
//
// A scene record is a block of bytes under a tag whose type number says how to read it. The
// layout strings below are what a foreign-order record is converted by (see scene_swap.h); the
// record sizes follow from them, so a layout and the size checks of the validators can never
// drift apart. Counters named here are the ones the validators and the tail swaps read; all other
// fields belong to the modules that fill the records.
#pragma once

#include <cstddef>
#include <cstdint>

#include "database/db.h"
#include "database/scene_swap.h"

enum Scene_type : int {
    SCENE_NULL = 0, SCENE_FUNCDECL = 1, SCENE_FUNC = 2, SCENE_MATERIAL = 3, SCENE_LIGHT = 4,
    SCENE_CAMERA = 5, SCENE_BASISLIST = 6, SCENE_OBJECT = 7, SCENE_BOX = 8, SCENE_LINEBOX = 9,
    SCENE_INSTANCE = 10, SCENE_GROUP = 11, SCENE_OPTIONS = 12, SCENE_IMAGE = 13,
    SCENE_POLYGON = 14, SCENE_INDEX = 15, SCENE_GEOINDEX = 16, SCENE_VERTEX = 17,
    SCENE_GEOVERTEX = 18, SCENE_VECTOR = 19, SCENE_GEOVECTOR = 20, SCENE_FACE = 21,
    SCENE_SURFACE = 22, SCENE_CURVE = 23, SCENE_CURVEPOINT = 24, SCENE_SCALAR = 25,
    SCENE_GEOSCALAR = 26, SCENE_TAG = 28, SCENE_STRING = 29, SCENE_SPACECURVE = 30,
    SCENE_BOOK = 31, SCENE_PAGE = 32, SCENE_SUBDIVSURF = 33, SCENE_USERDATA = 34,
    SCENE_WORLD = 35, SCENE_SESSION = 36, SCENE_TRANSACTION = 37, SCENE_SPLIT = 38,
    SCENE_QVMATTER = 39, SCENE_NBOX = 40, SCENE_LOCAL = 41, SCENE_SPLITOBJECT = 42,
    SCENE_INDEXRANGE = 43, SCENE_LIGHTPROFILE = 44, SCENE_LIGHTPROFSTD = 46,
    SCENE_APPROXLIST = 47, SCENE_FB_INFO = 49, SCENE_COLORPROFILE = 50, SCENE_SPECTRUM = 51,
    SCENE_BSDF = 52, SCENE_FACE_LIST = 53, SCENE_ASSEMBLY = 54, SCENE_MAPDECL = 55,
    SCENE_QUOSL = 56, SCENE_PHENEXT = 57, SCENE_SERIALIZABLE = 63,
    SCENE_LAST_BUILTIN = 57,
};

// ---- Layout strings ----------------------------------------------------------------------------
namespace scene_layout {
inline constexpr const char funcdecl[] = "piiiiiiiiiiiiiiiiiiiii11c3iiii79c3c";
inline constexpr const char func[] = "6p12i19c";
inline constexpr const char material[] = "iiiiiiiiiiissii";
inline constexpr const char light[] = "17i5i4scc10i3sffifffsccicccc7i";
inline constexpr const char camera[] = "ifffffiiiiiiiiiiififfiiffiiif7i";
// By object type (the record's first word, 0 to 3).
inline constexpr const char object_0[] = "ii10s10s3if2i5icccciissiiiiii";
inline constexpr const char object_1[] = "i5icccciissiiiiii";
inline constexpr const char object_2[] = "iii7i11ciiii5icccciissiiiiii";
inline constexpr const char object_3[] = "iiiiiiicccciiiiii5f5fii7cfiiiii";
inline constexpr const char box[] = "ppiiiiiiiii7ciiii11c7iiiffffff3c";
inline constexpr const char box_item[] = "cccciiiiffff";
inline constexpr const char instance[] = "if15f15fcccci15f10i13csicccci3c7i7c";
inline constexpr const char group[] = "iiiiiidddd";
inline constexpr const char group_member[] = "d11iii15i";
inline constexpr const char options[] =
    "30i4scciiii5icccciissiiii5icccciissiiii18iii19c39i7cif11c2i23iiiffff11i3cff3c13i";
inline constexpr const char polygon[] = "iiiicccc";
inline constexpr const char face[] = "5icccciissiiii3d4i11c";
inline constexpr const char surface[] = "5icccciissiiii5icccciissiiii8i5s";
inline constexpr const char curve[] = "5icccciissiiiiissddiiiiiiii";
inline constexpr const char curvepoint[] = "ddddddsscccc";
inline constexpr const char spacecurve[] = "5icccciissiiiiiii11c";
inline constexpr const char userdata[] = "iiiiccsi7c";
inline constexpr const char approxlist[] = "5icccciissiiii";
inline constexpr const char book[] = "5i15cii";
inline constexpr const char page[] = "15cii";
inline constexpr const char subdivsurf[] = "5icccciissiiii5icccciissiiii11c8i7ciiii4ii";
inline constexpr const char nbox[] = "3ci5f3is13cii9i3i";
inline constexpr const char splitobject[] = "iiiii";
inline constexpr const char colorprofile[] = "ccsii25f2i";
inline constexpr const char mapdecl[] = "ppi79ci7c";
}  // namespace scene_layout

// ---- Record sizes ------------------------------------------------------------------------------
constexpr uint32_t SCENE_FUNCDECL_FIXED = 212;     // bytes before the result declaration
constexpr uint32_t SCENE_FUNCDECL_NAME_OFFSET = 132;
constexpr uint32_t SCENE_FUNCDECL_NAME_BYTES = 80;
constexpr uint32_t SCENE_FUNC_SIZE = qv_scene_layout_size(scene_layout::func);
constexpr uint32_t SCENE_MATERIAL_SIZE = qv_scene_layout_size(scene_layout::material);
constexpr uint32_t SCENE_LIGHT_SIZE = qv_scene_layout_size(scene_layout::light);
constexpr uint32_t SCENE_CAMERA_SIZE = qv_scene_layout_size(scene_layout::camera);
constexpr uint32_t SCENE_BOX_FIXED = qv_scene_layout_size(scene_layout::box);
constexpr uint32_t SCENE_BOX_ITEM_SIZE = qv_scene_layout_size(scene_layout::box_item);
constexpr uint32_t SCENE_INSTANCE_SIZE = qv_scene_layout_size(scene_layout::instance);
constexpr uint32_t SCENE_INSTANCE_SWAP_FIXED = 316;  // the tail from here on is 32-bit words
constexpr uint32_t SCENE_GROUP_FIXED = qv_scene_layout_size(scene_layout::group);
constexpr uint32_t SCENE_GROUP_MEMBER_SIZE = qv_scene_layout_size(scene_layout::group_member);
constexpr uint32_t SCENE_OPTIONS_SIZE = qv_scene_layout_size(scene_layout::options);
constexpr uint32_t SCENE_USERDATA_FIXED = qv_scene_layout_size(scene_layout::userdata);
constexpr uint32_t SCENE_BASISLIST_FIXED = 8;      // basis count, spare word
constexpr uint32_t SCENE_BASIS_SIZE = 16;          // per basis: type, degree, step size, spare

static_assert(SCENE_FUNC_SIZE == 128 && SCENE_MATERIAL_SIZE == 56 && SCENE_LIGHT_SIZE == 228);
static_assert(SCENE_CAMERA_SIZE == 148 && SCENE_INSTANCE_SIZE == 324 && SCENE_OPTIONS_SIZE == 808);
static_assert(SCENE_BOX_FIXED == 156 && SCENE_BOX_ITEM_SIZE == 36);
static_assert(SCENE_GROUP_FIXED == 56 && SCENE_GROUP_MEMBER_SIZE == 128);

// Element sizes of the array types; 0 where a type is not a plain array.
uint32_t qv_scene_array_element_size(int type);
// Bytes of one item of the types whose size must be a multiple of their item; 0 otherwise.
uint32_t qv_scene_item_size(int type);

// ---- Records whose fields the module itself reads ------------------------------------------------
// Function declaration: a fixed head, then `result_size` bytes of result declaration (rounded up
// to 4), then `subtag_count` tags of the declarations it refers to.
struct Scene_funcdecl {
    void* cache;                     //   0 p: host-local, zeroed on conversion
    int32_t language;                //   8 0, 2: plain; 1: composite; 3, 4: external
    int32_t result_size;             //  12 bytes of the result declaration
    int32_t subtag_count;            //  16 tags after the result declaration
    Db_tag root;                     //  20 composite declarations: their root element
    int32_t words[17];               //  24
    char options[12];                //  92
    int32_t more[7];                 // 104
    char name[80];                   // 132 zero-terminated
    char result[4];                  // 212 first bytes of the result declaration; [0] is its class
};
static_assert(sizeof(Scene_funcdecl) == 216);
static_assert(offsetof(Scene_funcdecl, name) == SCENE_FUNCDECL_NAME_OFFSET);
static_assert(offsetof(Scene_funcdecl, result) == SCENE_FUNCDECL_FIXED);
static_assert(sizeof(Scene_funcdecl) == qv_scene_layout_size(scene_layout::funcdecl));

// Bytes of a funcdecl with the given counters.
constexpr uint32_t qv_scene_funcdecl_size(int32_t result_size, int32_t subtag_count)
{
    return ((uint32_t(result_size) + 3u) & ~3u) + 4u * uint32_t(subtag_count) + SCENE_FUNCDECL_FIXED;
}

// Words the validators and handlers read in the other records, as word indexes (4 bytes each).
constexpr int SCENE_OBJECT_TYPE_WORD = 0;      // object: which of the four layouts
constexpr int SCENE_LIGHT_KIND_WORD = 0;       // light: 0 point, 1 directional, 2 spot
constexpr int SCENE_BOX_ITEM_COUNT_WORD = 4;   // box: items after the fixed part
constexpr int SCENE_GROUP_COUNT_WORD = 0;      // group: members after the fixed part
constexpr int SCENE_USERDATA_BYTES_WORD = 2;   // user data: payload bytes after the fixed part
constexpr int SCENE_BASISLIST_COUNT_WORD = 0;  // basis list: bases after the fixed part
constexpr int SCENE_INSTANCE_ITEM_WORD = 0;    // instance: the instanced element
constexpr int SCENE_INSTANCE_MATERIAL_WORD = 52;  // instance: material override
constexpr int SCENE_INSTANCE_PARAM_WORD = 53;     // instance: parameter block it owns
constexpr int SCENE_CAMERA_OUTPUT_WORD = 6;       // camera: output list it owns
constexpr int SCENE_CAMERA_FB_WORD = 7;           // camera: frame buffer description it owns
constexpr int SCENE_OPTIONS_ELEMENT_WORD = 0;     // options: the Options element (type 63)

constexpr uint32_t SCENE_OBJECT_SIZES[4] = {
    qv_scene_layout_size(scene_layout::object_0), qv_scene_layout_size(scene_layout::object_1),
    qv_scene_layout_size(scene_layout::object_2), qv_scene_layout_size(scene_layout::object_3)};
// Every object record has room for the largest of the four layouts.
constexpr uint32_t SCENE_OBJECT_SIZE = 148;
static_assert(SCENE_OBJECT_SIZES[0] == SCENE_OBJECT_SIZE && SCENE_OBJECT_SIZES[1] <= SCENE_OBJECT_SIZE &&
              SCENE_OBJECT_SIZES[2] <= SCENE_OBJECT_SIZE && SCENE_OBJECT_SIZES[3] <= SCENE_OBJECT_SIZE);

inline int32_t scene_word(const void* data, int word)
{
    int32_t value;
    __builtin_memcpy(&value, static_cast<const char*>(data) + 4 * word, 4);
    return value;
}
inline void scene_set_word(void* data, int word, int32_t value)
{
    __builtin_memcpy(static_cast<char*>(data) + 4 * word, &value, 4);
}
