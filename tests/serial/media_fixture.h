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

inline std::string media_name(const testing::TestParamInfo<Media>& info)
{
    return info.param == Media::file ? "File" : "Queue";
}

// Owns the medium's storage and the reader over it.
struct Reader {
    std::FILE* file = nullptr;
    std::unique_ptr<QV::SERIAL::Byte_queue> queue;
    std::unique_ptr<QV::SERIAL::Deserializer> in;

    Reader() = default;
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    Reader(Reader&&) = default;
    ~Reader()
    {
        in.reset();
        if (file)
            std::fclose(file);
    }
    QV::SERIAL::Deserializer& operator*() { return *in; }
    QV::SERIAL::Deserializer* operator->() { return in.get(); }
};

inline Reader reader_over(Media media, const std::vector<uint8_t>& bytes,
                          QV::SERIAL::Deserialization_manager* manager)
{
    Reader reader;
    if (media == Media::file) {
        reader.file = std::tmpfile();
        if (!bytes.empty())
            std::fwrite(bytes.data(), 1, bytes.size(), reader.file);
        std::rewind(reader.file);
        reader.in = std::make_unique<QV::SERIAL::File_deserializer>(reader.file, manager);
    } else {
        reader.queue = std::make_unique<QV::SERIAL::Byte_queue>();
        reader.queue->append(bytes.data(), bytes.size());
        reader.in = std::make_unique<QV::DB::Db_deserializer>(reader.queue.get(), manager);
    }
    return reader;
}

// A writer on either medium; bytes() gives everything written so far.
class Writer {
public:
    explicit Writer(Media media) : media_(media)
    {
        if (media == Media::file) {
            file_ = std::tmpfile();
            out_ = std::make_unique<QV::SERIAL::File_serializer>(file_);
        } else {
            out_ = std::make_unique<QV::DB::Db_serializer>();
        }
    }
    ~Writer()
    {
        out_.reset();
        if (file_)
            std::fclose(file_);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    QV::SERIAL::Serializer& operator*() { return *out_; }
    QV::SERIAL::Serializer* operator->() { return out_.get(); }

    std::vector<uint8_t> bytes()
    {
        std::vector<uint8_t> result;
        if (media_ == Media::file) {
            std::fflush(file_);
            long end = std::ftell(file_);
            result.resize(static_cast<size_t>(end));
            std::rewind(file_);
            size_t got = std::fread(result.data(), 1, result.size(), file_);
            result.resize(got);
            std::fseek(file_, 0, SEEK_END);
        } else {
            auto* queue_out = static_cast<QV::DB::Db_serializer*>(out_.get());
            queue_out->expand_deferred();
            result.resize(queue_out->queue().size());
            queue_out->queue().copy_out(0, result.data(), result.size());
        }
        return result;
    }

private:
    Media media_;
    std::FILE* file_ = nullptr;
    std::unique_ptr<QV::SERIAL::Serializer> out_;
};

inline std::vector<uint8_t> le32(uint32_t value)
{
    return {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
}

inline std::vector<uint8_t> le64(uint64_t value)
{
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 8; ++i)
        bytes.push_back(uint8_t(value >> (8 * i)));
    return bytes;
}

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
