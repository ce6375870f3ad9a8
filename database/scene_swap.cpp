#include "database/scene_swap.h"

#include <cstring>
#include <utility>

#include "database/db.h"
#include "database/scene_records.h"

namespace {

inline void reverse_2(unsigned char* p) { std::swap(p[0], p[1]); }
inline void reverse_4(unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}
inline void reverse_8(unsigned char* p)
{
    uint64_t v;
    std::memcpy(&v, p, 8);
    v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

// The layout walk. Fields that would end past `limit` are left alone, so a damaged counter in a
// foreign record can never make a handler write outside the record.
size_t walk_layout(unsigned char* record, const char* layout, size_t limit)
{
    size_t offset = 0;
    size_t count = 0;
    for (const char* cursor = layout; *cursor; ++cursor) {
        const char letter = *cursor;
        if (letter >= '0' && letter <= '9') {
            count = count * 10 + size_t(letter - '0');
            continue;
        }
        const size_t width = qv_scene_layout_letter_width(letter);
        if (width == 0)
            continue;  // not a field letter: the count stands for the next one
        for (size_t n = 0; n <= count; ++n, offset += width) {
            if (letter == 'c' || offset + width > limit)
                continue;
            unsigned char* field = record + offset;
            switch (letter) {
            case 's': reverse_2(field); break;
            case 'i':
            case 'f': reverse_4(field); break;
            case 'd': reverse_8(field); break;
            case 'p': std::memset(field, 0, 8); break;
            default: break;
            }
        }
        count = 0;
    }
    return offset;
}

// The handlers' layouts are known at compile time: each is turned into a short list of runs
// (letter, repeat), with neighbouring equal letters merged, so converting an array of items does
// not parse the string again for every item.
struct Layout_run {
    char letter;
    uint32_t repeat;
};
constexpr int LAYOUT_MAX_RUNS = 96;
struct Compiled_layout {
    int count = 0;
    size_t size = 0;
    Layout_run runs[LAYOUT_MAX_RUNS] = {};
};

constexpr Compiled_layout compile_layout(const char* layout)
{
    Compiled_layout compiled;
    size_t count = 0;
    for (const char* cursor = layout; *cursor; ++cursor) {
        const char letter = *cursor;
        if (letter >= '0' && letter <= '9') {
            count = count * 10 + size_t(letter - '0');
            continue;
        }
        const size_t width = qv_scene_layout_letter_width(letter);
        if (width == 0)
            continue;
        const uint32_t repeat = uint32_t(count + 1);
        compiled.size += width * repeat;
        count = 0;
        if (compiled.count > 0 && compiled.runs[compiled.count - 1].letter == letter) {
            compiled.runs[compiled.count - 1].repeat += repeat;
            continue;
        }
        // More runs than room is a compile-time error: the constant evaluation fails here.
        compiled.runs[compiled.count++] = Layout_run{letter, repeat};
    }
    return compiled;
}

template <const char* Layout>
inline constexpr Compiled_layout compiled_layout = compile_layout(Layout);

// Same conversion as walk_layout, by runs; stops at the first field that would pass `limit`.
void apply_layout(unsigned char* record, const Compiled_layout& layout, size_t limit)
{
    size_t offset = 0;
    for (int r = 0; r < layout.count; ++r) {
        const Layout_run run = layout.runs[r];
        const size_t width = qv_scene_layout_letter_width(run.letter);
        if (run.letter == 'c') {
            offset += width * run.repeat;
            continue;
        }
        for (uint32_t n = 0; n < run.repeat; ++n, offset += width) {
            if (offset + width > limit)
                return;
            unsigned char* field = record + offset;
            switch (run.letter) {
            case 's': reverse_2(field); break;
            case 'i':
            case 'f': reverse_4(field); break;
            case 'd': reverse_8(field); break;
            default: std::memset(field, 0, 8); break;  // 'p'
            }
        }
    }
}

template <const char* Layout>
void apply(unsigned char* record, size_t limit)
{
    apply_layout(record, compiled_layout<Layout>, limit);
}

unsigned char* bytes_of(Db_record* record) { return static_cast<unsigned char*>(record->data); }

// Fixed part by layout, nothing else.
template <const char* Layout>
void swap_record(Db_record* record, bool swap)
{
    if (swap && record->data)
        apply<Layout>(bytes_of(record), record->size);
}

// Records that are a run of equal items.
template <const char* Layout>
void swap_items(Db_record* record, bool swap)
{
    if (!swap || !record->data)
        return;
    constexpr size_t item = compiled_layout<Layout>.size;
    unsigned char* bytes = bytes_of(record);
    for (size_t offset = 0; offset + item <= record->size; offset += item)
        apply<Layout>(bytes + offset, item);
}

void swap_array_16(Db_record* record, bool swap)
{
    if (swap && record->data)
        qv_scene_swap_16(record->data, record->size / 2);
}
void swap_array_32(Db_record* record, bool swap)
{
    if (swap && record->data)
        qv_scene_swap_32(record->data, record->size / 4);
}
void swap_array_64(Db_record* record, bool swap)
{
    if (swap && record->data)
        qv_scene_swap_64(record->data, record->size / 8);
}

// Counters are read after the fixed part was converted, so they are native by then.
void swap_funcdecl(Db_record* record, bool swap)
{
    if (!swap || !record->data)
        return;
    unsigned char* bytes = bytes_of(record);
    apply<scene_layout::funcdecl>(bytes, record->size);
    if (record->size < SCENE_FUNCDECL_FIXED)
        return;
    const int32_t result_size = scene_word(bytes, offsetof(Scene_funcdecl, result_size) / 4);
    const int32_t subtags = scene_word(bytes, offsetof(Scene_funcdecl, subtag_count) / 4);
    if (result_size < 0 || subtags <= 0)
        return;
    const uint64_t start = SCENE_FUNCDECL_FIXED + ((uint64_t(result_size) + 3) & ~uint64_t(3));
    if (start >= record->size)
        return;
    const uint64_t room = (record->size - start) / 4;
    qv_scene_swap_32(bytes + start, size_t(room < uint64_t(subtags) ? room : uint64_t(subtags)));
}

void swap_object(Db_record* record, bool swap)
{
    if (!swap || !record->data || record->size < 4)
        return;
    static const Compiled_layout* const layouts[4] = {
        &compiled_layout<scene_layout::object_0>, &compiled_layout<scene_layout::object_1>,
        &compiled_layout<scene_layout::object_2>, &compiled_layout<scene_layout::object_3>};
    const uint32_t object_type = __builtin_bswap32(uint32_t(scene_word(record->data, SCENE_OBJECT_TYPE_WORD)));
    if (object_type > 3) {
        reverse_4(bytes_of(record));  // at least the type word becomes readable
        return;
    }
    apply_layout(bytes_of(record), *layouts[object_type], record->size);
}

// A record of a fixed head followed by as many whole items as it holds.
template <const char* Head, const char* Item>
void swap_head_and_items(Db_record* record, bool swap, size_t fixed_bytes, size_t item_bytes)
{
    if (!swap || !record->data)
        return;
    unsigned char* bytes = bytes_of(record);
    apply<Head>(bytes, record->size);
    for (size_t offset = fixed_bytes; offset + item_bytes <= record->size; offset += item_bytes)
        apply<Item>(bytes + offset, item_bytes);
}

void swap_box(Db_record* record, bool swap)
{
    swap_head_and_items<scene_layout::box, scene_layout::box_item>(record, swap, SCENE_BOX_FIXED,
                                                                   SCENE_BOX_ITEM_SIZE);
}

void swap_instance(Db_record* record, bool swap)
{
    if (!swap || !record->data)
        return;
    unsigned char* bytes = bytes_of(record);
    apply<scene_layout::instance>(bytes, SCENE_INSTANCE_SWAP_FIXED < record->size ? SCENE_INSTANCE_SWAP_FIXED
                                                                                 : record->size);
    if (record->size > SCENE_INSTANCE_SWAP_FIXED)
        qv_scene_swap_32(bytes + SCENE_INSTANCE_SWAP_FIXED, (record->size - SCENE_INSTANCE_SWAP_FIXED) / 4);
}

void swap_group(Db_record* record, bool swap)
{
    swap_head_and_items<scene_layout::group, scene_layout::group_member>(record, swap, SCENE_GROUP_FIXED,
                                                                         SCENE_GROUP_MEMBER_SIZE);
}

// A local record carries its own layout: a zero-terminated layout string, padded to a multiple
// of 4, then the bytes it describes. The string is bytes and needs no conversion.
void swap_local(Db_record* record, bool swap)
{
    if (!swap || !record->data)
        return;
    const char* text = static_cast<const char*>(record->data);
    const void* end = std::memchr(text, 0, record->size);
    if (!end)
        return;
    const size_t start = (size_t(static_cast<const char*>(end) - text) + 1 + 3) & ~size_t(3);
    if (start >= record->size)
        return;
    walk_layout(bytes_of(record) + start, text, record->size - start);
}

}  // namespace

size_t qv_scene_swap_layout(void* record, const char* layout)
{
    return walk_layout(static_cast<unsigned char*>(record), layout, SIZE_MAX);
}

void qv_scene_swap_16(void* values, size_t count)
{
    unsigned char* p = static_cast<unsigned char*>(values);
    for (size_t n = 0; n < count; ++n, p += 2)
        reverse_2(p);
}

void qv_scene_swap_32(void* values, size_t count)
{
    unsigned char* p = static_cast<unsigned char*>(values);
    for (size_t n = 0; n < count; ++n, p += 4)
        reverse_4(p);
}

void qv_scene_swap_64(void* values, size_t count)
{
    unsigned char* p = static_cast<unsigned char*>(values);
    for (size_t n = 0; n < count; ++n, p += 8)
        reverse_8(p);
}

Scene_swap_fn qv_scene_builtin_swap(int type)
{
    using namespace scene_layout;
    switch (type) {
    case SCENE_FUNCDECL: return swap_funcdecl;
    case SCENE_FUNC: return swap_record<func>;
    case SCENE_MATERIAL: return swap_record<material>;
    case SCENE_LIGHT: return swap_record<light>;
    case SCENE_CAMERA: return swap_record<camera>;
    case SCENE_OBJECT: return swap_object;
    case SCENE_BOX: return swap_box;
    case SCENE_INSTANCE: return swap_instance;
    case SCENE_GROUP: return swap_group;
    case SCENE_OPTIONS: return swap_record<options>;
    case SCENE_POLYGON: return swap_items<polygon>;
    case SCENE_FACE: return swap_items<face>;
    case SCENE_SURFACE: return swap_items<surface>;
    case SCENE_CURVE: return swap_items<curve>;
    case SCENE_CURVEPOINT: return swap_items<curvepoint>;
    case SCENE_SPACECURVE: return swap_items<spacecurve>;
    case SCENE_USERDATA: return swap_record<userdata>;
    case SCENE_APPROXLIST: return swap_items<approxlist>;
    case SCENE_BOOK: return swap_record<book>;
    case SCENE_PAGE: return swap_record<page>;
    case SCENE_SUBDIVSURF: return swap_record<subdivsurf>;
    case SCENE_NBOX: return swap_record<nbox>;
    case SCENE_SPLITOBJECT: return swap_record<splitobject>;
    case SCENE_COLORPROFILE: return swap_record<colorprofile>;
    case SCENE_MAPDECL: return swap_record<mapdecl>;
    case SCENE_INDEX:
    case SCENE_VERTEX: return swap_array_16;
    case SCENE_GEOINDEX:
    case SCENE_GEOVERTEX:
    case SCENE_VECTOR:
    case SCENE_SCALAR:
    case SCENE_TAG:
    case SCENE_WORLD:
    case SCENE_SESSION:
    case SCENE_TRANSACTION:
    case SCENE_LINEBOX: return swap_array_32;
    case SCENE_GEOVECTOR:
    case SCENE_GEOSCALAR: return swap_array_64;
    case SCENE_LOCAL: return swap_local;
    default: return nullptr;  // image belongs to the image module; others have nothing to swap
    }
}
