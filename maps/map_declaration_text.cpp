// Stored forms of a map declaration: the open ASCII text, the open binary field list, the
// record of the binary map file and the database stream.

#include <cstring>

#include "maps/map_declaration.h"
#include "runtime/modules.h"
#include "serial/serializer.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

bool is_counted(uint32_t type)
{
    return type == MAP_TYPE_SCALAR_ARRAY || type == MAP_TYPE_INTEGER_ARRAY ||
           type == MAP_TYPE_STRING;
}

// "scalar array 3 \"name\"": the type's text name (with the count for counted types), then the
// quoted field name.
void append_field_text(std::string& out, const Map_field& field)
{
    const char* type_name = map_field_type_name(field.type);
    if (type_name) {
        out += type_name;
    } else {
        out += "type ";
        out += std::to_string(field.type);
    }
    if (is_counted(field.type)) {
        out += ' ';
        out += std::to_string(field.count);
    }
    out += " \"";
    out += field.name;
    out += '"';
}

template <class T>
void put(std::vector<uint8_t>& out, T value)
{
    // Files hold values as they lie in memory (little-endian on every supported host).
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

void put_fields(std::vector<uint8_t>& out, const Map_field* fields, size_t count)
{
    put(out, static_cast<uint16_t>(count));
    for (size_t i = 0; i < count; ++i) {
        out.insert(out.end(), fields[i].name, fields[i].name + MAP_FIELD_NAME_BYTES);
        put(out, static_cast<uint16_t>(fields[i].type));
        put(out, fields[i].count);
    }
}

template <class T>
void put_vector(std::vector<uint8_t>& out, const std::vector<T>& values)
{
    put(out, static_cast<uint32_t>(values.size()));
    for (T value : values)
        put(out, value);
}

// Bounded reader over a record: every take fails, and keeps failing, once the bytes run out.
class Record_reader {
public:
    Record_reader(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}

    template <class T>
    bool take(T* value)
    {
        if (size_ - position_ < sizeof(T))
            return fail();
        std::memcpy(value, bytes_ + position_, sizeof(T));
        position_ += sizeof(T);
        return true;
    }
    bool take_bytes(void* out, size_t count)
    {
        if (size_ - position_ < count)
            return fail();
        std::memcpy(out, bytes_ + position_, count);
        position_ += count;
        return true;
    }
    size_t position() const { return position_; }

private:
    bool fail()
    {
        position_ = size_;
        return false;
    }

    const uint8_t* bytes_;
    size_t size_;
    size_t position_ = 0;
};

bool take_fields(Record_reader& in, std::vector<Map_field>& fields)
{
    uint16_t count;
    if (!in.take(&count))
        return false;
    fields.resize(count);
    for (Map_field& field : fields) {
        uint16_t type;
        if (!in.take_bytes(field.name, MAP_FIELD_NAME_BYTES) || !in.take(&type) ||
            !in.take(&field.count))
            return false;
        field.type = type;
    }
    return true;
}

template <class T>
bool take_vector(Record_reader& in, std::vector<T>& values, size_t expected)
{
    uint32_t count;
    if (!in.take(&count) || count != expected)
        return false;
    values.resize(count);
    for (T& value : values)
        if (!in.take(&value))
            return false;
    return true;
}

void write_fields(QV::SERIAL::Serializer* out, const std::vector<Map_field>& fields)
{
    out->write(static_cast<uint32_t>(fields.size()));
    for (const Map_field& field : fields) {
        out->write(static_cast<const void*>(field.name), MAP_FIELD_NAME_BYTES);
        out->write(field.type);
        out->write(field.count);
    }
}

template <class T>
void write_vector(QV::SERIAL::Serializer* out, const std::vector<T>& values)
{
    out->write(static_cast<uint32_t>(values.size()));
    for (T value : values)
        out->write(value);
}

// Counts on a damaged stream are bounded by the 16-bit counters of the file record, so a
// reader never allocates more than that for one list.
constexpr uint32_t MAX_STREAM_FIELDS = 0xFFFF;

bool read_fields(QV::SERIAL::Deserializer* in, std::vector<Map_field>& fields)
{
    uint32_t count = 0;
    in->read(&count);
    if (!in->is_valid() || count > MAX_STREAM_FIELDS)
        return false;
    fields.resize(count);
    for (Map_field& field : fields) {
        in->read(static_cast<void*>(field.name), MAP_FIELD_NAME_BYTES);
        in->read(&field.type);
        in->read(&field.count);
        if (!in->is_valid())
            return false;
    }
    return true;
}

template <class T>
bool read_vector(QV::SERIAL::Deserializer* in, std::vector<T>& values, size_t expected)
{
    uint32_t count = 0;
    in->read(&count);
    if (!in->is_valid() || count != expected)
        return false;
    values.resize(count);
    for (T& value : values)
        in->read(&value);
    return in->is_valid();
}

} // namespace

