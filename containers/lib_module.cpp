// The kd-tree store's step of the bring-up: its element types in the scene type table and the
// library's serial class.
#include "containers/kdtree.h"
#include "containers/paged_array.h"
#include "database/scene_types.h"
#include "serial/deserialization_manager.h"

namespace {

// The fixed part by its layout, then the chunk table as plain words.
void swap_header(Db_record* record, bool swap)
{
    if (!swap || !record->data || record->size < sizeof(Kdtree_header))
        return;
    qv_scene_swap_layout(record->data, KDTREE_HEADER_SWAP);
    qv_scene_swap_32(static_cast<uint8_t*>(record->data) + sizeof(Kdtree_header),
                     (record->size - sizeof(Kdtree_header)) / 4);
}

void swap_positions(Db_record* record, bool swap)
{
    if (swap && record->data)
        qv_scene_swap_32(record->data, record->size / 4);
}

}  // namespace

void kdtree_register()
{
    Module_scope scope(MOD_LIB);
    qv_scene_register_type(KDTREE_TYPE_HEADER, nullptr, nullptr, nullptr, swap_header, nullptr);
    qv_scene_register_type(KDTREE_TYPE_POSITIONS, nullptr, nullptr, nullptr, swap_positions, nullptr);
    // Axes are single bytes: nothing to swap.
    qv_scene_register_type(KDTREE_TYPE_AXES, nullptr, nullptr, nullptr, nullptr, nullptr);
    QV::SERIAL::serial_manager()->register_class(QV::LIB::PAGED_ARRAY_CLASS_ID,
                                                 &QV::DB::construct_element<QV::LIB::Paged_array>);
}
