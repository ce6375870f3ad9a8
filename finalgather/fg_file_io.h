// The six file wrappers of the final-gather files. Each clears errno, performs its operation,
// and on failure reports through file_failure under the given message code and text and returns
// 0 (null for file_open). Code 0 reports at the info level, any other code at the error level
// under that number (module RCFG).
#pragma once

#include <cstddef>
#include <cstdio>

// "%s: %s: %s" (path, text, system error text) when errno is set, which it then clears;
// otherwise "%s: %s".
void file_failure(int code, const char* text, const char* path);

FILE* file_open(const char* path, const char* mode, int code, const char* text);
// Reads exactly `bytes`; anything less is a failure. Returns `bytes` or 0.
size_t file_read(FILE* file, void* data, size_t bytes, const char* path, int code, const char* text);
// Writes in pieces of at most FILE_WRITE_PIECE_BYTES. Returns `bytes` or 0.
size_t file_write(FILE* file, const void* data, size_t bytes, const char* path, int code, const char* text);
// fseek; 1 on success.
int file_seek(FILE* file, long offset, int whence, const char* path, int code, const char* text);
// Sets the length of the file behind the stream; 1 on success.
int file_truncate(FILE* file, long length, const char* path, int code, const char* text);
// fclose; 1 on success. The stream is gone in either case.
int file_close(FILE* file, const char* path, int code, const char* text);

constexpr size_t FILE_WRITE_PIECE_BYTES = 16384;
