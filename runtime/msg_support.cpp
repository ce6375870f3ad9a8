// Services around the message routine: the class list syntax, OS error texts and timers.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {

struct Class_keyword {
    const char* name;
    uint32_t mask;
};

// Lookups stop at the first row that matches, so the second "none" never wins; it still shows
// in the error text.
const Class_keyword g_class_keywords[] = {
    {"none", MSG_CLASS_NONE},         {"default", MSG_CLASS_DEFAULT},
    {"all", MSG_CLASS_ALL},           {"none", MSG_CLASS_NONE},
    {"phase", MSG_CLASS_PHASE},       {"progress", MSG_CLASS_PROGRESS},
    {"vprogress", MSG_CLASS_VPROGRESS}, {"time", MSG_CLASS_TIME},
    {"scene", MSG_CLASS_SCENE},       {"memory", MSG_CLASS_MEMORY},
    {"render", MSG_CLASS_RENDER},     {"vrender", MSG_CLASS_VRENDER},
    {"resources", MSG_CLASS_RESOURCES}, {"network", MSG_CLASS_NETWORK},
    {"files", MSG_CLASS_FILES},       {"debug", MSG_CLASS_DEBUG},
    {"msgcode", MSG_CLASS_MSGCODE},   {"msgtrans", MSG_CLASS_MSGTRANS},
    {"tessellate", MSG_CLASS_TESSELLATE},
};

constexpr size_t ERROR_TEXT_BYTES = 256;
constexpr size_t ERROR_TEXT_MARGIN = 14;

// Finds the mask of a class list item; false when it is neither a bit number nor a keyword
// prefix.
bool item_mask(const char* item, size_t length, uint32_t* mask)
{
    if (item[0] >= '0' && item[0] <= '9') {
        char digits[16];
        if (length >= sizeof digits)
            return false;
        std::memcpy(digits, item, length);
        digits[length] = 0;
        long bit = strtol(digits, nullptr, 10);
        if (bit < 0 || bit > 31)
            return false;
        *mask = 1u << bit;
        return true;
    }
    for (const Class_keyword& keyword : g_class_keywords) {
        if (strncmp(item, keyword.name, length) == 0) {
            *mask = keyword.mask;
            return true;
        }
    }
    return false;
}

void report_invalid_class_list()
{
    char text[512];
    size_t used = size_t(snprintf(text, sizeof text, "invalid message list, use 0..31"));
    for (const Class_keyword& keyword : g_class_keywords)
        if (used < sizeof text)
            used += size_t(snprintf(text + used, sizeof text - used, ",%s", keyword.name));
    msg_error_n(48, "%s", text);
}

double now_seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

}  // namespace

int msg_parse_class_list(uint32_t* out, const char* text)
{
    Module_scope scope(MOD_LIB);
    *out = 0;
    if (!text)
        return 1;
    const char* item = text;
    while (*item) {
        if (*item == ',') {
            ++item;
            continue;
        }
        size_t length = strcspn(item, ",");
        const char* next = item + length;
        bool removal = strchr("-!~", *item) != nullptr;
        if (removal) {
            ++item;
            --length;
        }
        uint32_t mask;
        if (!item_mask(item, length, &mask)) {
            report_invalid_class_list();
            return 0;
        }
        if (removal)
            *out &= ~mask;
        else
            *out |= mask;
        item = next;
    }
    return 1;
}

const char* msg_error_text(int code)
{
    // A thread the system does not know has no record to keep a buffer in: it gets one of its
    // own that lives as long as the thread.
    static thread_local char foreign_thread_buffer[ERROR_TEXT_BYTES];
    char* buffer = foreign_thread_buffer;
    if (Thread_context* context = thread_context()) {
        if (!context->error_text)
            context->error_text = static_cast<char*>(mem_raw_alloc(__FILE__, __LINE__, ERROR_TEXT_BYTES));
        buffer = context->error_text;
    }

    const char* system_text = strerrordesc_np(code);
    if (!system_text) {
        snprintf(buffer, ERROR_TEXT_BYTES, "unknown error code %d, check Win32 manual", code);
        return buffer;
    }
    size_t length = strlen(system_text);
    if (length + ERROR_TEXT_MARGIN > ERROR_TEXT_BYTES) {
        snprintf(buffer, ERROR_TEXT_BYTES, "text for error code %d is too long", code);
        return buffer;
    }
    // The system's table here carries no line end; strip one only if it is there.
    while (length && (system_text[length - 1] == '\n' || system_text[length - 1] == '\r'))
        --length;
    std::memcpy(buffer, system_text, length);
    buffer[length] = 0;
    return buffer;
}

const char* msg_os_error_text() { return msg_error_text(errno); }

double* msg_timer_start()
{
    auto* timer = static_cast<double*>(mem_raw_alloc(__FILE__, __LINE__, sizeof(double)));
    *timer = now_seconds();
    return timer;
}

void msg_timer_report(double* timer, const char* what)
{
    Thread_context* context = thread_context();
    if (!timer || !context || !(msg_class_mask(context->current_module) & MSG_CLASS_TIME))
        return;
    int hundredths = int((now_seconds() - *timer) * 100.0);
    char elapsed[32];
    snprintf(elapsed, sizeof elapsed, "%2d:%02d:%02d.%02d", hundredths / 360000, hundredths / 6000 % 60,
             hundredths / 100 % 60, hundredths % 100);
    bool total = what && strcmp(what, "total") == 0;
    msg_info("wallclock %s %s%s", elapsed, total ? "" : "for ", what ? what : "");
    msg_info("allocated %u MB, max resident %u MB", unsigned(mem_current_bytes() >> 20),
             unsigned(mem_peak_bytes() >> 20));
}

void msg_timer_free(double* timer) { mem_raw_free(__FILE__, __LINE__, timer); }
