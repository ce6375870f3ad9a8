// libFuzzer target: every input is handed to the binary map file reader as a file, through the
// header reader, a map read with every element touched, an append onto a filled map and an
// append of a map onto the file. Whatever the bytes, nothing may crash, hang or read outside its
// buffers. Built and run by scripts/fuzz.sh, not by the test build.
//
// With QV_MAP_FUZZ_SEEDS set to a directory, the target writes its seed files there and exits.
#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "tests/fuzz/fuzz_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

std::string g_input;
std::string g_target;

Map_declaration_impl fuzz_declaration()
{
    Map_declaration_impl declaration(3);
    declaration.add_scalar("weight");
    declaration.add_integer("id");
    declaration.add_global_scalar("scale");
    declaration.add_global_string("label", 5);
    return declaration;
}

void write_seeds(const char* directory)
{
    const std::string base = directory;
    Map_declaration_impl declaration = fuzz_declaration();
    {
        Map_impl map(declaration);
        map.bvh_enabled = false;
        fuzz_fill(map, 5);
        map.write((base + "/small.map").c_str(), MAP_FORMAT_BINARY, false);
    }
    {
        Map_impl map(declaration);
        fuzz_fill(map, 40);
        map.write((base + "/built.map").c_str(), MAP_FORMAT_BINARY, false);
    }
    {
        Map_impl map{Map_declaration_impl(2)};
        map.write((base + "/empty.map").c_str(), MAP_FORMAT_BINARY, false);
    }
    // The small file cut right behind its last element: short last pages read as zeros.
    const std::vector<uint8_t> bytes = fuzz_get_file(base + "/small.map");
    if (bytes.size() >= 14) {
        uint32_t d;
        memcpy(&d, bytes.data() + 10, 4);
        const size_t end = size_t(d) + 9 + 42 + 24 + 5 * 20;
        fuzz_put_file(base + "/small_cut.map", bytes.data(), end < bytes.size() ? end : bytes.size());
    }
    fuzz_put_file(base + "/text.map", "# comment\n declare map\n", 23);
    fuzz_put_file(base + "/open.map", "qv=MAPob1dim3s\"w\"", 17);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_start(MSG_FATAL);
    rcmp_init(true);
    Map_manager::instance().set_size_limit_mb(64.0f);
    if (const char* seeds = getenv("QV_MAP_FUZZ_SEEDS")) {
        write_seeds(seeds);
        exit(0);
    }
    g_input = fuzz_scratch("qv_map_fuzz", ".map");
    g_target = fuzz_scratch("qv_map_fuzz", ".target.map");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!fuzz_put_file(g_input, data, size))
        return 0;

    // The header alone.
    Map_status status = MAP_SUCCESS;
    {
        Map_file file(MAP_FILE_KIND_READ, true, true, false, g_input.c_str(), nullptr, &status);
        if (status == MAP_SUCCESS) {
            std::vector<uint8_t> page(MAP_FILE_PAGE_BYTES);
            for (uint32_t i = 0; i < file.page_count && i < 4; ++i)
                file.read_pages(i, 1, page.data());
        }
    }

    // A read, touching every element (a valid header keeps them inside the input).
    {
        Map_impl map;
        if (map.read(g_input.c_str(), MAP_READ_VERBOSE) == MAP_SUCCESS && map.get_declaration()) {
            std::vector<uint8_t> element(map.get_declaration()->element_bytes());
            for (uint32_t i = 0; i < map.size(); ++i)
                map.read_element(i, element.data());
        }
    }

    // Onto a filled map, keeping its tree where the file has one.
    {
        Map_impl map(fuzz_declaration());
        fuzz_fill(map, 3);
        map.build_bvh(2.0f, false, false);
        uint32_t format = 0;
        map.append_from_file(g_input.c_str(), true, false, &format);
        map.build_bvh(2.0f, false, false);
    }

    // A map appended onto the input, then the result read back.
    if (fuzz_put_file(g_target, data, size)) {
        Map_impl map(fuzz_declaration());
        map.bvh_enabled = false;
        fuzz_fill(map, 9);
        if (map.append_to_file(g_target.c_str(), true) == MAP_SUCCESS) {
            Map_impl back;
            back.bvh_enabled = false;
            back.read(g_target.c_str(), 0);
        }
    }
    return 0;
}
