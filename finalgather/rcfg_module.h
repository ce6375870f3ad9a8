// Module RCFG (id 54): the final-gather state of each thread and the final-gather types that the
// module registers with the runtime.
//
// For the map tool the module's one service is a per-thread cache: the final-gather declaration,
// one element of it and one Fg_point record, built on first use and reused afterwards. Each
// thread has its own, so nothing here takes a lock; the scratch objects must never be handed to
// another thread. Everything returned here belongs to the calling thread's RCFG context area and
// lives until that area is destroyed (mod_detach_context, mod_attach_context, thread end).
#pragma once

#include <cstdint>

#include "finalgather/fg_point.h"

namespace QV::RCMAP {
class Map_declaration_impl;
class Map_element_impl;
class Map_impl;
}  // namespace QV::RCMAP

// Scene element types of the final-gather computation.
constexpr int FG_TYPE_POINTS = 86;       // "fg_points"
constexpr int FG_TYPE_POINT_TREE = 87;   // "fg_point_tree"
constexpr int FG_TYPE_GRID_BORDER = 88;  // "fg_grid_border": 40 bytes, words 0 and 1 are owned tags
constexpr uint32_t FG_GRID_BORDER_BYTES = 40;
constexpr const char* FG_GRID_BORDER_SWAP = "2i3c5i";

// Serializable classes of the final-gather computation ("FGGG" and "FGcG").
constexpr uint32_t FG_GENERAL_GRID_CLASS_ID = 0x46474747;
constexpr uint32_t FG_TILE_GRID_CLASS_ID = 0x46476347;

// The RCFG context area. Zero at creation apart from what the init function sets.
struct Rcfg_context {
    QV::RCMAP::Map_declaration_impl* declaration;  // owned; null until first asked for
    QV::RCMAP::Map_element_impl* scratch_element;  // owned; null until first asked for
    Fg_point scratch_point;                        // where fg_map_for_each hands out points
    // State of the renderer's final-gather computation; the tool never reads it.
    int32_t grid_marker;                           // -1: no grid chosen yet
    uint32_t grid_level;
    struct Fg_block_pool* pool;                    // owned pool of FG_POOL_BLOCK_BYTES blocks
};

// The RCFG transaction area: only the final-gather computation uses it.
struct Rcfg_transaction {
    uint32_t state;       // 0
    void* container;      // owned, zeroed container head
};

constexpr uint32_t FG_POOL_BLOCK_BYTES = 712;

// Start of module RCFG: context and transaction areas, scene types 86 to 88, the table of
// powers, the obsolete-variable check and the two grid classes, in that order. Runs in
// Module_scope RCFG. Registering again is harmless; the table of powers is made only once.
void fg_module_init();

// This thread's cached final-gather declaration, built on first use. Not owned by the caller.
// Null on a thread without a Thread_context.
QV::RCMAP::Map_declaration_impl* fg_cached_declaration();
// This thread's scratch element, of the cached declaration. Not owned by the caller.
QV::RCMAP::Map_element_impl* fg_scratch_element();
// This thread's scratch record (inside the context area); null without a Thread_context.
Fg_point* fg_scratch_point();
// A new empty map on a copy of the cached declaration; owned by the caller.
QV::RCMAP::Map_impl* fg_map_new();

// The process-wide table of powers of 0.6 that stay above 0.1: 1.0, 0.6, 0.36, 0.216, 0.1296.
// Null before fg_module_init; never freed. `length` (may be null) receives its length.
const float* fg_power_table(uint32_t* length);

// A zeroed block of FG_POOL_BLOCK_BYTES from this thread's pool, and its return. Blocks stay
// with the pool of the thread that freed them until that thread's area goes.
void* fg_block_alloc();
void fg_block_free(void* block);

// Creates a grid border record (type 88) under a new tag; returns its 40 zeroed bytes.
void* fg_grid_border_create(uint32_t* tag);
// Deletes a grid border record together with the two tags it owns in words 0 and 1.
void fg_grid_border_delete(uint32_t tag);
