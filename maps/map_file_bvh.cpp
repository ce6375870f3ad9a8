// The global BVH in a map file: where it lies, when it may be read or written, and how a
// file's BVH joins a map's.
#include "maps/map_file.h"

#include "maps/map_bvh.h"
#include "runtime/modules.h"

namespace QV::RCMAP {

using namespace qv::shader_v3;

bool Map_file::read_bvh(Map_global_bvh_base* bvh, bool asynchronous, uint32_t* reason)
{
    uint32_t result = MAP_FILE_BVH_DONE;
    if (!is_open)
        result = MAP_FILE_BVH_NOT_OPEN;
    else if (kind != MAP_FILE_KIND_READ && kind != MAP_FILE_KIND_READ_FOR_APPEND)
        result = MAP_FILE_BVH_WRONG_KIND;
    else if (version == 1)
        result = MAP_FILE_BVH_VERSION_1;
    else if (bvh_offset == 0 || !bvh)
        result = MAP_FILE_BVH_NONE;
    else if (fseeko(stream_, off_t(bvh_offset), SEEK_SET) != 0 || !bvh->read(stream_, asynchronous))
        result = MAP_FILE_BVH_NONE;
    if (reason)
        *reason = result;
    return result == MAP_FILE_BVH_DONE;
}

bool Map_file::write_bvh(Map_global_bvh_base* bvh, uint32_t* reason)
{
    uint32_t result = MAP_FILE_BVH_DONE;
    const uint64_t pages_bytes = uint64_t(page_count) * page_bytes;
    if (!is_open) {
        result = MAP_FILE_BVH_NOT_OPEN;
    } else if (kind != MAP_FILE_KIND_WRITE && kind != MAP_FILE_KIND_APPEND) {
        result = MAP_FILE_BVH_WRONG_KIND;
    } else if (version == 1) {
        result = MAP_FILE_BVH_VERSION_1;
    } else if (!bvh || uint64_t(ftello(stream_)) > data_offset + pages_bytes) {
        result = MAP_FILE_BVH_NONE;
    } else if (fseeko(stream_, off_t(data_offset + pages_bytes), SEEK_SET) != 0 || !bvh->write(stream_)) {
        result = MAP_FILE_BVH_NONE;
    } else {
        // The offset field is found anew from the file itself: past the magic and version, over
        // the declaration record and the global block, then over the four counts.
        uint32_t d = 0, g = 0;
        bool found = fseeko(stream_, 6, SEEK_SET) == 0 && fseeko(stream_, 4, SEEK_CUR) == 0 &&
                     fread(&d, 4, 1, stream_) == 1 && fseeko(stream_, off_t(d), SEEK_CUR) == 0 &&
                     fread(&g, 4, 1, stream_) == 1 && fseeko(stream_, off_t(g), SEEK_CUR) == 0 &&
                     fseeko(stream_, 16, SEEK_CUR) == 0 && fwrite(&pages_bytes, 8, 1, stream_) == 1;
        if (found)
            bvh_offset = data_offset + pages_bytes;
        else
            result = MAP_FILE_BVH_NONE;
    }
    if (reason)
        *reason = result;
    return result == MAP_FILE_BVH_DONE;
}

bool map_file_read_bvh(Map_impl& map, Map_file* file, bool replace)
{
    Module_scope scope(MOD_RCMP);
    if (!file || !map.declaration || file->bvh_offset == 0)
        return false;
    const uint32_t dimension = map.declaration->dimension();
    if (replace) {
        if (!map.global_bvh)
            map.global_bvh = map_global_bvh_create(dimension, &map.page_store());
        return map.global_bvh && file->read_bvh(map.global_bvh, false, nullptr);
    }
    // The file's tree is hung under the map's root, its pages numbered from the file's segment.
    if (!map.global_bvh || map.page_store().segments().empty())
        return false;
    Map_global_bvh_base* other = map_global_bvh_create(dimension, &map.page_store());
    if (!other)
        return false;
    const uint32_t first_page = map.page_store().segments().back().first_page;
    bool joined = file->read_bvh(other, false, nullptr) && map.global_bvh->add_subtree(*other, first_page);
    delete other;
    return joined;
}

bool map_file_write_bvh(Map_impl& map, Map_file& file)
{
    Module_scope scope(MOD_RCMP);
    // Without pages the offset field would hold 0, which means "no BVH": nothing to write.
    if (!map.global_bvh || !map.global_bvh->is_valid() || map.needs_build || map.needs_refit || file.page_count == 0)
        return false;
    return file.write_bvh(map.global_bvh, nullptr);
}

} // namespace QV::RCMAP
