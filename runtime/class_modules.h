// Class-based modules: reference-counted start and stop by name.
//
// This second module system shares no table and no id space with the numbered modules of
// modules.h. Each module has one statically constructed Module_registration<T>; starting it by
// name the first time creates its T (a Module), and the last stop deletes it. There is no
// dependency table: a module's init starts the modules it needs by name, and the recursion
// gives the order. A module reached again from its own start-up aborts the process.
//
// Thread rules: each entry's start and stop run under the entry's own recursive lock. The entry
// list and the two 190-row tables are written only by constructors and destructors of static
// objects and of module objects, with no lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <new>

#include "base/lib/mem/i_mem_allocatable.h"

namespace QV::SYSTEM {

constexpr uint32_t CLASS_MODULE_ROWS = 190;
// What the name-to-id lookup gives when no row matches.
constexpr uint32_t CLASS_MODULE_NOT_FOUND = 191;

enum Module_status : int32_t {
    MODULE_UNINITIALIZED = 0,
    MODULE_STARTING = 1,
    MODULE_INITIALIZED = 2,
    MODULE_EXITED = 3,
    MODULE_FAILED = 4,
};

namespace detail {
// Intrusive link of the global entry list.
struct Linked_list {
    Linked_list* next = nullptr;
};
}  // namespace detail

class IModule {
public:
    virtual ~IModule() = default;
    virtual uint32_t get_id() const = 0;
    virtual const char* get_name() const = 0;
};

// Base of a module object. While it lives it occupies row `id` of the module object table,
// and its name is preferred there to the name table's.
class Module : public IModule {
public:
    // REQUIRES: id < CLASS_MODULE_ROWS; `name` outlives the object.
    Module(uint32_t id, const char* name);
    ~Module() override;
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    uint32_t get_id() const override { return id_; }
    const char* get_name() const override { return name_; }

private:
    uint32_t reserved_ = 0;
    uint32_t id_;
    const char* name_;
};

// One per module, statically constructed. Constructors push the entry onto the head of the
// global list; destructors pop it, which is only right in reverse order of construction (the
// order static objects die in). Removal out of that order is not supported.
class Module_registration_entry : public detail::Linked_list {
public:
    explicit Module_registration_entry(const char* name);
    virtual ~Module_registration_entry();
    Module_registration_entry(const Module_registration_entry&) = delete;
    Module_registration_entry& operator=(const Module_registration_entry&) = delete;

    // The module object, or null while the module is not running.
    virtual IModule* get_module() = 0;
    // Creates the module object; true on success.
    virtual bool init_module() = 0;
    virtual void exit_module() = 0;

    // Counts a user; the first one runs init_module. A start that reaches the module again
    // while its init_module runs prints the circular-dependency line and aborts. After a failed
    // init_module later starts only count.
    void start();
    // Drops a user; the last one runs exit_module. Does nothing when there is no user.
    void stop();

    const char* name() const { return name_; }
    int32_t use_count() const { return use_count_; }
    int32_t status() const { return status_; }

private:
    const char* name_;
    int32_t use_count_ = 0;
    int32_t status_ = MODULE_UNINITIALIZED;
    std::recursive_mutex lock_;
};

// Registration of module class T, which must be default-constructible and derive from Module.
// With `register_name` the name occupies row `id` of the name table while the registration
// lives.
template <typename T>
class Module_registration : public Module_registration_entry {
public:
    Module_registration(const char* name, uint32_t id, bool register_name = true);
    ~Module_registration() override;

    IModule* get_module() override { return module_; }
    bool init_module() override
    {
        module_ = new (QV_ALLOC(sizeof(T))) T();
        return true;
    }
    void exit_module() override
    {
        if (!module_)
            return;
        module_->~T();
        QV_FREE(module_);
        module_ = nullptr;
    }

    T* module() const { return module_; }

private:
    T* module_ = nullptr;
    uint32_t id_;
    uint8_t register_name_;
};

// ---- Lookups over the entry list and the tables ---------------------------------------------

// Starts the module named `name` (exact, case-sensitive) and returns its entry; null, with no
// count changed, when no entry has that name.
Module_registration_entry* module_start(const char* name);
// Stops the module named `name`; false when no entry has that name.
bool module_stop(const char* name);

// Name of class-module `id`: the module object's when one exists, else the name table's row
// (null when empty or out of range).
const char* module_class_name(uint32_t id);
// The id whose name matches `name` in its first four characters, ignoring case, looking from
// id 1 up; an empty row reads "UNKNOWN_MODULE". CLASS_MODULE_NOT_FOUND when nothing matches.
uint32_t module_class_id(const char* name);
IModule* module_object(uint32_t id);

// Writes row `id` of the name table (null clears it). For registrations and static
// initialisers of further names.
void module_set_class_name(uint32_t id, const char* name);

// Prints "Module %s\t(%s)\n" with each entry's name and status text on stderr.
void module_list_print();
const char* module_status_text(int32_t status);

template <typename T>
Module_registration<T>::Module_registration(const char* name, uint32_t id, bool register_name)
    : Module_registration_entry(name), id_(id), register_name_(register_name ? 1 : 0)
{
    if (register_name_)
        module_set_class_name(id_, name);
}

template <typename T>
Module_registration<T>::~Module_registration()
{
    if (register_name_)
        module_set_class_name(id_, nullptr);
}

}  // namespace QV::SYSTEM
