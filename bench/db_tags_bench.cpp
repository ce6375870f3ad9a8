// Tag store throughput: create, access+unpin and delete of one million tags on one thread.
// Reported as ns_per_op (seconds per tag operation, shown in ns).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

namespace {

constexpr int TAG_COUNT = 1000000;
constexpr int POLYGON = 14;  // a tracked type: access pins, unpin stamps

void fresh_database()
{
    static bool process_started = false;
    if (!process_started) {
        mem_set_hooks(malloc, realloc, free);
        thread_system_init();
        msg_set_host_number(0);
        thread_context()->host_number = 0;
        process_started = true;
    }
    if (qv_db_started())
        qv_db_exit();
    qv_db_init();
}

std::vector<Db_tag> make_tags(int type)
{
    std::vector<Db_tag> tags(TAG_COUNT);
    for (Db_tag& tag : tags) {
        qv_db_create(&tag, type, 16);
        if (qv_db_type_tracked(type))
            qv_db_unpin(tag);
    }
    return tags;
}

void per_op(benchmark::State& state)
{
    state.counters["ns_per_op"] = benchmark::Counter(double(state.iterations()) * TAG_COUNT,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_create(benchmark::State& state)
{
    std::vector<Db_tag> tags(TAG_COUNT);
    for (auto _ : state) {
        state.PauseTiming();
        fresh_database();
        state.ResumeTiming();
        for (Db_tag& tag : tags)
            qv_db_create(&tag, 0, 16);
        benchmark::DoNotOptimize(tags.data());
    }
    per_op(state);
}

void BM_access_unpin(benchmark::State& state)
{
    fresh_database();
    std::vector<Db_tag> tags = make_tags(POLYGON);
    for (auto _ : state) {
        for (Db_tag tag : tags) {
            benchmark::DoNotOptimize(qv_db_access(tag));
            qv_db_unpin(tag);
        }
    }
    per_op(state);
}

void BM_access_untracked(benchmark::State& state)
{
    fresh_database();
    std::vector<Db_tag> tags = make_tags(DB_TYPE_SERIALIZABLE);
    for (auto _ : state)
        for (Db_tag tag : tags)
            benchmark::DoNotOptimize(qv_db_access(tag));
    per_op(state);
}

void BM_delete(benchmark::State& state)
{
    for (auto _ : state) {
        state.PauseTiming();
        fresh_database();
        std::vector<Db_tag> tags = make_tags(0);
        state.ResumeTiming();
        for (Db_tag tag : tags)
            qv_db_delete(tag);
    }
    per_op(state);
}

BENCHMARK(BM_create)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_access_unpin)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_access_untracked)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_delete)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
