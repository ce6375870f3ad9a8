// QV::RCMAP::Map_impl: a map as a database element (class id "=MAP").
//
// A map stores any number of fixed-size elements in file pages behind the shared page cache;
// only a bounded number of pages is in memory at a time. Appends are pending until a commit
// (build_bvh and some reads commit): `size` counts committed elements only.
//
// Ownership: the map owns its private declaration copy, its globals block, its particle
// description, its global BVH and its page store (with the backing files and the swap file).
// A copy shares nothing. Thread rules: reads through the page cache are safe from all threads;
// append and commit take the map's lock; the setters are for one editing thread.
#pragma once

#include <cstdint>
#include <mutex>

#include "database/element.h"
#include "maps/map_interfaces.h"
#include "maps/map_page_store.h"

namespace QV::RCMAP {

class Map_declaration_impl;
class Map_element_impl;
class Map_global_bvh_base;
struct Map_particle_info;

// Bits of the empty box's bounds: +1.0e36 and -1.0e36.
constexpr uint32_t MAP_BOUNDS_EMPTY_MIN_BITS = 0x7B4097CE;
constexpr uint32_t MAP_BOUNDS_EMPTY_MAX_BITS = 0xFB4097CE;

struct Map_bounds {
    float minimum[6];   // only the first `dimension` are used
    float maximum[6];
    bool valid;
    float extent;       // carried for the stored form; not interpreted by the cache

