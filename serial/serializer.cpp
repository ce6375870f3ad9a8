#include "serial/serializer.h"

#include <algorithm>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "serial/deserialization_manager.h"

namespace QV::SERIAL {

// ---- Serializable ----------------------------------------------------------------------------

void* Serializable::operator new(size_t size) { return QV_ALLOC(size); }

void Serializable::operator delete(void* pointer) { QV_FREE(pointer); }

// ---- Byte_block ------------------------------------------------------------------------------

Byte_block::Byte_block(const Byte_block& other)
{
    reserve(other.capacity_);
    count_ = other.count_;
    if (count_)
        std::memcpy(bytes_, other.bytes_, count_);
}

Byte_block::Byte_block(Byte_block&& other) noexcept
    : capacity_(other.capacity_), count_(other.count_), bytes_(other.bytes_)
{
    other.capacity_ = other.count_ = 0;
    other.bytes_ = nullptr;
}

Byte_block& Byte_block::operator=(Byte_block other) noexcept
{
    std::swap(capacity_, other.capacity_);
    std::swap(count_, other.count_);
    std::swap(bytes_, other.bytes_);
    return *this;
}

Byte_block::~Byte_block() { clear(); }

void Byte_block::reserve(uint64_t capacity)
{
    capacity = std::max(capacity, count_);
    if (capacity == capacity_)
        return;
    if (capacity == 0) {
        clear();
        return;
    }
    // mem_realloc does not promise zeroed growth; clear the new tail so resize can rely on it.
    bytes_ = static_cast<uint8_t*>(QV_REALLOC(bytes_, capacity));
    if (capacity > capacity_)
        std::memset(bytes_ + capacity_, 0, capacity - capacity_);
    capacity_ = capacity;
}

void Byte_block::resize(uint64_t count)
{
    if (count > capacity_)
        reserve(count);
    else if (count < count_)
        std::memset(bytes_ + count, 0, count_ - count);
    count_ = count;
}

void Byte_block::clear()
{
    if (bytes_)
        QV_FREE(bytes_);
    bytes_ = nullptr;
    capacity_ = count_ = 0;
}

// ---- Serializer: composite rows --------------------------------------------------------------

Serializer::~Serializer() = default;

void Serializer::write(const String_map& value)
{
    write_size(value.size());
    for (const auto& [key, text] : value) {
        write(key);
        write(text);
    }
}

void Serializer::write(const Byte_block& value)
{
    write_size(value.capacity());
    write_size(value.size());
    const uint8_t* bytes = value.data();
    for (uint64_t i = 0; i < value.size(); ++i)
        write(static_cast<int8_t>(bytes[i]));
}

void Serializer::write(const double (&value)[3])
{
    for (double v : value)
        write(v);
}

void Serializer::write(const double (&value)[2])
{
    for (double v : value)
        write(v);
}

void Serializer::write(const float (&value)[2])
{
    for (float v : value)
        write(v);
}

void Serializer::write(const float (&value)[3])
{
    for (float v : value)
        write(v);
}

void Serializer::write(const float (&value)[4])
{
    for (float v : value)
        write(v);
}

void Serializer::write(const std::string& value)
{
    write(static_cast<uint32_t>(value.size() + 1));
    write(value.data(), value.size());
}

void Serializer::write(const char* value)
{
    if (!value) {
        write(uint32_t(0));
        return;
    }
    size_t length = std::strlen(value);
    write(static_cast<uint32_t>(length + 1));
    write(static_cast<const void*>(value), length);
}

void Serializer::write(const double (&value)[16])
{
    for (double v : value)
        write(v);
}

void Serializer::write(const float (&value)[16])
{
    for (float v : value)
        write(v);
}

void Serializer::write_tag(Db_tag value) { write(static_cast<int32_t>(value)); }

void Serializer::write_size(size_t value) { write(static_cast<int64_t>(value)); }

void Serializer::serialize(const Serializable* object)
{
    write(static_cast<int32_t>(object->get_class_id()));
    object->serialize_references(this);
    object->serialize(this);
}

// ---- Deserializer: composite rows ------------------------------------------------------------

namespace {

// Strings are read in slices of this size, so that a damaged length cannot make a reader
// allocate far beyond what the medium actually holds.
constexpr size_t STRING_SLICE_BYTES = 4096;
constexpr uint64_t MAX_EXTRA_CAPACITY_BYTES = 1 << 20;

// Reads `length` characters through the i8 slot, growing `text` slice by slice; stops early
// when the medium fails.
void read_characters(Deserializer& in, std::string* text, size_t length)
{
    text->clear();
    for (size_t done = 0; done < length && in.is_valid();) {
        size_t slice = std::min(length - done, STRING_SLICE_BYTES);
        text->resize(done + slice);
        for (size_t i = 0; i < slice; ++i) {
            int8_t c = 0;
            in.read(&c);
            (*text)[done + i] = static_cast<char>(c);
        }
        done += slice;
    }
}

}  // namespace

Deserializer::~Deserializer() = default;

void Deserializer::read(String_map* value)
{
    size_t count = 0;
    read_size(&count);
    std::string key;
    std::string text;
    for (size_t i = 0; i < count && valid_; ++i) {
        read(&key);
        read(&text);
        if (!valid_)
            break;
        value->emplace(key, text);   // an entry already present keeps its value
    }
}

void Deserializer::read(Byte_block* value)
{
    size_t capacity = 0;
    size_t count = 0;
    read_size(&capacity);
    read_size(&count);
    value->clear();
    if (!valid_)
        return;
    // Grow in slices as the bytes arrive: a damaged count ends with what the medium held.
    for (size_t done = 0; done < count && valid_;) {
        size_t slice = std::min(count - done, STRING_SLICE_BYTES);
        value->resize(done + slice);
        uint8_t* bytes = value->data() + done;
        for (size_t i = 0; i < slice; ++i) {
            int8_t byte = 0;
            read(&byte);
            bytes[i] = static_cast<uint8_t>(byte);
        }
        done += slice;
    }
    // The reserve is a hint; a damaged one must not force a giant allocation.
    if (valid_)
        value->reserve(std::min<uint64_t>(capacity, count + MAX_EXTRA_CAPACITY_BYTES));
}

void Deserializer::read(double (*value)[3])
{
    for (double& v : *value)
        read(&v);
}

void Deserializer::read(double (*value)[2])
{
    for (double& v : *value)
        read(&v);
}

void Deserializer::read(float (*value)[2])
{
    for (float& v : *value)
        read(&v);
}

void Deserializer::read(float (*value)[3])
{
    for (float& v : *value)
        read(&v);
}

void Deserializer::read(float (*value)[4])
{
    for (float& v : *value)
        read(&v);
}

void Deserializer::read(std::string* value)
{
    uint32_t stored = 0;
    read(&stored);
    value->clear();
    if (stored == 0 || !valid_)
        return;
    read_characters(*this, value, stored - 1);
}

void Deserializer::read(char** value)
{
    uint32_t stored = 0;
    read(&stored);
    if (stored == 0 || !valid_) {
        *value = nullptr;
        return;
    }
    size_t length = stored - 1;
    if (length < STRING_SLICE_BYTES) {
        char* text = static_cast<char*>(QV_ALLOC(stored));
        for (size_t i = 0; i < length; ++i) {
            int8_t c = 0;
            read(&c);
            text[i] = static_cast<char>(c);
        }
        text[length] = '\0';
        *value = text;
        return;
    }
    // A long string goes through the sliced reader first, so a damaged length allocates no
    // more than the medium delivered; the caller still gets a block of the stored size.
    std::string text;
    read_characters(*this, &text, length);
    if (!valid_) {
        *value = nullptr;
        return;
    }
    char* block = static_cast<char*>(QV_ALLOC(stored));
    std::memcpy(block, text.data(), length);
    block[length] = '\0';
    *value = block;
}

void Deserializer::read(double (*value)[16])
{
    for (double& v : *value)
        read(&v);
}

void Deserializer::read(float (*value)[16])
{
    for (float& v : *value)
        read(&v);
}

void Deserializer::read_tag(Db_tag* value)
{
    int32_t tag = 0;
    read(&tag);
    *value = static_cast<Db_tag>(tag);
}

void Deserializer::read_size(size_t* value)
{
    int64_t size = 0;
    read(&size);
    *value = static_cast<size_t>(size);
}

Serializable* Deserializer::deserialize()
{
    if (!manager_)
        return nullptr;
    int32_t stored_id = 0;
    read(&stored_id);
    uint32_t class_id = static_cast<uint32_t>(stored_id);
    // An id that no module registered (or a stream that ended before it) would leave the
    // reader without an object to fill; report it and give the caller nothing.
    Serializable* object = valid_ ? manager_->construct(class_id) : nullptr;
    if (!object) {
        Module_scope scope(MOD_SERIAL);
        msg_error_n(SERIAL_ERROR_UNKNOWN_CLASS, "cannot construct serializable class id 0x%x",
                    class_id);
        return nullptr;
    }
    object->deserialize_references(this);
    object->deserialize(this);
    return object;
}

}  // namespace QV::SERIAL
