// Class id to constructor: how a stream turns a stored id back into a live object.
//
// Every module registers its serializable classes during its own init, e.g.
//     serial_manager()->register_class(qv_class_id("=MAP"), &construct_map);
// Registering an id that exists replaces its node. All operations take the manager's lock, so
// registration and construction may come from any thread.
#pragma once

#include <cstdint>
#include <map>

#include "runtime/locks.h"
#include "serial/serializable.h"

namespace QV::SERIAL {

// Plain constructor: returns a new default object (allocated with `new`), owned by the caller.
using Class_constructor = Serializable* (*)();

// A factory serves one or more ids. The manager does not own it; it must outlive its
// registration. `construct` is deliberately the first virtual operation.
class Class_factory {
public:
    virtual Serializable* construct(uint32_t class_id) = 0;
    virtual ~Class_factory() = default;
};

class Deserialization_manager {
public:
    virtual ~Deserialization_manager() = default;
    virtual void register_factory(uint32_t class_id, Class_factory* factory) = 0;
    virtual void register_class(uint32_t class_id, Class_constructor constructor) = 0;
    // Null for an unknown id. A node with a constructor function uses it; otherwise its factory.
    virtual Serializable* construct(uint32_t class_id) = 0;
    // True if the id was registered.
    virtual bool unregister(uint32_t class_id) = 0;
};

class Deserialization_manager_impl : public Deserialization_manager {
public:
    Deserialization_manager_impl();
    ~Deserialization_manager_impl() override;
    Deserialization_manager_impl(const Deserialization_manager_impl&) = delete;
    Deserialization_manager_impl& operator=(const Deserialization_manager_impl&) = delete;

    void register_factory(uint32_t class_id, Class_factory* factory) override;
    void register_class(uint32_t class_id, Class_constructor constructor) override;
    Serializable* construct(uint32_t class_id) override;
    bool unregister(uint32_t class_id) override;

private:
    struct Node {
        Class_constructor constructor = nullptr;
        Class_factory* factory = nullptr;
    };
    Lock lock_ = nullptr;
    std::map<uint32_t, Node> nodes_;   // ordered by class id
};

// The process-wide SERIAL object, made on first use and never freed.
class Serial_module {
public:
    virtual ~Serial_module();
    virtual Deserialization_manager* get_deserialization_manager();

private:
    friend Serial_module* serial_module();
    Serial_module() = default;
    Deserialization_manager_impl manager_;
};

Serial_module* serial_module();
// Shorthand for serial_module()->get_deserialization_manager().
Deserialization_manager* serial_manager();

}  // namespace QV::SERIAL
