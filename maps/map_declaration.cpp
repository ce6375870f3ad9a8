// Building, querying and comparing map declarations.

#include "maps/map_declaration.h"

#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

void store(Map_status* status, Map_status value)
{
    if (status)
        *status = value;
}

constexpr size_t MAX_FIELDS_PER_LIST = 0xFFFF;

bool is_array_type(uint32_t type)
{
    return type == MAP_TYPE_SCALAR_ARRAY || type == MAP_TYPE_INTEGER_ARRAY;
}

bool is_counted_type(uint32_t type)
{
    return is_array_type(type) || type == MAP_TYPE_STRING;
}

bool is_known_type(uint32_t type)
{
    return (type >= MAP_TYPE_SCALAR && type <= MAP_TYPE_TRANSFORM) ||
           (type >= MAP_TYPE_SCALAR_ARRAY && type <= MAP_TYPE_STRING);
}

// Names compare byte-wise up to the first NUL, never past the 64-byte buffer.
bool same_name(const char* a, const char* b)
{
    return std::strncmp(a, b, MAP_FIELD_NAME_BYTES) == 0;
}

} // namespace

// The accessors copy as many bytes as the type has, so a stored size must agree with it; a
// name must end inside its buffer.
static bool field_is_consistent(const Map_field& field, uint32_t bytes)
{
    if (std::memchr(field.name, 0, MAP_FIELD_NAME_BYTES) == nullptr)
        return false;
    if (field.type == MAP_TYPE_NONE)
        return false;
    return !is_known_type(field.type) || bytes == map_field_bytes(field.type, field.count);
}

uint16_t map_field_bytes(uint32_t type, uint32_t count)
{
    switch (type) {
    case MAP_TYPE_SCALAR:
    case MAP_TYPE_INTEGER:
        return 4;
    case MAP_TYPE_VECTOR:
        return 12;
    case MAP_TYPE_COLOR:
        return 16;
    case MAP_TYPE_TRANSFORM:
        return 64;
    case MAP_TYPE_SCALAR_ARRAY:
    case MAP_TYPE_INTEGER_ARRAY:
        return static_cast<uint16_t>((count * 4) & 0xFFFF);
    case MAP_TYPE_STRING:
        return static_cast<uint16_t>(count);
    default:
        return 0;
    }
}

uint32_t map_field_value_count(uint32_t type, uint32_t count)
{
    switch (type) {
    case MAP_TYPE_VECTOR:
        return 3;
    case MAP_TYPE_COLOR:
        return 4;
    case MAP_TYPE_TRANSFORM:
        return 16;
    case MAP_TYPE_SCALAR_ARRAY:
    case MAP_TYPE_INTEGER_ARRAY:
        return count;
    default:
        return 1;
    }
}

const char* map_field_type_name(uint32_t type)
{
    switch (type) {
    case MAP_TYPE_SCALAR: return "scalar";
    case MAP_TYPE_INTEGER: return "integer";
    case MAP_TYPE_VECTOR: return "vector";
    case MAP_TYPE_COLOR: return "color";
    case MAP_TYPE_TRANSFORM: return "transform";
    case MAP_TYPE_SCALAR_ARRAY: return "scalar array";
    case MAP_TYPE_INTEGER_ARRAY: return "integer array";
    case MAP_TYPE_STRING: return "string";
    default: return nullptr;
    }
}

char map_field_type_letter(uint32_t type)
{
    switch (type) {
    case MAP_TYPE_SCALAR:
    case MAP_TYPE_SCALAR_ARRAY: return 's';
    case MAP_TYPE_INTEGER:
    case MAP_TYPE_INTEGER_ARRAY: return 'i';
    case MAP_TYPE_VECTOR: return 'v';
    case MAP_TYPE_COLOR: return 'c';
    case MAP_TYPE_TRANSFORM: return 't';
    case MAP_TYPE_STRING: return '$';
    default: return 0;
    }
}

// ---- Life cycle ---------------------------------------------------------------------------

Map_declaration_impl::Map_declaration_impl() = default;

Map_declaration_impl::Map_declaration_impl(uint32_t dimension)
    : dimension_(static_cast<uint16_t>(dimension)),
      position_size_(static_cast<uint16_t>(dimension * 4)),
      element_size_(static_cast<uint16_t>(dimension * 4))
{
}

Map_declaration_impl::Map_declaration_impl(const Map_declaration_impl& other) = default;
Map_declaration_impl& Map_declaration_impl::operator=(const Map_declaration_impl& other) = default;
Map_declaration_impl::~Map_declaration_impl() = default;

void* Map_declaration_impl::operator new(size_t size)
{
    return QV_ALLOC(size);
}

void Map_declaration_impl::operator delete(void* pointer)
{
    QV_FREE(pointer);
}

