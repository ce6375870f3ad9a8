#include "maps/map_impl.h"

#include <algorithm>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_manager.h"
#include "runtime/modules.h"
#include "serial/serializer.h"

namespace QV::RCMAP {

using qv::shader_v3::Map_color;
using qv::shader_v3::Map_element_base;
using qv::shader_v3::Map_field_id;
using qv::shader_v3::Map_status;
using qv::shader_v3::Map_transform;
using qv::shader_v3::Map_vector3;
using namespace qv::shader_v3;

Map_global_bvh_destroy_fn map_global_bvh_destroy = nullptr;
Map_particle_info_destroy_fn map_particle_info_destroy = nullptr;

// ---- Map_bounds ---------------------------------------------------------------------------

void Map_bounds::clear()
{
    float low, high;
    memcpy(&low, &MAP_BOUNDS_EMPTY_MIN_BITS, sizeof(float));
    memcpy(&high, &MAP_BOUNDS_EMPTY_MAX_BITS, sizeof(float));
    for (int i = 0; i < 6; ++i) {
        minimum[i] = low;
        maximum[i] = high;
    }
    valid = false;
    extent = 0.0f;
}

void Map_bounds::add(const float* position, uint32_t dimension)
{
    for (uint32_t i = 0; i < dimension; ++i) {
        minimum[i] = std::min(minimum[i], position[i]);
        maximum[i] = std::max(maximum[i], position[i]);
    }
    valid = true;
}

void Map_bounds::merge(const Map_bounds& other, uint32_t dimension)
{
    if (!other.valid)
        return;
    for (uint32_t i = 0; i < dimension; ++i) {
        minimum[i] = std::min(minimum[i], other.minimum[i]);
        maximum[i] = std::max(maximum[i], other.maximum[i]);
    }
    valid = true;
}

// ---- Construction -----------------------------------------------------------------------

Map_impl::Map_impl()
{
    bounds.clear();
    pending_bounds.clear();
}

Map_impl::Map_impl(const Map_declaration_impl& source) : Map_impl()
{
    adopt_declaration(source);
}

Map_impl::Map_impl(const Map_impl& other)
    : Element(other), Map_base(other)
{
    bounds.clear();
    pending_bounds.clear();
    copy_from(other);
}

Map_impl::~Map_impl()
{
    Module_scope scope(MOD_RCMP);
    clear();
}

void Map_impl::clear()
{
    store.reset();
    delete declaration;
    declaration = nullptr;
    QV_FREE(globals);
    globals = nullptr;
    if (global_bvh && map_global_bvh_destroy)
        map_global_bvh_destroy(global_bvh);
    global_bvh = nullptr;
    if (particle_info && map_particle_info_destroy)
        map_particle_info_destroy(particle_info);
    particle_info = nullptr;
    size_ = 0;
    pending_count = 0;
    needs_build = needs_refit = false;
    bounds.clear();
    pending_bounds.clear();
}

bool Map_impl::adopt_declaration(const Map_declaration_impl& source)
{
    if (declaration)
        return false;
    Module_scope scope(MOD_RCMP);
    declaration = new Map_declaration_impl(source);
    if (declaration->global_bytes())
        globals = static_cast<uint8_t*>(QV_ALLOC(declaration->global_bytes()));
    store.configure(declaration->element_bytes(), declaration->dimension());
    return true;
}

namespace {

// Walks elements [first, first + count) page by page, handing out runs of consecutive
// elements that lie in one page, so bulk copies take one cache access per page.
template <class Visit>
void for_each_run(Map_page_store& store, uint32_t first, uint32_t count, bool read_only, Visit visit)
{
    uint32_t done = 0;
    while (done < count) {
        uint32_t page, slot;
        store.locate(first + done, &page, &slot);
        uint32_t in_page = store.elements_per_page - slot;
        // A segment's last page may hold fewer elements, and its E may differ from the map's.
        for (const Map_segment& segment : store.segments()) {
            if (page >= segment.first_page && page <= segment.last_page) {
                uint32_t held = page == segment.last_page ? segment.last_page_count : segment.elements_per_page;
                in_page = held > slot ? held - slot : 1;
                break;
            }
        }
        uint32_t run = std::min(in_page, count - done);
        uint8_t* data = store.get_page(page, read_only);
        visit(data + size_t(slot) * store.element_bytes, first + done, run);
        done += run;
    }
}

// A built tree can go with the elements when the committed elements fill pages 0, 1, ... at
// the map's own E, as after a build: the copy then lays them out in the same pages, and every
// page carries its page tree behind the elements.
bool bvh_travels(const Map_impl& map)
{
    const Map_page_store& store = map.page_store();
    if (!map.global_bvh || !map.global_bvh->is_valid() || map.needs_build || map.needs_refit || map.size_ == 0 ||
        store.segments().empty())
        return false;
    const Map_segment& first = store.segments().front();
    return first.first_element == 0 && first.first_page == 0 && first.last_element + 1 == map.size_ &&
           first.elements_per_page == store.elements_per_page &&
           map.global_bvh->page_count() == first.last_page + 1;
}

} // namespace

void Map_impl::copy_from(const Map_impl& other)
{
    Module_scope scope(MOD_RCMP);
    declaration_tag = other.declaration_tag;
    master_map_id = other.master_map_id;
    editable = other.editable;
    quiet = other.quiet;
    bvh_enabled = other.bvh_enabled;
    if (!other.declaration)
        return;
    adopt_declaration(*other.declaration);
    if (other.globals && globals)
        memcpy(globals, other.globals, declaration->global_bytes());
    // The other map's pages come through the cache one page at a time and are written into
    // this map's own pages: the copy shares no file and no swap file.
    Map_impl& source = const_cast<Map_impl&>(other);
    uint32_t total = other.size_ + other.pending_count;
    uint32_t bytes = declaration->element_bytes();
    std::vector<uint8_t> staging;
    const bool keep_bvh = bvh_travels(other);
    uint32_t copied = 0;
    if (keep_bvh) {
        // Whole pages, so that the page trees behind the elements come along.
        store.add_memory_segment(0, other.size_);
        staging.resize(MAP_FILE_PAGE_BYTES);
        for (uint32_t page = 0; page < other.global_bvh->page_count(); ++page) {
            memcpy(staging.data(), source.store.get_page(page, true), MAP_FILE_PAGE_BYTES);
            memcpy(store.get_page(page, false), staging.data(), MAP_FILE_PAGE_BYTES);
        }
        copied = other.size_;
    }
    for_each_run(source.store, copied, total - copied, true, [&](const uint8_t* data, uint32_t first, uint32_t run) {
        // Copy out first: fetching our page may push the source page out of the table.
        staging.assign(data, data + size_t(run) * bytes);
        for (uint32_t i = 0; i < run; ++i)
            store.write_bytes(first + i, 0, bytes, staging.data() + size_t(i) * bytes);
    });
    size_ = other.size_;
    pending_count = other.pending_count;
    bounds = other.bounds;
    pending_bounds = other.pending_bounds;
    if (keep_bvh) {
        global_bvh = other.global_bvh->copy(&store);
        needs_build = needs_refit = false;
        return;
    }
    // A tree that does not fit the copy's pages is rebuilt by the copy.
    needs_build = other.size_ > 0 && (other.needs_build || other.global_bvh);
    needs_refit = other.needs_refit;
}

uint64_t Map_impl::get_size() const
{
    return uint64_t(store.page_count(size_ + pending_count)) * MAP_FILE_PAGE_BYTES + sizeof(*this);
}

// ---- Elements -----------------------------------------------------------------------------

void Map_impl::commit()
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock);
    if (pending_count) {
        size_ += pending_count;
        pending_count = 0;
        needs_build = true;
    }
    bounds = pending_bounds;
}

