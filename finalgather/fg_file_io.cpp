// The file wrappers of the final-gather files: one place where a failed call becomes a message.
#include "finalgather/fg_file_io.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

#include "runtime/msg.h"

void file_failure(int code, const char* text, const char* path)
{
    if (errno) {
        const char* reason = msg_os_error_text();
        if (code == 0)
            msg_info("%s: %s: %s", path, text, reason);
        else
            msg_error_n(code, "%s: %s: %s", path, text, reason);
        errno = 0;
    } else if (code == 0) {
        msg_info("%s: %s", path, text);
    } else {
        msg_error_n(code, "%s: %s", path, text);
    }
}

FILE* file_open(const char* path, const char* mode, int code, const char* text)
{
    errno = 0;
    FILE* file = std::fopen(path, mode);
    if (!file)
        file_failure(code, text, path);
    return file;
}

size_t file_read(FILE* file, void* data, size_t bytes, const char* path, int code, const char* text)
{
    errno = 0;
    if (std::fread(data, 1, bytes, file) != bytes) {
        file_failure(code, text, path);
        return 0;
    }
    return bytes;
}

size_t file_write(FILE* file, const void* data, size_t bytes, const char* path, int code, const char* text)
{
    errno = 0;
    const auto* cursor = static_cast<const char*>(data);
    for (size_t done = 0; done < bytes;) {
        const size_t piece = std::min(bytes - done, FILE_WRITE_PIECE_BYTES);
        if (std::fwrite(cursor + done, 1, piece, file) != piece) {
            file_failure(code, text, path);
            return 0;
        }
        done += piece;
    }
    return bytes;
}

int file_seek(FILE* file, long offset, int whence, const char* path, int code, const char* text)
{
    errno = 0;
    if (std::fseek(file, offset, whence) != 0) {
        file_failure(code, text, path);
        return 0;
    }
    return 1;
}

int file_truncate(FILE* file, long length, const char* path, int code, const char* text)
{
    errno = 0;
    // Buffered bytes must not land behind the new end after the length has been set.
    std::fflush(file);
    if (ftruncate(fileno(file), length) != 0) {
        file_failure(code, text, path);
        return 0;
    }
    return 1;
}

int file_close(FILE* file, const char* path, int code, const char* text)
{
    errno = 0;
    if (std::fclose(file) != 0) {
        file_failure(code, text, path);
        return 0;
    }
    return 1;
}
