// Host messaging: connections between the hosts of a cluster (module MSG).
//
// This program runs on one host. Sending succeeds and sends nothing, and handler registration is
// accepted and ignored, so the database's remote branches run without effect and no socket is
// ever opened on its behalf.
#pragma once

#include <cstddef>
#include <cstdint>

struct Thread_context;

// Socket layer start. Always succeeds here.
int qv_net_init();
// Host layer start: from now on this process is host 0, the master.
int qv_msg_init(int argument);
bool qv_msg_started();

// Host 255 addresses all hosts. Returns non-zero on success.
int qv_msg_send(uint32_t host, int module, const void* buffer, size_t length);

using Qv_msg_handler = void (*)(Thread_context* context, void* buffer, size_t length, bool swap);
void qv_msg_register(int module, Qv_msg_handler handler);

// Abort hook of the fatal sequence; nothing to tell other hosts here.
void qv_msg_abort_hook(int value);
// The message layer's abort route: closes the connections to other hosts (there are none).
void qv_msg_abort();
