// fg_info: look inside a final-gather map. Prints a summary, and writes the points as a PLY
// cloud, as open ASCII map text or as a picture of three views.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/lib/mem/i_mem_allocatable.h"
#include "info/info_export.h"
#include "info/info_input.h"
#include "info/info_progress.h"
#include "info/info_summary.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/threads.h"
#include "tool/bringup.h"

namespace {

constexpr uint32_t DEFAULT_WIDTH = 1200;
constexpr uint32_t DEFAULT_HEIGHT = 400;
// Keeps the picture's buffers (7 bytes a pixel) within a few hundred megabytes.
constexpr uint32_t MAX_SIDE = 16384;

struct Settings {
    uint32_t points = 0;
    bool points_given = false;
    const char* ply = nullptr;
    const char* ascii = nullptr;
    const char* png = nullptr;
    uint32_t width = DEFAULT_WIDTH;
    uint32_t height = DEFAULT_HEIGHT;
    const char* input = nullptr;
};

int usage(const char* problem)
{
    if (problem)
        std::fprintf(stderr, "fg_info: %s\n", problem);
    std::fprintf(stderr,
                 "usage: fg_info [-n N] [--ply OUT.ply] [--ascii OUT.txt] [--png OUT.png] [--size WxH] MAP\n"
                 "  (no option)      print a summary of the map\n"
                 "  -n N             add the first N points to the summary\n"
                 "  --ply OUT.ply    write the points as a binary PLY point cloud\n"
                 "  --ascii OUT.txt  write the map in the open ASCII map format\n"
                 "  --png OUT.png    draw top, front and side views into a PNG picture\n"
                 "  --size WxH       size of the picture (default 1200x400)\n");
    return 2;
}

bool parse_count(const char* text, uint32_t* out)
{
    if (!text || *text < '0' || *text > '9')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > UINT32_MAX)
        return false;
    *out = uint32_t(value);
    return true;
}

bool parse_size(const char* text, uint32_t* width, uint32_t* height)
{
    if (!text)
        return false;
    const char* x = std::strchr(text, 'x');
    if (!x)
        return false;
    std::string first(text, x);
    return parse_count(first.c_str(), width) && parse_count(x + 1, height) && *width >= 3 && *height >= 1 &&
           *width <= MAX_SIDE && *height <= MAX_SIDE;
}

// 0 when the words make a run, else the usage exit code (after the usage text).
int scan(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strcmp(word, "-h") == 0 || std::strcmp(word, "--help") == 0)
            return usage(nullptr);
        if (std::strcmp(word, "-n") == 0) {
            if (!parse_count(value, &settings.points))
                return usage("-n wants a count of points");
            settings.points_given = true;
        } else if (std::strcmp(word, "--ply") == 0 || std::strcmp(word, "--ascii") == 0 ||
                   std::strcmp(word, "--png") == 0) {
            if (!value)
                return usage("an output option wants a file name");
            const char*& target = std::strcmp(word, "--ply") == 0   ? settings.ply
                                  : std::strcmp(word, "--png") == 0 ? settings.png
                                                                    : settings.ascii;
            target = value;
        } else if (std::strcmp(word, "--size") == 0) {
            if (!parse_size(value, &settings.width, &settings.height))
                return usage("--size wants WxH, at least 3x1 and at most 16384 each way");
        } else if (word[0] == '-' && word[1] != '\0') {
            return usage("unknown option");
        } else {
            if (settings.input)
                return usage("one map at a time");
            settings.input = word;
            continue;
        }
        ++i;
    }
    if (!settings.input)
        return usage("no map given");
    // The input stays open as the map's backing store while the outputs are written.
    struct stat input_status;
    if (stat(settings.input, &input_status) == 0)
        for (const char* output : {settings.ply, settings.ascii, settings.png}) {
            struct stat output_status;
            if (output && stat(output, &output_status) == 0 && output_status.st_dev == input_status.st_dev &&
                output_status.st_ino == input_status.st_ino)
                return usage("an output file may not be the input map");
        }
    return 0;
}

// Copies what `from` holds to `to`.
void copy_stream(FILE* from, FILE* to)
{
    std::rewind(from);
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, from)) > 0)
        std::fwrite(buffer, 1, n, to);
}

}  // namespace

int main(int argc, char** argv)
{
    if (!mem_set_hooks(malloc, realloc, free) || !thread_system_init())
        return 1;
    Module_scope scope(MOD_MAIN);
    msg_set_levels(MSG_FATAL | MSG_ERROR | MSG_WARN);

    Settings settings;
    if (const int code = scan(argc, argv, settings))
        return code;
    bring_up_modules();

    Info_progress progress(isatty(2) != 0);
    Info_input input;
    progress.start("reading the map");
    if (!info_read(settings.input, &input, &progress))
        return 1;
    const Info_stats stats = info_gather_stats(*input.map, &progress);

    // Everything that shows points in their file order runs before the BVH is built, since a
    // build reorders the elements.
    const bool summary = settings.points_given || (!settings.ply && !settings.ascii && !settings.png);
    FILE* points = nullptr;
    if (summary && settings.points > 0) {
        points = std::tmpfile();
        if (!points) {
            msg_error_n(404, "cannot make a temporary file for the points: %s", std::strerror(errno));
            return 1;
        }
        info_print_points(points, *input.map, settings.points);
    }
    bool ok = true;
    if (settings.ply)
        ok = info_write_ply(*input.map, stats, settings.ply, &progress) && ok;
    if (settings.ascii)
        ok = info_write_ascii(*input.map, settings.ascii) && ok;
    if (settings.png)
        ok = info_write_png(*input.map, stats, settings.width, settings.height, settings.png, &progress) && ok;

    if (summary) {
        Info_neighbours neighbours;
        progress.start("building the map's search tree");
        const bool searchable = info_ensure_bvh(&input);
        progress.finish();
        if (searchable)
            neighbours = info_sample_neighbours(*input.map, &progress);
        info_print_summary(stdout, input, stats, &neighbours);
        if (points) {
            std::fflush(stdout);
            copy_stream(points, stdout);
            std::fclose(points);
        }
    }
    std::fflush(stdout);
    return ok ? 0 : 1;
}
