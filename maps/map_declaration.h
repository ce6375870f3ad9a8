// QV::RCMAP::Map_declaration_impl: the schema of a map.
//
// A declaration fixes the dimension (1 to 6), the ordered element fields and the ordered global
// fields, and the packed byte layout that follows from them: an element is `dimension` floats
// of position, then each element field right behind the previous one, with no alignment and no
// padding; the global block is the same without a position. Offsets and sizes of element
// fields are 16-bit (an element larger than 65535 bytes wraps; nothing checks it).
//
// Ownership: maps, elements and files each keep a private copy; declarations are never shared.
// Thread rules: a declaration is built by one thread and read-only afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "maps/map_interfaces.h"

namespace QV::SERIAL {
class Serializer;
class Deserializer;
} // namespace QV::SERIAL

namespace QV::RCMAP {

using qv::shader_v3::Map_field;
using qv::shader_v3::Map_field_id;
using qv::shader_v3::Map_field_type;
using qv::shader_v3::Map_status;

// Bytes of one field of `type`, computed in 16 bits as the files hold it: arrays
// (count * 4) & 0xFFFF, strings the count. 0 for a code the table does not know.
uint16_t map_field_bytes(uint32_t type, uint32_t count);
// Values a field takes when set from parsed text: 1, 3, 4, 16 or the array count.
uint32_t map_field_value_count(uint32_t type, uint32_t count);
// "scalar", "integer", ...; null for an unknown code. Arrays and strings add " <count>".
const char* map_field_type_name(uint32_t type);
// Signature letter: 's', 'i', 'v', 'c', 't', '$'; 0 for an unknown code.
char map_field_type_letter(uint32_t type);

// Bytes of the binary declaration record of the map file for F element and H global fields.
constexpr size_t map_declaration_record_bytes(size_t element_fields, size_t global_fields)
{
    return 2 + element_fields * 68 + 2 + global_fields * 68 + 4 + element_fields * 2 + 4 +
           global_fields * 4 + 4 + element_fields * 2 + 4 + global_fields * 4 + 2 + 2 + 4;
}

class Map_declaration_impl final : public qv::shader_v3::Map_declaration_base {
public:
    // Dimension 0: to be filled by read_binary or deserialize.
    Map_declaration_impl();
    explicit Map_declaration_impl(uint32_t dimension);
    Map_declaration_impl(const Map_declaration_impl& other);
    Map_declaration_impl& operator=(const Map_declaration_impl& other);
    ~Map_declaration_impl() override;

    // Objects are charged to the module current at allocation.
    static void* operator new(size_t size);
    static void operator delete(void* pointer);

    // ---- Map_declaration_base, in its order -------------------------------------------------
    uint32_t get_field_count_total() const override;
    uint32_t get_element_field_count() const override;
    uint32_t get_global_field_count() const override;
    bool is_empty() const override;
    uint32_t get_dimension() const override;
    bool is_equivalent(const Map_declaration_base* other, Map_status* status) const override;
    bool is_equal(const Map_declaration_base* other, Map_status* status) const override;
    bool has_field(const char* name, Map_status* status) const override;
    bool has_field(Map_field_id id, Map_status* status) const override;
    bool has_global_field(const char* name, Map_status* status) const override;
    const Map_field* get_field(Map_field_id id, Map_status* status) const override;
    Map_field_id get_field_id(const char* name, Map_status* status) const override;
    Map_field_id get_element_field_id(uint32_t index, Map_status* status) const override;
    Map_field_id get_global_field_id(uint32_t index, Map_status* status) const override;
    Map_status get_field_info(const char* name, Map_field_type* type, uint32_t* count,
                              bool* is_global) const override;
    Map_status get_field_info(Map_field_id id, Map_field_type* type, uint32_t* count,
                              bool* is_global) const override;
    // A list holds at most 65535 fields (the file's 16-bit counters); one more is refused
    // with MAP_FIELD_ILLEGAL_TYPE, before the name checks.
    Map_status add_field(const char* name, Map_field_type type, uint32_t count) override;
    Map_status add_scalar(const char* name) override;
    Map_status add_integer(const char* name) override;
    Map_status add_vector(const char* name) override;
    Map_status add_color(const char* name) override;
    Map_status add_transform(const char* name) override;
    Map_status add_scalar_array(const char* name, uint32_t count) override;
    Map_status add_integer_array(const char* name, uint32_t count) override;
    Map_status add_global_field(const char* name, Map_field_type type, uint32_t count) override;
    Map_status add_global_scalar(const char* name) override;
    Map_status add_global_integer(const char* name) override;
    Map_status add_global_vector(const char* name) override;
    Map_status add_global_color(const char* name) override;
    Map_status add_global_transform(const char* name) override;
    Map_status add_global_scalar_array(const char* name, uint32_t count) override;
    Map_status add_global_integer_array(const char* name, uint32_t count) override;
    Map_status add_global_string(const char* name, uint32_t count) override;

