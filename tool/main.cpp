// fg_splice: combine, cut and merge final-gather maps.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/lib/mem/i_mem_allocatable.h"
#include "tool/bringup.h"
#include "tool/options.h"
#include "tool/stages.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/threads.h"

namespace {

// The largest angle between two normals that still merge, in degrees; no option sets it.
constexpr float MERGE_MAX_ANGLE = 5.0f;

struct Run_settings {
    int usage_requested = 0;
    int box_given = 0;
    int box_inside = 1;
    float box[6] = {};
    float merge_distance = 0.0f;
    int legacy_output = 0;
};

void scan_options(int argc, char** argv, Run_settings& settings)
{
    opt_index = 1;
    int letter;
    // Only the low 8 bits of the result end the loop.
    while (((letter = opt_next(argc, argv, "bBf:hvl")) & 0xff) != 0xff) {
        switch (letter) {
        case '?':
        case 'h':
            settings.usage_requested = 1;
            break;
        case 'b':
        case 'B':
            // Counts words, not numbers: a word that is none reads as 0.0.
            if (opt_index + 6 > argc) {
                settings.usage_requested = 1;
                break;
            }
            settings.box_given = 1;
            settings.box_inside = letter == 'b';
            for (int i = 0; i < 6; ++i)
                settings.box[i] = float(atof(argv[opt_index + i]));
            opt_index += 6;
            break;
        case 'f':
            settings.merge_distance = float(atof(opt_argument));
            break;
        case 'l': {
            // Every index at or past argc reads as the null word, neither "on" nor "off": a
            // cluster such as -lll takes one word per letter and must not walk off argv.
            const char* word = opt_index < argc ? argv[opt_index] : nullptr;
            if (word && std::strcmp(word, "on") == 0)
                settings.legacy_output = 1;
            else if (word && std::strcmp(word, "off") == 0)
                settings.legacy_output = 0;
            else
                settings.usage_requested = 1;
            ++opt_index;
            break;
        }
        case 'v':
            msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_PROGRESS);
            break;
        default:
            break;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (!mem_set_hooks(malloc, realloc, free) || !thread_system_init())
        return 1;
    Module_scope scope(MOD_MAIN);

    msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN);
    Run_settings settings;
    scan_options(argc, argv, settings);

    msg_info("Copyright (c) the fg_splice authors");
    msg_info("fg_splice version %s", "1.2.0");
    msg_info("version %s, %s", "3.9.4.14", "May 12 2011");

    if (settings.usage_requested || argc < opt_index + 2)
        print_usage(argv[0]);

    bring_up_modules();

    Tag tag = load_maps(&argv[opt_index], argc - opt_index - 1);
    if (tag == 0)
        return 1;
    if (settings.box_given)
        tag = select_box(tag, settings.box, settings.box_inside);
    // A NaN distance also counts as different from 0.
    if (settings.merge_distance != 0.0f)
        tag = merge_map(tag, settings.merge_distance, MERGE_MAX_ANGLE);
    save_map(argv[argc - 1], tag, settings.legacy_output);
    return 0;
}
