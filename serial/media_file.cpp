#include "serial/media_file.h"

#include <cstring>

namespace QV::SERIAL {

// ---- File_serializer ------------------------------------------------------------------------
// Every primitive is the raw write of the value's own bytes.

void File_serializer::write(double value) { write(&value, sizeof value); }
void File_serializer::write(float value) { write(&value, sizeof value); }
void File_serializer::write(uint64_t value) { write(&value, sizeof value); }
void File_serializer::write(uint32_t value) { write(&value, sizeof value); }
void File_serializer::write(uint16_t value) { write(&value, sizeof value); }
void File_serializer::write(uint8_t value) { write(&value, sizeof value); }
void File_serializer::write(int64_t value) { write(&value, sizeof value); }
void File_serializer::write(int32_t value) { write(&value, sizeof value); }
void File_serializer::write(int16_t value) { write(&value, sizeof value); }
void File_serializer::write(int8_t value) { write(&value, sizeof value); }
void File_serializer::write(bool value) { write(&value, sizeof value); }

size_t File_serializer::write(const void* bytes, size_t count)
{
    if (count == 0)
        return 0;
    size_t written = file_ ? std::fwrite(bytes, 1, count, file_) : 0;
    if (written < count)
        valid_ = false;
    return written;
}

void File_serializer::write_deferred(uint64_t, uint64_t, uint32_t) {}
void File_serializer::write_deferred(const void*, uint32_t) {}

// ---- File_deserializer ----------------------------------------------------------------------

void File_deserializer::read(double* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(float* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(uint64_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(uint32_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(uint16_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(uint8_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(int64_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(int32_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(int16_t* value) { read(static_cast<void*>(value), sizeof *value); }
void File_deserializer::read(int8_t* value) { read(static_cast<void*>(value), sizeof *value); }

void File_deserializer::read(bool* value)
{
    // Read as a byte: a stored 2 must not become a bool object with an invalid representation.
    uint8_t byte = 0;
    read(static_cast<void*>(&byte), 1);
    *value = byte != 0;
}

size_t File_deserializer::read(void* bytes, size_t count)
{
    if (count == 0)
        return 0;
    size_t got = file_ ? std::fread(bytes, 1, count, file_) : 0;
    if (got < count) {
        valid_ = false;
        std::memset(static_cast<char*>(bytes) + got, 0, count - got);
    }
    return got;
}

void File_deserializer::read_deferred(uint64_t*, uint64_t*, uint32_t) {}
void File_deserializer::read_deferred(void**, uint32_t) {}
void File_deserializer::finish_deferred() {}

Serializable* File_deserializer::read_object()
{
    // End of file is only known after a read hits it, so look one byte ahead.
    int next = file_ ? std::getc(file_) : EOF;
    if (next == EOF) {
        valid_ = false;
        return nullptr;
    }
    std::ungetc(next, file_);
    valid_ = true;
    return deserialize();
}

}  // namespace QV::SERIAL
