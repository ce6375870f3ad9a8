// The standard stream interface over the same C streams the file media use, for code that
// wants `<<` and `>>` (text headers, dumps) next to binary serialization on one file.
// Neither class owns the C stream.
#pragma once

#include <cstdio>
#include <istream>
#include <streambuf>

namespace QV::STREAM {

// Reads are buffered here; writes go straight to the C stream (which buffers them itself), so
// that File_serializer and this buffer may take turns on one file once sync() was called.
class File_buf : public std::streambuf {
public:
    explicit File_buf(std::FILE* file) : file_(file) {}
    ~File_buf() override { sync(); }
    File_buf(const File_buf&) = delete;
    File_buf& operator=(const File_buf&) = delete;

    std::FILE* file() const { return file_; }

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;
    int_type underflow() override;
    std::streamsize xsgetn(char* bytes, std::streamsize count) override;
    // Gives unread buffered bytes back to the C stream and flushes it.
    int sync() override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

private:
    // Before a write or a seek: the C stream's position must be where the reader stands.
    bool drop_read_ahead();

    static constexpr size_t READ_BYTES = 4096;
    std::FILE* file_;
    char read_buffer_[READ_BYTES];
};

class File_stream : public std::iostream {
public:
    explicit File_stream(std::FILE* file) : std::iostream(nullptr), buffer_(file) { rdbuf(&buffer_); }
    File_buf* file_buf() { return &buffer_; }

private:
    File_buf buffer_;
};

}  // namespace QV::STREAM