    // ---- Layout -------------------------------------------------------------------------
    uint32_t dimension() const { return dimension_; }
    uint32_t position_bytes() const { return position_size_; }
    uint32_t element_bytes() const { return element_size_; }
    uint32_t global_bytes() const { return global_size_; }
    // REQUIRES: index below the list's count.
    const Map_field& element_field(uint32_t index) const { return element_fields_[index]; }
    const Map_field& global_field(uint32_t index) const { return global_fields_[index]; }
    uint32_t element_field_offset(uint32_t index) const { return element_offsets_[index]; }
    uint32_t element_field_bytes(uint32_t index) const { return element_sizes_[index]; }
    uint32_t global_field_offset(uint32_t index) const { return global_offsets_[index]; }
    uint32_t global_field_bytes(uint32_t index) const { return global_sizes_[index]; }

    const std::string& element_signature() const { return element_signature_; }
    const std::string& global_signature() const { return global_signature_; }
    const std::string& signature() const { return combined_signature_; }

    // The weakest comparison, the one of map merge, append and the file checks: dimension and
    // element signature. Global fields and names do not matter.
    bool is_layout_equivalent(const Map_declaration_impl& other) const
    {
        return dimension_ == other.dimension_ && element_signature_ == other.element_signature_;
    }

    // The checks that every typed accessor runs after its own (editable, declaration): the id
    // resolves (else its status, 2), lies in the wanted list (else 38) and has the accessor's
    // type (else 37; a color accessor also takes a scalar array of 3). Gives the field's type,
    // offset and size on success.
    Map_status resolve_access(Map_field_id id, bool global, uint32_t accessor_type,
                              uint32_t* field_type, uint32_t* offset, uint32_t* bytes) const;

    // Clears everything to the state of a declaration about to be read: no fields, sizes 0,
    // dimension 3. Not usable for anything but a read until then.
    void reset();

    // ---- Stored forms ---------------------------------------------------------------------
    // Database form through the serialization framework.
    void serialize(QV::SERIAL::Serializer* serializer) const;
    // False on a damaged or inconsistent stream; the declaration is then reset.
    bool deserialize(QV::SERIAL::Deserializer* deserializer);
    // Bytes that serialize writes.
    uint64_t get_serialized_size() const;

    // The declaration record of the binary map file.
    size_t binary_size() const
    {
        return map_declaration_record_bytes(element_fields_.size(), global_fields_.size());
    }
    // Appends the record's binary_size() bytes to `out`.
    void write_binary(std::vector<uint8_t>& out) const;
    // Replaces this declaration by the record in `bytes`; the stored offsets and sizes are
    // taken as they stand, the signatures rebuilt. MAP_FILE_MALFORMED (declaration reset) when
    // the record is short, its counts disagree, the dimension is not 1 to 6, or a field lies
    // outside its block. `consumed` receives the record's length when not null.
    Map_status read_binary(const uint8_t* bytes, size_t size, size_t* consumed);

    // Appends the open ASCII declaration text under `name`: global fields first.
    void write_text(const char* name, std::string& out) const;
    // Appends the field list text of the open binary header: global fields first, each as
    // letter, count (arrays, strings), "g" (globals) and the quoted name.
    void signature_text(std::string& out) const;

private:
    Map_status add(bool global, const char* name, uint32_t type, uint32_t count);
    void rebuild_signatures();
    bool layout_is_consistent() const;
    static void append_signature(std::string& out, const Map_field& field, bool global);
    static int find(const std::vector<Map_field>& list, const char* name);

    std::vector<Map_field> element_fields_;
    std::vector<Map_field> global_fields_;
    std::vector<uint16_t> element_offsets_; // byte offset inside an element (position first)
    std::vector<uint32_t> global_offsets_;  // byte offset inside the global block
    std::vector<uint16_t> element_sizes_;
    std::vector<uint32_t> global_sizes_;
    uint16_t dimension_ = 0;
    uint16_t position_size_ = 0; // dimension * 4
    uint16_t element_size_ = 0;  // position plus all element fields, 16-bit arithmetic
    uint32_t global_size_ = 0;
    std::string element_signature_;
    std::string global_signature_;
    std::string combined_signature_; // element signature, then global signature
};

} // namespace QV::RCMAP