void Map_declaration_impl::reset()
{
    element_fields_.clear();
    global_fields_.clear();
    element_offsets_.clear();
    global_offsets_.clear();
    element_sizes_.clear();
    global_sizes_.clear();
    dimension_ = 3;
    position_size_ = 0;
    element_size_ = 0;
    global_size_ = 0;
    element_signature_.clear();
    global_signature_.clear();
    combined_signature_.clear();
}

// ---- Queries ------------------------------------------------------------------------------

uint32_t Map_declaration_impl::get_field_count_total() const
{
    return static_cast<uint32_t>(element_fields_.size() + global_fields_.size());
}

uint32_t Map_declaration_impl::get_element_field_count() const
{
    return static_cast<uint32_t>(element_fields_.size());
}

uint32_t Map_declaration_impl::get_global_field_count() const
{
    return static_cast<uint32_t>(global_fields_.size());
}

bool Map_declaration_impl::is_empty() const
{
    return element_fields_.empty() && global_fields_.empty();
}

uint32_t Map_declaration_impl::get_dimension() const
{
    return dimension_;
}

bool Map_declaration_impl::is_equivalent(const Map_declaration_base* other, Map_status* status) const
{
    // There is one implementation of the interface; anything else cannot match our layout.
    const auto* impl = dynamic_cast<const Map_declaration_impl*>(other);
    if (!impl) {
        store(status, MAP_NO_DECLARATION);
        return false;
    }
    store(status, MAP_SUCCESS);
    return dimension_ == impl->dimension_ && combined_signature_ == impl->combined_signature_;
}

bool Map_declaration_impl::is_equal(const Map_declaration_base* other, Map_status* status) const
{
    if (!is_equivalent(other, status))
        return false;
    const auto* impl = static_cast<const Map_declaration_impl*>(other);
    // Equal signatures imply equal list lengths.
    for (size_t i = 0; i < element_fields_.size(); ++i)
        if (!same_name(element_fields_[i].name, impl->element_fields_[i].name))
            return false;
    for (size_t i = 0; i < global_fields_.size(); ++i)
        if (!same_name(global_fields_[i].name, impl->global_fields_[i].name))
            return false;
    return true;
}

int Map_declaration_impl::find(const std::vector<Map_field>& list, const char* name)
{
    if (!name)
        return -1;
    for (size_t i = 0; i < list.size(); ++i)
        if (same_name(list[i].name, name))
            return static_cast<int>(i);
    return -1;
}

bool Map_declaration_impl::has_field(const char* name, Map_status* status) const
{
    if (find(element_fields_, name) >= 0) {
        store(status, MAP_SUCCESS);
        return true;
    }
    return has_global_field(name, status);
}

bool Map_declaration_impl::has_field(Map_field_id id, Map_status* status) const
{
    return get_field(id, status) != nullptr;
}

bool Map_declaration_impl::has_global_field(const char* name, Map_status* status) const
{
    const bool found = find(global_fields_, name) >= 0;
    store(status, found ? MAP_SUCCESS : MAP_NO_SUCH_FIELD);
    return found;
}

const Map_field* Map_declaration_impl::get_field(Map_field_id id, Map_status* status) const
{
    if (id >= 0) {
        const bool global = (id & MAP_FIELD_GLOBAL_BIT) != 0;
        const uint32_t index = static_cast<uint32_t>(id & ~MAP_FIELD_GLOBAL_BIT);
        const std::vector<Map_field>& list = global ? global_fields_ : element_fields_;
        if (index < list.size()) {
            store(status, MAP_SUCCESS);
            return &list[index];
        }
    }
    store(status, MAP_NO_SUCH_FIELD);
    return nullptr;
}

Map_field_id Map_declaration_impl::get_field_id(const char* name, Map_status* status) const
{
    int index = find(element_fields_, name);
    if (index >= 0) {
        store(status, MAP_SUCCESS);
        return index;
    }
    index = find(global_fields_, name);
    if (index >= 0) {
        store(status, MAP_SUCCESS);
        return index | MAP_FIELD_GLOBAL_BIT;
    }
    store(status, MAP_NO_SUCH_FIELD);
    return MAP_FIELD_NONE;
}

Map_field_id Map_declaration_impl::get_element_field_id(uint32_t index, Map_status* status) const
{
    if (index >= element_fields_.size()) {
        store(status, MAP_NO_SUCH_FIELD);
        return MAP_FIELD_NONE;
    }
    store(status, MAP_SUCCESS);
    return static_cast<Map_field_id>(index);
}

