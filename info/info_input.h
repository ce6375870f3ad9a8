// fg_info's view of one input file: what kind of file it is, the header facts its reader gives,
// and the map of its points, read through the same loader that fg_splice's intake uses.
#pragma once

#include <cstdint>
#include <string>

class Info_progress;
namespace QV::RCMAP {
class Map_impl;
}

enum Info_file_kind : uint32_t {
    INFO_KIND_UNKNOWN = 0,     // the header could not be had (the loader reports why)
    INFO_KIND_CLASSIC = 1,     // "qvFG" file
    INFO_KIND_BINARY = 2,      // "qv=MAP" binary map file
    INFO_KIND_OPEN_BINARY = 3, // "qv=MAPob" open binary map file
    INFO_KIND_OTHER = 4,       // none of the above; the map reader answers for it
};

struct Info_input {
    std::string path;                  // as the user gave it
    Info_file_kind kind = INFO_KIND_UNKNOWN;
    uint32_t version = 0;              // classic 0 or 1; binary map file version
    bool foreign_order = false;        // classic: written big-endian
    // Binary map files only.
    uint32_t page_bytes = 0;
    uint32_t page_count = 0;
    bool bvh_stored = false;
    // The loaded points, committed, in file order until a BVH is built. Owned.
    QV::RCMAP::Map_impl* map = nullptr;
    uint32_t count = 0;

    Info_input() = default;
    Info_input(const Info_input&) = delete;
    Info_input& operator=(const Info_input&) = delete;
    ~Info_input();
};

// Reads `path`. Messages of the readers go to stderr as they come. False when the file could
// not be read: no point came and it is not a valid empty map, or a reader reported an error
// (a truncated file keeps what was read but still counts as damaged). The step of `progress`
// (may be null) is finished before any line is shown. REQUIRES: the modules are up.
bool info_read(const char* path, Info_input* input, Info_progress* progress);

// "classic final-gather map" and so on.
const char* info_kind_text(Info_file_kind kind);

// Builds the map's BVH if it has none (a build puts the elements in tree order). False when
// no usable BVH results.
bool info_ensure_bvh(Info_input* input);
