#include "serial/deserialization_manager.h"

namespace QV::SERIAL {

Deserialization_manager_impl::Deserialization_manager_impl() { lock_create(&lock_); }

Deserialization_manager_impl::~Deserialization_manager_impl() { lock_destroy(&lock_); }

void Deserialization_manager_impl::register_factory(uint32_t class_id, Class_factory* factory)
{
    Lock_holder hold(lock_);
    nodes_[class_id] = Node{nullptr, factory};
}

void Deserialization_manager_impl::register_class(uint32_t class_id, Class_constructor constructor)
{
    Lock_holder hold(lock_);
    nodes_[class_id] = Node{constructor, nullptr};
}

Serializable* Deserialization_manager_impl::construct(uint32_t class_id)
{
    Node node;
    {
        Lock_holder hold(lock_);
        auto found = nodes_.find(class_id);
        if (found == nodes_.end())
            return nullptr;
        node = found->second;
    }
    // Constructors run outside the lock: an object's constructor may itself register classes.
    if (node.constructor)
        return node.constructor();
    if (node.factory)
        return node.factory->construct(class_id);
    return nullptr;
}

bool Deserialization_manager_impl::unregister(uint32_t class_id)
{
    Lock_holder hold(lock_);
    return nodes_.erase(class_id) != 0;
}

Serial_module::~Serial_module() = default;

Deserialization_manager* Serial_module::get_deserialization_manager() { return &manager_; }

Serial_module* serial_module()
{
    // Made on first use and never freed: modules register from their inits, in any order, and
    // streams may still be read while the process ends.
    static Serial_module* module = new Serial_module();
    return module;
}

Deserialization_manager* serial_manager() { return serial_module()->get_deserialization_manager(); }

}  // namespace QV::SERIAL
