#include "runtime/files.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fnmatch.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {

bool g_verbose;

bool should_log(bool quiet) { return !quiet || g_verbose; }

}  // namespace

struct Directory_state {
    DIR* dir;
    char path[FILE_LINE_BYTES];     // as opened, pattern included
    char pattern[FILE_LINE_BYTES];  // the last part of the path
};

void file_services_set_verbose(bool on) { g_verbose = on; }

bool File::open(const char* name, const char* mode)
{
    Module_scope scope(MOD_DISK);
    close();
    if (!mode)
        mode = "r";
    if (!name)
        name = "";
    stream_ = std::fopen(name, mode);
    if (!stream_) {
        error_ = errno;
        if (should_log(quiet_))
            msg_info("open file \"%s\", mode %s: %s", name, mode, msg_error_text(error_));
        return false;
    }
    error_ = 0;
    if (should_log(quiet_))
        msg_info("open file \"%s\", mode %s, ok", name, mode);
    return true;
}

bool File::open_static(FILE* stream, const char* name, const char* mode)
{
    Module_scope scope(MOD_DISK);
    close();
    if (!stream) {
        error_ = EBADF;
        if (should_log(quiet_))
            msg_info("static open file \"%s\", mode %s: %s", name ? name : "", mode ? mode : "",
                     msg_error_text(error_));
        return false;
    }
    stream_ = stream;
    is_static_ = true;
    error_ = 0;
    return true;
}

bool File::close()
{
    if (!stream_)
        return true;
    bool ok = true;
    if (!is_static_ && std::fclose(stream_) != 0) {
        error_ = errno;
        ok = false;
    }
    stream_ = nullptr;
    is_static_ = false;
    return ok;
}

bool File::read_line(char* buffer, size_t size)
{
    if (!stream_ || !buffer || size == 0)
        return false;
    if (size > FILE_LINE_BYTES)
        size = FILE_LINE_BYTES;
    if (!std::fgets(buffer, int(size), stream_)) {
        buffer[0] = '\0';
        if (std::ferror(stream_))
            error_ = errno;
        return false;
    }
    return true;
}

bool Directory::open(const char* path)
{
    Module_scope scope(MOD_DISK);
    close();
    if (!path)
        path = "";
    auto* state = static_cast<Directory_state*>(mem_alloc(__FILE__, __LINE__, sizeof(Directory_state)));
    size_t length = std::strlen(path);
    const char* suffix = "";
    if (!std::strchr(path, '*'))
        suffix = length == 0 ? "*" : (path[length - 1] == '/' || path[length - 1] == '\\') ? "*" : "/*";
    std::snprintf(state->path, sizeof state->path, "%s%s", path, suffix);
    char directory[FILE_LINE_BYTES];
    std::snprintf(directory, sizeof directory, "%s", state->path);
    char* slash = std::strrchr(directory, '/');
    if (slash) {
        std::snprintf(state->pattern, sizeof state->pattern, "%s", slash + 1);
        if (slash == directory)
            slash[1] = '\0';
        else
            *slash = '\0';
    } else {
        std::snprintf(state->pattern, sizeof state->pattern, "%s", directory);
        std::strcpy(directory, ".");
    }
    state->dir = opendir(directory);
    if (!state->dir) {
        error_ = errno;
        if (should_log(quiet_))
            msg_info("open directory \"%s\", not found", state->path);
        mem_free(__FILE__, __LINE__, state);
        return false;
    }
    error_ = 0;
    state_ = state;
    if (should_log(quiet_))
        msg_info("open directory \"%s\", ok", state->path);
    return true;
}

const char* Directory::read()
{
    if (!state_)
        return nullptr;
    while (dirent* entry = readdir(state_->dir))
        if (fnmatch(state_->pattern, entry->d_name, 0) == 0)
            return entry->d_name;
    return nullptr;
}

bool Directory::close()
{
    if (!state_)
        return true;
    Module_scope scope(MOD_DISK);
    bool ok = closedir(state_->dir) == 0;
    if (!ok) {
        error_ = errno;
        if (should_log(quiet_))
            msg_info("close directory \"%s\", failed", state_->path);
    }
    mem_free(__FILE__, __LINE__, state_);
    state_ = nullptr;
    return ok;
}
