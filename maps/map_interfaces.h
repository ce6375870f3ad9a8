// Public interfaces of maps: typed, paged containers of elements with a position in 1 to 6
// dimensions and any number of declared fields.
//
// These classes carry no data; the implementations live in namespace QV::RCMAP (the `_impl`
// classes). Every operation reports failure through a Map_status, returned or stored through a
// status pointer; a null status pointer is always accepted, and a successful call stores 0.
// No operation of this family throws or prints for a caller's mistake.
//
// Ownership: objects are deleted through their virtual destructor (the "destroy" operation).
// Handles own their map unless the map is a database element.
#pragma once

#include <cstdint>

namespace QV::RCMAP {
class Map_distance_base_internal;
} // namespace QV::RCMAP

namespace qv::shader_v3 {

// Result of every map operation. 0 is success; the numbers are part of the interface.
enum Map_status : int32_t {
    MAP_SUCCESS = 0,
    MAP_NO_SUCH_FIELD = 2,          // no such field name or field identifier
    MAP_INDEX_OUT_OF_RANGE = 3,     // element index not below the map's size
    MAP_NO_DECLARATION = 4,         // map or element has no declaration
    MAP_NOT_EQUIVALENT = 5,         // declarations differ in dimension or element layout
    MAP_WRONG_DIMENSION = 6,        // wrong number of values, or 3-float position accessor on dim != 3
    MAP_NOT_EDITABLE = 7,           // map may not be changed on this host
    MAP_FILE_MALFORMED = 15,        // malformed file, or a format the operation does not allow
    MAP_FILE_CANNOT_OPEN = 16,
    MAP_FILE_NOT_A_MAP = 17,
    MAP_FILE_BAD_VERSION = 18,
    MAP_FIELD_TYPE_ZERO = 32,
    MAP_FIELD_NAME_TOO_LONG = 33,   // 64 or more characters
    MAP_FIELD_NAME_EMPTY = 34,
    MAP_FIELD_NAME_RESERVED = 35,   // "position"
    MAP_FIELD_COUNT_ZERO = 36,      // count 0 for an array or string field
    MAP_FIELD_TYPE_MISMATCH = 37,   // field type differs from the accessor's
    MAP_FIELD_ILLEGAL_TYPE = 38,    // type not allowed in this list, or wrong list for the accessor
    MAP_ITERATOR_NO_MAP = 48,
    MAP_ITERATOR_AT_END = 49,
    MAP_ITERATOR_OUT_OF_RANGE = 50,
    MAP_LOOKUP_NO_MAP = 64,
    MAP_LOOKUP_AT_END = 65,
    MAP_LOOKUP_OUT_OF_RANGE = 66,
    MAP_LOOKUP_DIMENSION = 67,      // query and map differ in dimension
    MAP_LOOKUP_NO_SEARCH = 68,      // next_batch without a previous search
};

// Field type codes. 32-bit in memory, 16-bit in files; deliberately not contiguous.
enum Map_field_type : uint32_t {
    MAP_TYPE_NONE = 0,
    MAP_TYPE_SCALAR = 1,         // 1 float
    MAP_TYPE_INTEGER = 2,        // 1 signed 32-bit
    MAP_TYPE_VECTOR = 3,         // 3 floats
    MAP_TYPE_COLOR = 4,          // 4 floats
    MAP_TYPE_TRANSFORM = 5,      // 16 floats
    MAP_TYPE_SCALAR_ARRAY = 16,  // count floats
    MAP_TYPE_INTEGER_ARRAY = 17, // count signed 32-bit
    MAP_TYPE_STRING = 18,        // count bytes, NUL-terminated; global fields only
};

// Field identifier: the index in the element list, or the index in the global list with
// MAP_FIELD_GLOBAL_BIT set. MAP_FIELD_NONE (all bits set) means "not found".
using Map_field_id = int32_t;
constexpr Map_field_id MAP_FIELD_NONE = -1;
constexpr Map_field_id MAP_FIELD_GLOBAL_BIT = 0x10000;

constexpr uint32_t MAP_FIELD_NAME_BYTES = 64; // name buffer, at most 63 characters + NUL
constexpr uint32_t MAP_MAX_DIMENSION = 6;

// One declared field, element or global alike.
struct Map_field {
    char name[MAP_FIELD_NAME_BYTES]; // NUL-padded
    uint32_t type;                   // Map_field_type code
    uint16_t count;                  // array length or string bytes; 0 for the fixed types
};

// Value types of the typed accessors. Plain packed floats, as they lie in an element.
struct Map_vector3 {
    float x, y, z;
};
struct Map_color {
    float r, g, b, a;
};
struct Map_transform {
    float m[16];
};
static_assert(sizeof(Map_vector3) == 12 && sizeof(Map_color) == 16 && sizeof(Map_transform) == 64,
              "accessor value types are copied byte for byte into elements");

// One search result of a lookup.
struct Map_lookup_entry {
    uint32_t index; // element index in the map
    float distance; // squared distance for point searches
};
static_assert(sizeof(Map_lookup_entry) == 8, "8-byte result pair");

// Output formats of Map_base::write.
enum Map_file_format : uint32_t {
    MAP_FORMAT_BINARY = 0,
    MAP_FORMAT_OPEN_BINARY = 1,
    MAP_FORMAT_OPEN_ASCII = 2,
};

// Option bits of Map_base::read.
enum : uint32_t {
    MAP_READ_VERBOSE = 0x1, // report failures and progress through messages
    MAP_READ_ERRORS = 0x2,  // report failures only
};

class Map_element_base;

// The schema of a map: dimension, element fields and global fields, and the packed layout
// that follows from them. The order of the virtual operations is fixed.
class Map_declaration_base {
public:
    virtual ~Map_declaration_base() = default;
    virtual uint32_t get_field_count_total() const = 0;
    virtual uint32_t get_element_field_count() const = 0;
    virtual uint32_t get_global_field_count() const = 0;
    // True when there is neither an element nor a global field.
    virtual bool is_empty() const = 0;
    virtual uint32_t get_dimension() const = 0;
    // Equal dimension and equal combined signature; names do not matter.
    virtual bool is_equivalent(const Map_declaration_base* other, Map_status* status) const = 0;
    // is_equivalent, and every field name equal position by position.
    virtual bool is_equal(const Map_declaration_base* other, Map_status* status) const = 0;
    // Element list first, then the global list.
    virtual bool has_field(const char* name, Map_status* status) const = 0;
    virtual bool has_field(Map_field_id id, Map_status* status) const = 0;
    virtual bool has_global_field(const char* name, Map_status* status) const = 0;
    // The field record, owned by the declaration; null with MAP_NO_SUCH_FIELD for a bad id.
    virtual const Map_field* get_field(Map_field_id id, Map_status* status) const = 0;
    // First match in the element list, then in the global list; MAP_FIELD_NONE when absent.
    virtual Map_field_id get_field_id(const char* name, Map_status* status) const = 0;
    virtual Map_field_id get_element_field_id(uint32_t index, Map_status* status) const = 0;
    virtual Map_field_id get_global_field_id(uint32_t index, Map_status* status) const = 0;
    // Type 0 and count 0 are stored for an unknown field. Any out pointer may be null.
    virtual Map_status get_field_info(const char* name, Map_field_type* type, uint32_t* count,
                                      bool* is_global) const = 0;
    virtual Map_status get_field_info(Map_field_id id, Map_field_type* type, uint32_t* count,
                                      bool* is_global) const = 0;

