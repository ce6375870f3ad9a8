#include "runtime/registry.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/locks.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace {

struct Pair {
    Pair* next;
    char* key;
    char* text;
};

struct Entry {
    Entry* chain;      // next record of the same bucket
    char* name;
    Pair* first;
    Pair* last;
    Pair* value_pair;  // the first pair whose key is "value"
};

constexpr int BUCKETS = 509;
constexpr const char* MODE_KEYS[8] = {"value", "value", "link", "code", "qv", "spdl", "echo", "system"};

std::atomic<bool> g_started;
Lock g_lock;
Entry** g_table;  // BUCKETS chains
Registry_link_hook g_link_hook;
Registry_read_hook g_read_hook;
// Stands in for the LIB context area on a thread whose context has none.
thread_local Lib_context_area t_fallback_area;

char* copy_string(const char* text) { return mem_strdup(__FILE__, __LINE__, text ? text : ""); }

unsigned bucket_of(const char* name)
{
    unsigned hash = 2166136261u;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p)
        hash = (hash ^ *p) * 16777619u;
    return hash % BUCKETS;
}

// REQUIRES: g_lock held.
Entry* find_entry(const char* name)
{
    for (Entry* entry = g_table[bucket_of(name)]; entry; entry = entry->chain)
        if (std::strcmp(entry->name, name) == 0)
            return entry;
    return nullptr;
}

void free_pairs(Pair* pair)
{
    while (pair) {
        Pair* next = pair->next;
        mem_free(__FILE__, __LINE__, pair->key);
        mem_free(__FILE__, __LINE__, pair->text);
        mem_free(__FILE__, __LINE__, pair);
        pair = next;
    }
}

void free_entry(Entry* entry)
{
    free_pairs(entry->first);
    mem_free(__FILE__, __LINE__, entry->name);
    mem_free(__FILE__, __LINE__, entry);
}

Lib_context_area* lib_area()
{
    if (auto* area = static_cast<Lib_context_area*>(mod_context_area(MOD_LIB)))
        return area;
    return &t_fallback_area;
}

bool is_system_name(const char* name) { return name[0] && name[1] == '_'; }

