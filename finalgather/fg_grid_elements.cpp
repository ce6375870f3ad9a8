#include "finalgather/fg_grid_elements.h"

#include "serial/serializer.h"

namespace QV::RCFG {

const void* General_grid_dbelement::serialize(QV::SERIAL::Serializer* serializer) const
{
    serializer->write_tag(points_tag);
    serializer->write(point_count);
    return this + 1;
}

void* General_grid_dbelement::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    deserializer->read_tag(&points_tag);
    deserializer->read(&point_count);
    return this + 1;
}

const void* Tile_grid_dbelement::serialize(QV::SERIAL::Serializer* serializer) const
{
    serializer->write_tag(points_tag);
    serializer->write(point_count);
    for (int32_t value : tile)
        serializer->write(value);
    return this + 1;
}

void* Tile_grid_dbelement::deserialize(QV::SERIAL::Deserializer* deserializer)
{
    deserializer->read_tag(&points_tag);
    deserializer->read(&point_count);
    for (int32_t& value : tile)
        deserializer->read(&value);
    return this + 1;
}

}  // namespace QV::RCFG
