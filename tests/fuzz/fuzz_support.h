// Start-up and file helpers shared by the libFuzzer targets (built by scripts/fuzz*.sh with -I.).
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

inline void fuzz_drop_line(uint32_t, const char*, const char*, int32_t) {}

// The process start of the tool, on host 0. Damaged inputs are reported; unless `handler` takes
// them, the reports go nowhere, since they are not what a target tests.
inline void fuzz_start(uint32_t levels, void (*handler)(uint32_t, const char*, const char*, int32_t) = fuzz_drop_line)
{
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    msg_set_levels(levels);
    qv_errorhandler(handler);
}

// A scratch file name of this process.
inline std::string fuzz_scratch(const char* stem, const char* suffix)
{
    return std::string("/tmp/") + stem + "_" + std::to_string(getpid()) + suffix;
}

// `prefix` (may be empty) then `size` bytes of `data`; false when the file cannot be written.
inline bool fuzz_put_file(const std::string& path, const void* data, size_t size, const std::string& prefix = "")
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    bool ok = std::fwrite(prefix.data(), 1, prefix.size(), file) == prefix.size();
    ok = (size == 0 || std::fwrite(data, 1, size, file) == size) && ok;
    return std::fclose(file) == 0 && ok;
}

inline std::vector<uint8_t> fuzz_get_file(const std::string& path)
{
    std::vector<uint8_t> bytes;
    if (FILE* file = std::fopen(path.c_str(), "rb")) {
        uint8_t chunk[4096];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;)
            bytes.insert(bytes.end(), chunk, chunk + n);
        std::fclose(file);
    }
    return bytes;
}

// Commits `count` elements of a 3-d map whose first field is 4 bytes: position (i, i % 7,
// -(i % 3)), low byte of the field i.
template <class Map>
void fuzz_fill(Map& map, uint32_t count)
{
    std::vector<uint8_t> element(map.get_declaration()->element_bytes());
    for (uint32_t i = 0; i < count; ++i) {
        const float position[3] = {float(i), float(i % 7), -float(i % 3)};
        std::memcpy(element.data(), position, sizeof position);
        element[12] = uint8_t(i);
        map.append_raw(element.data());
    }
    map.commit();
}
