// Box selection: replaces the stored map by one that holds only the points on the wanted side
// of an axis-aligned box.
#include <algorithm>
#include <cstring>
#include <vector>

#include "maps/map_bvh.h"
#include "maps/map_dbhandle.h"
#include "maps/map_impl.h"
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

    // The source is read a page at a time, straight from the page's bytes (the position is an
    // element's first field), and the kept elements go over in runs: no element copy, lock or
    // page lookup per point.
    Map_page_store& store = source_map->page_store();
    Map_manager& manager = Map_manager::instance();
    const uint32_t element_bytes = store.element_bytes;
    const uint32_t end = source_map->size();
    std::vector<uint8_t> kept(size_t(store.elements_per_page) * element_bytes);
    uint32_t count = 0;
    for (uint32_t done = 0; done < end;) {
        uint32_t page, slot;
        store.locate(done, &page, &slot);
        const uint32_t held = map_bvh_page_elements(store, end, page);
        const uint32_t run = held > slot ? std::min(held - slot, end - done) : 1;
        const uint8_t* data = store.get_page(page, true) + size_t(slot) * element_bytes;
        uint32_t taken = 0;
        for (uint32_t i = 0; i < run; ++i) {
            const uint8_t* element = data + size_t(i) * element_bytes;
            float p[3];
            memcpy(p, element, sizeof p);
            // All six faces belong to the box; a NaN coordinate fails every test and is outside.
            bool within = p[0] >= box[0] && p[0] <= box[3] && p[1] >= box[1] && p[1] <= box[4] &&
                          p[2] >= box[2] && p[2] <= box[5];
            if (int(within) == inside)
                memcpy(kept.data() + size_t(taken++) * element_bytes, element, element_bytes);
        }
        if (taken)
            target_map->append_raw_run(kept.data(), taken);
        count += taken;
        done += run;
        // A walked page without changes gives its buffer back (it can be read again from its
        // file): the source is released below, and its pages need not stay in memory beside
        // the new map.
        const uint32_t cache_page = page >> store.cache_page_shift;
        uint32_t next_page = UINT32_MAX, next_slot;
        if (done < end)
            store.locate(done, &next_page, &next_slot);
        if (next_page == UINT32_MAX || next_page >> store.cache_page_shift != cache_page)
            manager.discard_page(&store, cache_page, true);
    }
    target_map->build_bvh(STAGE_BUILD_FACTOR, false, false);

    source.release();
    Tag result = target.store();
    msg_info("box selected %i points", int(count));
    return result;
}
