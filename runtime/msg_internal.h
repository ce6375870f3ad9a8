// Shared state of the message layer's own files (msg.cpp, msg_colors.cpp, msg_support.cpp).
// Not for use outside the message layer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace msg_detail {

constexpr int LEVEL_COUNT = 7;

// Standard error as the output step sees it, found out at first use and kept.
struct Console {
    bool known;
    bool valid;           // fd 2 is open
    bool char_device;     // isatty(2): only then are colour sequences written
};
Console& console();

// Lowest set bit of `level` among bits 0 to 6; LEVEL_COUNT when none is set.
int level_index(uint32_t level);

// Colours are written only when they are on and the console is a character device.
bool colors_active();
void write_level_color(int level_index);
void write_restore_color();

// One record "%s.20: quovlib[%d] %s\n" appended to the log file; the file stays closed between
// lines. A file that cannot be opened loses the line silently.
void log_write(const char* line);

// write(2) whose failure is ignored: the message layer never reports its own output errors.
void write_ignoring_errors(int fd, const void* data, size_t length);

void reset_colors_for_tests();

}  // namespace msg_detail