// The output of one expansion: REGISTRY_OUTPUT_CHARS characters and the zero, on the heap so
// that nesting through values and actions does not eat the stack.
struct Output {
    char* text;
    int length = 0;
    Output() : text(static_cast<char*>(mem_alloc(__FILE__, __LINE__, REGISTRY_OUTPUT_CHARS + 1))) {}
    ~Output() { mem_free(__FILE__, __LINE__, text); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    bool put(char c)
    {
        if (length >= REGISTRY_OUTPUT_CHARS)
            return false;
        text[length++] = c;
        return true;
    }
    bool put(const char* s)
    {
        for (; *s; ++s)
            if (!put(*s))
                return false;
        return true;
    }
};

char* expand(const char* text, int mode, int depth, bool* failed);

char* expand_for_action(const char* text)
{
    bool failed = false;
    return expand(text, 1, 0, &failed);
}

void run_action(const char* name, const char* key, const char* text)
{
    if (!key || !text)
        return;
    Lib_context_area* area = lib_area();
    if (area->action_stop)
        return;
    if (area->lookup_depth > REGISTRY_MAX_ACTION_DEPTH) {
        msg_error_n(28, "infinite registry lookup loop near %s in %s, stop", name, text);
        // An action text that names its entry twice would otherwise fan out 2^128 times:
        // the whole chain stops, not only its deepest step.
        area->action_stop = 1;
        return;
    }
    int32_t* depth = &area->lookup_depth;
    ++*depth;
    if (std::strcmp(key, "link") == 0 || std::strcmp(key, "code") == 0) {
        msg_debug("registry %s links %s", name, text);
        if (g_link_hook)
            g_link_hook(text, key[0] == 'c');
    } else if (std::strcmp(key, "qv") == 0) {
        if (char* file = expand_for_action(text)) {
            msg_debug("registry %s reads %s", name, file);
            if (g_read_hook)
                g_read_hook(file);
            mem_free(__FILE__, __LINE__, file);
        }
    } else if (std::strcmp(key, "echo") == 0) {
        if (char* line = expand_for_action(text)) {
            msg_info("%s", line);
            mem_free(__FILE__, __LINE__, line);
        }
    } else if (std::strcmp(key, "system") == 0) {
        if (char* command = expand_for_action(text)) {
            msg_debug("registry %s execs %s", name, command);
            int status = std::system(command);
            if ((status >> 8) & 0xff)
                msg_warn_n(7, "system \"%s\" failed", command);
            mem_free(__FILE__, __LINE__, command);
        }
    }
    if (--*depth == 0)
        area->action_stop = 0;
}

// Expands `text` at recursion `depth`. Null with *failed set after an error; null with *failed
// clear when the result is empty.
char* expand(const char* text, int mode, int depth, bool* failed)
{
    const int base = mode == 1 ? 800 : 0;
    Output out;
    const char* p = text;
    while (*p) {
        if (*p != '{') {
            // "}}" stands for one closing brace.
            if (*p == '}' && p[1] == '}')
                ++p;
            if (!out.put(*p)) {
                msg_error_n(base + 20, "%s: overflow at %s", text, p);
                *failed = true;
                return nullptr;
            }
            ++p;
            continue;
        }
        if (p[1] == '{') {
            if (!out.put('{')) {
                msg_error_n(base + 20, "%s: overflow at %s", text, p);
                *failed = true;
                return nullptr;
            }
            p += 2;
            continue;
        }
        // A name runs from this brace to the closing one, braces included.
        const char* close = p + 1;
        while (*close && *close != '}' && *close != '{')
            ++close;
        if (!*close) {
            msg_error_n(base + 22, "%s: closing '}' is missing", text);
            *failed = true;
            return nullptr;
        }
        if (*close == '{') {
            msg_error_n(base + 21, "%s: nested '{' not allowed", text);
            *failed = true;
            return nullptr;
        }
        size_t name_length = size_t(close - p) + 1;
        char* name = static_cast<char*>(mem_alloc(__FILE__, __LINE__, name_length + 1));
        std::memcpy(name, p, name_length);
        name[name_length] = '\0';
        const char* after = close + 1;

        if (name[1] == '$') {
            // {$VAR}: the environment.
            name[name_length - 1] = '\0';
            const char* value = std::getenv(name + 2);
            if (!value) {
                msg_error_n(base + 23, "%s: %s is undefined", text, name + 2);
                value = "";
            }
            bool fits = out.put(value);
            if (!fits) {
                msg_error_n(base + 24, "%s: overflow at '%s'", text, name + 2);
                mem_free(__FILE__, __LINE__, name);
                *failed = true;
                return nullptr;
            }
            mem_free(__FILE__, __LINE__, name);
            p = after;
            continue;
        }

        // Look the entry up under the lock; actions run without it.
        bool found = false;
        char* entry_text = nullptr;
        Pair* copies = nullptr;
        {
            Lock_holder hold(g_lock);
            if (Entry* entry = find_entry(name)) {
                found = true;
                const Pair* source = nullptr;
                if (mode <= 1) {
                    source = entry->value_pair;
                } else {
                    for (const Pair* pair = entry->first; pair; pair = pair->next)
                        if (std::strcmp(pair->key, MODE_KEYS[mode]) == 0) {
                            source = pair;
                            break;
                        }
                }
                if (source)
                    entry_text = copy_string(source->text);
                if (mode == 1) {
                    Pair** tail = &copies;
                    for (const Pair* pair = entry->first; pair; pair = pair->next) {
                        auto* copy = static_cast<Pair*>(mem_alloc(__FILE__, __LINE__, sizeof(Pair)));
                        copy->next = nullptr;
                        copy->key = copy_string(pair->key);
                        copy->text = copy_string(pair->text);
                        *tail = copy;
                        tail = &copy->next;
                    }
                }
            }
        }
        for (const Pair* pair = copies; pair; pair = pair->next)
            run_action(name, pair->key, pair->text);
        free_pairs(copies);

        if (!found) {
            if (is_system_name(name))
                msg_debug("%s: registry entry %s not found", text, name);
            else
                msg_error_n(base + 25, "%s: registry entry %s not found", text, name);
        } else if (entry_text) {
            if (depth >= REGISTRY_MAX_RECURSION) {
                msg_error_n(50, "%s: registry name lookup causes to many recursions", text);
                mem_free(__FILE__, __LINE__, entry_text);
                mem_free(__FILE__, __LINE__, name);
                *failed = true;
                return nullptr;
            }
            char* inner = expand(entry_text, mode, depth + 1, failed);
            if (*failed) {
                mem_free(__FILE__, __LINE__, entry_text);
                mem_free(__FILE__, __LINE__, name);
                return nullptr;
            }
            bool fits = out.put(inner ? inner : entry_text);
            mem_free(__FILE__, __LINE__, inner);
            mem_free(__FILE__, __LINE__, entry_text);
            if (!fits) {
                msg_error_n(base + 26, "%s: overflow at '%s'", text, name);
                mem_free(__FILE__, __LINE__, name);
                *failed = true;
                return nullptr;
            }
        } else if (mode != 1) {
            if (is_system_name(name))
                msg_debug("%s: registry entry %s has no value", text, name);
            else
                msg_error_n(base + 27, "%s: registry entry %s has no value", text, name);
        }
        mem_free(__FILE__, __LINE__, name);
        p = after;
    }
    out.text[out.length] = '\0';
    msg_debug("registry lookup: \"%s\" -> \"%s\"", text, out.text);
    return out.length ? mem_strdup(__FILE__, __LINE__, out.text) : nullptr;
}

void add_builtin(const char* name, const char* value)
{
    registry_begin(name);
    registry_add(name, "value", value);
}

}  // namespace

