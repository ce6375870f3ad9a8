// Binary map file throughput: write and read of maps of three-dimensional elements, next to a
// plain copy of the same number of bytes with dd. A plain timed program (no Google Benchmark):
// each phase is one long I/O run, timed with the monotonic clock.
//
//     map_file_bench [directory] [counts...]      default: /tmp, 1000000 10000000
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

uint64_t size_of(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? uint64_t(info.st_size) : 0;
}

double mb_per_s(uint64_t bytes, double seconds)
{
    return double(bytes) / (1024.0 * 1024.0) / seconds;
}

// Runs a shell command and returns its wall time.
double timed_command(const std::string& command)
{
    auto start = std::chrono::steady_clock::now();
    if (system(command.c_str()) != 0)
        fprintf(stderr, "failed: %s\n", command.c_str());
    return seconds_since(start);
}

// Sums one coordinate of every element, page by page through the cache, so that each page is
// read once and nothing is optimised away.
double scan(Map_impl& map)
{
    Map_page_store& store = map.page_store();
    const uint32_t per_page = store.elements_per_page;
    const uint32_t bytes = store.element_bytes;
    double sum = 0.0;
    for (uint32_t first = 0; first < map.size(); first += per_page) {
        uint32_t page, slot;
        store.locate(first, &page, &slot);
        const uint8_t* data = store.get_page(page, true);
        uint32_t run = std::min(per_page, map.size() - first);
        for (uint32_t i = 0; i < run; ++i)
            sum += reinterpret_cast<const float*>(data + size_t(i) * bytes)[0];
    }
    return sum;
}

void run(const std::string& directory, uint32_t count)
{
    const std::string name = directory + "/qv_map_file_bench.map";
    const std::string copy = directory + "/qv_map_file_bench.dd";
    Map_declaration_impl declaration(3);

    // The map, in memory and the cache; not timed.
    Map_impl map(declaration);
    map.bvh_enabled = false;
    uint32_t state = 12345;
    for (uint32_t i = 0; i < count; ++i) {
        float position[3];
        for (float& value : position) {
            state = state * 1664525u + 1013904223u;
            value = float(state >> 8) * (1.0f / 16777216.0f);
        }
        map.append_raw(position);
    }
    map.commit();

    auto start = std::chrono::steady_clock::now();
    if (map.write(name.c_str(), MAP_FORMAT_BINARY, false) != MAP_SUCCESS) {
        fprintf(stderr, "write failed\n");
        return;
    }
    const double write_s = seconds_since(start);
    const uint64_t file_bytes = size_of(name);

    start = std::chrono::steady_clock::now();
    Map_impl back;
    back.bvh_enabled = false;
    if (back.read(name.c_str(), 0) != MAP_SUCCESS || back.size() != count) {
        fprintf(stderr, "read failed\n");
        return;
    }
    const double open_s = seconds_since(start);
    const double sum = scan(back);
    const double read_s = seconds_since(start);

    // The file's own page reads alone, without the cache: one page at a time into one buffer.
    double pages_s = 0.0;
    {
        Map_status status = MAP_SUCCESS;
        Map_file file(MAP_FILE_KIND_READ, false, false, false, name.c_str(), nullptr, &status);
        std::vector<uint8_t> page(MAP_FILE_PAGE_BYTES);
        start = std::chrono::steady_clock::now();
        for (uint32_t i = 0; status == MAP_SUCCESS && i < file.page_count; ++i)
            file.read_pages(i, 1, page.data());
        pages_s = seconds_since(start);
    }

    // The same number of bytes through dd, in MiB blocks and a remainder-free rounding up.
    const uint64_t mib = (file_bytes + (1 << 20) - 1) >> 20;
    const double dd_write_s =
        timed_command("dd if=/dev/zero of=" + copy + " bs=1M count=" + std::to_string(mib) + " 2>/dev/null");
    const double dd_read_s = timed_command("dd if=" + copy + " of=/dev/null bs=1M 2>/dev/null");

    printf("%9u elements, %7.1f MB file: write %6.3f s %7.1f MB/s (dd %7.1f MB/s); "
           "read %6.3f s (open %.4f s) %7.1f MB/s (dd %7.1f MB/s, pages alone %7.1f MB/s) [checksum %.1f]\n",
           count, double(file_bytes) / 1048576.0, write_s, mb_per_s(file_bytes, write_s),
           mb_per_s(mib << 20, dd_write_s), read_s, open_s, mb_per_s(file_bytes, read_s),
           mb_per_s(mib << 20, dd_read_s), mb_per_s(file_bytes, pages_s), sum);
    unlink(name.c_str());
    unlink(copy.c_str());
}

} // namespace

int main(int argc, char** argv)
{
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN);
    rcmp_init(true);
    // Room for the largest map and its read-back copy, so neither goes to the swap file.
    Map_manager::instance().set_size_limit_mb(1024.0f);
    const std::string directory = argc > 1 ? argv[1] : "/tmp";
    std::vector<uint32_t> counts;
    for (int i = 2; i < argc; ++i)
        counts.push_back(uint32_t(strtoul(argv[i], nullptr, 10)));
    if (counts.empty())
        counts = {1000000, 10000000};
    for (uint32_t count : counts)
        run(directory, count);
    return 0;
}
