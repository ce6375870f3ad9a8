// The message routine: filter, number, stamp, split and output one line; the fatal sequence.
//
// Everything a message needs lives on the caller's stack (about 10 KB, 18 KB for a fatal) apart
// from the log file name, which is filled once: no heap allocation happens per message, so they
// keep working while the memory manager is failing. No lock is taken; lines of two threads may
// interleave.
#include "runtime/msg.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "runtime/modules.h"
#include "runtime/msg_internal.h"
#include "runtime/msg_testing.h"

// Closes the host connections on a fatal; supplied by the thread layer when it is linked in.
extern void qv_msg_abort() __attribute__((weak));

namespace {

constexpr uint32_t HOST_ALL = 255;       // also the host number before the host layer starts
constexpr int TEXT_BUFFER_BYTES = 8192;
constexpr int FATAL_TEXT_OFFSET = 12;    // "MAIN fatal: " is laid under the text from here
constexpr useconds_t FATAL_SLEEP_MICROSECONDS = 30000;

// A slave's reader thread installs the master's settings while other threads test them:
// relaxed atomics, since a message tested against the old mask a moment longer is harmless.
std::atomic<uint32_t> g_level_mask{MSG_FATAL | MSG_ERROR | MSG_WARN};
uint32_t g_host = HOST_ALL;
std::atomic<uint32_t> g_class_masks[MODULE_TABLE_ROWS];

uint32_t level_mask() { return g_level_mask.load(std::memory_order_relaxed); }

void set_all_classes(uint32_t mask)
{
    for (auto& row : g_class_masks)
        row.store(mask, std::memory_order_relaxed);
}
bool g_defaults_done = false;

Msg_fatal_handler g_fatal_handler = exit;
Msg_callback g_callback = nullptr;
std::atomic<bool> g_fatal_seen{false};

// Set by the host layer's threads while others print.
std::atomic<bool> g_forwarding{false};
bool g_started_by_master = false;
std::atomic<Msg_send_hook> g_send_hook{nullptr};
Msg_abort_hook g_abort_hook = nullptr;
Msg_cleanup_hook g_frame_buffer_cleanup = nullptr;

enum Log_state { LOG_UNKNOWN, LOG_ON, LOG_OFF };
Log_state g_log_state = LOG_UNKNOWN;
char g_log_name[4096];

msg_detail::Console g_console;
int g_console_char_device_override = -1;

// The GAP and GEO families number their messages as GAPQV.
int numbering_module(int module)
{
    if (module == MOD_GEOQV || (module >= MOD_GAPAD && module <= MOD_GEOTE))
        return MOD_GAPQV;
    return module;
}

uint32_t class_mask_of(int module)
{
    if (module < 0 || module >= MODULE_TABLE_ROWS)
        return 0;
    return g_class_masks[module].load(std::memory_order_relaxed);
}

// Each item is written at its own fixed place of the zeroed field, so an overlong item is cut
// by the one that follows.
void build_prefix(char* prefix, const Thread_context* context, int module, const char* level_name,
                  int32_t caller_number, int32_t number)
{
    constexpr size_t SIZE = sizeof(Msg_record::prefix);
    std::memset(prefix, 0, SIZE);
    const char* name = module_name(module);
    if (g_host == HOST_ALL)
        snprintf(prefix, SIZE, "%-4.4s  ", name);
    else
        snprintf(prefix, SIZE, "%-4.4s%2d", name, int(g_host));
    if (context->thread_number >= THREAD_NUMBER_DETACHED)
        snprintf(prefix + 6, SIZE - 6, ".n  ");
    else
        snprintf(prefix + 6, SIZE - 6, ".%-3d", context->thread_number);
    snprintf(prefix + 10, SIZE - 10, "%-5s", level_name);
    if (caller_number != 0 && (class_mask_of(module) & MSG_CLASS_MSGCODE))
        snprintf(prefix + 15, SIZE - 15, "  %06d", number);
}

// prefix ": " text, as the log file and the callback get it.
void join_line(char* line, size_t size, const Msg_record* record)
{
    snprintf(line, size, "%s: %s", record->prefix, record->text);
}

int send_to_host(uint32_t host, const void* record, size_t length)
{
    Module_scope scope(MOD_LIB);
    return g_send_hook.load()(host, record, length);
}

void send_settings()
{
    if (g_host != 0 || !g_send_hook.load())
        return;
    Msg_record record;
    std::memset(&record, 0, sizeof record);
    record.type = 2;
    record.level = level_mask();
    uint32_t classes[MODULE_TABLE_ROWS];
    for (int id = 0; id < MODULE_TABLE_ROWS; ++id)
        classes[id] = class_mask_of(id);
    std::memcpy(record.text, classes, sizeof classes);
    send_to_host(HOST_ALL, &record, sizeof record);
}

void output(Msg_record* record, bool may_forward)
{
    char line[sizeof record->prefix + 2 + sizeof record->text];

    // Log file: when logging, the file is the only target.
    if (g_log_state == LOG_UNKNOWN)
        g_log_state = getenv("QV_LOGFILE") ? LOG_ON : LOG_OFF;
    if (g_log_state == LOG_ON) {
        join_line(line, sizeof line, record);
        msg_detail::log_write(line);
        return;
    }

    bool fatal = record->level == MSG_FATAL;
    if (may_forward && g_forwarding.load() && g_send_hook.load()) {
        // Master: a text record goes only up to its terminating zero.
        record->type = 1;
        size_t length = offsetof(Msg_record, text) + strlen(record->text) + 1;
        bool sent = send_to_host(0, record, length) != 0;
        if (!sent || fatal) {
            join_line(line, sizeof line, record);
            msg_detail::log_write(line);
        }
        if (!fatal)
            return;
    } else if (g_started_by_master) {
        // Such a process has no console.
        join_line(line, sizeof line, record);
        msg_detail::log_write(line);
        return;
    }

    if (g_callback) {
        join_line(line, sizeof line, record);
        g_callback(record->level, line, record->text, record->number);
        if (g_callback && !fatal)
            return;
    }

    msg_detail::Console& console = msg_detail::console();
    if (!console.valid)
        return;
    bool colored = msg_detail::colors_active();
    int level_index = msg_detail::level_index(record->level);
    if (colored)
        msg_detail::write_level_color(level_index);
    msg_detail::write_ignoring_errors(2, record->prefix, strlen(record->prefix));
    msg_detail::write_ignoring_errors(2, ": ", 2);
    msg_detail::write_ignoring_errors(2, record->text, strlen(record->text));
    msg_detail::write_ignoring_errors(2, "\n", 1);
    if (colored)
        msg_detail::write_restore_color();
}

[[noreturn]] void fatal_sequence(int module, const char* text)
{
    // "MAIN fatal:   " with the text laid over it from the 13th character.
    char fatal_line[FATAL_TEXT_OFFSET + TEXT_BUFFER_BYTES + 4];
    snprintf(fatal_line, sizeof fatal_line, "%-4.4s fatal:   ", module_name(module));
    snprintf(fatal_line + FATAL_TEXT_OFFSET, sizeof fatal_line - FATAL_TEXT_OFFSET, "%s", text);
    msg_detail::log_write(fatal_line);

    // Only the first fatal of the process tells the hosts and removes frame buffer files;
    // others go straight on.
    if (!g_fatal_seen.exchange(true)) {
        if (g_abort_hook)
            g_abort_hook(5);
        if (!getenv("QV_KEEP_FB") && g_frame_buffer_cleanup)
            g_frame_buffer_cleanup();
    }
    usleep(FATAL_SLEEP_MICROSECONDS);
    if (msg_detail::colors_active())
        msg_detail::write_restore_color();
    if (qv_msg_abort)
        qv_msg_abort();
    g_fatal_handler(1);
    exit(1);
}

}  // namespace