Map_status Map_impl::append_raw(const void* element_bytes, uint32_t* index)
{
    Module_scope scope(MOD_RCMP);
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (!editable)
        return MAP_NOT_EDITABLE;
    std::lock_guard<std::mutex> hold(lock);
    uint32_t at = size_ + pending_count;
    ++pending_count;
    pending_bounds.add(static_cast<const float*>(element_bytes), declaration->dimension());
    store.write_bytes(at, 0, declaration->element_bytes(), element_bytes);
    if (index)
        *index = at;
    return MAP_SUCCESS;
}

Map_status Map_impl::append_raw_run(const void* elements, uint32_t count)
{
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (!editable)
        return MAP_NOT_EDITABLE;
    const uint32_t bytes = declaration->element_bytes();
    const uint32_t dimension = declaration->dimension();
    const auto* element = static_cast<const uint8_t*>(elements);
    std::lock_guard<std::mutex> hold(lock);
    for (uint32_t i = 0; i < count; ++i)
        pending_bounds.add(reinterpret_cast<const float*>(element + size_t(i) * bytes), dimension);
    // Behind every segment the elements follow each other page by page, so each page's part of
    // the run is one copy; inside a segment each element is placed on its own.
    const uint32_t per_page = store.elements_per_page;
    const std::vector<Map_segment>& segments = store.segments();
    uint32_t i = 0;
    while (i < count) {
        const uint32_t at = size_ + pending_count;
        uint32_t page, slot;
        store.locate(at, &page, &slot);
        uint32_t run = 1;
        if (segments.empty() || at > segments.back().last_element)
            run = std::min(count - i, per_page - slot);
        // Fetched per run: only the most recently fetched page is sure to stay in the table.
        uint8_t* data = store.get_page(page, false);
        if (store.element_bytes == bytes)
            memcpy(data + size_t(slot) * bytes, element, size_t(run) * bytes);
        else
            for (uint32_t k = 0; k < run; ++k)
                memcpy(data + size_t(slot + k) * store.element_bytes, element + size_t(k) * bytes, bytes);
        element += size_t(run) * bytes;
        pending_count += run;
        i += run;
    }
    return MAP_SUCCESS;
}

