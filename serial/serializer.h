// Module SERIAL (id 64): the stream pair that every stored form goes through.
//
// Wire encoding: no tags, no alignment, no framing between primitives. Multi-byte values are
// written as they lie in memory (little-endian here, IEEE 754 floats); byte swapping between
// hosts is the message layer's business, not this one's.
//
// Every composite write is expressed through the virtual primitive slots, so a medium that
// overrides a primitive changes the whole encoding. Rows 13..24 are the primitives a medium
// must supply. The composite encodings, row by row:
//   string map   size count, then per entry in key order: key, value (each as a string)
//   byte block   capacity as size, count as size, then `count` bytes one by one as i8
//   string       as a C string of its characters
//   C string     null: u32 0; else u32 length+1, then the characters; no terminator written
//   fixed arrays their elements one by one through the f64/f32 primitive, in memory order
//   tag          the i32 primitive
//   size         the i64 primitive: always 8 bytes
//
// A medium is used by one thread at a time. Nothing here throws or prints: a medium that fails
// clears its `valid` flag, and the caller tests it at the end. Reads from an invalid medium
// yield zeros and stop early, so damaged input never makes a reader loop or allocate without
// bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "database/db.h"
#include "serial/serializable.h"

namespace QV::SERIAL {

using String_map = std::map<std::string, std::string>;

// A block of bytes with a reserved capacity and a used count. Only the used bytes travel.
// Owns its storage (from the memory manager, charged to the module current at growth).
class Byte_block {
public:
    Byte_block() = default;
    Byte_block(const Byte_block& other);
    Byte_block(Byte_block&& other) noexcept;
    Byte_block& operator=(Byte_block other) noexcept;
    ~Byte_block();

    // Keeps the first min(count, new capacity) bytes; capacity never shrinks below count.
    void reserve(uint64_t capacity);
    // Grows capacity as needed; new bytes are zero.
    void resize(uint64_t count);
    void clear();

    uint64_t capacity() const { return capacity_; }
    uint64_t size() const { return count_; }
    uint8_t* data() { return bytes_; }
    const uint8_t* data() const { return bytes_; }

private:
    uint64_t capacity_ = 0;   // bytes reserved
    uint64_t count_ = 0;      // bytes in use
    uint8_t* bytes_ = nullptr;
};

// Deferred entries: a medium may postpone part of its output until the bytes are needed (the
// in-memory queue expands them on demand; a file has nothing deferred).
enum Deferred_kind : uint32_t {
    DEFERRED_BYTES = 0,    // (first, second) = (address, byte count): raw bytes copied late
    DEFERRED_OBJECT = 1,   // pointer = a Serializable, written as a stored object late
};

class Serializer {
public:
    virtual ~Serializer();                                            // 0
    virtual void write(const String_map& value);                      // 1
    virtual void write(const Byte_block& value);                      // 2
    virtual void write(const double (&value)[3]);                     // 3
    virtual void write(const double (&value)[2]);                     // 4
    virtual void write(const float (&value)[2]);                      // 5
    virtual void write(const float (&value)[3]);                      // 6
    virtual void write(const float (&value)[4]);                      // 7
    virtual void write(const std::string& value);                     // 8
    virtual void write(const char* value);                            // 9
    virtual void write(const double (&value)[16]);                    // 10
    virtual void write(const float (&value)[16]);                     // 11
    virtual void write_tag(Db_tag value);                             // 12
    virtual void write(double value) = 0;                             // 13
    virtual void write(float value) = 0;                              // 14
    virtual void write(uint64_t value) = 0;                           // 15
    virtual void write(uint32_t value) = 0;                           // 16
    virtual void write(uint16_t value) = 0;                           // 17
    virtual void write(uint8_t value) = 0;                            // 18
    virtual void write(int64_t value) = 0;                            // 19
    virtual void write(int32_t value) = 0;                            // 20
    virtual void write(int16_t value) = 0;                            // 21
    virtual void write(int8_t value) = 0;                             // 22
    virtual void write(bool value) = 0;                               // 23
    // Raw bytes; returns how many were written (short only on a failing medium).
    virtual size_t write(const void* bytes, size_t count) = 0;        // 24
    virtual void write_size(size_t value);                            // 25
    virtual void write_deferred(uint64_t first, uint64_t second, uint32_t kind) = 0;  // 26
    virtual void write_deferred(const void* pointer, uint32_t kind) = 0;             // 27

