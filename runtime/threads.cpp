#include "runtime/threads.h"

#include <mutex>
#include <unistd.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"

constinit thread_local Thread_context* qv_tls_context = nullptr;

namespace {

constexpr int THREAD_ROWS = 1024;

// Stands in for the main thread's context until the table has given it a real one.
Thread_context g_default_context = {0, 255, nullptr, nullptr, 0, nullptr, nullptr, nullptr,
                                    nullptr, MOD_MSG, MOD_MSG, nullptr, nullptr};
Thread_context* g_rows[THREAD_ROWS + 1];
std::mutex g_table_lock;

}  // namespace

int thread_init_current()
{
    int row = -1;
    {
        std::lock_guard<std::mutex> hold(g_table_lock);
        for (int i = 0; i < THREAD_ROWS; ++i) {
            if (!g_rows[i]) {
                row = i;
                break;
            }
        }
        if (row < 0) {
            msg_error_n(100, "too many threads");
            return -1;
        }
        auto* context = static_cast<Thread_context*>(mem_raw_alloc("thread", 0, sizeof(Thread_context)));
        context->thread_number = row;
        context->host_number = msg_host_number();
        context->previous_module = MOD_MSG;
        context->current_module = MOD_MSG;
        g_rows[row] = context;
    }
    Thread_context* context = g_rows[row];
    Thread_context* main_context = g_rows[0];
    if (main_context && main_context != context) {
        context->transaction_areas = main_context->transaction_areas;
        context->session_areas = main_context->session_areas;
        context->world_areas = main_context->world_areas;
    }
    thread_context_set(context);
    return row;
}

void thread_end_current()
{
    Thread_context* context = thread_context();
    if (!context)
        return;
    mod_attach_context(nullptr);
    {
        std::lock_guard<std::mutex> hold(g_table_lock);
        if (context->thread_number >= 0 && context->thread_number < THREAD_ROWS &&
            g_rows[context->thread_number] == context)
            g_rows[context->thread_number] = nullptr;
    }
    thread_context_set(nullptr);
    mem_raw_free("thread", 0, context->error_text);
    mem_raw_free("thread", 0, context->db_pins);
    mem_raw_free("thread", 0, context);
}

int thread_system_init()
{
    if (thread_context() && thread_context() != &g_default_context)
        return 1;
    thread_context_set(&g_default_context);
    return thread_init_current() >= 0 ? 1 : 0;
}

int thread_number()
{
    Thread_context* context = thread_context();
    return context ? context->thread_number : 0;
}

int processor_count()
{
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? int(n) : 1;
}
