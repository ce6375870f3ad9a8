// Box selection: replaces the stored map by one that holds only the points on the wanted side
// of an axis-aligned box.
#include "maps/map_dbhandle.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "maps/map_manager.h"
#include "maps/map_page_store.h"
#include "runtime/msg.h"
#include "tool/stages.h"

using namespace QV::RCMAP;


Tag select_box(Tag tag, const float box[6], int inside)
{
    // x first, then y, then z; a minimum equal to its maximum is a valid plane.
    for (int axis = 0; axis < 3; ++axis) {
        if (box[axis] > box[axis + 3]) {
            // The text says -b also for -B, and the whole selection is skipped.
            msg_error("bad box option: -b %f %f %f %f %f %f, ignoring", box[0], box[1], box[2], box[3],
                      box[4], box[5]);
            return tag;
        }
    }
    if (tag == 0)
        return 0;

    Edit_map_dbhandle_impl source(tag);
    Map_impl* source_map = source.get_map();
    if (!source_map)
        return tag;
    Edit_map_dbhandle_impl target(source_map->get_declaration());
    Map_impl* target_map = target.get_map();
    target_map->bvh_enabled = false;

    Map_element_impl element(source_map->get_declaration());
    Map_iterator_impl it(source_map);
    uint32_t count = 0;
    // A walked page without changes gives its buffer back (it can be read again from its file):
    // the source is released below, and its pages need not stay in memory beside the new map.
    Map_page_store& store = source_map->page_store();
    Map_manager& manager = Map_manager::instance();
    uint32_t open_cache_page = UINT32_MAX;
    for (uint32_t i = 0, end = source_map->size(); i < end; ++i, it.next()) {
        uint32_t page, slot;
        store.locate(i, &page, &slot);
        const uint32_t cache_page = page >> store.cache_page_shift;
        if (cache_page != open_cache_page) {
            if (open_cache_page != UINT32_MAX)
                manager.discard_page(&store, open_cache_page, true);
            open_cache_page = cache_page;
        }
        float p[3];
        it.get_position(p);
        // All six faces belong to the box; a NaN coordinate fails every test and is outside.
        bool within = p[0] >= box[0] && p[0] <= box[3] && p[1] >= box[1] && p[1] <= box[4] &&
                      p[2] >= box[2] && p[2] <= box[5];
        if (int(within) == inside) {
            it.get(&element);
            target_map->append(&element);
            ++count;
        }
    }
    target_map->build_bvh(STAGE_BUILD_FACTOR, false, false);

    source.release();
    Tag result = target.store();
    msg_info("box selected %i points", int(count));
    return result;
}
