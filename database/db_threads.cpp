// Per-thread pin arrays and the list of threads whose pins the memory-pressure walks add up.
#include <cstring>
#include <mutex>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db_internal.h"

namespace qv_db_detail {

namespace {

// Until the thread table offers its snapshot, the database lists the threads that ever pinned.
// The thread table frees a pin array at thread end only after the context areas are gone, so
// DB's context-area exit is the last moment the array can be folded and the entry dropped.
constexpr int LIST_ROWS = 1025;
std::mutex g_list_mutex;
Thread_context* g_list[LIST_ROWS];
int g_list_count;
uint32_t* g_ended_pins;  // pins left behind by ended threads

void list_add(Thread_context* context)
{
    std::lock_guard<std::mutex> hold(g_list_mutex);
    for (int i = 0; i < g_list_count; ++i)
        if (g_list[i] == context)
            return;
    if (g_list_count < LIST_ROWS)
        g_list[g_list_count++] = context;
}

}  // namespace

uint32_t* pins_make(Thread_context* context)
{
    context->db_pins = static_cast<uint32_t*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(uint32_t) * DB_PIN_SLOTS));
    if (!g_thread_hooks.snapshot && context == thread_context()) {
        // Make the DB context area now so that its exit runs when this thread ends.
        mod_context_area(MOD_DB);
        list_add(context);
    }
    return context->db_pins;
}

void thread_list_context_exit(void*)
{
    Thread_context* context = thread_context();
    if (!context)
        return;
    std::lock_guard<std::mutex> hold(g_list_mutex);
    for (int i = 0; i < g_list_count; ++i) {
        if (g_list[i] != context)
            continue;
        g_list[i] = g_list[--g_list_count];
        g_list[g_list_count] = nullptr;
        if (context->db_pins) {
            if (!g_ended_pins)
                g_ended_pins = static_cast<uint32_t*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(uint32_t) * DB_PIN_SLOTS));
            for (int slot = 0; slot < DB_PIN_SLOTS; ++slot)
                g_ended_pins[slot] += context->db_pins[slot];
        }
        return;
    }
}

bool thread_list_snapshot(Db_thread_list* list)
{
    if (g_thread_hooks.snapshot)
        return g_thread_hooks.snapshot(list);
    if (!g_list_mutex.try_lock())
        return false;
    list->contexts = g_list;
    list->count = g_list_count;
    list->ended_pins = g_ended_pins;
    return true;
}

void thread_list_release(Db_thread_list* list)
{
    if (g_thread_hooks.snapshot) {
        if (g_thread_hooks.release)
            g_thread_hooks.release(list);
        return;
    }
    g_list_mutex.unlock();
}

void thread_list_reset()
{
    // Live threads stay listed: their arrays outlive one database and belong to the thread table.
    std::lock_guard<std::mutex> hold(g_list_mutex);
    if (g_ended_pins)
        std::memset(g_ended_pins, 0, sizeof(uint32_t) * DB_PIN_SLOTS);
}

}  // namespace qv_db_detail

uint32_t qv_db_pin_sum(const Db_thread_list* list, int pidx)
{
    if (!list || pidx < 0 || pidx >= DB_PIN_SLOTS)
        return 0;
    // Counters wrap: a pin on one thread and its unpin on another cancel out.
    uint32_t sum = list->ended_pins ? list->ended_pins[pidx] : 0;
    for (int i = 0; i < list->count; ++i) {
        const uint32_t* pins = list->contexts[i] ? list->contexts[i]->db_pins : nullptr;
        if (pins)
            sum += pins[pidx];
    }
    return sum;
}
