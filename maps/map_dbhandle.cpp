// Map handles over the database's access bindings.

#include "maps/map_dbhandle.h"

#include "database/db.h"
#include "maps/map_bvh.h"
#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

namespace {

// Element type under which the database keeps serializable objects.
constexpr int DB_TYPE_SERIALIZABLE = 63;

// The map behind a binding, or null when the tag holds something else: a wrong tag must not
// make a handle call into foreign bytes.
Map_impl* map_of(const QV::DB::Access_handle& access)
{
    const Db_record* record = access.record();
    if (!record || !record->data || record->type != DB_TYPE_SERIALIZABLE)
        return nullptr;
    QV::DB::Element_base* element = access.element();
    if (element->get_class_id() != MAP_CLASS_ID)
        return nullptr;
    return static_cast<Map_impl*>(element);
}

// A new owned map read from a file; the read's messages go out, its status to the caller.
Map_impl* map_from_file(const char* filename, Map_status* status)
{
    auto* map = new Map_impl();
    const Map_status result = map->read(filename, MAP_READ_VERBOSE);
    if (status)
        *status = result;
    return map;
}

// A negative threshold asks for the manager's default, which is what a handle's end uses.
constexpr float FINISH_THRESHOLD = -1.0f;

} // namespace

// ---- Access_map_dbhandle_impl -----------------------------------------------------------------

Access_map_dbhandle_impl::Access_map_dbhandle_impl(Db_tag tag)
{
    Module_scope scope(MOD_RCMP);
    object = access.bind(tag, MAP_CLASS_ID, false);
    map = map_of(access);
    in_database = map != nullptr;
}

Access_map_dbhandle_impl::Access_map_dbhandle_impl(const char* filename, Map_status* status)
{
    Module_scope scope(MOD_RCMP);
    map = map_from_file(filename, status);
}

Access_map_dbhandle_impl::~Access_map_dbhandle_impl()
{
    Module_scope scope(MOD_RCMP);
    if (map && !in_database)
        delete map;
    map = nullptr;
    access.release();
}

Map_base* Access_map_dbhandle_impl::get() const
{
    return map;
}

uint32_t Access_map_dbhandle_impl::get_tag() const
{
    return access.tag();
}

uint32_t Access_map_dbhandle_impl::store()
{
    if (access.tag() != 0)
        return access.tag();
    if (!map)
        return 0;
    Module_scope scope(MOD_RCMP);
    Db_tag tag = 0;
    QV::DB::get_transaction()->store(&tag, map, nullptr);
    in_database = true;
    object = access.bind(tag, MAP_CLASS_ID, false);
    map = map_of(access);
    return tag;
}

// ---- Edit_map_dbhandle_impl -------------------------------------------------------------------

Edit_map_dbhandle_impl::Edit_map_dbhandle_impl(Db_tag tag)
{
    Module_scope scope(MOD_RCMP);
    bind(tag);
}

Edit_map_dbhandle_impl::Edit_map_dbhandle_impl(const Map_declaration_impl* declaration)
{
    Module_scope scope(MOD_RCMP);
    map = declaration ? new Map_impl(*declaration) : new Map_impl();
}

Edit_map_dbhandle_impl::Edit_map_dbhandle_impl(const char* filename, Map_status* status)
{
    Module_scope scope(MOD_RCMP);
    map = map_from_file(filename, status);
}

Edit_map_dbhandle_impl::Edit_map_dbhandle_impl(Map_impl* map_in) : map(map_in) {}

Edit_map_dbhandle_impl::~Edit_map_dbhandle_impl()
{
    Module_scope scope(MOD_RCMP);
    if (map && !in_database) {
        delete map;
    } else if (map) {
        // Edits of a stored map end with a valid BVH. The map's pages go back to the cache as
        // idle pages, not out to the swap file: the next user of the map, usually the next
        // stage of the same run, would only read them all back.
        // The build runs with its messages on (timer lines where the class mask asks for them).
        map->commit();
        update_bvh(*map, FINISH_THRESHOLD, false, true);
        Map_manager::instance().give_back_map(&map->page_store());
    }
    map = nullptr;
    access.release();
}

void Edit_map_dbhandle_impl::bind(Db_tag tag)
{
    object = access.bind(tag, MAP_CLASS_ID, true);
    map = map_of(access);
    in_database = map != nullptr;
}

Map_base* Edit_map_dbhandle_impl::get() const
{
    return map;
}

uint32_t Edit_map_dbhandle_impl::get_tag() const
{
    return access.tag();
}

uint32_t Edit_map_dbhandle_impl::store()
{
    if (access.tag() != 0)
        return access.tag();
    if (!map)
        return 0;
    Module_scope scope(MOD_RCMP);
    Db_tag tag = 0;
    QV::DB::get_transaction()->store(&tag, map, nullptr);
    bind(tag);
    return tag;
}

void Edit_map_dbhandle_impl::release()
{
    if (!map)
        return;
    Module_scope scope(MOD_RCMP);
    if (in_database) {
        const Db_tag tag = access.tag();
        access.release();
        QV::DB::get_transaction()->remove(tag);
        in_database = false;
    } else {
        delete map;
    }
    map = nullptr;
    object = nullptr;
}

} // namespace QV::RCMAP