Map_field_id Map_declaration_impl::get_global_field_id(uint32_t index, Map_status* status) const
{
    if (index >= global_fields_.size()) {
        store(status, MAP_NO_SUCH_FIELD);
        return MAP_FIELD_NONE;
    }
    store(status, MAP_SUCCESS);
    return static_cast<Map_field_id>(index) | MAP_FIELD_GLOBAL_BIT;
}

Map_status Map_declaration_impl::get_field_info(const char* name, Map_field_type* type,
                                                uint32_t* count, bool* is_global) const
{
    return get_field_info(get_field_id(name, nullptr), type, count, is_global);
}

Map_status Map_declaration_impl::get_field_info(Map_field_id id, Map_field_type* type,
                                                uint32_t* count, bool* is_global) const
{
    Map_status status;
    const Map_field* field = get_field(id, &status);
    if (type)
        *type = field ? static_cast<Map_field_type>(field->type) : MAP_TYPE_NONE;
    if (count)
        *count = field ? field->count : 0;
    if (is_global)
        *is_global = field && (id & MAP_FIELD_GLOBAL_BIT) != 0;
    return status;
}

Map_status Map_declaration_impl::resolve_access(Map_field_id id, bool global,
                                                uint32_t accessor_type, uint32_t* field_type,
                                                uint32_t* offset, uint32_t* bytes) const
{
    Map_field_type type;
    uint32_t count;
    bool is_global;
    const Map_status status = get_field_info(id, &type, &count, &is_global);
    if (status != MAP_SUCCESS)
        return status;
    if (is_global != global)
        return MAP_FIELD_ILLEGAL_TYPE;
    // Packed records keep three-float colours as scalar arrays of 3; the colour accessors
    // take those too, so such records need no field of their own kind.
    const bool color3 =
        accessor_type == MAP_TYPE_COLOR && type == MAP_TYPE_SCALAR_ARRAY && count == 3;
    if (type != accessor_type && !color3)
        return MAP_FIELD_TYPE_MISMATCH;
    const uint32_t index = static_cast<uint32_t>(id & ~MAP_FIELD_GLOBAL_BIT);
    *field_type = type;
    *offset = global ? global_offsets_[index] : element_offsets_[index];
    *bytes = global ? global_sizes_[index] : element_sizes_[index];
    return MAP_SUCCESS;
}

// ---- Adding fields ----------------------------------------------------------------------

Map_status Map_declaration_impl::add(bool global, const char* name, uint32_t type, uint32_t count)
{
    Module_scope scope(MOD_RCMP);
    Map_status status = MAP_SUCCESS;
    // The field stores a 16-bit count, so that is the count the checks must see.
    const uint16_t count16 = static_cast<uint16_t>(count);

    // Which types each list takes.
    if (!global) {
        if (is_array_type(type) && count16 == 0)
            status = MAP_FIELD_COUNT_ZERO;
        else if (type == MAP_TYPE_STRING)
            status = MAP_FIELD_ILLEGAL_TYPE;
    } else {
        if (!is_known_type(type))
            status = MAP_FIELD_ILLEGAL_TYPE;
        else if (is_counted_type(type) && count16 == 0)
            status = MAP_FIELD_COUNT_ZERO;
    }

    // The name; a later finding overrides an earlier one. "position" is reserved because the
    // position is not a field.
    // The map file counts each list in 16 bits; a longer list could not be written back.
    if ((global ? global_fields_.size() : element_fields_.size()) >= MAX_FIELDS_PER_LIST)
        status = MAP_FIELD_ILLEGAL_TYPE;
    if (type == MAP_TYPE_NONE)
        status = MAP_FIELD_TYPE_ZERO;
    if (!name || name[0] == '\0')
        status = MAP_FIELD_NAME_EMPTY;
    else if (std::strcmp(name, "position") == 0)
        status = MAP_FIELD_NAME_RESERVED;
    else if (std::strlen(name) >= MAP_FIELD_NAME_BYTES)
        status = MAP_FIELD_NAME_TOO_LONG;
    if (status != MAP_SUCCESS)
        return status;

    Map_field field{};
    std::memcpy(field.name, name, std::strlen(name));
    field.type = type;
    field.count = is_counted_type(type) ? count16 : 0;
    const uint16_t bytes = map_field_bytes(type, field.count);

    if (!global) {
        element_fields_.push_back(field);
        element_offsets_.push_back(element_size_);
        element_sizes_.push_back(bytes);
        element_size_ = static_cast<uint16_t>(element_size_ + bytes);
        append_signature(element_signature_, field, false);
    } else {
        global_fields_.push_back(field);
        global_offsets_.push_back(global_size_);
        global_sizes_.push_back(bytes);
        global_size_ += bytes;
        append_signature(global_signature_, field, true);
    }
    combined_signature_ = element_signature_ + global_signature_;
    return MAP_SUCCESS;
}

