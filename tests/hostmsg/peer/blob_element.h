// A serializable element for the cluster tests: a byte vector that travels in its stored form.
#pragma once

#include <cstdint>
#include <vector>

#include "database/element.h"
#include "serial/deserialization_manager.h"

class Blob_element : public QV::DB::Element<Blob_element, QV::SERIAL::qv_class_id("=TBL")> {
public:
    std::vector<uint8_t> bytes;

    const void* serialize(QV::SERIAL::Serializer* out) const override
    {
        out->write_size(bytes.size());
        out->write(bytes.data(), bytes.size());
        return this + 1;
    }
    void* deserialize(QV::SERIAL::Deserializer* in) override
    {
        size_t count = 0;
        in->read_size(&count);
        bytes.resize(in->is_valid() && count < (size_t(1) << 30) ? count : 0);
        in->read(bytes.data(), bytes.size());
        return this + 1;
    }
};

inline void blob_register()
{
    QV::SERIAL::serial_manager()->register_class(Blob_element::CLASS_ID, QV::DB::construct_element<Blob_element>);
}

// FNV-1a, 64 bits: a byte-for-byte comparison across processes.
inline uint64_t blob_hash(const void* data, size_t size)
{
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ static_cast<const uint8_t*>(data)[i]) * 1099511628211ull;
    return hash;
}

// The bytes of a test element: a pattern that differs in every position of a piece.
inline void blob_fill(uint8_t* data, size_t size, uint32_t seed)
{
    for (size_t i = 0; i < size; ++i)
        data[i] = uint8_t((i * 131 + seed * 7 + (i >> 8)) & 0xFF);
}
