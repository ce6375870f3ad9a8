// Map_impl's BVH build: the place where the BVH code plugs in. The file operations live with the
// map file code (map_file_map.cpp).
#include "maps/map_bvh.h"
#include "maps/map_impl.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

Map_status Map_impl::build_bvh(float quality, bool forced, bool skip_update)
{
    return map_commit_and_build_bvh(*this, quality, forced, skip_update);
}

} // namespace QV::RCMAP
