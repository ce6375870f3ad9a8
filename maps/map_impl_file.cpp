// Map_impl's file operations and BVH build: the place where the map file and BVH code plug in.
//
// Until that code lands these fail plainly rather than pretend: nothing is read or written, and
// build_bvh only commits the pending elements. The map file code replaces this file as a whole.
#include "maps/map_impl.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

Map_status Map_impl::read(const char*, uint32_t)
{
    return MAP_FILE_CANNOT_OPEN;
}

Map_status Map_impl::append_to_file(const char*, bool)
{
    return MAP_FILE_MALFORMED;
}

Map_status Map_impl::append_from_file(const char*, bool, bool, uint32_t* format)
{
    if (format)
        *format = MAP_FORMAT_BINARY;
    return MAP_FILE_CANNOT_OPEN;
}

Map_status Map_impl::write(const char*, Map_file_format, bool)
{
    return MAP_FILE_MALFORMED;
}

Map_status Map_impl::build_bvh(float, bool, bool)
{
    commit();
    return MAP_SUCCESS;
}

} // namespace QV::RCMAP
