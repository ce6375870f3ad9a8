// Walks the committed points of a map in element order, page by page through the cache, and
// hands each to a visitor as an Fg_point. The pages are fetched once each; per point there is
// one byte copy and the declaration-driven conversion, no lock and no virtual call.
#pragma once

#include <cstdint>
#include <cstring>

#include "finalgather/fg_map.h"
#include "finalgather/fg_point.h"
#include "info/info_progress.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_page_store.h"

// visit(uint32_t index, const Fg_point& point). `progress` may be null.
// REQUIRES: the map holds the final-gather layout (fg_map_load refuses other layouts).
template <class Visit>
void info_walk(QV::RCMAP::Map_impl& map, Info_progress* progress, Visit visit)
{
    QV::RCMAP::Map_page_store& store = map.page_store();
    QV::RCMAP::Map_element_impl element(map.get_declaration());
    uint8_t* scratch = element.get_data();
    const uint32_t bytes = store.element_bytes;
    const uint32_t count = map.size();
    Fg_point point{};
    uint32_t open_page = UINT32_MAX;
    const uint8_t* page_bytes = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t page, slot;
        store.locate(i, &page, &slot);
        if (page != open_page) {
            page_bytes = store.get_page(page, true);
            open_page = page;
            if (progress)
                progress->update(i);
        }
        std::memcpy(scratch, page_bytes + size_t(slot) * bytes, bytes);
        fg_point_from_element(&point, &element);
        visit(i, point);
    }
}
