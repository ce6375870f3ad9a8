// Pairs of allocate and free through the memory manager, next to the C library's allocator and,
// when present, mimalloc (loaded at run time, so it cannot take over malloc for the others).
//
// Each iteration allocates a batch of 256 blocks of one size and frees them: own-thread on one
// and on two threads, and cross-thread, where two threads swap their batches and free each
// other's. Times are per allocate + free pair. mimalloc runs twice: `mi_malloc` and `mi_zalloc`,
// which zeroes as mem_alloc does.
//
// BM_large allocates a 64 KB or 100 MB block, writes one byte in every 4 KB page and frees it:
// mem_alloc's heap path and mem_raw_alloc next to the C library's calloc.
#include <barrier>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <cstdlib>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/threads.h"
#include "tests/test_support.h"

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void __libc_free(void*);

namespace {

constexpr int BATCH = 256;

using Malloc_fn = void* (*)(size_t);
using Free_fn = void (*)(void*);

struct Allocator {
    Malloc_fn allocate;
    Free_fn release;
};

void* qv_allocate(size_t size) { return mem_alloc("bench", 0, size); }
void qv_release(void* p) { mem_free("bench", 0, p); }

void* qv_raw_allocate(size_t size) { return mem_raw_alloc("bench", 0, size); }
void qv_raw_release(void* p) { mem_raw_free("bench", 0, p); }
void* libc_zeroed(size_t size) { return __libc_calloc(1, size); }

Allocator g_mimalloc{nullptr, nullptr};
Malloc_fn g_mi_zalloc = nullptr;

bool load_mimalloc()
{
#ifdef QV_MIMALLOC_LIBRARY
    static bool tried = false;
    if (!tried) {
        tried = true;
        if (void* library = dlopen(QV_MIMALLOC_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
            g_mimalloc.allocate = reinterpret_cast<Malloc_fn>(dlsym(library, "mi_malloc"));
            g_mimalloc.release = reinterpret_cast<Free_fn>(dlsym(library, "mi_free"));
            g_mi_zalloc = reinterpret_cast<Malloc_fn>(dlsym(library, "mi_zalloc"));
        }
    }
#endif
    return g_mimalloc.allocate && g_mimalloc.release;
}

enum Which { QV, LIBC, MIMALLOC, MIMALLOC_ZERO, QV_RAW, LIBC_ZERO };

bool pick(Which which, Allocator* out)
{
    switch (which) {
    case QV:
        qv_test_init();
        mem_init();
        *out = Allocator{qv_allocate, qv_release};
        return true;
    case LIBC:
        *out = Allocator{__libc_malloc, __libc_free};
        return true;
    case MIMALLOC:
        if (!load_mimalloc())
            return false;
        *out = g_mimalloc;
        return true;
    case MIMALLOC_ZERO:
        if (!load_mimalloc() || !g_mi_zalloc)
            return false;
        *out = Allocator{g_mi_zalloc, g_mimalloc.release};
        return true;
    case QV_RAW:
        qv_test_init();
        mem_init();
        *out = Allocator{qv_raw_allocate, qv_raw_release};
        return true;
    case LIBC_ZERO:
        *out = Allocator{libc_zeroed, __libc_free};
        return true;
    }
    return false;
}

bool ready(Which which, benchmark::State& state, Allocator* out)
{
    if (pick(which, out))
        return true;
    state.SkipWithError("allocator not available");
    return false;
}

// Engine threads have a Thread_context; the benchmark's own threads get one for the run.
struct Thread_guard {
    bool made = false;
    Thread_guard()
    {
        if (!thread_context()) {
            thread_init_current();
            made = true;
        }
    }
    ~Thread_guard()
    {
        if (made)
            thread_end_current();
    }
};

template <Which which>
void BM_own(benchmark::State& state)
{
    Allocator allocator;
    if (!ready(which, state, &allocator))
        return;
    Thread_guard guard;
    size_t size = size_t(state.range(0));
    void* blocks[BATCH];
    for (auto _ : state) {
        for (void*& block : blocks)
            block = allocator.allocate(size);
        benchmark::DoNotOptimize(blocks);
        for (void* block : blocks)
            allocator.release(block);
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}

void* g_batches[2][BATCH];
// Every thread runs the same number of iterations, so each phase of the barrier completes.
std::barrier<> g_barrier(2);

template <Which which>
void BM_cross(benchmark::State& state)
{
    Allocator allocator;
    if (!ready(which, state, &allocator))
        return;
    Thread_guard guard;
    size_t size = size_t(state.range(0));
    int mine = state.thread_index();
    for (auto _ : state) {
        for (void*& block : g_batches[mine])
            block = allocator.allocate(size);
        g_barrier.arrive_and_wait();
        for (void* block : g_batches[1 - mine])
            allocator.release(block);
        g_barrier.arrive_and_wait();
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
}

void sizes(benchmark::internal::Benchmark* b)
{
    for (int size : {8, 64, 256, 1024, 8152})
        b->Arg(size);
}

// A large block as the host messaging and the map cache use it: allocated, every page written
// once, freed.
template <Which which>
void BM_large(benchmark::State& state)
{
    Allocator allocator;
    if (!ready(which, state, &allocator))
        return;
    Thread_guard guard;
    size_t size = size_t(state.range(0));
    for (auto _ : state) {
        auto* block = static_cast<char*>(allocator.allocate(size));
        for (size_t at = 0; at < size; at += 4096)
            block[at] = 1;
        benchmark::DoNotOptimize(block);
        allocator.release(block);
    }
}

BENCHMARK(BM_own<QV>)->Apply(sizes)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_own<LIBC>)->Apply(sizes)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_own<MIMALLOC>)->Apply(sizes)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_own<MIMALLOC_ZERO>)->Apply(sizes)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_cross<QV>)->Apply(sizes)->Threads(2)->UseRealTime();
BENCHMARK(BM_cross<LIBC>)->Apply(sizes)->Threads(2)->UseRealTime();
BENCHMARK(BM_cross<MIMALLOC>)->Apply(sizes)->Threads(2)->UseRealTime();
BENCHMARK(BM_cross<MIMALLOC_ZERO>)->Apply(sizes)->Threads(2)->UseRealTime();
BENCHMARK(BM_large<QV>)->Arg(65536)->Arg(100 << 20);
BENCHMARK(BM_large<QV_RAW>)->Arg(65536)->Arg(100 << 20);
BENCHMARK(BM_large<LIBC_ZERO>)->Arg(65536)->Arg(100 << 20);

}  // namespace

BENCHMARK_MAIN();