// ---- Open ASCII and open binary -------------------------------------------------------------

void Map_declaration_impl::write_text(const char* name, std::string& out) const
{
    out += "declare map\n";
    out += "\t\"";
    out += name ? name : "";
    out += "\" (\n";
    out += "\t\tdim ";
    out += std::to_string(dimension_);
    // Globals come first in the text although their identifiers are the higher ones.
    for (const Map_field& field : global_fields_) {
        out += ",\n\t\t";
        out += "global ";
        append_field_text(out, field);
    }
    for (const Map_field& field : element_fields_) {
        out += ",\n\t\t";
        append_field_text(out, field);
    }
    out += "\n";
    out += "\t)\n";
    out += "end declare\n\n";
}

void Map_declaration_impl::signature_text(std::string& out) const
{
    auto item = [&out](const Map_field& field, bool global) {
        append_signature(out, field, global);
        out += '"';
        out += field.name;
        out += '"';
    };
    for (const Map_field& field : global_fields_)
        item(field, true);
    for (const Map_field& field : element_fields_)
        item(field, false);
}

// ---- Binary map file record ----------------------------------------------------------------

void Map_declaration_impl::write_binary(std::vector<uint8_t>& out) const
{
    out.reserve(out.size() + binary_size());
    put_fields(out, element_fields_.data(), element_fields_.size());
    put_fields(out, global_fields_.data(), global_fields_.size());
    put_vector(out, element_offsets_);
    put_vector(out, global_offsets_);
    put_vector(out, element_sizes_);
    put_vector(out, global_sizes_);
    put(out, dimension_);
    put(out, element_size_);
    put(out, global_size_);
}

Map_status Map_declaration_impl::read_binary(const uint8_t* bytes, size_t size, size_t* consumed)
{
    Module_scope scope(MOD_RCMP);
    reset();
    Record_reader in(bytes, bytes ? size : 0);
    bool ok = take_fields(in, element_fields_) && take_fields(in, global_fields_) &&
              take_vector(in, element_offsets_, element_fields_.size()) &&
              take_vector(in, global_offsets_, global_fields_.size()) &&
              take_vector(in, element_sizes_, element_fields_.size()) &&
              take_vector(in, global_sizes_, global_fields_.size()) && in.take(&dimension_) &&
              in.take(&element_size_) && in.take(&global_size_);
    // The position size is not stored: it follows from the dimension.
    position_size_ = static_cast<uint16_t>(dimension_ * 4);
    ok = ok && layout_is_consistent();
    if (consumed)
        *consumed = ok ? in.position() : 0;
    if (!ok) {
        reset();
        return MAP_FILE_MALFORMED;
    }
    rebuild_signatures();
    return MAP_SUCCESS;
}

// ---- Database stream ----------------------------------------------------------------------
// Fields, offsets and sizes in the order the declaration holds them, then dimension and
// sizes. The signatures are not sent: they follow from the fields.

void Map_declaration_impl::serialize(QV::SERIAL::Serializer* serializer) const
{
    write_fields(serializer, element_fields_);
    write_fields(serializer, global_fields_);
    write_vector(serializer, element_offsets_);
    write_vector(serializer, global_offsets_);
    write_vector(serializer, element_sizes_);
    write_vector(serializer, global_sizes_);
    serializer->write(dimension_);
    serializer->write(position_size_);
    serializer->write(element_size_);
    serializer->write(global_size_);
}

bool Map_declaration_impl::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    Module_scope scope(MOD_RCMP);
    reset();
    bool ok = read_fields(deserializer, element_fields_) &&
              read_fields(deserializer, global_fields_) &&
              read_vector(deserializer, element_offsets_, element_fields_.size()) &&
              read_vector(deserializer, global_offsets_, global_fields_.size()) &&
              read_vector(deserializer, element_sizes_, element_fields_.size()) &&
              read_vector(deserializer, global_sizes_, global_fields_.size());
    if (ok) {
        deserializer->read(&dimension_);
        deserializer->read(&position_size_);
        deserializer->read(&element_size_);
        deserializer->read(&global_size_);
        ok = deserializer->is_valid() && position_size_ == dimension_ * 4 &&
             layout_is_consistent();
    }
    if (!ok) {
        reset();
        return false;
    }
    rebuild_signatures();
    return true;
}

uint64_t Map_declaration_impl::get_serialized_size() const
{
    const uint64_t field_bytes = MAP_FIELD_NAME_BYTES + 4 + 2;
    const uint64_t f = element_fields_.size();
    const uint64_t h = global_fields_.size();
    return 4 + f * field_bytes + 4 + h * field_bytes + // the two field lists
           4 + f * 2 + 4 + h * 4 +                     // offsets
           4 + f * 2 + 4 + h * 4 +                     // sizes
           2 + 2 + 2 + 4;                              // dimension, position, element, global
}

} // namespace QV::RCMAP
