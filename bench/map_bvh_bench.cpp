// Throughput of a full map BVH build: reorder, page trees, global tree.
//
// Fills a map of three-dimensional elements scattered over a room-sized box (positions from a
// fixed pseudo-random sequence), then times build_bvh and reports elements per second of CPU
// and of wall time. Before and after, a checksum over every element's bytes (independent of
// their order) must agree; the program exits non-zero when it does not.
//
//   map_bvh_bench [elements=1000000] [element_bytes=20] [threads=1] [cache_limit_mb=0: memory]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <sys/resource.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/threads.h"

using namespace QV::RCMAP;

namespace {

double cpu_seconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

uint64_t mix(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdull;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ull;
    return x ^ (x >> 33);
}

// Sum of a hash per element: the same for any order of the same elements.
uint64_t checksum(Map_impl& map)
{
    Map_page_store& store = map.page_store();
    uint32_t bytes = store.element_bytes, count = map.committed_size();
    uint64_t sum = 0;
    for (uint32_t i = 0; i < count;) {
        uint32_t page, slot;
        store.locate(i, &page, &slot);
        uint32_t run = map_bvh_page_elements(store, count, page) - slot;
        const uint8_t* data = store.get_page(page, true) + size_t(slot) * bytes;
        for (uint32_t k = 0; k < run; ++k) {
            uint64_t h = 0x9e3779b97f4a7c15ull;
            for (uint32_t b = 0; b + 4 <= bytes; b += 4) {
                uint32_t word;
                memcpy(&word, data + size_t(k) * bytes + b, 4);
                h = mix(h ^ word);
            }
            sum += h;
        }
        i += run;
    }
    return sum;
}

} // namespace

int main(int argc, char** argv)
{
    uint32_t count = argc > 1 ? uint32_t(atol(argv[1])) : 1000000;
    uint32_t element_bytes = argc > 2 ? uint32_t(atoi(argv[2])) : 20;
    uint32_t threads = argc > 3 ? uint32_t(atoi(argv[3])) : 1;
    float limit_mb = argc > 4 ? float(atof(argv[4])) : 0.0f;
    if (element_bytes < 12 || element_bytes % 4) {
        fprintf(stderr, "element_bytes: a multiple of 4, at least 12\n");
        return 2;
    }
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    rcmp_init(true);
    if (limit_mb > 0.0f)
        Map_manager::instance().set_size_limit_mb(limit_mb);
    map_bvh_set_thread_count(threads);

    Map_declaration_impl declaration(3);
    if (element_bytes > 12)
        declaration.add_scalar_array("payload", (element_bytes - 12) / 4);
    Map_impl map(declaration);
    std::vector<float> element(element_bytes / 4);
    uint64_t state = 12345;
    for (uint32_t i = 0; i < count; ++i) {
        for (size_t k = 0; k < element.size(); ++k) {
            state = mix(state + k + 1);
            element[k] = float(state >> 40) * (1.0f / 16777216.0f);
        }
        element[0] *= 10.0f;
        element[1] *= 8.0f;
        element[2] *= 3.0f;
        map.append_raw(element.data());
    }
    map.commit();
    uint64_t before = checksum(map);

    auto wall_start = std::chrono::steady_clock::now();
    double cpu_start = cpu_seconds();
    map.build_bvh(0.6f, false, false);
    double cpu = cpu_seconds() - cpu_start;
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();

    uint64_t after = checksum(map);
    auto* bvh = map.global_bvh;
    uint32_t pages = bvh ? bvh->page_count() : 0;
    uint32_t treeless = 0;
    for (uint32_t p = 0; p < pages; ++p) {
        uint32_t node_count;
        memcpy(&node_count,
               map.page_store().get_page(p, true) + size_t(map.page_store().elements_per_page) * element_bytes, 4);
        treeless += node_count == 0;
    }
    printf("elements %u, %u bytes, %u per page, %u pages (%u without a tree), global nodes %u, threads %u\n",
           count, element_bytes, map.page_store().elements_per_page, pages, treeless, bvh ? bvh->node_count() : 0,
           threads);
    printf("build: CPU %.3f s (%.0f elements/s), wall %.3f s (%.0f elements/s)\n", cpu, double(count) / cpu, wall,
           double(count) / wall);
    printf("checksum %s\n", before == after ? "kept" : "CHANGED");
    return before == after && bvh && bvh->is_valid() ? 0 : 1;
}