int registry_init()
{
    Module_scope scope(MOD_LIB);
    if (g_started.load())
        return 1;
    lock_create(&g_lock);
    g_table = static_cast<Entry**>(mem_alloc(__FILE__, __LINE__, sizeof(Entry*) * BUCKETS));
    g_started.store(true);
    return 1;
}

void registry_exit()
{
    Module_scope scope(MOD_LIB);
    if (!g_started.exchange(false))
        return;
    for (int bucket = 0; bucket < BUCKETS; ++bucket) {
        Entry* entry = g_table[bucket];
        while (entry) {
            Entry* next = entry->chain;
            free_entry(entry);
            entry = next;
        }
    }
    mem_free(__FILE__, __LINE__, g_table);
    g_table = nullptr;
    lock_destroy(&g_lock);
}

bool registry_started() { return g_started.load(); }

int registry_begin(const char* name)
{
    Module_scope scope(MOD_LIB);
    if (!g_started.load())
        return 0;
    if (!name) {
        msg_error_n(18, "failed to create registry entry \"%s\"", "(null)");
        return 0;
    }
    Lock_holder hold(g_lock);
    Entry** link = &g_table[bucket_of(name)];
    while (*link) {
        if (std::strcmp((*link)->name, name) == 0) {
            msg_debug("deleting registry entry \"%s\"", name);
            Entry* gone = *link;
            *link = gone->chain;
            free_entry(gone);
        } else {
            link = &(*link)->chain;
        }
    }
    auto* entry = static_cast<Entry*>(mem_alloc(__FILE__, __LINE__, sizeof(Entry)));
    entry->name = copy_string(name);
    entry->chain = g_table[bucket_of(name)];
    g_table[bucket_of(name)] = entry;
    return 1;
}

bool registry_add(const char* name, const char* key, const char* text)
{
    Module_scope scope(MOD_LIB);
    if (!g_started.load() || !name)
        return false;
    Lock_holder hold(g_lock);
    Entry* entry = find_entry(name);
    if (!entry) {
        msg_error_n(19, "registry entry \"%s\" not found, cannot add", name);
        return false;
    }
    auto* pair = static_cast<Pair*>(mem_alloc(__FILE__, __LINE__, sizeof(Pair)));
    pair->key = copy_string(key);
    pair->text = copy_string(text);
    if (entry->last)
        entry->last->next = pair;
    else
        entry->first = pair;
    entry->last = pair;
    if (!entry->value_pair && std::strcmp(pair->key, "value") == 0)
        entry->value_pair = pair;
    return true;
}

char* registry_lookup(const char* text, int mode)
{
    Module_scope scope(MOD_LIB);
    if (!text)
        return nullptr;
    if (!g_started.load())
        return mem_strdup(__FILE__, __LINE__, text);
    if (mode < 0 || mode > 7)
        mode = 0;
    bool failed = false;
    return expand(text, mode, 0, &failed);
}

void registry_print(FILE* stream)
{
    Module_scope scope(MOD_LIB);
    if (!g_started.load())
        return;
    Lock_holder hold(g_lock);
    for (int bucket = 0; bucket < BUCKETS; ++bucket) {
        for (const Entry* entry = g_table[bucket]; entry; entry = entry->chain) {
            if (stream)
                std::fprintf(stream, "registry \"%s\"\n", entry->name);
            for (const Pair* pair = entry->first; pair; pair = pair->next) {
                if (stream)
                    std::fprintf(stream, "\t%s\t\"%s\"\n", pair->key, pair->text);
                else
                    msg_info("registry \"%s\": \"%s\"=\"%s\"%s", entry->name, pair->key, pair->text,
                             pair == entry->value_pair ? " *" : "");
            }
            if (stream)
                std::fprintf(stream, "end registry\n\n");
        }
    }
}

void registry_add_version_entries(const char* version, const char* date)
{
    Module_scope scope(MOD_LIB);
    if (!g_started.load() || !version)
        return;
    add_builtin("{_QV_RAY_VERSION}", version);
    // Cut from the end at each point: the three part entries each hold one more level.
    static const char* const part_names[] = {"{_QV_RAY_BRANCH}", "{_QV_RAY_MINOR_VERSION}",
                                             "{_QV_RAY_MAJOR_VERSION}"};
    char cut[256];
    std::snprintf(cut, sizeof cut, "%s", version);
    for (const char* name : part_names) {
        char* point = std::strrchr(cut, '.');
        if (!point)
            break;
        *point = '\0';
        add_builtin(name, cut);
    }
    add_builtin("{_QV_RAY_DATE}", date ? date : "");
    add_builtin("{_QV_RAY_PLATFORM}", "linux-x64-gcc");
    add_builtin("{_QV_RAY_SYSTEM}", "linux");
    add_builtin("{_QV_RAY_REVISION}", "148720");
}

void registry_set_hooks(Registry_link_hook link, Registry_read_hook read)
{
    g_link_hook = link;
    g_read_hook = read;
}
