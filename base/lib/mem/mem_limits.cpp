// Heap limits, the flush protocol that asks modules to give memory back, and the failure step
// that turns an exhausted heap into flushes, waits and retries.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "base/lib/mem/mem_internal.h"
#include "base/lib/mem/mem_testing.h"
#include "runtime/msg.h"
#include "runtime/registry.h"

namespace qv_mem_detail {

std::atomic<uint64_t> g_heap_limit{0};
std::atomic<uint64_t> g_heap_low{0};

namespace {

constexpr uint64_t LOWER_FLOOR_WORDS = 26214400;  // 200 MB: no lowering at or below
constexpr uint64_t LOWER_STEP_WORDS = 13107200;   // 100 MB

std::mutex g_limit_lock;                 // limit, low and priority change together
uint32_t g_limit_priority = 0;

std::atomic<Mem_flush_callback> g_flush_callbacks[MODULE_TABLE_ROWS];
Mem_flush_before_hook g_before_hook = nullptr;
Mem_flush_after_hook g_after_hook = nullptr;
void* g_after_user = nullptr;

std::mutex g_flush_lock;
std::atomic<bool> g_flush_running{false};
uint32_t g_flush_count = 0;
double g_flush_seconds = 0.0;
// Atomic: asynchronous reports may come from inside a flush callback, under the flush lock.
std::atomic<uint64_t> g_flush_kb{0};

std::atomic<uint32_t> g_classes{0};

std::mutex g_failure_lock;
std::atomic<Mem_oom_callback> g_oom_callback{nullptr};
bool g_base_known = false;               // under g_limit_lock
uint64_t g_base_words = 0;
bool g_hint_printed = false;
unsigned g_retry_sleep_us = 500000;

std::mutex g_postmortem_lock;
std::atomic<bool> g_postmortem_active{false};
Mem_report_fn g_db_summary = nullptr;
Mem_report_fn g_db_dump = nullptr;

double seconds_now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

bool resources_on() { return (mem_classes() & MSG_CLASS_RESOURCES) != 0; }

int mb(uint64_t words) { return int(words >> 17); }

// The flush visits 0..22, 24..86, and JOB (23) last.
int flush_order(int position) { return position < 23 ? position : position < 86 ? position + 1 : MOD_JOB; }

void lower_high_limit()
{
    uint64_t limit_words;
    bool print_hint = false;
    {
        std::lock_guard<std::mutex> hold(g_limit_lock);
        if (!g_base_known) {
            g_base_known = true;
            uint64_t limit = g_heap_limit.load();
            uint64_t current = g_current_words.load();
            g_base_words = limit < current ? limit : current;
        }
        if (g_base_words <= LOWER_FLOOR_WORDS)
            return;
        limit_words = g_base_words - LOWER_STEP_WORDS;
        g_heap_limit.store(limit_words);
        g_heap_low.store(limit_words * 3 >> 2);
        print_hint = !g_hint_printed;
        g_hint_printed = true;
    }
    if (print_hint)
        msg_info("try '-memory %d' for future runs", (mb(limit_words) + 25) / 50 * 50);
    if (resources_on())
        msg_warn_n(7, "setting heap limit to %dMB", mb(limit_words));
}

void lower_low_limit()
{
    uint64_t low, limit;
    {
        std::lock_guard<std::mutex> hold(g_limit_lock);
        uint64_t current = g_current_words.load();
        low = g_heap_low.load();
        low = (low < current ? low : current) * 3 >> 2;
        g_heap_low.store(low);
        limit = g_heap_limit.load();
    }
    if (resources_on())
        msg_warn_n(8, "lowering heap limits to %dMB-%dMB", mb(low), mb(limit));
}

void post_mortem()
{
    if (g_postmortem_active.exchange(true))
        return;
    std::lock_guard<std::mutex> hold(g_postmortem_lock);
    bool forwarding = msg_forwarding();
    msg_set_forwarding(false);
    msg_info("================ memory error post-mortem ================");
    msg_info("-------- memory summary --------");
    mem_summary();
    msg_info("-------- database summary --------");
    if (g_db_summary)
        g_db_summary();
    if (mem_classes() & MSG_CLASS_DEBUG) {
        msg_info("-------- database dump --------");
        if (g_db_dump)
            g_db_dump();
        msg_info("-------- memory dump --------");
        msg_debug("qv_mem_dump not available");
    } else {
        msg_info("run with '-message mem debug --' for more info.");
    }
    msg_info("please try lower -memory settings.");
    msg_set_forwarding(forwarding);
    g_postmortem_active.store(false);
}

}  // namespace

uint32_t mem_classes()
{
    // Read once and kept: the flush runs inside allocations and must not depend on a lookup.
    uint32_t classes = g_classes.load(std::memory_order_relaxed);
    if (!classes) {
        classes = msg_class_mask(MOD_MEM);
        g_classes.store(classes, std::memory_order_relaxed);
    }
    return classes;
}

void check_limit()
{
    uint64_t limit = g_heap_limit.load(std::memory_order_relaxed);
    if (limit && g_current_words.load(std::memory_order_relaxed) > limit)
        mem_flush_to(g_heap_low.load(std::memory_order_relaxed));
}

void restore_low_limit()
{
    uint64_t low, limit;
    {
        std::lock_guard<std::mutex> hold(g_limit_lock);
        limit = g_heap_limit.load();
        low = limit * 3 >> 2;
        if (g_heap_low.load() >= low)
            return;
        g_heap_low.store(low);
    }
    if (resources_on()) {
        Module_scope scope(MOD_MEM);
        msg_warn_n(4, "setting heap limits to %dMB-%dMB", mb(low), mb(limit));
    }
}

void failure_step(const char* file, int line, size_t size, int attempt)
{
    Module_scope scope(MOD_MEM);
    Mem_oom_callback oom = g_oom_callback.load();
    if (attempt == 5 && oom)
        post_mortem();
    if (attempt >= 5 && oom) {
        if (resources_on())
            msg_warn_n(9, "alloc of %uKB failed.", unsigned(size >> 10));
        oom(size);
    }
    if (attempt >= 10)
        fatal_size(size);
    std::unique_lock<std::mutex> serial(g_failure_lock, std::defer_lock);
    if (g_started.load()) {
        if (!serial.try_lock()) {
            // Another thread flushes already: only wait, then retry.
            usleep(g_retry_sleep_us);
            return;
        }
    }
    if (file && *file)
        msg_info("allocation of %zu bytes in %s line %d failed: flushing", size, file, line);
    else
        msg_info("allocation of %zu bytes failed: flushing", size);
    // The size counts as memory that must be found.
    uint64_t size_words = words_of(size);
    totals_add(size_words);
    lower_high_limit();
    if (attempt > 1)
        lower_low_limit();
    mem_flush_to(g_heap_low.load());
    if (attempt > 1)
        restore_low_limit();
    totals_sub(size_words);
    if (serial.owns_lock())
        serial.unlock();
    usleep(g_retry_sleep_us);
}

}  // namespace qv_mem_detail