int32_t Map_impl::attach_file(Map_page_source* source, uint32_t element_count, uint32_t source_elements_per_page,
                              const Map_bounds* file_bounds)
{
    Module_scope scope(MOD_RCMP);
    std::lock_guard<std::mutex> hold(lock);
    uint32_t total = size_ + pending_count;
    uint32_t start = store.segments().empty() ? 0 : store.segments().back().last_element + 1;
    if (total > start)
        store.add_memory_segment(start, total - start);
    int32_t index = store.add_file_segment(source, total, element_count, source_elements_per_page);
    pending_count += element_count;
    if (file_bounds)
        pending_bounds.merge(*file_bounds, store.dimension);
    return index;
}

void Map_impl::read_element(uint32_t index, void* out) const
{
    const_cast<Map_page_store&>(store).read_bytes(index, 0, store.element_bytes, out);
}

void Map_impl::write_element(uint32_t index, const void* in)
{
    store.write_bytes(index, 0, store.element_bytes, in);
}

void Map_impl::read_field(uint32_t index, uint32_t offset, uint32_t bytes, void* out) const
{
    Module_scope scope(MOD_RCMP);
    const_cast<Map_page_store&>(store).read_bytes(index, offset, bytes, out);
}

void Map_impl::write_field(uint32_t index, uint32_t offset, uint32_t bytes, const void* in)
{
    Module_scope scope(MOD_RCMP);
    store.write_bytes(index, offset, bytes, in);
}

void Map_impl::note_position_changed(const float* position)
{
    std::lock_guard<std::mutex> hold(lock);
    // The element may have left its page's box: only a full build brings the trees right.
    needs_build = true;
    needs_refit = true;
    bounds.add(position, store.dimension);
    pending_bounds.add(position, store.dimension);
}

void Map_impl::flush()
{
    Module_scope scope(MOD_RCMP);
    Map_manager::instance().flush_map(&store);
}

// ---- Map_base: size -------------------------------------------------------------------

uint32_t Map_impl::size() const
{
    return size_;
}

bool Map_impl::is_empty() const
{
    return size_ == 0;
}

