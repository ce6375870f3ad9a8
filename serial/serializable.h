// The root of everything that can leave memory: an object writes itself to a Serializer and
// reads itself back from a Deserializer, never knowing which medium is underneath.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QV::SERIAL {

class Serializer;
class Deserializer;

// A class id is up to four characters read as a big-endian u32: "=MAP" is 0x3D4D4150, and a
// shorter id such as "pss" keeps leading zero bytes (0x707373). A leading '=' marks database
// elements, a leading '*' jobs.
constexpr uint32_t qv_class_id(const char* text)
{
    uint32_t id = 0;
    for (int i = 0; i < 4 && text[i] != '\0'; ++i)
        id = (id << 8) | static_cast<unsigned char>(text[i]);
    return id;
}

// The vtable order (destructor, get_class_id, serialize, deserialize, three hooks) is the one
// every subclass family relies on; keep new virtuals behind it.
class Serializable {
public:
    virtual ~Serializable() = default;
    virtual uint32_t get_class_id() const = 0;
    // Writes the payload (not the class id, not the references). Returns the address just past
    // the object, i.e. `static_cast<const T*>(this) + 1` of the final class T.
    virtual const void* serialize(Serializer* serializer) const = 0;
    // Reads what serialize wrote; returns the address just past the object, likewise.
    virtual void* deserialize(Deserializer* deserializer) = 0;
    virtual void prepare() {}
    virtual void serialize_references(Serializer* /*serializer*/) const {}
    virtual void deserialize_references(Deserializer* /*deserializer*/) {}

    // Objects are charged to the module current at allocation, like every other block.
    static void* operator new(size_t size);
    static void operator delete(void* pointer);
};

}  // namespace QV::SERIAL