using namespace qv_mem_detail;

uint64_t mem_set_heap_limit(uint64_t bytes, uint32_t priority)
{
    Module_scope scope(MOD_MEM);
    uint64_t old_bytes;
    {
        std::lock_guard<std::mutex> hold(g_limit_lock);
        if (priority < g_limit_priority)
            return 0;
        old_bytes = g_heap_limit.load() * 8;
        g_limit_priority = priority;
        if (bytes == 0) {
            g_heap_limit.store(0);
            g_heap_low.store(0);
            return old_bytes;
        }
        uint64_t words = bytes >> 3;
        g_heap_limit.store(words);
        g_heap_low.store(words * 3 >> 2);
    }
    msg_info("heap size limit set to %d MB", int(bytes >> 20));
    return old_bytes;
}

uint64_t mem_heap_limit_bytes() { return g_heap_limit.load() * 8; }
uint64_t mem_heap_low_bytes() { return g_heap_low.load() * 8; }

void mem_set_limit_from_registry(uint32_t priority)
{
    Module_scope scope(MOD_MEM);
    msg_info("total memory: %d MB", int(mem_physical(1) >> 20));
    msg_info("free memory : %d MB", int(mem_physical(2) >> 20));
    static const char k_entry[] = "{_QV_REG_MEMORY_LIMIT}";
    char* text = registry_lookup(k_entry, 0);
    // An entry that is not defined comes back unexpanded (or not at all).
    bool defined = text && *text && std::strcmp(text, k_entry) != 0;
    if (!defined) {
        mem_free("registry", 0, text);
        mem_set_heap_limit(mem_physical(2), 1);
        return;
    }
    char* end = nullptr;
    long long value_mb = std::strtoll(text, &end, 10);
    if (value_mb < 0 || end == text) {
        msg_warn("%s: %s is not a valid memory limit", "_QV_REG_MEMORY_LIMIT", text);
        mem_set_heap_limit(0, 1);
    } else {
        mem_set_heap_limit(uint64_t(value_mb) << 20, priority);
    }
    mem_free("registry", 0, text);
}