bool Map_impl::has_declaration() const
{
    return declaration != nullptr;
}

// ---- Map_base: elements --------------------------------------------------------------------
// Map_element_impl is the one implementation of the element interface.

Map_status Map_impl::get(uint32_t index, Map_element_base* element) const
{
    Module_scope scope(MOD_RCMP);
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (index >= size_)
        return MAP_INDEX_OUT_OF_RANGE;
    auto* target = static_cast<Map_element_impl*>(element);
    const Map_declaration_impl* own = target->get_declaration();
    // A map read always types the element: one without, or with another layout, is retyped.
    if (!own || !own->is_layout_equivalent(*declaration))
        target->set_declaration(declaration);
    read_element(index, target->get_data());
    return MAP_SUCCESS;
}

Map_status Map_impl::set(uint32_t index, const Map_element_base* element)
{
    Module_scope scope(MOD_RCMP);
    if (!editable)
        return MAP_NOT_EDITABLE;
    if (!declaration)
        return MAP_NO_DECLARATION;
    if (index >= size_)
        return MAP_INDEX_OUT_OF_RANGE;
    auto* source = static_cast<const Map_element_impl*>(element);
    if (!source->get_declaration())
        return MAP_NO_DECLARATION;
    if (!source->get_declaration()->is_layout_equivalent(*declaration))
        return MAP_NOT_EQUIVALENT;
    write_element(index, source->get_data());
    note_position_changed(reinterpret_cast<const float*>(source->get_data()));
    return MAP_SUCCESS;
}

Map_status Map_impl::append(const Map_element_base* element)
{
    Module_scope scope(MOD_RCMP);
    if (!editable)
        return MAP_NOT_EDITABLE;
    auto* source = static_cast<const Map_element_impl*>(element);
    const Map_declaration_impl* incoming = source->get_declaration();
    if (!incoming)
        return MAP_NO_DECLARATION;
    {
        std::lock_guard<std::mutex> hold(lock);
        if (!declaration)
            adopt_declaration(*incoming);
        else if (!incoming->is_layout_equivalent(*declaration))
            return MAP_NOT_EQUIVALENT;
    }
    return append_raw(source->get_data(), nullptr);
}

// ---- Map_base: global fields ----------------------------------------------------------------

namespace {

// Resolves a global field for an accessor; `editing` adds the editable check in front.
Map_status resolve_global(const Map_impl& map, Map_field_id id, uint32_t accessor_type, bool editing,
                          uint32_t* field_type, uint32_t* offset, uint32_t* bytes)
{
    if (editing && !map.editable)
        return MAP_NOT_EDITABLE;
    if (!map.declaration)
        return MAP_NO_DECLARATION;
    return map.declaration->resolve_access(id, true, accessor_type, field_type, offset, bytes);
}

} // namespace

Map_status Map_impl::get(Map_field_id id, char* text) const
{
    uint32_t type, offset, bytes;
    Map_status status = resolve_global(*this, id, MAP_TYPE_STRING, false, &type, &offset, &bytes);
    if (status == MAP_SUCCESS)
        memcpy(text, globals + offset, bytes);
    return status;
}

#define QV_MAP_GLOBAL_GET(VALUE_TYPE, ACCESSOR_TYPE, TARGET)                                   \
    Map_status Map_impl::get(Map_field_id id, VALUE_TYPE value) const                         \
    {                                                                                          \
        uint32_t type, offset, bytes;                                                          \
        Map_status status = resolve_global(*this, id, ACCESSOR_TYPE, false, &type, &offset, &bytes); \
        if (status == MAP_SUCCESS)                                                             \
            memcpy(TARGET, globals + offset, bytes);                                           \
        return status;                                                                         \
    }

QV_MAP_GLOBAL_GET(int32_t*, MAP_TYPE_INTEGER_ARRAY, value)
QV_MAP_GLOBAL_GET(float*, MAP_TYPE_SCALAR_ARRAY, value)
QV_MAP_GLOBAL_GET(Map_transform&, MAP_TYPE_TRANSFORM, &value)
QV_MAP_GLOBAL_GET(Map_vector3&, MAP_TYPE_VECTOR, &value)
QV_MAP_GLOBAL_GET(int32_t&, MAP_TYPE_INTEGER, &value)
QV_MAP_GLOBAL_GET(float&, MAP_TYPE_SCALAR, &value)
#undef QV_MAP_GLOBAL_GET

