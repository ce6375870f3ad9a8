#include "runtime/paths.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/registry.h"

namespace {

struct Rule {
    Rule* next;
    char* search;
    char* replace;
};

Rule* g_head;
Rule* g_tail;
bool g_started;

// Expanded text is built here: at most PATH_EXPAND_CHARS characters, the rest silently dropped.
struct Text_builder {
    char text[PATH_EXPAND_CHARS + 1];
    size_t length = 0;

    void put(char c)
    {
        if (length < PATH_EXPAND_CHARS)
            text[length++] = c;
    }
    void put(const char* s, size_t n)
    {
        for (size_t i = 0; i < n && length < PATH_EXPAND_CHARS; ++i)
            text[length++] = s[i];
    }
    void put(const char* s) { put(s, std::strlen(s)); }
    char* finish_copy()
    {
        text[length] = '\0';
        return mem_strdup(__FILE__, __LINE__, text);
    }
    const char* c_str()
    {
        text[length] = '\0';
        return text;
    }
};

bool is_name_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Matches `pattern` at the start of `subject`; on a match *matched is the number of subject
// characters it took. `$` anchors at the subject's end only; `?` takes any character; `[x-y]`
// takes one character in the range, compared as signed bytes.
bool match_at(const char* pattern, const char* subject, size_t* matched)
{
    size_t taken = 0;
    for (;;) {
        if (!*pattern) {
            *matched = taken;
            return true;
        }
        if (!subject[taken]) {
            if (*pattern != '$')
                return false;
            *matched = taken;
            return true;
        }
        char c = subject[taken];
        if (*pattern == '?') {
            ++pattern;
        } else if (*pattern == '[') {
            if (!pattern[1] || pattern[2] != '-' || !pattern[3] || pattern[4] != ']') {
                msg_error_n(44, "path substitution: incorrect [x-y] match syntax");
                return false;
            }
            auto low = static_cast<signed char>(pattern[1]);
            auto high = static_cast<signed char>(pattern[3]);
            auto value = static_cast<signed char>(c);
            if (value < low || value > high)
                return false;
            pattern += 5;
        } else {
            if (*pattern != c)
                return false;
            ++pattern;
        }
        ++taken;
    }
}

// One rule on `subject`, into `out`. A search led by ^ or a backquote matches at the start only.
void apply_rule(const Rule& rule, const char* subject, Text_builder& out)
{
    const char* search = rule.search;
    size_t matched = 0;
    if (*search == '^' || *search == '`') {
        if (match_at(search + 1, subject, &matched)) {
            out.put(rule.replace);
            out.put(subject + matched);
        } else {
            out.put(subject);
        }
        return;
    }
    const char* p = subject;
    while (*p) {
        // Inside the subject a match always takes a character (the search is never empty and
        // `$` is ordinary before the end); the test keeps the scan finite whatever comes.
        if (match_at(search, p, &matched) && matched > 0) {
            out.put(rule.replace);
            p += matched;
        } else {
            out.put(*p++);
        }
    }
}

// Reads one delimited string of rule text starting at *cursor; ESC pairs stay in the string
// (variable expansion turns them into the literal character later) but never end it.
// Returns the string, or null when the delimiter is missing.
char* read_delimited(const char** cursor, char delimiter)
{
    const char* start = *cursor;
    const char* p = start;
    while (*p && *p != delimiter) {
        if (*p == PATH_ESCAPE && p[1])
            ++p;
        ++p;
    }
    if (*p != delimiter)
        return nullptr;
    size_t length = size_t(p - start);
    auto* text = static_cast<char*>(mem_alloc(__FILE__, __LINE__, length + 1));
    std::memcpy(text, start, length);
    text[length] = '\0';
    *cursor = p + 1;
    return text;
}

void cut_rule_string(char* text)
{
    if (std::strlen(text) > PATH_RULE_CHARS)
        text[PATH_RULE_CHARS] = '\0';
}

// Forward slashes and a final slash.
void put_directory_form(Text_builder& out, const char* text)
{
    size_t start = out.length;
    for (const char* p = text; *p; ++p)
        out.put(*p == '\\' ? '/' : *p);
    if (out.length == start || out.text[out.length - 1] != '/')
        out.put('/');
}

FILE* open_link_table(char* name, size_t size)
{
    for (const char* variable : {"SI_LINKTAB_LOCATION", "SI_LOCATION"}) {
        const char* value = std::getenv(variable);
        if (!value)
            continue;
        std::snprintf(name, size, "%.1536s/linktab.ini", value);
        if (FILE* file = std::fopen(name, "r"))
            return file;
        std::snprintf(name, size, "%s", value);
        if (FILE* file = std::fopen(name, "r"))
            return file;
        return nullptr;  // the first variable that is set decides
    }
    return nullptr;
}

// Lines "NT-string UNIX-string"; this platform has no drive letters, so an NT string never
// finds a drive row and stands for itself in the replace text.
void read_link_table()
{
    char name[2048];
    FILE* file = open_link_table(name, sizeof name);
    if (!file)
        return;
    msg_info("reading link table file \"%s\"", name);
    char line[PATH_RULE_CHARS + 2];
    int line_number = 0;
    while (std::fgets(line, sizeof line, file)) {
        ++line_number;
        size_t length = std::strcspn(line, "\r\n");
        bool whole_line = line[length] != '\0' || std::feof(file);
        line[length] = '\0';
        if (!whole_line) {
            // Skip the rest of a line longer than the buffer.
            int c;
            while ((c = std::fgetc(file)) != EOF && c != '\n') {
            }
        }
        char* p = line;
        while (*p == ' ' || *p == '\t')
            ++p;
        if (!*p || *p == '#')
            continue;
        char* nt = p;
        while (*p && *p != ' ' && *p != '\t')
            ++p;
        if (*p)
            *p++ = '\0';
        while (*p == ' ' || *p == '\t')
            ++p;
        char* unix_name = p;
        while (*p && *p != ' ' && *p != '\t')
            ++p;
        *p = '\0';
        if (char* bang = std::strchr(nt, '!')) {
            if (bang == nt) {
                msg_debug("%s %d: missing NT string", name, line_number);
                continue;
            }
            if (!bang[1]) {
                msg_debug("%s %d: missing NT string after '!'", name, line_number);
                continue;
            }
            *bang = '\0';
            msg_debug("%s %d: no drive for \"%s\"", name, line_number, nt);
            *bang = '!';
        } else {
            msg_debug("%s %d: no drive for \"%s\"", name, line_number, nt);
        }
        if (!*unix_name) {
            msg_debug("%s %d: missing UNIX string", name, line_number);
            continue;
        }
        Text_builder search;
        put_directory_form(search, unix_name);
        Text_builder replace;
        put_directory_form(replace, nt);
        path_add_rule(search.finish_copy(), replace.finish_copy());
    }
    msg_debug("finished reading \"%s\"", name);
    std::fclose(file);
}

}  // namespace

