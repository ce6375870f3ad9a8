// Shared set-up for the test binaries: the process start that main() does in the tool.
#pragma once

#include <cstdlib>

#include "base/lib/mem/i_mem_allocatable.h"
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
