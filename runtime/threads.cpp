#include "runtime/threads.h"

#include <alloca.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <random>
#include <unistd.h>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/msg.h"

constinit thread_local Thread_context* qv_tls_context = nullptr;

namespace {

constexpr int ROWS_WITH_RESERVED = THREAD_TABLE_ROWS + 1;

// Stands in for the main thread's context until the table has given it a real one.
Thread_context g_default_context = {0, 255, nullptr, nullptr, 0, nullptr, nullptr, nullptr,
                                    nullptr, MOD_MSG, MOD_MSG, nullptr, nullptr};

// The table, by row. Guarded by g_table_lock; a row's function, argument, counted flag and stack
// size are written by thread_alloc / thread_start before the thread exists and only read by it.
Thread_context* g_contexts[ROWS_WITH_RESERVED];
Thread_function g_functions[ROWS_WITH_RESERVED];
void* g_arguments[ROWS_WITH_RESERVED];
bool g_counted[ROWS_WITH_RESERVED];
size_t g_stack_bytes[ROWS_WITH_RESERVED];
void (*g_end_notes[ROWS_WITH_RESERVED])(void*);
void* g_end_arguments[ROWS_WITH_RESERVED];
uint32_t* g_ended_pins;  // THREAD_ENDED_PIN_SLOTS counters, made at the first thread end with pins

std::mutex g_start_lock;  // before g_table_lock, always
std::mutex g_table_lock;
std::mutex g_running_lock;
int g_running;

// Snapshot storage; only touched by the holder of the start lock.
Thread_context* g_snapshot_rows[ROWS_WITH_RESERVED];
Thread_snapshot g_snapshot;

size_t g_configured_stack_bytes;
bool g_main_priority_saved;
int g_main_policy;
sched_param g_main_param;

bool g_host_layer_started;

void copy_global_areas(Thread_context* context)
{
    // The main thread's context holds the global area arrays once they were made.
    const Thread_context* main_context = g_contexts[0] ? g_contexts[0] : &g_default_context;
    if (main_context == context)
        return;
    context->transaction_areas = main_context->transaction_areas;
    context->session_areas = main_context->session_areas;
    context->world_areas = main_context->world_areas;
}

// Releases a row whose thread never ran; the caller holds no table lock.
void release_row(int row)
{
    std::lock_guard<std::mutex> hold(g_table_lock);
    if (!g_contexts[row] || g_contexts[row] == thread_context())
        return;
    mem_raw_free(__FILE__, __LINE__, g_contexts[row]);
    g_contexts[row] = nullptr;
    g_functions[row] = nullptr;
    g_arguments[row] = nullptr;
    g_counted[row] = false;
}

void running_add(int delta)
{
    std::lock_guard<std::mutex> hold(g_running_lock);
    g_running += delta;
}

// Any uniform source in [0, 1) does; one generator per thread keeps the draw lock-free.
float stagger_fraction()
{
    thread_local std::minstd_rand generator(unsigned(uintptr_t(&generator) >> 4) ^ unsigned(getpid()));
    return std::uniform_real_distribution<float>(0.0f, 1.0f)(generator);
}

void* trampoline(void* raw_row)
{
    int row = int(intptr_t(raw_row));
    // A thread does not run while a snapshot is held.
    g_start_lock.lock();
    g_start_lock.unlock();

    Thread_context* context;
    Thread_function function;
    void* argument;
    bool counted;
    size_t stack_bytes;
    void (*end_note)(void*);
    void* end_argument;
    {
        std::lock_guard<std::mutex> hold(g_table_lock);
        end_note = g_end_notes[row];
        end_argument = g_end_arguments[row];
        context = g_contexts[row];
        function = g_functions[row];
        argument = g_arguments[row];
        counted = g_counted[row];
        stack_bytes = g_stack_bytes[row];
    }
    if (counted)
        running_add(1);
    thread_context_set(context);
    copy_global_areas(context);
    char stack_marker;
    context->stack_base = &stack_marker;
    context->stack_size = int64_t(stack_bytes + THREAD_STACK_PAD_BYTES);
    msg_debug("thread %d running", row);

    // Stagger the stack so threads do not all sit at the same offset from a stack boundary;
    // at most 511 << 7 = 65,408 bytes, which the added pad of every stack covers.
    int padding = int(stagger_fraction() * 512.0f) << 7;
    size_t reserved = (size_t(padding) + 15) & ~size_t(15);
    void* pad = reserved ? alloca(reserved) : nullptr;
    asm volatile("" : : "r"(pad) : "memory");  // keep the reservation
    msg_debug("thread padding address %p size %i", pad, padding);

    if (function)
        function(argument);
    msg_debug("thread %d finished", row);
    thread_end_current();
    if (counted)
        running_add(-1);
    if (end_note)
        end_note(end_argument);
    return nullptr;
}

size_t effective_stack_bytes()
{
    if (g_configured_stack_bytes)
        return g_configured_stack_bytes;
    if (const char* text = std::getenv("QV_STACKSIZE")) {
        char* end = nullptr;
        unsigned long long kb = std::strtoull(text, &end, 10);
        if (end != text && kb > 0 && kb < (1ull << 40))
            return size_t(kb) * 1024;
    }
    return THREAD_DEFAULT_STACK_BYTES;
}

}  // namespace