char* path_expand_vars(const char* text)
{
    if (!text)
        return nullptr;
    Text_builder out;
    const char* p = text;
    while (*p) {
        if (*p == PATH_ESCAPE) {
            if (p[1])
                out.put(p[1]), p += 2;
            else
                ++p;
            continue;
        }
        char next = p[1];
        bool starts_variable = *p == '$' && (next == '{' || next == '_' || next == '?' ||
                                             std::isalnum(static_cast<unsigned char>(next)));
        if (!starts_variable) {
            out.put(*p++);
            continue;
        }
        ++p;
        bool braced = *p == '{';
        if (braced)
            ++p;
        bool ask_defined = *p == '?';
        if (ask_defined)
            ++p;
        const char* name_start = p;
        while (is_name_char(*p))
            ++p;
        char name[PATH_EXPAND_CHARS + 1];
        size_t name_length = std::min(size_t(p - name_start), PATH_EXPAND_CHARS);
        std::memcpy(name, name_start, name_length);
        name[name_length] = '\0';
        if (braced) {
            if (*p != '}') {
                msg_error_n(39, "path substitution: unterminated $var name \"%s\"", name);
                return out.finish_copy();
            }
            ++p;
        }
        const char* value = std::getenv(name);
        if (ask_defined) {
            if (value)
                out.put('1');
        } else if (!value) {
            msg_error_n(40, "path substitution: undefined $var \"%s\"", name);
            return out.finish_copy();
        } else {
            out.put(value);
        }
    }
    return out.finish_copy();
}

void path_add_rule(char* search, char* replace)
{
    auto* rule = static_cast<Rule*>(mem_alloc(__FILE__, __LINE__, sizeof(Rule)));
    cut_rule_string(search);
    cut_rule_string(replace);
    rule->next = nullptr;
    rule->search = search;
    rule->replace = replace;
    if (g_tail)
        g_tail->next = rule;
    else
        g_head = rule;
    g_tail = rule;
}

