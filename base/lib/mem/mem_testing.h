// Test-only controls of the memory manager. The manager keeps per-process state that a real
// run sets once (the remembered base of limit lowering, the hint printed once, the cached class
// mask of MEM); tests that exercise those steps one after another reset them here. Production
// code never calls these.
#pragma once

#include <cstdint>

// No limit, priority 0, limit lowering and its hint as in a fresh process, class mask re-read.
void mem_testing_reset_limits();
// The wait after a failure step (500,000 microseconds in a real run).
void mem_testing_set_retry_sleep(unsigned microseconds);
// Moves the process total by `words`, standing in for memory that a test does not want to touch.
void mem_testing_adjust_total(int64_t words);
