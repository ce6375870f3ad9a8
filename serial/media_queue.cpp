#include "serial/media_queue.h"

#include <algorithm>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "serial/deserialization_manager.h"

namespace QV::SERIAL {

// ---- Byte_queue -----------------------------------------------------------------------------

Byte_queue::~Byte_queue() { clear(); }

void Byte_queue::clear()
{
    for (void* chunk : chunks_)
        QV_FREE(chunk);
    chunks_.clear();
    blocks_.clear();
    size_ = 0;
}

void Byte_queue::make_room(size_t count)
{
    size_t capacity = blocks_.size() * BLOCK_BYTES;
    if (size_ + count <= capacity)
        return;
    size_t missing = size_ + count - capacity;
    size_t grow = std::max(missing, MIN_GROWTH_BYTES);
    size_t block_count = (grow + BLOCK_BYTES - 1) / BLOCK_BYTES;
    auto* chunk = static_cast<uint8_t*>(QV_ALLOC(block_count * BLOCK_BYTES));
    chunks_.push_back(chunk);
    for (size_t i = 0; i < block_count; ++i)
        blocks_.push_back(chunk + i * BLOCK_BYTES);
}

void Byte_queue::append(const void* bytes, size_t count)
{
    make_room(count);
    const auto* from = static_cast<const uint8_t*>(bytes);
    while (count) {
        size_t block = size_ / BLOCK_BYTES;
        size_t at = size_ % BLOCK_BYTES;
        size_t piece = std::min(count, BLOCK_BYTES - at);
        std::memcpy(blocks_[block] + at, from, piece);
        from += piece;
        size_ += piece;
        count -= piece;
    }
}

size_t Byte_queue::copy_out(size_t offset, void* buffer, size_t count) const
{
    if (offset >= size_)
        return 0;
    count = std::min(count, size_ - offset);
    auto* to = static_cast<uint8_t*>(buffer);
    size_t left = count;
    while (left) {
        size_t block = offset / BLOCK_BYTES;
        size_t at = offset % BLOCK_BYTES;
        size_t piece = std::min(left, BLOCK_BYTES - at);
        std::memcpy(to, blocks_[block] + at, piece);
        to += piece;
        offset += piece;
        left -= piece;
    }
    return count;
}

}  // namespace QV::SERIAL

namespace QV::DB {

// ---- Db_serializer --------------------------------------------------------------------------

void Db_serializer::write(double value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(float value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(uint64_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(uint32_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(uint16_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(uint8_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(int64_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(int32_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(int16_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(int8_t value) { queue_.append(&value, sizeof value); }
void Db_serializer::write(bool value) { queue_.append(&value, sizeof value); }

size_t Db_serializer::write(const void* bytes, size_t count)
{
    queue_.append(bytes, count);
    return count;
}

void Db_serializer::write_deferred(uint64_t first, uint64_t second, uint32_t kind)
{
    deferred_.push_back(Deferred{first, second, nullptr, kind, false});
}

void Db_serializer::write_deferred(const void* pointer, uint32_t kind)
{
    deferred_.push_back(Deferred{0, 0, pointer, kind, true});
}

void Db_serializer::expand(const Deferred& entry)
{
    if (!entry.is_pointer && entry.kind == SERIAL::DEFERRED_BYTES) {
        if (entry.second)
            queue_.append(reinterpret_cast<const void*>(static_cast<uintptr_t>(entry.first)),
                          static_cast<size_t>(entry.second));
    } else if (entry.is_pointer && entry.kind == SERIAL::DEFERRED_OBJECT) {
        if (entry.pointer)
            serialize(static_cast<const SERIAL::Serializable*>(entry.pointer));
    }
}

void Db_serializer::expand_deferred()
{
    // An expanded object may defer again; those entries are appended and expanded in turn.
    while (expanded_ < deferred_.size()) {
        Deferred entry = deferred_[expanded_++];
        expand(entry);
    }
}

size_t Db_serializer::read_piece(void* buffer, size_t offset, size_t count, bool* last)
{
    while (queue_.size() < offset + count && expanded_ < deferred_.size()) {
        Deferred entry = deferred_[expanded_++];
        expand(entry);
    }
    size_t copied = queue_.copy_out(offset, buffer, count);
    if (last) {
        size_t remainder = queue_.size() > offset ? queue_.size() - offset : 0;
        *last = count >= remainder && expanded_ == deferred_.size();
    }
    return copied;
}

// ---- Db_deserializer ------------------------------------------------------------------------

Db_deserializer::Db_deserializer(const SERIAL::Byte_queue* queue,
                                 SERIAL::Deserialization_manager* manager)
    : Deserializer(manager ? manager : SERIAL::serial_manager()), queue_(queue)
{
}

void Db_deserializer::read(double* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(float* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(uint64_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(uint32_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(uint16_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(uint8_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(int64_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(int32_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(int16_t* value) { read(static_cast<void*>(value), sizeof *value); }
void Db_deserializer::read(int8_t* value) { read(static_cast<void*>(value), sizeof *value); }

void Db_deserializer::read(bool* value)
{
    uint8_t byte = 0;
    read(static_cast<void*>(&byte), 1);
    *value = byte != 0;
}

size_t Db_deserializer::read(void* bytes, size_t count)
{
    size_t got = queue_ ? queue_->copy_out(position_, bytes, count) : 0;
    position_ += got;
    if (got < count) {
        valid_ = false;
        std::memset(static_cast<char*>(bytes) + got, 0, count - got);
    }
    return got;
}

void Db_deserializer::read_deferred(uint64_t*, uint64_t*, uint32_t) {}
void Db_deserializer::read_deferred(void**, uint32_t) {}
void Db_deserializer::finish_deferred() {}

}  // namespace QV::DB