    // Element fields. A failed add leaves the declaration unchanged.
    virtual Map_status add_field(const char* name, Map_field_type type, uint32_t count) = 0;
    virtual Map_status add_scalar(const char* name) = 0;
    virtual Map_status add_integer(const char* name) = 0;
    virtual Map_status add_vector(const char* name) = 0;
    virtual Map_status add_color(const char* name) = 0;
    virtual Map_status add_transform(const char* name) = 0;
    virtual Map_status add_scalar_array(const char* name, uint32_t count) = 0;
    virtual Map_status add_integer_array(const char* name, uint32_t count) = 0;

    // Global fields: one value per map.
    virtual Map_status add_global_field(const char* name, Map_field_type type, uint32_t count) = 0;
    virtual Map_status add_global_scalar(const char* name) = 0;
    virtual Map_status add_global_integer(const char* name) = 0;
    virtual Map_status add_global_vector(const char* name) = 0;
    virtual Map_status add_global_color(const char* name) = 0;
    virtual Map_status add_global_transform(const char* name) = 0;
    virtual Map_status add_global_scalar_array(const char* name, uint32_t count) = 0;
    virtual Map_status add_global_integer_array(const char* name, uint32_t count) = 0;
    virtual Map_status add_global_string(const char* name, uint32_t count) = 0;

protected:
    Map_declaration_base() = default;
    Map_declaration_base(const Map_declaration_base&) = default;
    Map_declaration_base& operator=(const Map_declaration_base&) = default;
};

// A free-standing element: private declaration copy and byte block.
//
// Typed accessors: arrays go through a caller buffer of `count` values; single values of the
// getters through a reference; the setters take scalar and integer by value, all else by
// pointer. The color accessors also accept a scalar array of count 3 (alpha 1.0 on read,
// dropped on write).
class Map_element_base {
public:
    virtual ~Map_element_base() = default;
    // Replaces declaration and data by a copy of `declaration` and a zero-filled block.
    virtual void set_declaration(const Map_declaration_base* declaration) = 0;
    // Dimension 3 only, else MAP_WRONG_DIMENSION.
    virtual Map_status get_position(Map_vector3& position) const = 0;
    // Copies `dimension` floats.
    virtual Map_status get_position(float* position) const = 0;
    virtual Map_status get(Map_field_id id, int32_t* values) const = 0;
    virtual Map_status get(Map_field_id id, float* values) const = 0;
    virtual Map_status get(Map_field_id id, Map_transform& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_color& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_vector3& value) const = 0;
    virtual Map_status get(Map_field_id id, int32_t& value) const = 0;
    virtual Map_status get(Map_field_id id, float& value) const = 0;
    virtual Map_status set_position(const Map_vector3& position) = 0;
    virtual Map_status set_position(const float* position) = 0;
    virtual Map_status set(Map_field_id id, const int32_t* values) = 0;
    virtual Map_status set(Map_field_id id, const float* values) = 0;
    virtual Map_status set(Map_field_id id, const Map_transform* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_color* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_vector3* value) = 0;
    virtual Map_status set(Map_field_id id, int32_t value) = 0;
    virtual Map_status set(Map_field_id id, float value) = 0;

protected:
    Map_element_base() = default;
    Map_element_base(const Map_element_base&) = default;
    Map_element_base& operator=(const Map_element_base&) = default;
};

// Walks a map by element index and reads or writes the element in place through the page cache.
class Map_iterator_base {
public:
    virtual ~Map_iterator_base() = default;
    virtual Map_status reset() = 0;
    virtual Map_status set_to(uint32_t position) = 0;
    virtual Map_status next() = 0;
    virtual Map_status previous() = 0;
    // Moves count + 1 elements, and never onto the end position.
    virtual Map_status skip(uint32_t count) = 0;
    virtual bool at_end(Map_status* status) const = 0;
    // The index; size + 1 at the end.
    virtual uint32_t current(Map_status* status) const = 0;
    virtual Map_status get(Map_field_id id, int32_t* values) const = 0;
    virtual Map_status get(Map_field_id id, float* values) const = 0;
    virtual Map_status get(Map_field_id id, Map_transform& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_color& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_vector3& value) const = 0;
    virtual Map_status get(Map_field_id id, int32_t& value) const = 0;
    virtual Map_status get(Map_field_id id, float& value) const = 0;
    virtual Map_status get(Map_element_base* element) const = 0;
    virtual Map_status get_position(Map_vector3& position) const = 0;
    virtual Map_status get_position(float* position) const = 0;
    virtual Map_status set(Map_field_id id, const int32_t* values) = 0;
    virtual Map_status set(Map_field_id id, const float* values) = 0;
    virtual Map_status set(Map_field_id id, const Map_transform* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_color* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_vector3* value) = 0;
    virtual Map_status set(Map_field_id id, int32_t value) = 0;
    virtual Map_status set(Map_field_id id, float value) = 0;
    virtual Map_status set(const Map_element_base* element) = 0;
    virtual Map_status set_position(const Map_vector3& position) = 0;
    virtual Map_status set_position(const float* position) = 0;

protected:
    Map_iterator_base() = default;
    Map_iterator_base(const Map_iterator_base&) = default;
    Map_iterator_base& operator=(const Map_iterator_base&) = default;
};

// The interface of a map. Elements appended are pending, and not counted by size() nor
// reachable through get(), until a commit (build_bvh).
class Map_base {
public:
    virtual uint32_t size() const = 0;
    virtual bool is_empty() const = 0;
    virtual bool has_declaration() const = 0;
    // Global fields.
    virtual Map_status get(Map_field_id id, char* text) const = 0;
    virtual Map_status get(Map_field_id id, int32_t* values) const = 0;
    virtual Map_status get(Map_field_id id, float* values) const = 0;
    virtual Map_status get(Map_field_id id, Map_transform& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_color& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_vector3& value) const = 0;
    virtual Map_status get(Map_field_id id, int32_t& value) const = 0;
    virtual Map_status get(Map_field_id id, float& value) const = 0;
    // Reads element `index`; an element without (or with a differing) declaration is retyped.
    virtual Map_status get(uint32_t index, Map_element_base* element) const = 0;
    // `length` < 0 means strlen(text) + 1.
    virtual Map_status set(Map_field_id id, const char* text, int32_t length) = 0;
    virtual Map_status set(Map_field_id id, const int32_t* values) = 0;
    virtual Map_status set(Map_field_id id, const float* values) = 0;
    virtual Map_status set(Map_field_id id, const Map_transform* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_color* value) = 0;
    virtual Map_status set(Map_field_id id, const Map_vector3* value) = 0;
    virtual Map_status set(Map_field_id id, int32_t value) = 0;
    virtual Map_status set(Map_field_id id, float value) = 0;
    virtual Map_status set(uint32_t index, const Map_element_base* element) = 0;
    virtual Map_status append(const Map_element_base* element) = 0;
    // Replaces the map's contents by a file; options are MAP_READ_* bits.
    virtual Map_status read(const char* filename, uint32_t options) = 0;
    virtual Map_status append_to_file(const char* filename, bool verbose) = 0;
    // `leave_bvh` keeps the BVH untouched (only marks it for a refit). `format`, when not
    // null, receives the file's format (Map_file_format), also on failure.
    virtual Map_status append_from_file(const char* filename, bool verbose, bool leave_bvh,
                                        uint32_t* format) = 0;
    // `comment` (may be null) is the open ASCII comment line's text; the other formats have none.
    virtual Map_status write(const char* filename, Map_file_format format, bool verbose,
                             const char* comment = nullptr) = 0;
    // Commits pending appends, then brings the BVH up to date with threshold 1 - quality
    // unless `skip_update` is set.
    virtual Map_status build_bvh(float quality, bool forced, bool skip_update) = 0;

protected:
    Map_base() = default;
    Map_base(const Map_base&) = default;
    Map_base& operator=(const Map_base&) = default;
    ~Map_base() = default; // maps are deleted as database elements or through their _impl
};

// Nearest-element searches over a map. Results are (index, distance) pairs, walked like an
// iterator; they stay in heap order until sort() or sort_descending().
class Map_lookup_base {
public:
    virtual ~Map_lookup_base() = default;
    virtual uint32_t size() const = 0;
    virtual bool is_empty() const = 0;
    virtual Map_status reset() = 0;
    virtual Map_status next() = 0;
    virtual bool at_end() const = 0;
    virtual void sort() = 0;
    virtual void sort_descending() = 0;
    virtual Map_status get(Map_field_id id, int32_t* values) const = 0;
    virtual Map_status get(Map_field_id id, float* values) const = 0;
    virtual Map_status get(Map_field_id id, Map_transform& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_color& value) const = 0;
    virtual Map_status get(Map_field_id id, Map_vector3& value) const = 0;
    virtual Map_status get(Map_field_id id, int32_t& value) const = 0;
    virtual Map_status get(Map_field_id id, float& value) const = 0;
    virtual Map_status get(Map_element_base* element) const = 0;
    virtual Map_status get_entry(Map_lookup_entry* entry) const = 0;
    virtual Map_status get_entry(uint32_t position, Map_lookup_entry* entry) const = 0;
    virtual uint32_t get_index(Map_status* status) const = 0;
    virtual float get_distance(Map_status* status) const = 0;
    virtual Map_status get_position(Map_vector3& position) const = 0;
    virtual Map_status get_position(float* position) const = 0;
    // Segment search, dimension 3 only; `direction` is a unit vector.
    virtual Map_status search(const Map_vector3& origin, const Map_vector3& direction, float length,
                              uint32_t max_count, float max_distance) = 0;
    // Point search, dimension 3 only.
    virtual Map_status search(const Map_vector3& point, uint32_t max_count, float max_distance) = 0;
    virtual Map_status search(const QV::RCMAP::Map_distance_base_internal* distance_function,
                              uint32_t max_count, float max_distance) = 0;
    // The next nearest elements after those of the previous search or batch.
    virtual Map_status next_batch() = 0;

protected:
    Map_lookup_base() = default;
    Map_lookup_base(const Map_lookup_base&) = default;
    Map_lookup_base& operator=(const Map_lookup_base&) = default;
};

// A map pinned for reading. Not shared between threads.
class Access_map_dbhandle {
public:
    // The map, or null. Do not change the map through an access handle.
    virtual Map_base* get() const = 0;
    virtual ~Access_map_dbhandle() = default;
    // Database tag held; 0 when the map is not a database element.
    virtual uint32_t get_tag() const = 0;
    // Makes the map a database element (once) and returns its tag.
    virtual uint32_t store() = 0;

protected:
    Access_map_dbhandle() = default;
};

// A map pinned for editing. Not shared between threads. Destruction of a handle on a database
// element brings the map's BVH up to date before the edit ends.
class Edit_map_dbhandle {
public:
    virtual Map_base* get() const = 0;
    virtual ~Edit_map_dbhandle() = default;
    virtual uint32_t get_tag() const = 0;
    virtual uint32_t store() = 0;

protected:
    Edit_map_dbhandle() = default;
};

} // namespace qv::shader_v3