void Map_declaration_impl::append_signature(std::string& out, const Map_field& field, bool global)
{
    const char letter = map_field_type_letter(field.type);
    if (letter) {
        out += letter;
    } else {
        // The element list accepts codes outside the table; give them a form of their own so
        // that such declarations never compare equal to ordinary ones.
        out += '?';
        out += std::to_string(field.type);
        out += '.';
    }
    if (is_counted_type(field.type))
        out += std::to_string(field.count);
    if (global)
        out += 'g';
}

void Map_declaration_impl::rebuild_signatures()
{
    element_signature_.clear();
    global_signature_.clear();
    for (const Map_field& field : element_fields_)
        append_signature(element_signature_, field, false);
    for (const Map_field& field : global_fields_)
        append_signature(global_signature_, field, true);
    combined_signature_ = element_signature_ + global_signature_;
}

Map_status Map_declaration_impl::add_field(const char* name, Map_field_type type, uint32_t count)
{
    return add(false, name, type, count);
}

Map_status Map_declaration_impl::add_scalar(const char* name)
{
    return add(false, name, MAP_TYPE_SCALAR, 0);
}

Map_status Map_declaration_impl::add_integer(const char* name)
{
    return add(false, name, MAP_TYPE_INTEGER, 0);
}

Map_status Map_declaration_impl::add_vector(const char* name)
{
    return add(false, name, MAP_TYPE_VECTOR, 0);
}

Map_status Map_declaration_impl::add_color(const char* name)
{
    return add(false, name, MAP_TYPE_COLOR, 0);
}

Map_status Map_declaration_impl::add_transform(const char* name)
{
    return add(false, name, MAP_TYPE_TRANSFORM, 0);
}

Map_status Map_declaration_impl::add_scalar_array(const char* name, uint32_t count)
{
    return add(false, name, MAP_TYPE_SCALAR_ARRAY, count);
}

Map_status Map_declaration_impl::add_integer_array(const char* name, uint32_t count)
{
    return add(false, name, MAP_TYPE_INTEGER_ARRAY, count);
}

Map_status Map_declaration_impl::add_global_field(const char* name, Map_field_type type,
                                                  uint32_t count)
{
    return add(true, name, type, count);
}

Map_status Map_declaration_impl::add_global_scalar(const char* name)
{
    return add(true, name, MAP_TYPE_SCALAR, 0);
}

Map_status Map_declaration_impl::add_global_integer(const char* name)
{
    return add(true, name, MAP_TYPE_INTEGER, 0);
}

Map_status Map_declaration_impl::add_global_vector(const char* name)
{
    return add(true, name, MAP_TYPE_VECTOR, 0);
}

Map_status Map_declaration_impl::add_global_color(const char* name)
{
    return add(true, name, MAP_TYPE_COLOR, 0);
}

Map_status Map_declaration_impl::add_global_transform(const char* name)
{
    return add(true, name, MAP_TYPE_TRANSFORM, 0);
}

Map_status Map_declaration_impl::add_global_scalar_array(const char* name, uint32_t count)
{
    return add(true, name, MAP_TYPE_SCALAR_ARRAY, count);
}

Map_status Map_declaration_impl::add_global_integer_array(const char* name, uint32_t count)
{
    return add(true, name, MAP_TYPE_INTEGER_ARRAY, count);
}

Map_status Map_declaration_impl::add_global_string(const char* name, uint32_t count)
{
    return add(true, name, MAP_TYPE_STRING, count);
}

// A declaration that came from outside (file, stream) is trusted only this far: every field
// lies inside its block, so no accessor can reach past an element or the global block.
bool Map_declaration_impl::layout_is_consistent() const
{
    if (dimension_ < 1 || dimension_ > MAP_MAX_DIMENSION)
        return false;
    if (element_offsets_.size() != element_fields_.size() ||
        element_sizes_.size() != element_fields_.size() ||
        global_offsets_.size() != global_fields_.size() ||
        global_sizes_.size() != global_fields_.size())
        return false;
    if (element_size_ < position_size_)
        return false;
    for (size_t i = 0; i < element_fields_.size(); ++i) {
        if (element_fields_[i].type == MAP_TYPE_STRING)
            return false;
        if (!field_is_consistent(element_fields_[i], element_sizes_[i]))
            return false;
        if (uint32_t{element_offsets_[i]} + element_sizes_[i] > element_size_)
            return false;
    }
    for (size_t i = 0; i < global_fields_.size(); ++i) {
        if (!is_known_type(global_fields_[i].type) ||
            !field_is_consistent(global_fields_[i], global_sizes_[i]))
            return false;
        if (uint64_t{global_offsets_[i]} + global_sizes_[i] > global_size_)
            return false;
    }
    return true;
}

} // namespace QV::RCMAP
