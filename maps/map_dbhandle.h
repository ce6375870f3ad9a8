// Map handles: how code pins a map for reading or editing.
//
// A handle either reaches a map that is a database element (by tag; the database owns it) or
// owns a map of its own (made from a file, from a declaration, or handed over). store() turns
// an owned map into a database element under a new tag. Handles are not shared between
// threads; each pins through the database's own counting.
//
// End of a handle: an owned map is deleted. An edit handle on a database element first brings
// the map's BVH up to date and hands its pages back to the cache, then ends the edit; so an
// edited stored map always carries a valid BVH, and a file-backed read handle frees the file
// handles and pages of the map it owns.
#pragma once

#include <cstdint>

#include "database/transaction.h"
#include "maps/map_interfaces.h"

namespace QV::RCMAP {

class Map_impl;
class Map_declaration_impl;
using qv::shader_v3::Map_status;

// Class id under which maps live in the database ("=MAP").
constexpr uint32_t MAP_CLASS_ID = 0x3D4D4150;

class Access_map_dbhandle_impl final : public qv::shader_v3::Access_map_dbhandle {
public:
    // Pins the map stored under `tag` for reading; a tag that holds no map gives a handle
    // whose get() is null.
    explicit Access_map_dbhandle_impl(Db_tag tag);
    // Reads `filename` into a new map that the handle owns. The map exists even when the
    // read fails; `status` (may be null) gets the read's status.
    Access_map_dbhandle_impl(const char* filename, Map_status* status);
    Access_map_dbhandle_impl(const Access_map_dbhandle_impl&) = delete;
    Access_map_dbhandle_impl& operator=(const Access_map_dbhandle_impl&) = delete;
    ~Access_map_dbhandle_impl() override;

    qv::shader_v3::Map_base* get() const override;
    uint32_t get_tag() const override;
    // The tag; an owned map is first stored as a database element (and pinned again through
    // the tag). 0 when there is no map.
    uint32_t store() override;

    // The map itself, for the map family's own classes (iterators, lookups); may be null.
    Map_impl* get_map() const { return map; }
    bool is_in_database() const { return in_database; }

private:
    QV::DB::Access_handle access; // database binding, read mode
    void* object = nullptr;       // what the binding returned
    Map_impl* map = nullptr;
    bool in_database = false;     // the database owns the map: never delete it here
};

class Edit_map_dbhandle_impl final : public qv::shader_v3::Edit_map_dbhandle {
public:
    // Pins the map stored under `tag` for editing.
    explicit Edit_map_dbhandle_impl(Db_tag tag);
    // A new empty map of a copy of `declaration` (null: a map without declaration, which
    // adopts the first appended element's). Owned.
    explicit Edit_map_dbhandle_impl(const Map_declaration_impl* declaration);
    // Reads `filename` into a new owned map; `status` (may be null) gets the read's status.
    Edit_map_dbhandle_impl(const char* filename, Map_status* status);
    // Takes over `map` (may be null): the handle owns it from now on.
    explicit Edit_map_dbhandle_impl(Map_impl* map);
    Edit_map_dbhandle_impl(const Edit_map_dbhandle_impl&) = delete;
    Edit_map_dbhandle_impl& operator=(const Edit_map_dbhandle_impl&) = delete;
    ~Edit_map_dbhandle_impl() override;

    qv::shader_v3::Map_base* get() const override;
    uint32_t get_tag() const override;
    uint32_t store() override;

    // Lets go of the map: a database element is unpinned and its tag removed from the
    // database; an owned map is deleted. The handle is empty afterwards.
    void release();

    Map_impl* get_map() const { return map; }
    bool is_in_database() const { return in_database; }

private:
    void bind(Db_tag tag);

    QV::DB::Access_handle access; // database binding, edit mode
    void* object = nullptr;
    Map_impl* map = nullptr;
    bool in_database = false;
};

} // namespace QV::RCMAP
