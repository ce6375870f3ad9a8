// Registry: a process-wide store of named entries, and the expander of {name} references.
//
// An entry is a list of (key, text) pairs in the order of addition; its "value" pair (the first
// one with that key) gives the text that {name} expands to. Other keys name actions that run
// when the entry is looked up in mode 1: "link", "code", "qv", "echo", "system" ("spdl" is only
// stored). Every function runs in Module_scope LIB and does nothing (0 / null) until
// registry_init; registry_lookup then hands back a plain copy of its text.
//
// Thread rules: one Lock guards the table during add, delete and the lookup of one name; actions
// run without it and may come back into the registry. The action depth is per thread (LIB
// context area).
#pragma once

#include <cstdint>
#include <cstdio>

// The LIB context area: per-thread registry state.
struct Lib_context_area {
    int32_t lookup_depth;  // actions running on this thread
    int32_t action_stop;   // set by the depth error: no action runs until the outermost returns
};

constexpr int REGISTRY_OUTPUT_CHARS = 10238;
constexpr int REGISTRY_MAX_RECURSION = 20;   // nested {name} values
constexpr int REGISTRY_MAX_ACTION_DEPTH = 128;

// Creates the lock and the table, then sets the started flag. Returns 1.
int registry_init();
// Clears the started flag first, then frees every entry, the table and the lock.
void registry_exit();
bool registry_started();
// Creates entry `name`, deleting any existing one first (debug line per copy). 1 on success.
int registry_begin(const char* name);
// Adds a pair with copies of the strings; error 19 and false without the entry.
bool registry_add(const char* name, const char* key, const char* text);
// Expands `text`. Mode 0: {name} gives the "value" text; 1: the same and runs the actions
// (errors numbered 800 higher); 2..7: the text of the first "link", "code", "qv", "spdl",
// "echo" or "system" pair; above 7 counts as 0. "{{" and "}}" give single braces; {$VAR} gives
// an environment variable. Returns a new string owned by the caller (mem_free), or null after an
// error or when the result is empty.
char* registry_lookup(const char* text, int mode);
// With a stream: "registry \"name\"" blocks; without one: one info line per pair.
void registry_print(FILE* stream);
// The version step of the library start: the eight built-in {_QV_RAY_...} entries.
void registry_add_version_entries(const char* version, const char* date);

// Hooks for the subsystems that the tool does not carry (library linking, scene reading). A
// null hook makes the action a no-op after its debug line.
using Registry_link_hook = void (*)(const char* library, bool is_code);
using Registry_read_hook = void (*)(const char* scene_file);
void registry_set_hooks(Registry_link_hook link, Registry_read_hook read);
