// The two serializable grid classes of the final-gather computation. The map tool only registers
// them; their content serves a renderer that distributes its final-gather grids over hosts.
#pragma once

#include <cstdint>

#include "database/element.h"
#include "finalgather/rcfg_module.h"

namespace QV::RCFG {

// A grid over the whole scene: the tag of its point record (type 86) and the points in it.
class General_grid_dbelement
    : public QV::DB::Element<General_grid_dbelement, FG_GENERAL_GRID_CLASS_ID> {
public:
    uint32_t points_tag = 0;
    uint32_t point_count = 0;

    const void* serialize(QV::SERIAL::Serializer* serializer) const override;
    void* deserialize(QV::SERIAL::Deserializer* deserializer) override;
};

// A grid of one image tile: as above, plus the tile's place in the image.
class Tile_grid_dbelement : public QV::DB::Element<Tile_grid_dbelement, FG_TILE_GRID_CLASS_ID> {
public:
    uint32_t points_tag = 0;
    uint32_t point_count = 0;
    int32_t tile[4] = {0, 0, 0, 0};  // xmin, ymin, xmax, ymax in pixels

    const void* serialize(QV::SERIAL::Serializer* serializer) const override;
    void* deserialize(QV::SERIAL::Deserializer* deserializer) override;
};

}  // namespace QV::RCFG
