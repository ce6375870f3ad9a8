// Output: the map under a tag goes to a current map file, or with legacy set to a classic file
// through the kd-tree store. Failures are reported by the writers; the caller learns nothing.
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "containers/kdtree.h"
#include "finalgather/fg_file.h"
#include "finalgather/fg_map.h"
#include "maps/map_dbhandle.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "runtime/paths.h"
#include "tool/stages.h"

using namespace QV::RCMAP;

namespace {

// Type 1 kd-tree whose records are words 3 to 25 of a point.
constexpr int KDTREE_TYPE = 1;
constexpr uint32_t KDTREE_PAYLOAD_BYTES = 92;
// Discarded pages' buffers kept for reuse before they go back to the memory manager.
constexpr uint32_t SPARE_BUFFERS = 16;

void save_current(const char* path, Tag tag)
{
    Edit_map_dbhandle_impl handle(tag);
    Map_impl* map = handle.get_map();
    if (!map)
        return;
    // The earlier stages switched it off; the write builds the hierarchy and stores it.
    map->bvh_enabled = true;
    // The map layer opens a file for writing under the name it is given, so the substituted
    // name is made here; the classic writer substitutes on its own.
    char name[PATH_CALLER_BUFFER];
    path_substitute(name, path, sizeof name);
    map->write(name, qv::shader_v3::MAP_FORMAT_BINARY, true);
}

void save_classic(const char* path, Tag tag)
{
    uint32_t kdtree = kdtree_create(KDTREE_TYPE, KDTREE_PAYLOAD_BYTES);
    Kdtree_handle* writer = kdtree_open_for_writing(kdtree, nullptr, 0);
    {
        Access_map_dbhandle_impl handle(tag);
        Map_impl* map = handle.get_map();
        if (map && writer) {
            Map_element_impl element(map->get_declaration());
            Map_iterator_impl it(map);
            // The reserved words have no map field; they are written as zero.
            Fg_point point = {};
            // A page that has been walked goes, changes and all, and its buffer goes back to
            // the memory manager, where the kd-tree's blocks find it: this is the last stage and
            // nothing reads the map again, and its pages would otherwise stay in memory beside
            // the kd-tree, which takes another copy of every point (a map read from a classic
            // file has only changed pages, with no file behind them).
            Map_page_store& store = map->page_store();
            Map_manager& manager = Map_manager::instance();
            uint32_t open_cache_page = UINT32_MAX;
            for (uint32_t i = 0, end = map->size(); i < end; ++i, it.next()) {
                uint32_t page, slot;
                store.locate(i, &page, &slot);
                const uint32_t cache_page = page >> store.cache_page_shift;
                if (cache_page != open_cache_page) {
                    if (open_cache_page != UINT32_MAX) {
                        manager.discard_page(&store, open_cache_page);
                        // A clean page's buffer serves the next page read; only buffers that pile up,
                        // those of pages with changes and no file behind them, go back.
                        if (manager.free_buffers() > SPARE_BUFFERS)
                            manager.free_spare_buffers();
                    }
                    open_cache_page = cache_page;
                }
                it.get(&element);
                fg_point_from_element(&point, &element);
                kdtree_add(writer, point.normal, point.position);  // word 3 onwards
            }
        }
    }
    if (writer)
        kdtree_close(writer);
#ifdef __GLIBC__
    // The pages freed in the walk that the kd-tree's blocks did not take, and the positions'
    // blocks that closing gathered into one array, lie in the heap, where the allocator keeps
    // them; the balancing that follows needs that memory for arrays of its own.
    malloc_trim(0);
#endif
    fg_map_save_legacy(kdtree, nullptr, path);
    kdtree_delete(kdtree);
}

}  // namespace

void save_map(const char* path, Tag tag, int legacy)
{
    // The raw name, before substitution: the write below goes to the substituted one.
    if (access(path, F_OK) == 0)
        unlink(path);
    if (tag == 0)
        return;
    if (legacy)
        save_classic(path, tag);
    else
        save_current(path, tag);
}
