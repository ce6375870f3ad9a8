// The in-memory medium: a byte queue in 256-byte blocks, used to send an element to another
// host piece by piece and to rebuild it from the pieces that arrive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "serial/serializer.h"

namespace QV::SERIAL {

// Bytes appended at the end, read anywhere. Storage grows by at least 512 bytes (two blocks) at
// a time and never moves, so appends of small values cost a compare and a copy.
class Byte_queue {
public:
    static constexpr size_t BLOCK_BYTES = 256;
    static constexpr size_t MIN_GROWTH_BYTES = 512;

    Byte_queue() = default;
    Byte_queue(const Byte_queue&) = delete;
    Byte_queue& operator=(const Byte_queue&) = delete;
    ~Byte_queue();

    void append(const void* bytes, size_t count);
    // Copies up to `count` bytes from `offset`; returns how many there were.
    size_t copy_out(size_t offset, void* buffer, size_t count) const;
    size_t size() const { return size_; }
    // Frees every block.
    void clear();

private:
    void make_room(size_t count);

    std::vector<uint8_t*> blocks_;   // BLOCK_BYTES each, pointing into chunks_
    std::vector<void*> chunks_;      // one allocation per growth
    size_t size_ = 0;                // bytes appended
};

}  // namespace QV::SERIAL

namespace QV::DB {

// Serializes into a Byte_queue it owns. Deferred entries are kept in arrival order and expanded
// into the queue only when a reader asks for bytes beyond what is there.
class Db_serializer : public SERIAL::Serializer {
public:
    Db_serializer() = default;
    ~Db_serializer() override = default;

    using Serializer::write;
    void write(double value) override;
    void write(float value) override;
    void write(uint64_t value) override;
    void write(uint32_t value) override;
    void write(uint16_t value) override;
    void write(uint8_t value) override;
    void write(int64_t value) override;
    void write(int32_t value) override;
    void write(int16_t value) override;
    void write(int8_t value) override;
    void write(bool value) override;
    size_t write(const void* bytes, size_t count) override;
    // DEFERRED_BYTES: `first` is an address, `second` a byte count; the bytes are copied at
    // expansion, so they must stay valid until then. Other kinds expand to nothing.
    void write_deferred(uint64_t first, uint64_t second, uint32_t kind) override;
    // DEFERRED_OBJECT: the object is written as a stored object at expansion; it must outlive
    // the serializer. Other kinds expand to nothing.
    void write_deferred(const void* pointer, uint32_t kind) override;

    // Copies up to `count` bytes of the serialized form from `offset` into `buffer`, expanding
    // pending deferred entries first when the queue is short. `*last` is set when this piece
    // reaches or passes the end. Returns the bytes copied.
    size_t read_piece(void* buffer, size_t offset, size_t count, bool* last);
    // Expands every pending deferred entry.
    void expand_deferred();

    const SERIAL::Byte_queue& queue() const { return queue_; }
    size_t pending_deferred() const { return deferred_.size() - expanded_; }

private:
    struct Deferred {
        uint64_t first;
        uint64_t second;
        const void* pointer;
        uint32_t kind;
        bool is_pointer;
    };
    void expand(const Deferred& entry);

    SERIAL::Byte_queue queue_;
    std::vector<Deferred> deferred_;
    size_t expanded_ = 0;   // entries of deferred_ already in the queue
};

// Reads from a queue it does not own, front to back. Reading past the end clears `valid` and
// yields zeros.
class Db_deserializer : public SERIAL::Deserializer {
public:
    // A null manager means the process manager.
    explicit Db_deserializer(const SERIAL::Byte_queue* queue,
                             SERIAL::Deserialization_manager* manager = nullptr);

    using Deserializer::read;
    void read(double* value) override;
    void read(float* value) override;
    void read(uint64_t* value) override;
    void read(uint32_t* value) override;
    void read(uint16_t* value) override;
    void read(uint8_t* value) override;
    void read(int64_t* value) override;
    void read(int32_t* value) override;
    void read(int16_t* value) override;
    void read(int8_t* value) override;
    void read(bool* value) override;
    size_t read(void* bytes, size_t count) override;
    void read_deferred(uint64_t* first, uint64_t* second, uint32_t kind) override;
    void read_deferred(void** pointer, uint32_t kind) override;
    void finish_deferred() override;

    size_t position() const { return position_; }

private:
    const SERIAL::Byte_queue* queue_;
    size_t position_ = 0;
};

}  // namespace QV::DB
