#include "serial/file_stream.h"

#include <algorithm>

namespace QV::STREAM {

bool File_buf::drop_read_ahead()
{
    std::streamsize unread = egptr() - gptr();
    setg(nullptr, nullptr, nullptr);
    if (unread == 0 || !file_)
        return true;
    return std::fseek(file_, -static_cast<long>(unread), SEEK_CUR) == 0;
}

File_buf::int_type File_buf::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return traits_type::not_eof(c);
    if (!file_ || !drop_read_ahead())
        return traits_type::eof();
    return std::fputc(traits_type::to_char_type(c), file_) == EOF ? traits_type::eof() : c;
}

std::streamsize File_buf::xsputn(const char* bytes, std::streamsize count)
{
    if (!file_ || count <= 0 || !drop_read_ahead())
        return 0;
    return static_cast<std::streamsize>(std::fwrite(bytes, 1, static_cast<size_t>(count), file_));
}

File_buf::int_type File_buf::underflow()
{
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    if (!file_)
        return traits_type::eof();
    size_t got = std::fread(read_buffer_, 1, READ_BYTES, file_);
    if (got == 0)
        return traits_type::eof();
    setg(read_buffer_, read_buffer_, read_buffer_ + got);
    return traits_type::to_int_type(*gptr());
}

std::streamsize File_buf::xsgetn(char* bytes, std::streamsize count)
{
    // Serve what is buffered, then large reads straight from the file.
    std::streamsize done = 0;
    while (done < count) {
        std::streamsize buffered = egptr() - gptr();
        if (buffered > 0) {
            std::streamsize piece = std::min(buffered, count - done);
            traits_type::copy(bytes + done, gptr(), static_cast<size_t>(piece));
            gbump(static_cast<int>(piece));
            done += piece;
            continue;
        }
        if (count - done >= static_cast<std::streamsize>(READ_BYTES)) {
            size_t got = file_ ? std::fread(bytes + done, 1, static_cast<size_t>(count - done), file_) : 0;
            done += static_cast<std::streamsize>(got);
            break;
        }
        if (traits_type::eq_int_type(underflow(), traits_type::eof()))
            break;
    }
    return done;
}

int File_buf::sync()
{
    if (!file_)
        return 0;
    bool ok = drop_read_ahead();
    return ok && std::fflush(file_) == 0 ? 0 : -1;
}

File_buf::pos_type File_buf::seekoff(off_type offset, std::ios_base::seekdir direction,
                                     std::ios_base::openmode)
{
    if (!file_)
        return pos_type(off_type(-1));
    if (!drop_read_ahead())
        return pos_type(off_type(-1));
    int whence = direction == std::ios_base::beg ? SEEK_SET : direction == std::ios_base::cur ? SEEK_CUR : SEEK_END;
    if (std::fseek(file_, static_cast<long>(offset), whence) != 0)
        return pos_type(off_type(-1));
    return pos_type(std::ftell(file_));
}

File_buf::pos_type File_buf::seekpos(pos_type position, std::ios_base::openmode which)
{
    return seekoff(off_type(position), std::ios_base::beg, which);
}

}  // namespace QV::STREAM
