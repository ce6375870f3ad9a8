// Test-only controls of the message layer. The layer caches what it finds out at first use (log
// state, log file name, console type) and runs some steps once per process (defaults, the first
// fatal's clean-up); tests that change the environment or fd 2 between cases reset them here.
// Production code never calls these.
#pragma once

// Forgets the log state, the log file name, the console type and the first-fatal flag.
void msg_testing_reset_output();
// Back to the state of a fresh process: level mask 7, class masks 0 (msg_defaults may run
// again), colours off with the built-in table, default fatal handler, no callback, no
// forwarding; also does msg_testing_reset_output(). The host number is left alone.
void msg_testing_reset_all();
// Makes the output step treat fd 2 as a character device (1) or not (0); -1 asks the system
// again at the next line.
void msg_testing_set_console_char_device(int state);
