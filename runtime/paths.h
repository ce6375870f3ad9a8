// Path substitution: the rewrite every user-given path goes through before it is opened.
//
// A path is rewritten in three steps: environment variables ($name, ${name}, $?name) are
// expanded, an ordered list of search-and-replace rules is applied (each rule to the previous
// rule's result), and registry references ({name}) are expanded. The rules come from
// QV_RAY_SUBSTITUTE and the link table file, read at the first call (the module's lazy start).
// ESC (code 27) takes the next character literally in rule text and in variable expansion.
//
// Thread rules: the start is not locked and rules are built on one thread; afterwards the list
// is only read, from any thread.
#pragma once

#include <cstddef>

constexpr char PATH_ESCAPE = 27;
constexpr size_t PATH_RULE_CHARS = 2047;      // longer search / replace strings are cut
constexpr size_t PATH_EXPAND_CHARS = 4095;    // expanded text stops here, with no report
constexpr size_t PATH_CALLER_BUFFER = 1024;   // the buffer callers of path_substitute pass

// The whole rewrite, registry step included. `out` is a buffer of `size` bytes: it gets at most
// size - 1 characters and always a terminating zero (error 38 when the path was cut). Returns
// `out`. A null path reads as "".
char* path_substitute(char* out, const char* path, size_t size);
// The same with the registry step by choice.
char* path_substitute_raw(char* out, const char* path, size_t size, bool expand_registry);

// Variables expanded and every rule applied. A new string owned by the caller (mem_free), or
// null for a null path.
char* path_apply_rules(const char* path);
// Expands $name, ${name} and $?name (1 or empty). Errors 39 and 40 end the expansion; the text
// built so far is the result. A new string owned by the caller (mem_free); null for null text.
char* path_expand_vars(const char* text);
// Appends a rule; takes ownership of both strings (mem_alloc'ed), each cut to PATH_RULE_CHARS.
void path_add_rule(char* search, char* replace);
// Parses rule text "/search/replace/ |search|replace| ..." and appends its rules; errors 41 to
// 43 stop the parse with the rules read so far kept.
void path_parse_rules(const char* text);
// Frees the rule list; it is also the module's stop: the next substitution starts it again and
// reads QV_RAY_SUBSTITUTE and the link table anew.
void path_clear_rules();
// Runs the lazy start now if it has not run.
void path_start();

// Directory for temporary files: the first of TMPDIR, TMP, TEMP that is set, or ".", with a
// final "/". Written into `out` (size bytes, always terminated); returns `out`.
char* path_temp_directory(char* out, size_t size);
