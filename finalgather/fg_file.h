// Final-gather map files: the classic file (fixed header, 104-byte records) and the current file
// (a binary map file with the final-gather declaration), which one file name may hold either.
//
// Classic layout, byte offsets from the file start, in the writer's byte order (the word at 36
// tells which; the other order is "foreign"):
//     0  32  "qvFG    " + library version text, NUL-padded
//    32  64  options header: "qvFH", byte-order word 1, version, finalg. rays, 12 reserved words
//    96  24  size block: point count, 5 reserved words
//   120  104 per point: words 0..25 of Fg_point
// Version 1 is this layout; version 0 holds three world-space gradient rows at record bytes
// 44..79 instead, which loading converts into the tangent frame of the normal.
//
// Every function takes a path as the user gave it and passes it through path substitution first;
// messages name the substituted path. All functions belong to module RCFG and report their
// failures themselves (message codes of module RCFG); a count of 0 doubles as failure.
#pragma once

#include <cstdint>
#include <cstdio>

#include "finalgather/fg_point.h"

namespace QV::RCMAP {
class Map_impl;
}
struct Kdtree_handle;

constexpr uint32_t FG_FILE_HEADER_BYTES = 32;
constexpr uint32_t FG_OPTIONS_HEADER_BYTES = 64;
constexpr uint32_t FG_SIZE_BLOCK_BYTES = 24;
constexpr uint32_t FG_DATA_OFFSET = 120;
constexpr uint32_t FG_COUNT_OFFSET = 96;
constexpr uint32_t FG_RECORD_BYTES = 104;
constexpr uint32_t FG_PATH_BYTES = 1024;
constexpr const char* FG_FILE_MAGIC = "qvFG";
constexpr const char* FG_OPTIONS_MAGIC = "qvFH";
constexpr const char* FG_LIBRARY_VERSION = "3.9.4.14";

// Byte-order templates (a count N before a letter means N + 1 items).
constexpr const char* FG_SWAP_OPTIONS = "3c2i11i";        // 64-byte options header
constexpr const char* FG_SWAP_SIZE = "i4i2f5fii8f5f";     // 128 bytes: size block and beyond
constexpr const char* FG_SWAP_RECORD = "2f5fii8f5f";      // one 104-byte record
constexpr const char* FG_SWAP_RECORD_OUT = "2f5fii8f5fi"; // 108 bytes: record plus word 26

// The scene options that the files consult. `options` arguments may be null: then `finalg.
// rays` is 0 and rebuild is off.
struct Fg_scene_options {
    int32_t finalg_rays;  // written at offset 44 of a classic file
    uint32_t rebuild;     // bit 0: replace an existing file instead of adding to it
};

// Target modes of a writer.
enum : uint32_t {
    FG_WRITER_CLASSIC = 0,      // classic file
    FG_WRITER_NEW_MAP = 1,      // a new current file, written on closing
    FG_WRITER_EXISTING_MAP = 3, // an existing current file, replaced through a temporary name
};

// An open output. Made by fg_map_open_write or fg_map_open_append, freed by fg_map_close.
struct Fg_map_writer {
    FILE* file;                 // the open classic file; null when a map is the target
    QV::RCMAP::Map_impl* map;   // the target map; null for a classic file
    uint32_t mode;              // FG_WRITER_*
    int32_t owns_map;           // the writer deletes `map` on closing
    char* path;                 // owned: the substituted path
    uint32_t old_count;         // points in the file when it was opened
    uint32_t count;             // points now, old ones included
    bool swap;                  // records go out in the foreign byte order
    bool ok;                    // no write has failed so far
    char* io_buffer;            // owned: the stream buffer of `file`, freed after it is closed
};

// Appends the points of the file to `map` and returns how many it added (0 also on failure).
// A current file is appended to the map as a backing segment; with `allow_classic` false a
// classic file is refused. Points from a classic file are pending until `map` is committed.
uint32_t fg_map_load(QV::RCMAP::Map_impl* map, const char* path, bool allow_classic);
// Loads the file named by the string element under `tag`, or each file of a tag list (type 28,
// the first left out with `skip_first`); then commits `map` (build_bvh, 0.6). Loads nothing on a
// host other than the master or while progressive rendering says so. Returns the points added.
uint32_t fg_map_load_list(QV::RCMAP::Map_impl* map, uint32_t tag, bool skip_first);
// The same into a kd-tree handle open for writing (records of 92 bytes: words 3..25).
uint32_t fg_kdtree_load(Kdtree_handle* kdtree, const char* path);
uint32_t fg_kdtree_load_list(Kdtree_handle* kdtree, uint32_t tag, bool skip_first);

// Opens a current file for adding points (a classic file is refused). `map` may be null; then
// the writer makes a map of its own that holds only the new points. Null on failure.
Fg_map_writer* fg_map_open_append(const Fg_scene_options* options, const char* path, QV::RCMAP::Map_impl* map);
// Opens a file of either kind for writing: `legacy` writes a classic file. Null on failure.
Fg_map_writer* fg_map_open_write(const Fg_scene_options* options, const char* path, bool legacy);
// Adds one point: `data` is the 23 words behind `position`. 1 on success, 0 on failure or after
// an earlier failed write. `writer` is an Fg_map_writer*; the signature fits kdtree_iterate.
int fg_map_write_point(void* writer, const void* data, const float* position);
// Finishes and frees the writer (null gives 0). 1 on success, 0 on failure.
int fg_map_close(Fg_map_writer* writer);
// Writes every record of the kd-tree under `kdtree_tag` to a classic file; fg_map_close's result,
// or 0 for tag 0 or a failed open.
int fg_map_save_legacy(uint32_t kdtree_tag, const Fg_scene_options* options, const char* path);

// Swaps `data` in place as `layout` says: digits build a repeat count (N means N + 1 items),
// c skips 1 byte, s swaps 2, f and i reverse 4, d reverses 8, p zeroes 8, anything else is
// passed over. REQUIRES: `data` has room for every byte the layout covers.
void swap_bytes(void* data, const char* layout);

// The rendering core's answer whether progressive rendering holds either of its two flags; a
// build without it answers no. Null restores that answer.
using Fg_progressive_query = bool (*)();
void fg_set_progressive_query(Fg_progressive_query query);