int thread_alloc(Thread_function function, void* argument, bool counted)
{
    // Always under the table lock: the page-BVH job starts workers long before any host layer.
    std::lock_guard<std::mutex> hold(g_table_lock);
    int row = -1;
    for (int i = 0; i < THREAD_TABLE_ROWS; ++i) {
        if (!g_contexts[i]) {
            row = i;
            break;
        }
    }
    if (row < 0) {
        msg_error_n(100, "too many threads");
        return -1;
    }
    auto* context = static_cast<Thread_context*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(Thread_context)));
    std::memset(context, 0, sizeof *context);
    context->thread_number = row;
    context->host_number = msg_host_number();
    context->previous_module = MOD_MSG;
    context->current_module = MOD_MSG;
    g_contexts[row] = context;
    g_functions[row] = function;
    g_arguments[row] = argument;
    g_counted[row] = counted;
    g_stack_bytes[row] = 0;
    g_end_notes[row] = nullptr;
    g_end_arguments[row] = nullptr;
    return row;
}

int thread_start(int number)
{
    if (number < 0 || number >= THREAD_TABLE_ROWS)
        return 0;
    size_t stack_bytes = effective_stack_bytes();
    {
        std::lock_guard<std::mutex> hold(g_table_lock);
        if (!g_contexts[number])
            return 0;
        g_stack_bytes[number] = stack_bytes;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    int status = pthread_attr_setstacksize(&attributes, stack_bytes + THREAD_STACK_PAD_BYTES);
    pthread_t thread;
    if (status == 0)
        status = pthread_create(&thread, &attributes, trampoline, reinterpret_cast<void*>(intptr_t(number)));
    pthread_attr_destroy(&attributes);
    if (status != 0) {
        msg_error_n(105, "cannot start thread %d: %s", number, msg_error_text(status));
        release_row(number);
        return 0;
    }
    if (g_main_priority_saved) {
        // A thread that has already run to its end has no priority left to set.
        int result = pthread_setschedparam(thread, g_main_policy, &g_main_param);
        if (result != 0 && result != ESRCH)
            msg_error_n(106, "cannot set priority for thread %d", number);
    }
    pthread_detach(thread);  // threads are not joined by handle
    return 1;
}

void thread_notify_end(int number, void (*done)(void* argument), void* argument)
{
    if (number < 0 || number >= THREAD_TABLE_ROWS)
        return;
    std::lock_guard<std::mutex> hold(g_table_lock);
    g_end_notes[number] = done;
    g_end_arguments[number] = argument;
}

void thread_release(int number)
{
    if (number >= 0 && number < THREAD_TABLE_ROWS)
        release_row(number);
}

void thread_set_stack_size(size_t bytes) { g_configured_stack_bytes = bytes; }
size_t thread_stack_size() { return effective_stack_bytes(); }

int thread_running_count()
{
    std::lock_guard<std::mutex> hold(g_running_lock);
    return g_running;
}

int thread_init_current()
{
    // A thread that has its row already keeps it (the console handler may run on any thread).
    if (Thread_context* current = thread_context(); current && current != &g_default_context)
        return current->thread_number;
    int row = thread_alloc(nullptr, nullptr, false);
    if (row < 0) {
        msg_error_n(103, "cannot allocate thread");
        return -1;
    }
    Thread_context* context;
    {
        std::lock_guard<std::mutex> hold(g_table_lock);
        context = g_contexts[row];
    }
    // Areas made on the stand-in context before this move with the thread to its real one.
    void** held_areas = thread_context() ? mod_detach_context() : nullptr;
    thread_context_set(context);
    copy_global_areas(context);
    if (row == 0) {
        context->transaction_areas = g_default_context.transaction_areas;
        context->session_areas = g_default_context.session_areas;
        context->world_areas = g_default_context.world_areas;
    }
    if (held_areas)
        mod_attach_context(held_areas);
    return row;
}

void thread_end_current()
{
    Thread_context* context = thread_context();
    if (!context || context == &g_default_context)
        return;
    mod_attach_context(nullptr);  // context areas: each module's exit runs here
    {
        std::lock_guard<std::mutex> start(g_start_lock);
        std::lock_guard<std::mutex> table(g_table_lock);
        if (context->db_pins) {
            if (!g_ended_pins) {
                size_t bytes = sizeof(uint32_t) * THREAD_ENDED_PIN_SLOTS;
                g_ended_pins = static_cast<uint32_t*>(mem_raw_alloc(__FILE__, __LINE__, bytes));
                std::memset(g_ended_pins, 0, bytes);
            }
            // Counters wrap: a pin here and its unpin on another thread cancel out.
            for (int slot = 0; slot < THREAD_ENDED_PIN_SLOTS; ++slot)
                g_ended_pins[slot] += context->db_pins[slot];
            mem_raw_free(__FILE__, __LINE__, context->db_pins);
            context->db_pins = nullptr;
        }
        mem_raw_free(__FILE__, __LINE__, context->error_text);
        context->error_text = nullptr;
        int row = context->thread_number;
        if (row >= 0 && row < ROWS_WITH_RESERVED && g_contexts[row] == context) {
            g_contexts[row] = nullptr;
            g_functions[row] = nullptr;
            g_arguments[row] = nullptr;
            g_counted[row] = false;
        }
    }
    thread_context_set(nullptr);
    mem_raw_free(__FILE__, __LINE__, context);
}

void thread_detach_current()
{
    Thread_context* context = thread_context();
    if (!context || context == &g_default_context)
        return;
    std::lock_guard<std::mutex> hold(g_table_lock);
    int row = context->thread_number;
    if (row >= 0 && row < THREAD_TABLE_ROWS && g_contexts[row] == context) {
        g_contexts[row] = nullptr;
        g_functions[row] = nullptr;
        g_arguments[row] = nullptr;
        g_counted[row] = false;
    }
    g_contexts[THREAD_RESERVED_ROW] = context;
    context->thread_number = THREAD_NUMBER_DETACHED;
}

int thread_system_init()
{
    if (thread_context() && thread_context() != &g_default_context)
        return 1;
    int policy;
    sched_param param;
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0)
        msg_fatal_n(19, "cannot read main thread scheduling priority");
    g_main_policy = policy;
    g_main_param = param;
    g_main_priority_saved = true;
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

const Thread_snapshot* thread_snapshot()
{
    if (!g_start_lock.try_lock())
        return nullptr;
    if (!g_table_lock.try_lock()) {
        g_start_lock.unlock();
        return nullptr;
    }
    int count = 0;
    for (int row = THREAD_RESERVED_ROW; row >= 0; --row)
        if (g_contexts[row])
            g_snapshot_rows[count++] = g_contexts[row];
    g_snapshot.contexts = g_snapshot_rows;
    g_snapshot.count = count;
    g_snapshot.ended_pins = g_ended_pins;
    g_table_lock.unlock();
    return &g_snapshot;
}

void thread_snapshot_release() { g_start_lock.unlock(); }

void thread_set_host_layer_started(bool started) { g_host_layer_started = started; }
bool thread_host_layer_started() { return g_host_layer_started; }

