// Map_impl's BVH build: the place where the BVH code plugs in. The file operations live with the
// map file code (map_file_map.cpp).
//
// Until the BVH code lands build_bvh fails plainly rather than pretend: it only commits the
// pending elements.
#include "maps/map_impl.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

Map_status Map_impl::build_bvh(float, bool, bool)
{
    commit();
    return MAP_SUCCESS;
}

} // namespace QV::RCMAP