// ---- Internals shared with the other message files ----------------------------------------

namespace msg_detail {

Console& console()
{
    if (!g_console.known) {
        g_console.valid = fcntl(2, F_GETFL) != -1;
        g_console.char_device = g_console.valid && isatty(2);
        g_console.known = true;
    }
    if (g_console_char_device_override >= 0)
        g_console.char_device = g_console_char_device_override != 0;
    return g_console;
}

int level_index(uint32_t level)
{
    for (int i = 0; i < LEVEL_COUNT; ++i)
        if (level & (1u << i))
            return i;
    return LEVEL_COUNT;
}

void write_ignoring_errors(int fd, const void* data, size_t length)
{
    [[maybe_unused]] ssize_t written = write(fd, data, length);
}

void log_write(const char* line)
{
    if (!g_log_name[0]) {
        const char* name = getenv("QV_LOGFILE");
        if (name) {
            snprintf(g_log_name, sizeof g_log_name, "%s", name);
        } else {
            const char* temp = getenv("temp");
            snprintf(g_log_name, sizeof g_log_name, "%s/quovlib.log", temp ? temp : "");
        }
    }
    int fd = open(g_log_name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    [[maybe_unused]] int mode_result = fchmod(fd, 0666);

    // "%s.20: quovlib[%d] %s\n": the time text keeps its newline, so the record spans two lines.
    time_t now = time(nullptr);
    char when[64] = "";
    ctime_r(&now, when);
    const char* when_text = strlen(when) > 4 ? when + 4 : when;
    char head[128];
    int head_length = snprintf(head, sizeof head, "%s.20: quovlib[%d] ", when_text, int(getpid()));
    if (head_length < 0 || head_length >= int(sizeof head))
        head_length = int(strlen(head));
    iovec parts[3] = {{head, size_t(head_length)},
                      {const_cast<char*>(line), strlen(line)},
                      {const_cast<char*>("\n"), 1}};
    // One write per record, so records of several processes do not interleave.
    [[maybe_unused]] ssize_t written = writev(fd, parts, 3);
    close(fd);
}

}  // namespace msg_detail

// ---- The routine --------------------------------------------------------------------------

void msg_emit(uint32_t level, const char* level_name, int32_t number, const char* format, va_list args)
{
    Thread_context* context = qv_tls_context;
    if (!context)
        return;
    if (level != MSG_FATAL && !(level & level_mask()))
        return;

    // Number: (module * 10 + level) * 1000 + the caller's last three digits; fatal and error
    // share a class.
    int module = context->current_module;
    int level_index = msg_detail::level_index(level);
    int level_class = level_index == 0 ? 1 : level_index;
    int32_t full_number = (numbering_module(module) * 10 + level_class) * 1000 + number % 1000;

    char text[TEXT_BUFFER_BYTES];
    vsnprintf(text, sizeof text, format ? format : "", args);
    size_t length = 0;
    for (; text[length]; ++length)
        if (text[length] == '\n')
            text[length] = ' ';

    Msg_record record;
    record.type = 1;
    record.level = level;
    record.number = full_number;
    build_prefix(record.prefix, context, module, level_name, number, full_number);
    bool may_forward = !(context->thread_number >= THREAD_NUMBER_DETACHED && g_host == 0);

    // Pieces of MSG_PIECE_CHARS; every later piece starts with "...", every piece but the last
    // ends with it.
    size_t offset = 0;
    while (offset < length) {
        size_t used = 0;
        if (offset) {
            std::memcpy(record.text, "...", 3);
            used = 3;
        }
        size_t take = length - offset < size_t(MSG_PIECE_CHARS) ? length - offset : size_t(MSG_PIECE_CHARS);
        std::memcpy(record.text + used, text + offset, take);
        used += take;
        offset += take;
        if (offset < length) {
            std::memcpy(record.text + used, "...", 3);
            used += 3;
        }
        record.text[used] = 0;
        output(&record, may_forward);
    }

    if (level == MSG_FATAL)
        fatal_sequence(module, text);
}

// ---- Front functions ----------------------------------------------------------------------

#define QV_MSG_FRONT_PLAIN(name, level, level_name)                                              \
    void name(const char* format, ...)                                                           \
    {                                                                                            \
        va_list args;                                                                            \
        va_start(args, format);                                                                  \
        msg_emit(level, level_name, 0, format, args);                                            \
        va_end(args);                                                                            \
    }
#define QV_MSG_FRONT_NUMBERED(name, level, level_name)                                           \
    void name(int32_t number, const char* format, ...)                                           \
    {                                                                                            \
        va_list args;                                                                            \
        va_start(args, format);                                                                  \
        msg_emit(level, level_name, number, format, args);                                       \
        va_end(args);                                                                            \
    }

QV_MSG_FRONT_PLAIN(msg_error, MSG_ERROR, "error")
QV_MSG_FRONT_NUMBERED(msg_error_n, MSG_ERROR, "error")
QV_MSG_FRONT_PLAIN(msg_warn, MSG_WARN, "warn")
QV_MSG_FRONT_NUMBERED(msg_warn_n, MSG_WARN, "warn")
QV_MSG_FRONT_PLAIN(msg_info, MSG_INFO, "info")
QV_MSG_FRONT_PLAIN(msg_progress, MSG_PROGRESS, "progr")
QV_MSG_FRONT_PLAIN(msg_debug, MSG_DEBUG, "debug")
QV_MSG_FRONT_PLAIN(msg_vdebug, MSG_VDEBUG, "vdebg")

// msg_emit returns from a fatal only on a thread without a Thread_context, where it prints
// nothing; a fatal still must not return, so only the last two steps of the sequence run.
void msg_fatal(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    msg_emit(MSG_FATAL, "fatal", 0, format, args);
    va_end(args);
    g_fatal_handler(1);
    exit(1);
}

void msg_fatal_n(int32_t number, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    msg_emit(MSG_FATAL, "fatal", number, format, args);
    va_end(args);
    g_fatal_handler(1);
    exit(1);
}

// ---- Settings -----------------------------------------------------------------------------

void msg_set_levels(uint32_t mask)
{
    g_level_mask.store(mask, std::memory_order_relaxed);
    send_settings();
}

uint32_t msg_level_mask() { return level_mask(); }
bool msg_level_enabled(uint32_t level) { return level == MSG_FATAL || (level & level_mask()); }
uint32_t msg_class_mask(int id) { return class_mask_of(id); }

void msg_set_classes(int id, uint32_t mask)
{
    if (id == 0) {
        set_all_classes(mask);
    } else if (id > 0 && id < MODULE_TABLE_ROWS) {
        g_class_masks[id].store(mask, std::memory_order_relaxed);
    } else {
        return;
    }
    send_settings();
}

void msg_defaults()
{
    if (g_defaults_done)
        return;
    g_defaults_done = true;
    set_all_classes(MSG_CLASS_DEFAULT);
}

void msg_set_host_number(uint32_t host) { g_host = host; }
uint32_t msg_host_number() { return g_host; }

Msg_fatal_handler msg_set_fatal_handler(Msg_fatal_handler handler)
{
    if (!handler) {
        msg_warn("The fatal-handler must be set");
        return nullptr;
    }
    Msg_fatal_handler previous = g_fatal_handler;
    g_fatal_handler = handler;
    return previous;
}

void qv_errorhandler(Msg_callback callback)
{
    if (g_host != 0 && g_host != HOST_ALL) {
        msg_error_n(36, "qv_errorhandler can only be used on master");
        return;
    }
    g_callback = callback;
}

void msg_set_send_hook(Msg_send_hook hook) { g_send_hook.store(hook); }
void msg_set_forwarding(bool on) { g_forwarding.store(on); }
bool msg_forwarding() { return g_forwarding.load(); }
void msg_set_started_by_master(bool on) { g_started_by_master = on; }
void msg_set_abort_hook(Msg_abort_hook hook) { g_abort_hook = hook; }
void msg_set_frame_buffer_cleanup(Msg_cleanup_hook hook) { g_frame_buffer_cleanup = hook; }

// ---- Records from other hosts -------------------------------------------------------------

void msg_handle_remote_bytes(const void* bytes, size_t length, bool swap)
{
    if (length < 8)
        return;
    Msg_record record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(&record, bytes, std::min(length, sizeof record));
    msg_handle_remote(&record, swap);
}

void msg_handle_remote(Msg_record* record, bool swap)
{
    if (!record)
        return;
    if (swap) {
        record->type = __builtin_bswap32(record->type);
        record->level = __builtin_bswap32(record->level);
    }
    if (record->type == 1) {
        record->prefix[sizeof record->prefix - 1] = 0;
        record->text[sizeof record->text - 1] = 0;
        output(record, false);
    } else if (record->type == 2) {
        g_level_mask.store(record->level, std::memory_order_relaxed);
        uint32_t classes[MODULE_TABLE_ROWS];
        std::memcpy(classes, record->text, sizeof classes);
        for (int id = 0; id < MODULE_TABLE_ROWS; ++id) {
            uint32_t mask = swap ? __builtin_bswap32(classes[id]) : classes[id];
            g_class_masks[id].store(mask, std::memory_order_relaxed);
        }
    }
}

// ---- Test controls ------------------------------------------------------------------------

void msg_testing_reset_output()
{
    g_log_state = LOG_UNKNOWN;
    g_log_name[0] = 0;
    g_console = {};
    g_fatal_seen = false;
}

void msg_testing_set_console_char_device(int state) { g_console_char_device_override = state; }

void msg_testing_reset_all()
{
    msg_testing_reset_output();
    g_level_mask.store(MSG_FATAL | MSG_ERROR | MSG_WARN, std::memory_order_relaxed);
    set_all_classes(0);
    g_defaults_done = false;
    g_fatal_handler = exit;
    g_callback = nullptr;
    g_forwarding = false;
    g_started_by_master = false;
    g_send_hook = nullptr;
    g_abort_hook = nullptr;
    g_frame_buffer_cleanup = nullptr;
    g_console_char_device_override = -1;
    msg_detail::reset_colors_for_tests();
}
