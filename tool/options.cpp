#include "tool/options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/msg.h"

namespace {
const char g_empty[] = "";
}

int opt_index = 1;
const char* opt_cursor = g_empty;
int opt_letter = 0;
char* opt_argument = nullptr;

void opt_reset()
{
    opt_index = 1;
    opt_cursor = g_empty;
    opt_letter = 0;
    opt_argument = nullptr;
}

int opt_next(int argc, char** argv, const char* options)
{
    // A new word is needed.
    if (*opt_cursor == '\0') {
        if (opt_index >= argc)
            return -1;
        opt_cursor = argv[opt_index];
        if (opt_cursor[0] != '-')
            return -1;
        ++opt_cursor;
        if (*opt_cursor == '\0')
            return -1;  // a lone "-" is the first operand
        if (*opt_cursor == '-') {
            // Any word that begins with two dashes ends the options and is skipped whole.
            ++opt_index;
            opt_cursor = g_empty;
            return -1;
        }
    }

    int letter = static_cast<unsigned char>(*opt_cursor);
    opt_letter = letter;
    ++opt_cursor;

    const char* found = letter == ':' ? nullptr : std::strchr(options, letter);
    if (!found) {
        if (*opt_cursor == '\0')
            ++opt_index;
        // The letter is printed as a number on purpose.
        msg_error_n(5, "%s: illegal option: %d", argv[0], letter);
        return '?';
    }

    if (found[1] == ':') {
        if (*opt_cursor != '\0') {
            opt_argument = const_cast<char*>(opt_cursor);  // "-f0.5"
        } else {
            ++opt_index;
            if (opt_index >= argc) {
                opt_cursor = g_empty;
                msg_error_n(42, "%s: option requires an argument: %d", argv[0], letter);
                return '?';
            }
            opt_argument = argv[opt_index];
        }
        opt_cursor = g_empty;
        ++opt_index;
        return letter;
    }

    opt_argument = nullptr;
    if (*opt_cursor == '\0')
        ++opt_index;
    return letter;
}

void print_usage(const char* program)
{
    std::fprintf(stderr,
                 "finalgather map copy and merge utility for Quovray\n"
                 "%s [opts] map1 ... mapN out_map\n"
                 "-b box     only copy finalgather points WITHIN the box\n"
                 "           defined by: xmin ymin zmin xmax ymax zmax\n"
                 "-B box     only copy finalgather points OUTSIDE the box\n"
                 "           defined by: xmin ymin zmin xmax ymax zmax\n"
                 "-f F       merge finalgather points within that distance\n"
                 "-h         print help information\n"
                 "-l on|off  if on, saved fg map will be a legacy one (default off)\n"
                 "-v         verbose output\n",
                 program);
    std::exit(1);
}
