// Thread table and process start.
#pragma once

#include "runtime/modules.h"

// Process start: thread-local slot and row 0 of the thread table for the calling thread.
// Returns non-zero on success.
int thread_system_init();
// Gives the calling thread a row and a Thread_context; returns the row or -1.
int thread_init_current();
void thread_end_current();
int thread_number();
int processor_count();
