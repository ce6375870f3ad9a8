// First cut of the message layer; being completed (numbering, splitting, log file, colours).
#include "runtime/msg.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "runtime/modules.h"

namespace {
uint32_t g_level_mask = 7;
uint32_t g_host = 255;
uint32_t g_class_masks[MODULE_TABLE_ROWS];
}  // namespace

void msg_emit(uint32_t level, const char* level_name, int32_t, const char* format, va_list args)
{
    Thread_context* context = thread_context();
    if (!context)
        return;
    if (level != MSG_FATAL && !(level & g_level_mask))
        return;
    char text[8192];
    vsnprintf(text, sizeof text, format, args);
    char prefix[40] = {0};
    if (g_host == 255)
        snprintf(prefix, sizeof prefix, "%-4.4s  ", module_name(context->current_module));
    else
        snprintf(prefix, sizeof prefix, "%-4.4s%2d", module_name(context->current_module), int(g_host));
    snprintf(prefix + 6, sizeof prefix - 6, ".%-3d", context->thread_number);
    snprintf(prefix + 10, sizeof prefix - 10, "%-5s", level_name);
    if (text[0])
        fprintf(stderr, "%s: %s\n", prefix, text);
    if (level == MSG_FATAL)
        exit(1);
}

#define QV_MSG_FRONT(name, level, level_name)                                                    \
    void name(const char* format, ...)                                                           \
    {                                                                                            \
        va_list args;                                                                            \
        va_start(args, format);                                                                  \
        msg_emit(level, level_name, 0, format, args);                                            \
        va_end(args);                                                                            \
    }                                                                                            \
    void name##_n(int32_t number, const char* format, ...)                                       \
    {                                                                                            \
        va_list args;                                                                            \
        va_start(args, format);                                                                  \
        msg_emit(level, level_name, number, format, args);                                       \
        va_end(args);                                                                            \
    }
QV_MSG_FRONT(msg_error, MSG_ERROR, "error")
QV_MSG_FRONT(msg_warn, MSG_WARN, "warn")

void msg_fatal(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    msg_emit(MSG_FATAL, "fatal", 0, format, args);
    va_end(args);
    exit(1);
}
void msg_fatal_n(int32_t number, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    msg_emit(MSG_FATAL, "fatal", number, format, args);
    va_end(args);
    exit(1);
}
#define QV_MSG_PLAIN(name, level, level_name)                                                    \
    void name(const char* format, ...)                                                           \
    {                                                                                            \
        va_list args;                                                                            \
        va_start(args, format);                                                                  \
        msg_emit(level, level_name, 0, format, args);                                            \
        va_end(args);                                                                            \
    }
QV_MSG_PLAIN(msg_info, MSG_INFO, "info")
QV_MSG_PLAIN(msg_progress, MSG_PROGRESS, "progr")
QV_MSG_PLAIN(msg_debug, MSG_DEBUG, "debug")
QV_MSG_PLAIN(msg_vdebug, MSG_VDEBUG, "vdebg")

void msg_set_levels(uint32_t mask) { g_level_mask = mask; }
uint32_t msg_level_mask() { return g_level_mask; }
bool msg_level_enabled(uint32_t level) { return level == MSG_FATAL || (level & g_level_mask); }
uint32_t msg_class_mask(int id) { return (id >= 0 && id < MODULE_TABLE_ROWS) ? g_class_masks[id] : 0; }
void msg_set_classes(int id, uint32_t mask)
{
    if (id == 0)
        for (auto& row : g_class_masks)
            row = mask;
    else if (id > 0 && id < MODULE_TABLE_ROWS)
        g_class_masks[id] = mask;
}
void msg_set_host_number(uint32_t host) { g_host = host; }
uint32_t msg_host_number() { return g_host; }

// ---- first-cut placeholders, replaced by the complete message layer ----
void msg_defaults() { msg_set_classes(0, MSG_CLASS_DEFAULT); }
void msg_handle_remote(Msg_record*, bool) {}
