// Out-of-core throughput of the map page cache.
//
// Appends ten times more elements than a deliberately small cache holds, reads them all back in
// order, in reverse and at random, verifies every element, and reports pages loaded and swapped,
// the largest resident cache size and MB/s of element data. Also times the table-hit path.
//
//   map_cache_bench [cache_limit_mb] [factor]     (defaults 8 and 10)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <sys/resource.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/threads.h"

using namespace QV::RCMAP;

namespace {

// 104 bytes, like a final-gather point record: position, normal, irradiance, gradients.
struct Record {
    float position[3];
    float values[23];
};
static_assert(sizeof(Record) == 104, "record of 26 words");

Record make_record(uint32_t i)
{
    Record record;
    for (int k = 0; k < 3; ++k)
        record.position[k] = float(i % 1000) * 0.01f + float(k);
    for (int k = 0; k < 23; ++k)
        record.values[k] = float(i) + float(k) * 0.5f;
    return record;
}

// CPU seconds (user + system) of the process: the machine is shared, so wall time alone would
// measure the neighbours.
double cpu_seconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

struct Timer {
    std::chrono::steady_clock::time_point wall = std::chrono::steady_clock::now();
    double cpu = cpu_seconds();
    double wall_seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    }
    double cpu_seconds_used() const { return cpu_seconds() - cpu; }
};

} // namespace

int main(int argc, char** argv)
{
    float limit_mb = argc > 1 ? float(atof(argv[1])) : 8.0f;
    uint32_t factor = argc > 2 ? uint32_t(atoi(argv[2])) : 10;
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    rcmp_init(true);
    Map_manager& manager = Map_manager::instance();
    manager.set_size_limit_mb(limit_mb);

    Map_declaration_impl declaration(3);
    declaration.add_vector("normal");
    declaration.add_scalar_array("rest", 20);
    Map_impl map(declaration);
    const uint32_t per_page = map.page_store().elements_per_page;
    const uint32_t limit_pages = uint32_t(limit_mb * 32.0f);
    const uint32_t count = limit_pages * factor * per_page;
    const double data_mb = double(count) * sizeof(Record) / (1024.0 * 1024.0);
    printf("cache limit %.1f MB (%u pages), %u elements of %zu bytes in %u pages (%.1f MB, %ux the cache)\n",
           double(limit_mb), limit_pages, count, sizeof(Record), limit_pages * factor, data_mb, factor);

    uint32_t peak_resident = 0;
    auto note_resident = [&] {
        uint32_t resident = manager.resident_pages() + manager.free_buffers();
        peak_resident = resident > peak_resident ? resident : peak_resident;
    };

    // Append.
    Timer append_timer;
    for (uint32_t i = 0; i < count; ++i) {
        Record record = make_record(i);
        map.append_raw(&record);
        if ((i & 0xFFFF) == 0)
            note_resident();
    }
    map.commit();
    double append_cpu = append_timer.cpu_seconds_used();
    double append_wall = append_timer.wall_seconds();
    note_resident();
    Map_cache_statistics after_append = manager.map_statistics(map.page_store().map_id);
    printf("append          : cpu %7.3f s %8.1f MB/s | wall %7.3f s | loads %llu swaps %llu\n", append_cpu,
           data_mb / append_cpu, append_wall, (unsigned long long)after_append.loads,
           (unsigned long long)after_append.swaps);

    // Read back: forward, reverse, random; every element is checked.
    uint64_t wrong = 0;
    auto pass = [&](const char* name, auto index_of) {
        Map_cache_statistics before = manager.map_statistics(map.page_store().map_id);
        Timer timer;
        Record record;
        for (uint32_t k = 0; k < count; ++k) {
            uint32_t i = index_of(k);
            map.read_element(i, &record);
            Record expected = make_record(i);
            wrong += memcmp(&record, &expected, sizeof record) != 0;
            if ((k & 0xFFFF) == 0)
                note_resident();
        }
        double cpu = timer.cpu_seconds_used();
        double wall = timer.wall_seconds();
        Map_cache_statistics after = manager.map_statistics(map.page_store().map_id);
        printf("%-16s: cpu %7.3f s %8.1f MB/s | wall %7.3f s | loads %llu swaps %llu\n", name, cpu, data_mb / cpu,
               wall, (unsigned long long)(after.loads - before.loads),
               (unsigned long long)(after.swaps - before.swaps));
    };
    pass("read forward", [](uint32_t k) { return k; });
    pass("read reverse", [&](uint32_t k) { return count - 1 - k; });
    uint32_t state = 12345;
    pass("read random", [&](uint32_t) {
        state = state * 1664525u + 1013904223u;
        return state % count;
    });

    // The hot path: repeated reads inside pages that stay in the thread's table.
    {
        Record record;
        const uint32_t reads = 20000000;
        Timer timer;
        for (uint32_t k = 0; k < reads; ++k)
            map.read_element((k * 7) % (per_page * 4), &record);
        printf("table hit       : cpu %.1f ns per element read | wall %.1f ns\n",
               timer.cpu_seconds_used() * 1e9 / reads, timer.wall_seconds() * 1e9 / reads);
    }

    printf("swap file       : %u slots, %.1f MB\n", map.page_store().swap.slot_count(),
           double(map.page_store().swap.file_bytes()) / (1024.0 * 1024.0));
    printf("peak resident   : %u pages (%.2f MB) of a limit of %u pages; buffers made %u\n", peak_resident,
           double(peak_resident) / 32.0, limit_pages, manager.max_pages());
    printf("wrong elements  : %llu\n", (unsigned long long)wrong);
    bool ok = wrong == 0 && peak_resident <= limit_pages;
    printf("%s\n", ok ? "OK" : "FAILED");
    return ok ? 0 : 1;
}
