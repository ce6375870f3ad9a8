#include <cstdio>
#include <cstdlib>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

int main(int, char**)
{
    if (!mem_set_hooks(malloc, realloc, free) || !thread_system_init())
        return 1;
    Module_scope scope(MOD_MAIN);
    msg_info("fg_splice skeleton");
    return 1;
}
