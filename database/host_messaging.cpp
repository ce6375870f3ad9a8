#include "database/host_messaging.h"

#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {
bool g_started = false;
}

int qv_net_init() { return 1; }

int qv_msg_init(int)
{
    Module_scope scope(MOD_MSG);
    if (g_started)
        return 1;
    g_started = true;
    msg_install_signal_handlers();
    msg_set_host_number(0);
    if (Thread_context* context = thread_context())
        context->host_number = 0;
    return 1;
}

bool qv_msg_started() { return g_started; }

int qv_msg_send(uint32_t, int, const void*, size_t) { return 1; }

void qv_msg_register(int, Qv_msg_handler) {}

void qv_msg_abort_hook(int) {}

// Called by the fatal sequence. A single host has no connections to close.
void qv_msg_abort()
{
    Module_scope scope(MOD_MSG);
    if (msg_class_mask(MOD_MSG) & MSG_CLASS_PHASE)
        msg_debug("qv_msg_abort: terminating");
    if (!g_started) {
        g_started = true;
        return;
    }
    if (msg_class_mask(MOD_MSG) & MSG_CLASS_NETWORK)
        msg_debug("disconnect hosts");
}
