// The message layer: every line the system prints goes through msg_emit.
//
// A line is stamped with the current module, host and thread, numbered by module and level,
// split at 1,313 characters and sent to the log file, a callback or the console. Messages work
// before anything else has started and never allocate from the heap. On a thread without a
// Thread_context nothing is printed, not even a fatal line.
#pragma once

#include <cstdarg>
#include <cstddef>
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

// Stores the level mask; on the master (host 0) also sends the settings to all hosts.
void msg_set_levels(uint32_t mask);
uint32_t msg_level_mask();
// True when a line of `level` would be printed (fatal always is). Lets callers skip work.
bool msg_level_enabled(uint32_t level);
uint32_t msg_class_mask(int id);
// Sets the class mask of module `id`; 0 sets all 87 rows. On the master also sends the settings.
void msg_set_classes(int id, uint32_t mask);
// Every class mask to MSG_CLASS_DEFAULT; runs once per process.
void msg_defaults();
// Parses "item,item,..." (keyword prefixes or bit numbers, '-', '!' or '~' to remove) into *out.
// Returns 1 on success; 0 after error 48 for an unknown item.
int msg_parse_class_list(uint32_t* out, const char* text);
// "off"/"-"/"f"/"0": colours off; "on"/"t"/"1": on with the built-in table; otherwise colour
// letters [.rgbcmyk] for levels 0, 1, ... in turn (warning 18 for others).
void msg_set_colors(const char* text);

// Host number as the message layer prints it; 255 until the host layer has started.
void msg_set_host_number(uint32_t host);
uint32_t msg_host_number();

// Text of the thread's last OS error (errno) or of `code`, in a 256-byte buffer owned by the
// calling thread; valid until the thread's next call.
const char* msg_os_error_text();
const char* msg_error_text(int code);

// The fatal handler runs last in the fatal sequence, with 1; exit(1) follows if it returns.
// Returns the previous handler. Null is refused with a warning and gives null. The default is
// exit. Tests may install one that throws or longjmps.
using Msg_fatal_handler = void (*)(int);
Msg_fatal_handler msg_set_fatal_handler(Msg_fatal_handler handler);

// A callback that gets every line (level bit, whole line, bare text, number); while it is
// installed, non-fatal lines do not reach the console. Master only (host 0 or 255); elsewhere
// error 36 and nothing changes. Null removes it.
using Msg_callback = void (*)(uint32_t level, const char* line, const char* text, int32_t number);
void qv_errorhandler(Msg_callback callback);

// A timer is one double of seconds from the monotonic clock. msg_timer_report prints the
// "wallclock" and "allocated" info lines when the current module's class mask has "time".
double* msg_timer_start();
void msg_timer_report(double* timer, const char* what);
void msg_timer_free(double* timer);

// The 1,372-byte record, also the wire format between hosts.
struct Msg_record {
    uint32_t type;          // 0: 1 = text line, 2 = settings
    uint32_t level;         // 4: type 1: level bit; type 2: level mask
    int32_t number;         // 8: type 1: message number; type 2: zero
    char prefix[40];        // 12: type 1: zero-terminated line prefix, zero-filled
    char text[1320];        // 52: type 1: text; type 2: first 348 bytes hold the 87 class masks
};
static_assert(sizeof(Msg_record) == 1372, "message record is 1,372 bytes on the wire");
static_assert(offsetof(Msg_record, number) == 8 && offsetof(Msg_record, prefix) == 12 &&
              offsetof(Msg_record, text) == 52, "message record layout is the wire format");

// Longest piece of text in one line; longer texts go out in several lines joined by "...".
constexpr int MSG_PIECE_CHARS = 1313;

// The handler registered under module LIB with the host layer: a type 1 record is output as a
// line that is not forwarded again; a type 2 record takes over the level mask and the 87 class
// masks. With `swap` the first two words (and for type 2 each class mask) are byte-turned first.
void msg_handle_remote(Msg_record* record, bool swap);
// The same for `length` received bytes: a text record comes only up to its terminating zero, so
// the bytes are first laid into a whole, zeroed record. Fewer than 8 bytes are ignored.
void msg_handle_remote_bytes(const void* bytes, size_t length, bool swap);

// ---- Hooks for the host layer ------------------------------------------------------------
// Until a host layer sets them, nothing is forwarded and the fatal sequence tells no one.

// Sends `length` bytes of a record to `host` (255 = all hosts); non-zero on success. Called
// inside Module_scope LIB.
using Msg_send_hook = int (*)(uint32_t host, const void* record, size_t length);
void msg_set_send_hook(Msg_send_hook hook);
// When on (and a send hook is set), lines go to the master instead of the console.
void msg_set_forwarding(bool on);
bool msg_forwarding();
// A slave started by a master has no console: its lines go to the log file.
void msg_set_started_by_master(bool on);
// Called once, with 5, by the first fatal message of the process.
using Msg_abort_hook = void (*)(int value);
void msg_set_abort_hook(Msg_abort_hook hook);
// Removes memory-mapped frame buffer files on the first fatal, unless QV_KEEP_FB is set.
using Msg_cleanup_hook = void (*)();
void msg_set_frame_buffer_cleanup(Msg_cleanup_hook hook);

// ---- Faults and console signals ------------------------------------------------------------
// Installs process-wide handlers: a fault (SIGSEGV, SIGBUS, SIGILL, SIGFPE) ends in fatal 500
// "interrupted by exception code", an interrupt or termination (SIGINT, SIGQUIT, SIGHUP,
// SIGTERM) in fatal 503 "interrupted by console signal:". The host layer start calls it unless
// asked not to catch exceptions.
void msg_install_signal_handlers();
// Name of a fault by signal number and si_code ("access violation", ..., "unknown").
const char* msg_exception_name(int signal_number, int signal_code);
// Name of a console signal ("control c", ...); null for a signal that only restores colours.
const char* msg_console_signal_name(int signal_number);

// ---- Colour state (reads) -----------------------------------------------------------------
// Attribute of level index 0..6 in the console's colour codes (0x8 black .. 0xe yellow; 0 is
// the console's own colour); whether colours are on.
uint16_t msg_color_attribute(int level_index);
bool msg_colors_on();