    // A stored object: class id (i32), its references hook, its payload. `object` stays the
    // caller's.
    void serialize(const Serializable* object);

    bool is_valid() const { return valid_; }

    // A plain `char` would silently widen to a 4-byte integer, and any other pointer would
    // silently become a bool: both are mistakes, caught here at compile time.
    void write(char) = delete;
    template <class T>
    void write(const T*) = delete;

protected:
    bool valid_ = true;
};

class Deserialization_manager;

class Deserializer {
public:
    virtual ~Deserializer();                                          // 0
    virtual void read(String_map* value);                             // 1: inserts; present keys stay
    virtual void read(Byte_block* value);                             // 2: replaces the block
    virtual void read(double (*value)[3]);                            // 3
    virtual void read(double (*value)[2]);                            // 4
    virtual void read(float (*value)[2]);                             // 5
    virtual void read(float (*value)[3]);                             // 6
    virtual void read(float (*value)[4]);                             // 7
    virtual void read(std::string* value);                            // 8: a null string reads as ""
    // Null for a stored null; else a zero-terminated block from the current module's
    // allocator that the caller owns (free with QV_FREE).
    virtual void read(char** value);                                  // 9
    virtual void read(double (*value)[16]);                           // 10
    virtual void read(float (*value)[16]);                            // 11
    virtual void read_tag(Db_tag* value);                             // 12
    virtual void read(double* value) = 0;                             // 13
    virtual void read(float* value) = 0;                              // 14
    virtual void read(uint64_t* value) = 0;                           // 15
    virtual void read(uint32_t* value) = 0;                           // 16
    virtual void read(uint16_t* value) = 0;                           // 17
    virtual void read(uint8_t* value) = 0;                            // 18
    virtual void read(int64_t* value) = 0;                            // 19
    virtual void read(int32_t* value) = 0;                            // 20
    virtual void read(int16_t* value) = 0;                            // 21
    virtual void read(int8_t* value) = 0;                             // 22
    // Any byte other than 0 reads as true.
    virtual void read(bool* value) = 0;                               // 23
    // Raw bytes; returns how many were read. Bytes not delivered are zeroed.
    virtual size_t read(void* bytes, size_t count) = 0;               // 24
    virtual void read_size(size_t* value);                            // 25
    virtual void read_deferred(uint64_t* first, uint64_t* second, uint32_t kind) = 0;  // 26
    virtual void read_deferred(void** pointer, uint32_t kind) = 0;                    // 27
    // Counterpart of the deferred hooks: completes whatever the medium postponed.
    virtual void finish_deferred() = 0;                               // 28

    // Reads a stored object: class id, construct through the manager, references, payload.
    // Null without a manager, and null with error "cannot construct serializable class id 0x%x"
    // when the id is unknown or the stream ended first. The caller owns the object.
    Serializable* deserialize();

    Deserialization_manager* manager() const { return manager_; }
    void set_manager(Deserialization_manager* manager) { manager_ = manager; }
    bool is_valid() const { return valid_; }

protected:
    explicit Deserializer(Deserialization_manager* manager = nullptr) : manager_(manager) {}

    Deserialization_manager* manager_;
    bool valid_ = true;
};

// Message numbers of module SERIAL (error level).
constexpr int32_t SERIAL_ERROR_UNKNOWN_CLASS = 1;

}  // namespace QV::SERIAL