    // The empty box: +1e36 minima, -1e36 maxima, not valid.
    void clear();
    void add(const float* position, uint32_t dimension);
    void merge(const Map_bounds& other, uint32_t dimension);
};

class Map_impl : public QV::DB::Element<Map_impl, 0x3D4D4150, QV::DB::Element_base>,
                 public qv::shader_v3::Map_base {
public:
    // An empty map without declaration; registers nothing until a declaration arrives.
    Map_impl();
    // An empty map of a copy of `declaration`.
    explicit Map_impl(const Map_declaration_impl& declaration);
    // A deep copy: declaration, globals, committed and pending elements (into the new map's own
    // pages), bounds and flags. Backing files and the swap file are not shared.
    Map_impl(const Map_impl& other);
    Map_impl& operator=(const Map_impl&) = delete;
    ~Map_impl() override;

    // ---- Database element ------------------------------------------------------------
    // Bytes of storage (pages of all elements plus the object), not the object's size.
    uint64_t get_size() const override;
    // Declaration, flags, globals, size, every element (a copy shares no file), bounds.
    const void* serialize(QV::SERIAL::Serializer* serializer) const override;
    void* deserialize(QV::SERIAL::Deserializer* deserializer) override;

    // ---- qv::shader_v3::Map_base ------------------------------------------------------
    // Status checks of the global accessors, in order: 7 (setters, not editable), 4, the
    // field lookup's own status, 38 for an element field, 37 for a type mismatch.
    uint32_t size() const override;
    bool is_empty() const override;
    bool has_declaration() const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, char* text) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, int32_t* values) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, float* values) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, qv::shader_v3::Map_transform& value) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, qv::shader_v3::Map_color& value) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, qv::shader_v3::Map_vector3& value) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, int32_t& value) const override;
    qv::shader_v3::Map_status get(qv::shader_v3::Map_field_id id, float& value) const override;
    qv::shader_v3::Map_status get(uint32_t index, qv::shader_v3::Map_element_base* element) const override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const char* text, int32_t length) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const int32_t* values) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const float* values) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const qv::shader_v3::Map_transform* value) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const qv::shader_v3::Map_color* value) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, const qv::shader_v3::Map_vector3* value) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, int32_t value) override;
    qv::shader_v3::Map_status set(qv::shader_v3::Map_field_id id, float value) override;
    qv::shader_v3::Map_status set(uint32_t index, const qv::shader_v3::Map_element_base* element) override;
    qv::shader_v3::Map_status append(const qv::shader_v3::Map_element_base* element) override;
    // The file operations live in map_file_map.cpp (binary files) and map_file_open.cpp (open
    // formats); build_bvh commits and brings the BVH up to date (map_bvh_build.cpp).
    qv::shader_v3::Map_status read(const char* filename, uint32_t options) override;
    qv::shader_v3::Map_status append_to_file(const char* filename, bool verbose) override;
    qv::shader_v3::Map_status append_from_file(const char* filename, bool verbose, bool leave_bvh,
                                               uint32_t* format) override;
    qv::shader_v3::Map_status write(const char* filename, qv::shader_v3::Map_file_format format, bool verbose,
                                    const char* comment = nullptr) override;
    // write with the notice ("writing map file") and the error messages switched apart; the
    // interface's one verbose switch turns both on or off.
    qv::shader_v3::Map_status write_file(const char* filename, qv::shader_v3::Map_file_format format,
                                         bool notices, bool errors, const char* comment = nullptr);
    qv::shader_v3::Map_status build_bvh(float quality, bool forced, bool skip_update) override;

    // ---- Storage-level interface for the map family -------------------------------------
    // Null until the first element or read supplies one.
    const Map_declaration_impl* get_declaration() const { return declaration; }
    // Takes a private copy of `declaration` and configures the page store. Only when the map
    // has none yet; answers false otherwise (the old layout stays).
    bool adopt_declaration(const Map_declaration_impl& declaration);

    // Committed element count.
    uint32_t committed_size() const { return size_; }
    uint32_t get_pending_count() const { return pending_count; }
    // Moves the pending elements into `size`; sets needs_build when there were any.
    void commit();

    // Appends one element given as raw bytes of the map's element size (position first).
    // 4 without a declaration. Index of the new element through `index` when not null.
    qv::shader_v3::Map_status append_raw(const void* element_bytes, uint32_t* index = nullptr);
    // Appends `count` elements packed at the map's element size, in order, taking the lock and
    // each page once rather than once per element. Same checks and outcome as `count` calls of
    // append_raw.
    qv::shader_v3::Map_status append_raw_run(const void* elements, uint32_t count);
    // Attaches a backing file (owned from now on) whose `element_count` elements, at
    // `source_elements_per_page` per file page, follow all elements so far. Elements still held
    // only in memory first become a memory segment, so their pages keep their numbers. The file's
    // elements are pending like appends; `file_bounds`, when given, grows the pending bounds.
    // Returns the file index. REQUIRES: a declaration whose layout the file shares.
    int32_t attach_file(Map_page_source* source, uint32_t element_count, uint32_t source_elements_per_page,
                        const Map_bounds* file_bounds);
    // Raw element bytes by index, no range check against size (pending ones included).
    void read_element(uint32_t index, void* out) const;
    void write_element(uint32_t index, const void* in);
    // A field or the position of one element; `offset`/`bytes` from the declaration.
    void read_field(uint32_t index, uint32_t offset, uint32_t bytes, void* out) const;
    void write_field(uint32_t index, uint32_t offset, uint32_t bytes, const void* in);
    // After a position changed: BVH stale, committed bounds grown by `position`.
    void note_position_changed(const float* position);

    Map_page_store& page_store() { return store; }
    const Map_page_store& page_store() const { return store; }
    uint8_t* get_globals() { return globals; }
    const uint8_t* get_globals() const { return globals; }
    const Map_bounds& get_bounds() const { return bounds; }
    const Map_bounds& get_pending_bounds() const { return pending_bounds; }
    void set_bounds(const Map_bounds& value) { bounds = value; }

    // Gives every cached page of this map back to the cache (dirty ones to the swap file) and
    // keeps the map usable; called when a handle lets go of a stored map.
    void flush();
    // Forgets all elements, pages and the declaration.
    void clear();

    std::mutex& map_lock() { return lock; }

    // ---- Fields, in the documented order --------------------------------------------
    Map_declaration_impl* declaration = nullptr;   // owned private copy
    uint32_t declaration_tag = 0;                  // named declaration in scene text, or 0
    int32_t master_map_id = -1;                    // id on the master host
    bool editable = true;                          // false on hosts other than the master
    bool quiet = false;                            // suppresses the map's messages
    bool bvh_enabled = true;
    Map_particle_info* particle_info = nullptr;    // owned, optional
    uint8_t* globals = nullptr;                    // owned, the declaration's global size
    uint32_t size_ = 0;                            // committed element count
    Map_page_store store;
    Map_global_bvh_base* global_bvh = nullptr;     // owned, null when none
    bool needs_build = false;
    bool needs_refit = false;
    Map_bounds bounds;                             // committed
    Map_bounds pending_bounds;
    uint32_t pending_count = 0;
    mutable std::mutex lock;

private:
    void copy_from(const Map_impl& other);
};

// A copy of a map takes neither the BVH nor the particle description: it marks its BVH for a
// rebuild, which its next build_bvh makes from the copied elements.
using Map_global_bvh_destroy_fn = void (*)(Map_global_bvh_base*);
using Map_particle_info_destroy_fn = void (*)(Map_particle_info*);
// Set by the BVH and open-format code so the map can free what it owns without knowing them.
extern Map_global_bvh_destroy_fn map_global_bvh_destroy;
extern Map_particle_info_destroy_fn map_particle_info_destroy;

} // namespace QV::RCMAP
