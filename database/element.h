// Objects that live in the database: Element_base and the Element template every concrete
// element derives through.
//
// An element is held under type 63 ("serializable") with its own address as the record's data;
// from Transaction::store on it belongs to the database, which deletes it through the virtual
// destructor (the type-63 handler installed by element_install_db_handler).
#pragma once

#include <cstdint>
#include <vector>

#include "database/db.h"
#include "serial/serializable.h"
#include "serial/serializer.h"

namespace QV::SCHED {
class Job;
}

namespace QV::DB {

using SERIAL::qv_class_id;

// Vtable order is fixed: destructor, get_class_id, serialize, deserialize, prepare,
// serialize_references, deserialize_references, get_size, copy, is_a, get_job.
class Element_base : public SERIAL::Serializable {
public:
    Element_base() = default;
    Element_base(const Element_base&) = default;
    Element_base& operator=(const Element_base&) = default;
    ~Element_base() override;

    // Count with the u32 primitive, then each tag with the tag primitive.
    void serialize_references(SERIAL::Serializer* serializer) const override;
    // Reads the count and the tags; a damaged stream leaves the list empty.
    void deserialize_references(SERIAL::Deserializer* deserializer) override;
    // Bytes the database records for the element; 0 here (a store then records 1).
    virtual uint64_t get_size() const;
    // A new element equal to this one, owned by the caller.
    virtual Element_base* copy() const = 0;
    // True only for class id 0 here; Element<> adds its own id.
    virtual bool is_a(uint32_t class_id) const;
    virtual SCHED::Job* get_job() const;

    // Tags this element refers to; owned by the element and written with it.
    std::vector<Db_tag> references;
};

// T: the final class; ID: its class id (use qv_class_id("=XYZ")); Base: normally Element_base.
// Fixes get_class_id, get_size (sizeof T; T may override it with the true storage size), copy
// (copy-constructs a T) and is_a (true for ID and for 0).
template <class T, uint32_t ID, class Base = Element_base>
class Element : public Base {
public:
    static constexpr uint32_t CLASS_ID = ID;

    using Base::Base;

    uint32_t get_class_id() const override { return ID; }
    uint64_t get_size() const override { return sizeof(T); }
    Element_base* copy() const override { return new T(static_cast<const T&>(*this)); }
    bool is_a(uint32_t class_id) const override { return class_id == ID || class_id == 0; }
};

// A plain constructor for the deserialization manager: register_class(T::CLASS_ID,
// &construct_element<T>).
template <class T>
SERIAL::Serializable* construct_element()
{
    return new T();
}

// Makes the database delete type-63 data through Element_base's virtual destructor and show
// class ids in its dump. Idempotent; get_transaction() calls it.
void element_install_db_handler();

}  // namespace QV::DB
