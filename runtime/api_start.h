#pragma once

// API start as the tool runs it: the message handler of the host layer, the LIB context and
// world areas, and the message defaults (from here on class masks are 0x107f, so message
// numbers are printed).
void qv_api_init(int argument);