void path_parse_rules(const char* text)
{
    if (!text)
        return;
    const char* p = text;
    for (;;) {
        while (*p == ' ' || *p == '\t')
            ++p;
        if (!*p)
            return;
        char delimiter = *p++;
        const char* search_start = p;
        char* search = read_delimited(&p, delimiter);
        if (search && !*search) {
            mem_free(__FILE__, __LINE__, search);
            msg_error_n(41, "path substitution: null search string");
            return;
        }
        if (!search) {
            // An empty search that is also unterminated is empty first.
            if (!*search_start) {
                msg_error_n(41, "path substitution: null search string");
                return;
            }
            msg_error_n(42, "path substitution: unterminated search string");
            return;
        }
        char* replace = read_delimited(&p, delimiter);
        if (!replace) {
            mem_free(__FILE__, __LINE__, search);
            msg_error_n(43, "path substitution: unterminated replace string");
            return;
        }
        char* search_expanded = path_expand_vars(search);
        char* replace_expanded = path_expand_vars(replace);
        mem_free(__FILE__, __LINE__, search);
        mem_free(__FILE__, __LINE__, replace);
        msg_debug("substitute: add rule: %s -> %s", search_expanded, replace_expanded);
        path_add_rule(search_expanded, replace_expanded);
    }
}

void path_clear_rules()
{
    Rule* rule = g_head;
    while (rule) {
        Rule* next = rule->next;
        mem_free(__FILE__, __LINE__, rule->search);
        mem_free(__FILE__, __LINE__, rule->replace);
        mem_free(__FILE__, __LINE__, rule);
        rule = next;
    }
    g_head = g_tail = nullptr;
    g_started = false;
}

void path_start()
{
    if (g_started)
        return;
    path_clear_rules();
    g_started = true;
    // No drive letters here: the drive table stays empty and makes no rules.
    msg_debug("substitute: NT drive table:");
    const char* text = std::getenv("QV_RAY_SUBSTITUTE");
    if (!text)
        text = "";  // names are already native on this platform
    msg_debug("parsing $QV_RAY_SUBSTITUTE = \"%s\"", text);
    path_parse_rules(text);
    msg_debug("finished parsing $QV_RAY_SUBSTITUTE");
    read_link_table();
}

char* path_apply_rules(const char* path)
{
    if (!path)
        return nullptr;
    msg_debug("substitute: apply to %s", path);
    char* current = path_expand_vars(path);
    bool changed = false;
    for (const Rule* rule = g_head; rule; rule = rule->next) {
        Text_builder out;
        apply_rule(*rule, current, out);
        const char* result = out.c_str();
        if (std::strcmp(result, current) == 0)
            continue;
        msg_debug("substitute: %s -> %s", current, result);
        mem_free(__FILE__, __LINE__, current);
        current = out.finish_copy();
        changed = true;
    }
    Thread_context* context = thread_context();
    int module = context ? context->current_module : MOD_MSG;
    if (changed && (msg_class_mask(module) & MSG_CLASS_FILES))
        msg_info("substitute: %s -> %s", path, current);
    return current;
}

char* path_substitute_raw(char* out, const char* path, size_t size, bool expand_registry)
{
    if (!out || size == 0)
        return out;
    path_start();
    char* rewritten = path_apply_rules(path ? path : "");
    size_t length = std::strlen(rewritten);
    if (length >= size) {
        msg_error_n(38, "path substitution: path too long: %s", rewritten);
        length = size - 1;
    }
    std::memcpy(out, rewritten, length);
    out[length] = '\0';
    mem_free(__FILE__, __LINE__, rewritten);
    if (expand_registry) {
        char* expanded = registry_lookup(out, 1);
        if (!expanded) {
            out[0] = '\0';
        } else {
            size_t n = std::strlen(expanded);
            if (n >= size)
                n = size - 1;
            std::memcpy(out, expanded, n);
            out[n] = '\0';
            mem_free(__FILE__, __LINE__, expanded);
        }
    }
    return out;
}

char* path_substitute(char* out, const char* path, size_t size)
{
    return path_substitute_raw(out, path, size, true);
}

char* path_temp_directory(char* out, size_t size)
{
    if (!out || size == 0)
        return out;
    const char* directory = ".";
    for (const char* variable : {"TMPDIR", "TMP", "TEMP"}) {
        if (const char* value = std::getenv(variable)) {
            directory = value;
            break;
        }
    }
    std::snprintf(out, size, "%s/", directory);
    return out;
}
