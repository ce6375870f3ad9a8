// Reading one input for fg_info. The file's header is looked at first, with the readers'
// messages held back, so that the summary can name the kind, version and byte order; then the
// points are loaded by fg_map_load, whose messages are shown as they come.
#include "info/info_input.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "finalgather/fg_file.h"
#include "finalgather/fg_file_internal.h"
#include "finalgather/rcfg_module.h"
#include "info/info_progress.h"
#include "maps/map_bvh.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "runtime/msg.h"
#include "runtime/paths.h"

using QV::RCMAP::Map_file;
using QV::RCMAP::Map_impl;

namespace {

// The readers' lines are held while a file is read, info lines among them: a missing file and
// a classic file of an unknown version are reported at that level only. Whether they are shown
// is decided once the outcome is known.
struct Held_line {
    uint32_t level;
    std::string text;
};
struct Message_tally {
    std::vector<Held_line> held;
    uint32_t errors = 0;
};
Message_tally g_tally;

void tally_line(uint32_t level, const char* line, const char*, int32_t)
{
    if (level & (MSG_ERROR | MSG_FATAL))
        ++g_tally.errors;
    g_tally.held.push_back({level, line});
}

class Tally_scope {
public:
    Tally_scope() : levels_(msg_level_mask())
    {
        g_tally = Message_tally{};
        msg_set_levels(levels_ | MSG_INFO);
        qv_errorhandler(tally_line);
    }
    ~Tally_scope()
    {
        qv_errorhandler(nullptr);
        msg_set_levels(levels_);
    }
    Tally_scope(const Tally_scope&) = delete;
    Tally_scope& operator=(const Tally_scope&) = delete;

    // Prints the held lines to stderr: all of them after a failure, else those that the mask
    // in force outside the scope lets through.
    void show(bool failed) const
    {
        for (const Held_line& line : g_tally.held)
            if (failed || (line.level & levels_))
                std::fprintf(stderr, "%s\n", line.text.c_str());
        g_tally.held.clear();
    }

private:
    uint32_t levels_;
};

// The header look. Answers false, with the held lines in g_tally, only for a classic file whose
// headers give no count for a reason its reader stated; everything else is left to the loader.
bool look_at_header(const char* path, Info_input* input, bool* valid_empty)
{
    using namespace fg_file_detail;
    *valid_empty = false;
    char name[FG_PATH_BYTES];
    path_substitute(name, path, sizeof(name));
    FILE* file = std::fopen(name, "rb");
    if (!file)
        return true;
    const File_kind kind = file_kind(file, name);
    if (kind == FILE_KIND_CLASSIC) {
        input->kind = INFO_KIND_CLASSIC;
        const Classic_header header = read_classic_headers(file, name);
        std::fclose(file);
        input->version = header.version;
        input->foreign_order = header.swap;
        if (header.count == 0 && !g_tally.held.empty())
            return false;
        *valid_empty = header.count == 0;
        return true;
    }
    std::fclose(file);
    if (kind != FILE_KIND_CURRENT)
        return true;
    qv::shader_v3::Map_status status = qv::shader_v3::MAP_SUCCESS;
    Map_file map_file(QV::RCMAP::MAP_FILE_KIND_READ, false, false, true, path, nullptr, &status);
    if (status == qv::shader_v3::MAP_SUCCESS && map_file.format == qv::shader_v3::MAP_FORMAT_OPEN_BINARY) {
        // The open header has a version digit and no pages: its elements are read into the map.
        input->kind = INFO_KIND_OPEN_BINARY;
        input->version = map_file.version;
        *valid_empty = map_file.element_count == 0;
    } else if (status == qv::shader_v3::MAP_SUCCESS) {
        input->kind = INFO_KIND_BINARY;
        input->version = map_file.version;
        input->page_bytes = map_file.page_bytes;
        input->page_count = map_file.page_count;
        input->bvh_stored = map_file.bvh_offset != 0;
        *valid_empty = map_file.element_count == 0;
    } else {
        input->kind = map_file.format == qv::shader_v3::MAP_FORMAT_OPEN_BINARY ? INFO_KIND_OPEN_BINARY
                                                                               : INFO_KIND_OTHER;
    }
    return true;
}

}  // namespace

Info_input::~Info_input()
{
    delete map;
}

bool info_read(const char* path, Info_input* input, Info_progress* progress)
{
    input->path = path;
    Tally_scope scope;
    bool valid_empty = false;
    if (!look_at_header(path, input, &valid_empty)) {
        if (progress)
            progress->finish();
        scope.show(true);
        return false;
    }
    // The look's own lines are repeated by the loader where they matter.
    g_tally = Message_tally{};
    input->map = fg_map_new();
    // With the BVH on, a BVH stored in a binary map file joins the map instead of being rebuilt.
    input->map->bvh_enabled = true;
    const uint32_t loaded = fg_map_load(input->map, path, true);
    input->map->commit();
    input->count = input->map->size();
    const bool ok = g_tally.errors == 0 && (loaded > 0 || valid_empty);
    if (progress)
        progress->finish();
    scope.show(!ok);
    return ok;
}

bool info_ensure_bvh(Info_input* input)
{
    Map_impl* map = input->map;
    if (!map || map->size() == 0)
        return false;
    map->build_bvh(0.6f, false, false);
    return map->global_bvh && map->global_bvh->is_valid();
}

const char* info_kind_text(Info_file_kind kind)
{
    switch (kind) {
    case INFO_KIND_CLASSIC:
        return "classic final-gather map";
    case INFO_KIND_BINARY:
        return "binary map";
    case INFO_KIND_OPEN_BINARY:
        return "open binary map";
    case INFO_KIND_OTHER:
        return "unrecognised map file";
    default:
        return "unknown";
    }
}
