#include "database/element.h"

#include <algorithm>

namespace QV::DB {

Element_base::~Element_base() = default;

void Element_base::serialize_references(SERIAL::Serializer* serializer) const
{
    serializer->write(static_cast<uint32_t>(references.size()));
    for (Db_tag tag : references)
        serializer->write_tag(tag);
}

void Element_base::deserialize_references(SERIAL::Deserializer* deserializer)
{
    uint32_t count = 0;
    deserializer->read(&count);
    references.clear();
    if (!deserializer->is_valid())
        return;
    // Resize in steps rather than to the stored count at once: a damaged count must not make
    // an allocation the stream cannot back.
    constexpr uint32_t STEP = 4096;
    for (uint32_t done = 0; done < count && deserializer->is_valid();) {
        uint32_t slice = std::min(count - done, STEP);
        references.resize(done + slice);
        for (uint32_t i = 0; i < slice; ++i)
            deserializer->read_tag(&references[done + i]);
        done += slice;
    }
    if (!deserializer->is_valid())
        references.clear();
}

uint64_t Element_base::get_size() const { return 0; }

bool Element_base::is_a(uint32_t class_id) const { return class_id == 0; }

SCHED::Job* Element_base::get_job() const { return nullptr; }

namespace {

void free_element(void* data) { delete static_cast<Element_base*>(data); }

uint32_t element_class_id(const void* data)
{
    return static_cast<const Element_base*>(data)->get_class_id();
}

}  // namespace

void element_install_db_handler()
{
    Db_type_handler handler{};
    handler.free_data = free_element;
    handler.class_id = element_class_id;
    qv_db_set_type_handler(DB_TYPE_SERIALIZABLE, handler);
}

}  // namespace QV::DB
