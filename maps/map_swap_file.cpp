#include "maps/map_swap_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "runtime/msg.h"

namespace QV::RCMAP {

namespace {

// Seeks of the described platform were limited to 31 bits per step; pread/pwrite take 64-bit
// offsets, but single transfers stay below that bound as well.
constexpr size_t MAX_IO_STEP = 0x7FFFFFFF;

bool write_all(int fd, const uint8_t* data, size_t bytes, uint64_t offset)
{
    while (bytes > 0) {
        size_t step = bytes < MAX_IO_STEP ? bytes : MAX_IO_STEP;
        ssize_t done = pwrite(fd, data, step, off_t(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        bytes -= size_t(done);
        offset += uint64_t(done);
    }
    return true;
}

bool read_all(int fd, uint8_t* data, size_t bytes, uint64_t offset)
{
    while (bytes > 0) {
        size_t step = bytes < MAX_IO_STEP ? bytes : MAX_IO_STEP;
        ssize_t done = pread(fd, data, step, off_t(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        bytes -= size_t(done);
        offset += uint64_t(done);
    }
    return true;
}

const char* swap_directory()
{
    static const char* const names[] = {"TMPDIR", "TMP", "TEMP"};
    for (const char* name : names) {
        const char* value = getenv(name);
        if (value && *value)
            return value;
    }
    return ".";
}

// Completes the trailing "XXXXXX" of `path` to a name nobody uses yet, as the C runtime's
// temporary-name helper does; the O_EXCL create still decides the race.
void complete_unique_name(char* path, unsigned attempt)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    size_t length = strlen(path);
    uint64_t seed = uint64_t(getpid()) * 2654435761u ^ uint64_t(time(nullptr)) ^ (uint64_t(attempt) << 20) ^
                    uint64_t(reinterpret_cast<uintptr_t>(path));
    for (size_t i = length - 6; i < length; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        path[i] = letters[(seed >> 33) % (sizeof(letters) - 1)];
    }
}

} // namespace

Map_swap_file::~Map_swap_file()
{
    close();
}

void Map_swap_file::configure(int32_t map_id, uint32_t slot_bytes)
{
    std::lock_guard<std::mutex> hold(lock_);
    map_id_ = map_id;
    slot_bytes_ = slot_bytes;
}

bool Map_swap_file::create_locked()
{
    if (fd_ >= 0)
        return true;
    if (create_failed_)
        return false;
    char stem[1024];
    snprintf(stem, sizeof(stem), "%s/%s%u%s", swap_directory(), "qrmap", unsigned(map_id_), "_swap.");
    char path[1100];
    for (unsigned attempt = 0; attempt < 100; ++attempt) {
        snprintf(path, sizeof(path), "%sXXXXXX", stem);
        complete_unique_name(path, attempt);
        if (access(path, F_OK) == 0)
            continue;
        int fd = open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            break;
        }
        // Unlinked at once: the file lives exactly as long as the descriptor.
        unlink(path);
        fd_ = fd;
        return true;
    }
    create_failed_ = true;
    msg_error_n(1, "cannot create map swap file \"%s\"", path);
    return false;
}

bool Map_swap_file::write_page(uint32_t page, const void* data)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (!create_locked())
        return false;
    if (page >= slots_.size())
        slots_.resize(size_t(page) + 1, -1);
    int32_t slot = slots_[page];
    if (slot < 0) {
        if (!free_slots_.empty()) {
            slot = free_slots_.back();
            free_slots_.pop_back();
        } else {
            slot = int32_t(slot_count_++);
        }
        slots_[page] = slot;
    }
    if (!write_all(fd_, static_cast<const uint8_t*>(data), slot_bytes_, uint64_t(slot) * slot_bytes_)) {
        // The page stays dirty in memory; its slot is free again for a later try.
        free_slots_.push_back(slot);
        slots_[page] = -1;
        return false;
    }
    return true;
}

bool Map_swap_file::read_page(uint32_t page, void* data)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (fd_ < 0 || page >= slots_.size() || slots_[page] < 0)
        return false;
    return read_all(fd_, static_cast<uint8_t*>(data), slot_bytes_, uint64_t(slots_[page]) * slot_bytes_);
}

bool Map_swap_file::has_page(uint32_t page)
{
    std::lock_guard<std::mutex> hold(lock_);
    return fd_ >= 0 && page < slots_.size() && slots_[page] >= 0;
}

void Map_swap_file::discard_page(uint32_t page)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (page < slots_.size() && slots_[page] >= 0) {
        free_slots_.push_back(slots_[page]);
        slots_[page] = -1;
    }
}

void Map_swap_file::close()
{
    std::lock_guard<std::mutex> hold(lock_);
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    slot_count_ = 0;
    create_failed_ = false;
    slots_.clear();
    free_slots_.clear();
}

} // namespace QV::RCMAP