Map_status Map_impl::get(Map_field_id id, Map_color& value) const
{
    uint32_t type, offset, bytes;
    Map_status status = resolve_global(*this, id, MAP_TYPE_COLOR, false, &type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    if (type == MAP_TYPE_SCALAR_ARRAY) {
        // Three packed floats read as an opaque color.
        memcpy(&value, globals + offset, 3 * sizeof(float));
        value.a = 1.0f;
    } else {
        memcpy(&value, globals + offset, sizeof(Map_color));
    }
    return MAP_SUCCESS;
}

Map_status Map_impl::set(Map_field_id id, const char* text, int32_t length)
{
    uint32_t type, offset, bytes;
    Map_status status = resolve_global(*this, id, MAP_TYPE_STRING, true, &type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    size_t wanted = length < 0 ? strlen(text) + 1 : size_t(length);
    size_t copied = std::min(wanted, size_t(bytes));
    memcpy(globals + offset, text, copied);
    memset(globals + offset + copied, 0, bytes - copied);
    return MAP_SUCCESS;
}

#define QV_MAP_GLOBAL_SET(VALUE_TYPE, ACCESSOR_TYPE, SOURCE)                                  \
    Map_status Map_impl::set(Map_field_id id, VALUE_TYPE value)                               \
    {                                                                                          \
        uint32_t type, offset, bytes;                                                          \
        Map_status status = resolve_global(*this, id, ACCESSOR_TYPE, true, &type, &offset, &bytes); \
        if (status == MAP_SUCCESS)                                                             \
            memcpy(globals + offset, SOURCE, bytes);                                           \
        return status;                                                                         \
    }

QV_MAP_GLOBAL_SET(const int32_t*, MAP_TYPE_INTEGER_ARRAY, value)
QV_MAP_GLOBAL_SET(const float*, MAP_TYPE_SCALAR_ARRAY, value)
QV_MAP_GLOBAL_SET(const Map_transform*, MAP_TYPE_TRANSFORM, value)
QV_MAP_GLOBAL_SET(const Map_vector3*, MAP_TYPE_VECTOR, value)
QV_MAP_GLOBAL_SET(int32_t, MAP_TYPE_INTEGER, &value)
QV_MAP_GLOBAL_SET(float, MAP_TYPE_SCALAR, &value)
#undef QV_MAP_GLOBAL_SET

Map_status Map_impl::set(Map_field_id id, const Map_color* value)
{
    uint32_t type, offset, bytes;
    Map_status status = resolve_global(*this, id, MAP_TYPE_COLOR, true, &type, &offset, &bytes);
    if (status != MAP_SUCCESS)
        return status;
    // A three-float array keeps red, green and blue; alpha has no place there.
    memcpy(globals + offset, value, type == MAP_TYPE_SCALAR_ARRAY ? 3 * sizeof(float) : sizeof(Map_color));
    return MAP_SUCCESS;
}

// ---- Stored form ----------------------------------------------------------------------------

const void* Map_impl::serialize(QV::SERIAL::Serializer* serializer) const
{
    Module_scope scope(MOD_RCMP);
    serializer->write(bool(declaration != nullptr));
    if (declaration)
        declaration->serialize(serializer);
    serializer->write(declaration_tag);
    serializer->write(master_map_id);
    serializer->write(editable);
    serializer->write(quiet);
    serializer->write(bvh_enabled);
    // A tree goes with the map when its pages can be laid out as here; any other is rebuilt.
    const bool keep_bvh = bvh_travels(*this);
    serializer->write(keep_bvh ? false : needs_build || global_bvh != nullptr);
    serializer->write(needs_refit);
    serializer->write(keep_bvh);
    if (declaration && declaration->global_bytes())
        serializer->write(globals, declaration->global_bytes());
    serializer->write(size_);
    serializer->write(pending_count);
    // Elements as packed records, whatever segments they came from: a deserialized map owns
    // its pages and needs none of this host's files.
    if (declaration) {
        uint32_t bytes = declaration->element_bytes();
        Map_page_store& source = const_cast<Map_page_store&>(store);
        for_each_run(source, 0, size_ + pending_count, true, [&](const uint8_t* data, uint32_t, uint32_t run) {
            serializer->write(data, size_t(run) * bytes);
        });
    }
    for (const Map_bounds* box : {&bounds, &pending_bounds}) {
        serializer->write(box->minimum, sizeof(box->minimum));
        serializer->write(box->maximum, sizeof(box->maximum));
        serializer->write(box->valid);
        serializer->write(box->extent);
    }
    if (keep_bvh) {
        // The page trees: the room behind the elements of each page, then the global tree.
        Map_page_store& source = const_cast<Map_page_store&>(store);
        const uint32_t room = MAP_FILE_PAGE_BYTES - store.page_data_bytes;
        for (uint32_t page = 0; page < global_bvh->page_count(); ++page)
            serializer->write(source.get_page(page, true) + store.page_data_bytes, room);
        global_bvh->serialize(serializer);
    }
    return this + 1;
}

void* Map_impl::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    Module_scope scope(MOD_RCMP);
    clear();
    bool has = false;
    deserializer->read(&has);
    if (has) {
        Map_declaration_impl incoming;
        if (!incoming.deserialize(deserializer))
            return this + 1;
        adopt_declaration(incoming);
    }
    deserializer->read(&declaration_tag);
    deserializer->read(&master_map_id);
    deserializer->read(&editable);
    deserializer->read(&quiet);
    deserializer->read(&bvh_enabled);
    deserializer->read(&needs_build);
    deserializer->read(&needs_refit);
    bool keep_bvh = false;
    deserializer->read(&keep_bvh);
    if (declaration && declaration->global_bytes())
        deserializer->read(globals, declaration->global_bytes());
    uint32_t committed = 0, pending = 0;
    deserializer->read(&committed);
    deserializer->read(&pending);
    if (declaration) {
        uint32_t bytes = declaration->element_bytes();
        std::vector<uint8_t> element(bytes);
        // The committed elements take the pages they had, where their trees belong.
        if (keep_bvh)
            store.add_memory_segment(0, committed);
        for (uint32_t i = 0; i < committed + pending; ++i) {
            if (deserializer->read(element.data(), bytes) != bytes)
                break;
            store.write_bytes(i, 0, bytes, element.data());
        }
        size_ = committed;
        pending_count = pending;
    }
    for (Map_bounds* box : {&bounds, &pending_bounds}) {
        deserializer->read(box->minimum, sizeof(box->minimum));
        deserializer->read(box->maximum, sizeof(box->maximum));
        deserializer->read(&box->valid);
        deserializer->read(&box->extent);
    }
    if (keep_bvh && declaration && size_ > 0) {
        const uint32_t room = MAP_FILE_PAGE_BYTES - store.page_data_bytes;
        std::vector<uint8_t> tree(room);
        const uint32_t pages = store.page_count(size_);
        bool ok = true;
        for (uint32_t page = 0; page < pages && ok; ++page) {
            ok = deserializer->read(tree.data(), room) == room;
            if (ok)
                memcpy(store.get_page(page, false) + store.page_data_bytes, tree.data(), room);
        }
        global_bvh = ok ? map_global_bvh_create(store.dimension, &store) : nullptr;
        if (global_bvh) {
            global_bvh->deserialize(deserializer);
            ok = global_bvh->is_valid() && global_bvh->page_count() == pages;
        }
        if (!ok) {
            // A tree that did not come through whole is rebuilt rather than trusted.
            if (global_bvh && map_global_bvh_destroy)
                map_global_bvh_destroy(global_bvh);
            global_bvh = nullptr;
            needs_build = true;
        }
    }
    return this + 1;
}

} // namespace QV::RCMAP
