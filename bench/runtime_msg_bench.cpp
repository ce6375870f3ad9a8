// Costs on the runtime frame's hot paths: a message below the level mask, a module entry, and
// finding a context area that exists.
#include <benchmark/benchmark.h>

#include "runtime/modules.h"
#include "runtime/msg.h"
#include "tests/test_support.h"

namespace {

void BM_filtered_message(benchmark::State& state)
{
    qv_test_init();
    msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN);
    int value = 7;
    for (auto _ : state) {
        msg_debug("point %d at %f %f %f", value, 1.0, 2.0, 3.0);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_filtered_message);

void BM_module_scope(benchmark::State& state)
{
    qv_test_init();
    for (auto _ : state) {
        Module_scope scope(MOD_RCMP);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_module_scope);

void BM_context_area_lookup(benchmark::State& state)
{
    qv_test_init();
    mod_register_context_area(MOD_RCFG, nullptr, nullptr, 64);
    for (auto _ : state)
        benchmark::DoNotOptimize(mod_context_area(MOD_RCFG));
}
BENCHMARK(BM_context_area_lookup);

// A printed line, to /dev/null when run as `runtime_msg_bench 2>/dev/null`.
void BM_printed_line(benchmark::State& state)
{
    qv_test_init();
    Module_scope scope(MOD_MAIN);
    for (auto _ : state)
        msg_warn_n(18, "point %d at %f %f %f", 7, 1.0, 2.0, 3.0);
}
BENCHMARK(BM_printed_line);

}  // namespace

BENCHMARK_MAIN();
