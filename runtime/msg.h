// The message layer: every line the system prints goes through msg_emit.
//
// A line is stamped with the current module, host and thread, numbered by module and level,
// split at 1,313 characters and sent to the log file, a callback or the console. Messages work
// before anything else has started and never allocate from the heap. On a thread without a
// Thread_context nothing is printed, not even a fatal line.
#pragma once

#include <cstdarg>
#include <cstdint>

enum Msg_level : uint32_t {
    MSG_FATAL = 0x1,
    MSG_ERROR = 0x2,
    MSG_WARN = 0x4,
    MSG_INFO = 0x8,
    MSG_PROGRESS = 0x10,
    MSG_DEBUG = 0x20,
    MSG_VDEBUG = 0x40,
};

// Class mask words (per module, consulted by code that does optional work).
enum Msg_class : uint32_t {
    MSG_CLASS_NONE = 0x0,
    MSG_CLASS_DEFAULT = 0x107f,
    MSG_CLASS_ALL = 0xffffffff,
    MSG_CLASS_PHASE = 0x1,
    MSG_CLASS_PROGRESS = 0x2,
    MSG_CLASS_VPROGRESS = 0x4,
    MSG_CLASS_TIME = 0x8,
    MSG_CLASS_SCENE = 0x10,
    MSG_CLASS_MEMORY = 0x20,
    MSG_CLASS_RENDER = 0x40,
    MSG_CLASS_VRENDER = 0x80,
    MSG_CLASS_RESOURCES = 0x100,
    MSG_CLASS_NETWORK = 0x200,
    MSG_CLASS_FILES = 0x400,
    MSG_CLASS_DEBUG = 0x800,
    MSG_CLASS_MSGCODE = 0x1000,
    MSG_CLASS_MSGTRANS = 0x2000,
    MSG_CLASS_TESSELLATE = 0x4000,
};

#define QV_PRINTF(f, a) __attribute__((format(printf, f, a)))

void msg_emit(uint32_t level, const char* level_name, int32_t number, const char* format, va_list args);

[[noreturn]] void msg_fatal(const char* format, ...) QV_PRINTF(1, 2);
[[noreturn]] void msg_fatal_n(int32_t number, const char* format, ...) QV_PRINTF(2, 3);
void msg_error(const char* format, ...) QV_PRINTF(1, 2);
void msg_error_n(int32_t number, const char* format, ...) QV_PRINTF(2, 3);
void msg_warn(const char* format, ...) QV_PRINTF(1, 2);
void msg_warn_n(int32_t number, const char* format, ...) QV_PRINTF(2, 3);
void msg_info(const char* format, ...) QV_PRINTF(1, 2);
void msg_progress(const char* format, ...) QV_PRINTF(1, 2);
void msg_debug(const char* format, ...) QV_PRINTF(1, 2);
void msg_vdebug(const char* format, ...) QV_PRINTF(1, 2);

void msg_set_levels(uint32_t mask);
uint32_t msg_level_mask();
// True when a line of `level` would be printed (fatal always is). Lets callers skip work.
bool msg_level_enabled(uint32_t level);
uint32_t msg_class_mask(int id);
void msg_set_classes(int id, uint32_t mask);
void msg_defaults();
int msg_parse_class_list(uint32_t* out, const char* text);
void msg_set_colors(const char* text);

// Host number as the message layer prints it; 255 until the host layer has started.
void msg_set_host_number(uint32_t host);
uint32_t msg_host_number();

const char* msg_os_error_text();
const char* msg_error_text(int code);

using Msg_fatal_handler = void (*)(int);
Msg_fatal_handler msg_set_fatal_handler(Msg_fatal_handler handler);

using Msg_callback = void (*)(uint32_t level, const char* line, const char* text, int32_t number);
void qv_errorhandler(Msg_callback callback);

double* msg_timer_start();
void msg_timer_report(double* timer, const char* what);
void msg_timer_free(double* timer);

// The 1,372-byte record, also the wire format between hosts.
struct Msg_record {
    uint32_t type;          // 1 = text line, 2 = settings
    uint32_t level;         // type 1: level bit; type 2: level mask
    int32_t number;         // type 1: message number; type 2: zero
    char prefix[40];        // type 1: zero-terminated line prefix
    char text[1320];        // type 1: text; type 2: first 348 bytes hold the 87 class masks
};
static_assert(sizeof(Msg_record) == 1372, "message record is 1,372 bytes on the wire");

void msg_handle_remote(Msg_record* record, bool swap);
