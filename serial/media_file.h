// The file medium: the stream pair over a C stream, as the map and photon files use it.
//
// A short write or read clears `valid` and is otherwise ignored: later operations still go to
// the file, and it is the caller's duty to test is_valid() at the end. A file has nothing
// deferred, so the deferred hooks do nothing. Neither class owns the stream.
#pragma once

#include <cstdio>

#include "serial/serializer.h"

namespace QV::SERIAL {

class File_serializer : public Serializer {
public:
    explicit File_serializer(std::FILE* file) : file_(file) {}

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
    void write_deferred(uint64_t first, uint64_t second, uint32_t kind) override;
    void write_deferred(const void* pointer, uint32_t kind) override;

    std::FILE* file() const { return file_; }

protected:
    std::FILE* file_;
};

class File_deserializer : public Deserializer {
public:
    explicit File_deserializer(std::FILE* file, Deserialization_manager* manager = nullptr)
        : Deserializer(manager), file_(file)
    {
    }

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

    // The object reader: with an open stream that has more bytes, valid := true and a stored
    // object is read (see Deserializer::deserialize); at end of file or without a stream,
    // valid := false and null.
    Serializable* read_object();

    std::FILE* file() const { return file_; }

protected:
    std::FILE* file_;
};

}  // namespace QV::SERIAL