void mem_register_flush(int id, Mem_flush_callback callback)
{
    if (id >= 0 && id < MODULE_TABLE_ROWS)
        g_flush_callbacks[id].store(callback);
}

void mem_set_flush_hooks(Mem_flush_before_hook before, Mem_flush_after_hook after, void* user)
{
    g_before_hook = before;
    g_after_hook = after;
    g_after_user = user;
}

uint64_t mem_flush_to(uint64_t target_words)
{
    if (!g_started.load())
        return 0;
    Module_scope scope(MOD_MEM);
    regions_release_free();
    blocks_release_idle();
    uint64_t old_words = g_current_words.load();
    auto freed_so_far = [&] {
        uint64_t now = g_current_words.load();
        return old_words > now ? old_words - now : 0;
    };
    if (g_flush_running.load() || old_words <= target_words)
        return freed_so_far();
    std::unique_lock<std::mutex> hold(g_flush_lock, std::try_to_lock);
    if (!hold.owns_lock())
        return freed_so_far();
    g_flush_running.store(true);
    double start = seconds_now();

    if (g_before_hook)
        g_before_hook((old_words - target_words) >> 17);
    for (int position = 0; position < MODULE_TABLE_ROWS && g_current_words.load() > target_words; ++position) {
        int id = flush_order(position);
        Mem_flush_callback callback = g_flush_callbacks[id].load();
        if (!callback)
            continue;
        uint64_t before = g_current_words.load();
        callback(size_t((before - target_words) * 8));
        uint64_t after = g_current_words.load();
        uint64_t freed_words = before > after ? before - after : 0;
        if (freed_words >= WORDS_PER_MB && resources_on())
            msg_info("%-5s freed %3d MB", module_name(id), mb(freed_words));
    }
    uint64_t current = g_current_words.load();
    if (current > target_words && g_after_hook)
        g_after_hook(target_words * 8, current * 8, g_after_user);

    uint64_t freed = freed_so_far();
    double seconds = seconds_now() - start;
    ++g_flush_count;
    g_flush_seconds += seconds;
    g_flush_kb += freed >> 7;
    g_flush_running.store(false);
    hold.unlock();
    if (freed >= WORDS_PER_MB)
        msg_progress("scene cache flushed %d MB in %.2fs, now: %d MB", mb(freed), seconds,
                     mb(g_current_words.load()));
    return freed;
}

uint64_t mem_flush_mb(uint64_t megabytes)
{
    uint64_t current = g_current_words.load();
    uint64_t words = megabytes << 17;
    uint64_t target = current > words ? current - words : 0;
    return mem_flush_to(target) >> 17;
}

int mem_report_async_flush(int id, uint64_t bytes)
{
    Module_scope scope(MOD_MEM);
    g_flush_kb.fetch_add(bytes >> 10);
    if (bytes > (uint64_t(10) << 20))
        msg_progress("scene cache flushed asynchronously %d MB for module %s, now: %d MB", int(bytes >> 20),
                     module_name(id), mb(g_current_words.load()));
    return g_started.load() ? 1 : 0;
}

void mem_print_flush_totals()
{
    Module_scope scope(MOD_MEM);
    std::lock_guard<std::mutex> hold(g_flush_lock);
    if (g_flush_count)
        msg_info("%d scene cache flushes freed %d MB in %.2fs", int(g_flush_count), int(g_flush_kb.load() >> 10),
                 g_flush_seconds);
}

void mem_set_oom_callback(Mem_oom_callback callback) { g_oom_callback.store(callback); }

void mem_set_database_reports(Mem_report_fn summary, Mem_report_fn dump)
{
    g_db_summary = summary;
    g_db_dump = dump;
}

void mem_testing_reset_limits()
{
    std::lock_guard<std::mutex> hold(g_limit_lock);
    g_heap_limit.store(0);
    g_heap_low.store(0);
    g_limit_priority = 0;
    g_base_known = false;
    g_base_words = 0;
    g_hint_printed = false;
    g_classes.store(0);
}

void mem_testing_set_retry_sleep(unsigned microseconds) { g_retry_sleep_us = microseconds; }

void mem_testing_adjust_total(int64_t words)
{
    if (words >= 0)
        totals_add(uint64_t(words));
    else
        totals_sub(uint64_t(-words));
}
