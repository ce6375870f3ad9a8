// Thin wrappers of a C stream and a directory listing that report through the log.
//
// Each object keeps the last system error number and a quiet flag: a log line is written when
// the object is not quiet, or when the global verbose switch is on. Lines go out at level info
// under module DISK. Names are used as given: callers substitute paths first where that is
// wanted.
#pragma once

#include <cstddef>
#include <cstdio>

// The global verbose switch of the file services; overrides every object's quiet flag.
void file_services_set_verbose(bool on);

class File {
public:
    File() = default;
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Closes what is open first. False on failure, with the object closed and error() set.
    bool open(const char* name, const char* mode = "r");
    // Wraps stdin, stdout or stderr under `name`; such a stream is not closed by close().
    bool open_static(FILE* stream, const char* name, const char* mode);
    bool close();
    // Reads one line (at most FILE_LINE_BYTES - 1 characters) into `buffer` of `size` bytes;
    // false at the end or on error.
    bool read_line(char* buffer, size_t size);
    bool is_open() const { return stream_ != nullptr; }
    FILE* stream() const { return stream_; }
    int error() const { return error_; }
    void set_quiet(bool quiet) { quiet_ = quiet; }

private:
    FILE* stream_ = nullptr;
    bool is_static_ = false;
    int error_ = 0;
    bool quiet_ = false;
};

constexpr size_t FILE_LINE_BYTES = 4096;

struct Directory_state;

class Directory {
public:
    Directory() = default;
    ~Directory() { close(); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    // Lists the entries of a path with a `*` pattern in its last part; a path without `*` gets
    // one: "*" for "", "*" behind a final / or \, "/*" behind anything else. Closes first.
    bool open(const char* path);
    // The next matching name (valid until the next call), or null at the end.
    const char* read();
    bool close();
    bool is_open() const { return state_ != nullptr; }
    int error() const { return error_; }
    void set_quiet(bool quiet) { quiet_ = quiet; }

private:
    Directory_state* state_ = nullptr;
    int error_ = 0;
    bool quiet_ = false;
};
