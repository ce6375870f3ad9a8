#include "runtime/api_start.h"

#include <cstddef>

#include "database/host_messaging.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/registry.h"
#include "runtime/threads.h"

namespace {

void remote_message(Thread_context*, void* buffer, size_t length, bool swap)
{
    msg_handle_remote_bytes(buffer, length, swap);
}

// The LIB context area holds the registry's per-thread action depth; the world area holds
// shader-side library state that this program never fills.
constexpr uint32_t LIB_CONTEXT_BYTES = sizeof(Lib_context_area);
constexpr uint32_t LIB_WORLD_BYTES = 64;
void lib_context_exit(void*) {}
void lib_world_init(void*) {}
void lib_world_exit(void*) {}

}  // namespace

void qv_api_init(int)
{
    Module_scope scope(MOD_API);
    qv_msg_register(MOD_LIB, remote_message);
    mod_register_context_area(MOD_LIB, nullptr, lib_context_exit, LIB_CONTEXT_BYTES);
    mod_register_world_area(MOD_LIB, lib_world_init, lib_world_exit, LIB_WORLD_BYTES);
    msg_defaults();
    // What a host compares before it accepts another: this library's level and substitution.
    capability_register("RAY39");
    capability_register("SUB3");
}
