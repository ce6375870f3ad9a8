#include "serial/element_transfer.h"

#include <map>

#include "database/element.h"
#include "serial/deserialization_manager.h"
#include "serial/media_queue.h"

namespace QV::DB {

namespace {

struct Send_entry {
    int uses;
    Db_serializer* serializer;
};

std::map<Db_tag, Send_entry>& send_cache()
{
    static auto* cache = new std::map<Db_tag, Send_entry>();
    return *cache;
}

}  // namespace

size_t serial_send_piece(Db_tag tag, void* buffer, size_t offset, size_t count, bool* last)
{
    auto& cache = send_cache();
    auto found = cache.find(tag);
    if (offset == 0) {
        if (found != cache.end()) {
            ++found->second.uses;
        } else {
            auto* serializer = new Db_serializer();
            auto* object = static_cast<const Element_base*>(qv_db_access(tag));
            if (object)
                serializer->serialize(object);
            found = cache.emplace(tag, Send_entry{1, serializer}).first;
        }
    } else if (found == cache.end()) {
        *last = true;
        return 0;
    }

    bool is_last = false;
    size_t copied = found->second.serializer->read_piece(buffer, offset, count, &is_last);
    *last = is_last;
    if (is_last && --found->second.uses == 0) {
        delete found->second.serializer;
        cache.erase(found);
        qv_db_unpin(tag);
    }
    return copied;
}

size_t serial_sends_in_progress() { return send_cache().size(); }

void serial_receive_piece(Db_record* record, const void* bytes, size_t offset, size_t count, bool last)
{
    auto* queue = static_cast<SERIAL::Byte_queue*>(record->data);
    if (offset == 0 && queue) {
        delete queue;
        queue = nullptr;
    }
    if (!queue)
        queue = new SERIAL::Byte_queue();
    queue->append(bytes, count);
    record->data = queue;
    if (!last)
        return;

    Db_deserializer reader(queue, SERIAL::serial_manager());
    SERIAL::Serializable* object = reader.deserialize();
    delete queue;
    // The database holds Element_base addresses for type 63; any other class cannot live there.
    auto* element = dynamic_cast<Element_base*>(object);
    if (!element)
        delete object;
    record->data = element;
}

}  // namespace QV::DB
