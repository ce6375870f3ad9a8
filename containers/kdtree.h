// The kd-tree store: fixed-size records with a 3-D position, kept as database elements and
// answering nearest-neighbour queries.
//
// Writers collect records into private chunks without any ordering and without touching the
// database until they close; the first reader merges all chunks and balances them into one
// implicit tree (left-balanced heap layout over the positions and the records, no child
// pointers). Everything here belongs to module LIB and opens Module_scope(MOD_LIB).
//
// Thread rules: a handle belongs to one thread at a time (it holds the lookup heap). Several
// writers may fill one kd-tree at once, each with its own handle; closing a writer and
// balancing take the header's exclusive lock, lookups take none. A read handle points straight
// into the tree's elements: while it is open, no writer may close on the same tree (that grows
// the header, which may move it) and no new reader may rebalance it (that moves the positions).
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/modules.h"

namespace QV::LIB { class Paged_array; }

// Element type numbers of the store in the scene type table.
constexpr int KDTREE_TYPE_HEADER = 106;
constexpr int KDTREE_TYPE_DATA = 107;       // reserved name "kdtree_data"; records live in a Paged_array
constexpr int KDTREE_TYPE_POSITIONS = 108;
constexpr int KDTREE_TYPE_AXES = 109;

// Byte-swap layout of the 80-byte fixed part of the header; the chunk table behind it is
// swapped as plain 32-bit words.
constexpr const char* KDTREE_HEADER_SWAP = "15i5c";

// One batch of records written by one handle and not yet merged into the tree.
struct Kdtree_chunk {
    uint32_t count;      // records in the chunk
    uint32_t positions;  // tag, type 108: 3 * count floats
    uint32_t data;       // tag of the chunk's Paged_array
};
static_assert(sizeof(Kdtree_chunk) == 12, "chunk table entries are 12 bytes");

// Type 106: 80 bytes, then `chunk_count` chunk entries. Its tag is the kd-tree's identity.
struct Kdtree_header {
    int32_t type;            // kd-tree type; only 1 exists
    uint32_t element_size;   // record size in bytes
    uint32_t reserved0;      // carries nothing
    uint32_t count;          // records in the balanced tree
    uint32_t positions;      // tag, type 108: three floats per record, in tree order
    uint32_t data;           // tag of the Paged_array of records, in tree order
    uint32_t axes;           // tag, type 109: split axis per inner node; 0 while unbalanced
    uint32_t chunk_count;    // chunks waiting to be balanced
    uint32_t reserved[8];    // carries nothing
    char name[16];           // optional name up to the header's end, given to each chunk's array

    Kdtree_chunk* chunks() { return reinterpret_cast<Kdtree_chunk*>(this + 1); }
};
static_assert(sizeof(Kdtree_header) == 80, "the fixed part of the header is 80 bytes");
static_assert(offsetof(Kdtree_header, chunk_count) == 28);
static_assert(offsetof(Kdtree_header, name) == 64);

constexpr uint32_t kdtree_header_bytes(uint32_t chunk_count) { return 80 + 12 * chunk_count; }

// Per-thread, caller-private access to one kd-tree. Created by the opening functions and freed
// by kdtree_close; the field order is the store's own record layout.
struct Kdtree_handle {
    uint32_t tag;
    Thread_context* thread_context;
    bool writing;
    uint32_t element_size;
    uint32_t added;                         // records collected by this handle
    QV::LIB::Paged_array* data_array;       // this handle's chunk, made on the first add
    QV::LIB::Paged_array* position_array;   // element size 12
    // Pinned read state; all null while the handle holds none.
    Kdtree_header* header;
    float* positions;
    QV::LIB::Paged_array* data_access;
    uint8_t* axes;
    // Lookup heap, grown by a factor of 1.4 so slightly larger queries do not reallocate.
    uint32_t heap_capacity;
    float* heap_distance_squared;
    const float** heap_position;
    const void** heap_record;
    // Private copy of the extra data given at opening for writing.
    void* blob;
    uint32_t blob_size;
    uint32_t blob_swap_tag;                 // tag of a swap string for the blob, or 0
    Kdtree_handle* list_next;               // the module's list of open handles
};

// `record` is the element_size bytes of a record, `position` its three floats.
using Kdtree_callback = int (*)(void* argument, const void* record, const float* position);
// May change the record; a result of 0 drops it from the tree. `blob` is the extra data of the
// chunk the record came from, or null.
using Kdtree_filter = int (*)(void* argument, void* record, float* position, const void* blob);
using Kdtree_accept = int (*)(void* argument, const void* record, const float* position);
using Kdtree_progress = void (*)(void* argument);

// New empty kd-tree; its header tag, or 0 for a type other than 1 (error 41).
uint32_t kdtree_create(int type, uint32_t element_size);
// `blob` (optional) is copied and stored with each chunk's array as its extra data.
// Null for tag 0. Never fails otherwise.
Kdtree_handle* kdtree_open_for_writing(uint32_t tag, const void* blob, uint32_t blob_size);
// Balances when records were added since the last balancing. Null for tag 0.
Kdtree_handle* kdtree_open_for_reading(uint32_t tag, Kdtree_filter filter, void* filter_argument);
// Copies element_size bytes and three floats into the handle's chunk. 1, or 0 with error 53.
int kdtree_add(Kdtree_handle* handle, const void* record, const float* position);
// Records in the balanced tree; 0 with error 55 on a write handle.
uint32_t kdtree_count(Kdtree_handle* handle);
// Calls `callback` for each record in tree order; 0 when the callback stopped the walk (or on
// error 54), 1 after a full walk.
int kdtree_iterate(Kdtree_handle* handle, Kdtree_callback callback, void* argument);
// Up to `max_count` records within `max_distance` of `query`; returns how many were found and
// hands each to `callback` (farthest first when the heap is full, otherwise unsorted). With
// `accept`, only records it accepts count. `found_distance`, if given, receives the distance of
// the farthest kept record when `max_count` were found, otherwise `max_distance`.
// 0 with error 52 on a handle that is not opened for reading.
uint32_t kdtree_lookup(Kdtree_handle* handle, const float* query, uint32_t max_count,
                       float max_distance, float* found_distance, Kdtree_callback callback,
                       void* argument, Kdtree_accept accept, void* accept_argument);
// Writes the handle's chunk (write handles), releases the read state and frees the handle.
// Always 1.
int kdtree_close(Kdtree_handle* handle);
// Process-wide hook called after every successful add.
void kdtree_set_progress(Kdtree_progress function, void* argument);

// Deletes the header and every element it names (tree and pending chunks). Handles that are
// still open on it must not be used afterwards.
void kdtree_delete(uint32_t tag);

// Bring-up: gives the scene type table the store's element types (106, 108, 109) and the
// deserialization manager the Paged_array class. Called once, after SCENE has started.
void kdtree_register();
// Module shutdown: closes every handle still open.
void kdtree_shutdown();
