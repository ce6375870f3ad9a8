// Both media behind one test interface: what is written through one can be inspected as bytes
// and read back, and arbitrary bytes (truncated or damaged streams) can be fed to a reader.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "serial/deserialization_manager.h"
#include "serial/media_file.h"
#include "serial/media_queue.h"
#include "tests/test_support.h"

namespace serial_test {

enum class Media { file, queue };

inline std::string media_name(const testing::TestParamInfo<Media>& info) { return info.param == Media::file ? "File" : "Queue"; }

using File_ptr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Members are destroyed in reverse order: the reader goes before the storage it reads.
struct Reader {
    File_ptr file{nullptr, std::fclose};
    QV::SERIAL::Byte_queue queue;
    std::unique_ptr<QV::SERIAL::Deserializer> in;

    Reader(Media media, const std::vector<uint8_t>& bytes, QV::SERIAL::Deserialization_manager* manager)
    {
        if (media == Media::file) {
            file.reset(std::tmpfile());
            if (!bytes.empty())
                std::fwrite(bytes.data(), 1, bytes.size(), file.get());
            std::rewind(file.get());
            in = std::make_unique<QV::SERIAL::File_deserializer>(file.get(), manager);
        } else {
            queue.append(bytes.data(), bytes.size());
            in = std::make_unique<QV::DB::Db_deserializer>(&queue, manager);
        }
    }
    QV::SERIAL::Deserializer* operator->() { return in.get(); }
};

// A writer on either medium; bytes() gives everything written so far. The serializer goes
// before its file.
struct Writer {
    File_ptr file{nullptr, std::fclose};
    std::unique_ptr<QV::SERIAL::Serializer> out;

    explicit Writer(Media media)
    {
        if (media == Media::file) {
            file.reset(std::tmpfile());
            out = std::make_unique<QV::SERIAL::File_serializer>(file.get());
        } else {
            out = std::make_unique<QV::DB::Db_serializer>();
        }
    }
    QV::SERIAL::Serializer* operator->() { return out.get(); }

    std::vector<uint8_t> bytes()
    {
        std::vector<uint8_t> result;
        if (file) {
            std::fflush(file.get());
            result.resize(static_cast<size_t>(std::ftell(file.get())));
            std::rewind(file.get());
            result.resize(std::fread(result.data(), 1, result.size(), file.get()));
            std::fseek(file.get(), 0, SEEK_END);
        } else {
            auto* queue_out = static_cast<QV::DB::Db_serializer*>(out.get());
            queue_out->expand_deferred();
            result.resize(queue_out->queue().size());
            queue_out->queue().copy_out(0, result.data(), result.size());
        }
        return result;
    }
};

// `width` bytes of `value`, little-endian as on the wire.
inline std::vector<uint8_t> le_bytes(uint64_t value, int width)
{
    std::vector<uint8_t> bytes(size_t(width), 0);
    for (int i = 0; i < width; ++i)
        bytes[size_t(i)] = uint8_t(value >> (8 * i));
    return bytes;
}
inline std::vector<uint8_t> le64(uint64_t value) { return le_bytes(value, 8); }
inline std::vector<uint8_t> le32(uint32_t value) { return le_bytes(value, 4); }

inline std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

inline std::vector<uint8_t> text_bytes(const char* text)
{
    return std::vector<uint8_t>(text, text + std::char_traits<char>::length(text));
}

}  // namespace serial_test
