// Capability lists that hosts compare, and small process-wide answers.
#include <cstdlib>
#include <cstring>

#include "runtime/msg.h"
#include "runtime/threads.h"

namespace {

// "|name|name", at most CAPABILITY_LIST_CHARS - 1 characters and the terminating zero.
char g_local[CAPABILITY_LIST_CHARS];
char g_remote[CAPABILITY_LIST_CHARS];

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_quote(char c) { return c == '"' || c == '\''; }

}  // namespace

void capability_register(const char* name)
{
    Module_scope scope(MOD_MSG);
    if (!name)
        return;
    msg_debug("register capability: %s", name);
    size_t used = std::strlen(g_local);
    size_t length = std::strlen(name);
    // The list, its new | and the name must leave room for the terminating zero.
    if (used + 1 + length >= size_t(CAPABILITY_LIST_CHARS)) {
        msg_error_n(20, "capability overflow: %s", name);
        return;
    }
    char* out = g_local + used;
    *out++ = '|';
    for (size_t i = 0; i < length; ++i)
        *out++ = name[i] == '|' ? '#' : name[i];
    *out = '\0';
}

int capability_check_remote(const char* list)
{
    Module_scope scope(MOD_MSG);
    if (!list)
        list = "";
    msg_debug("remote capabilities %s", list);
    const char* cursor = g_local;
    while (*cursor == '|') {
        const char* name = cursor + 1;
        const char* end = std::strchr(name, '|');
        size_t length = end ? size_t(end - name) : std::strlen(name);
        char wanted[CAPABILITY_LIST_CHARS];
        std::memcpy(wanted, name, length);
        wanted[length] = '\0';
        if (!std::strstr(list, wanted)) {
            msg_error_n(21, "missing capability %s", wanted);
            return 0;
        }
        cursor = name + length;
    }
    return 1;
}

bool capability_has_remote(const char* name)
{
    if (!name)
        return false;
    char wanted[CAPABILITY_LIST_CHARS + 1];
    size_t length = std::strlen(name);
    if (length >= CAPABILITY_LIST_CHARS - 1)
        return false;
    wanted[0] = '|';
    std::memcpy(wanted + 1, name, length + 1);
    return std::strstr(g_remote, wanted) != nullptr;
}

void capability_set_remote(const char* list)
{
    if (!list)
        list = "";
    std::strncpy(g_remote, list, CAPABILITY_LIST_CHARS - 1);
    g_remote[CAPABILITY_LIST_CHARS - 1] = '\0';
}

void capability_copy_local_to_remote() { std::memcpy(g_remote, g_local, sizeof g_remote); }
const char* capability_local_list() { return g_local; }
const char* capability_remote_list() { return g_remote; }

bool sse_allowed()
{
    static const bool allowed = std::getenv("QV_NO_SSE") == nullptr;
    return allowed;
}

char* option_token(char** cursor)
{
    if (!cursor || !*cursor)
        return nullptr;
    char* p = *cursor;
    while (is_blank(*p))
        ++p;
    if (!*p) {
        *cursor = p;
        return nullptr;
    }
    char quote = 0;
    if (is_quote(*p)) {
        quote = *p;
        *p++ = ' ';
    }
    char* token = p;
    for (;;) {
        if (!*p) {
            *cursor = p;
            return token;
        }
        if (quote ? *p == quote : is_quote(*p)) {
            // The quote becomes a blank and starts or ends a quoted stretch.
            quote = quote ? 0 : *p;
            *p = ' ';
            if (!quote && (p[1] == '\0' || is_blank(p[1]))) {
                *p = '\0';
                *cursor = p + 1;
                return token;
            }
        } else if (!quote && is_blank(*p)) {
            *p = '\0';
            *cursor = p + 1;
            return token;
        }
        ++p;
    }
}

bool option_scan_threads(char* command, int* threads)
{
    char* cursor = command;
    bool taken = false;
    while (char* token = option_token(&cursor)) {
        if (std::strcmp(token, "-threads") != 0)
            continue;
        char* value = option_token(&cursor);
        if (!value)
            break;
        int n = std::atoi(value);
        if (n >= 1 && threads) {
            *threads = n;
            taken = true;
        }
    }
    return taken;
}
