// Shared set-up for the test binaries: the process start that main() does in the tool.
#pragma once

#include <chrono>
#include <cstdlib>
#include <thread>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/db.h"
#include "finalgather/rcfg_module.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "runtime/modules.h"
#include "runtime/threads.h"

// Installs the allocator hooks and gives the calling thread its Thread_context; idempotent.
inline void qv_test_init()
{
    static bool done = false;
    if (done)
        return;
    mem_set_hooks(malloc, realloc, free);
    thread_system_init();
    done = true;
}

// The start a test of maps needs beyond qv_test_init: the map cache, host 0 and the database.
inline void qv_test_map_init()
{
    qv_test_init();
    rcmp_init(true);
    msg_set_host_number(0);
    thread_context()->host_number = 0;
    if (!qv_db_started())
        qv_db_init();
}

// The same, plus the final-gather module (its declaration and context areas).
inline void qv_test_fg_init()
{
    qv_test_map_init();
    fg_module_init();
}

// Polls `done` every millisecond for up to ten seconds: a thread that never comes is a failure,
// not a hang. True when `done` held in time.
template <class Predicate>
bool wait_until(Predicate done)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
