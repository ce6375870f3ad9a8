// The kd-tree store's step of the bring-up: its element types and the library's serial class.
#include "containers/kdtree.h"
#include "containers/paged_array.h"
#include "serial/deserialization_manager.h"

void kdtree_register()
{
    Module_scope scope(MOD_LIB);
    QV::SERIAL::serial_manager()->register_class(QV::LIB::PAGED_ARRAY_CLASS_ID,
                                                 &QV::DB::construct_element<QV::LIB::Paged_array>);
}
