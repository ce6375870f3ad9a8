// libFuzzer target for the open binary map reader: every input is the part of a file behind
// "qv=MAPob" (version digit, "dim", dimension digit, field list text, global block, elements),
// so that the fuzzer spends its time on the header and the field text rather than on the magic.
// The input also goes to the field text parser directly. It is then read as a map, appended
// onto a filled map, and the header alone is opened for an append to the file. Whatever the
// bytes, nothing may crash, hang, read outside its buffers or allocate beyond what the input
// size explains. Built and run by scripts/fuzz_open.sh, not by the test build.
//
// With QV_OPEN_FUZZ_SEEDS set to a directory, the target writes its seed files there and exits.
#include "maps/map_declaration.h"
#include "maps/map_file.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "tests/fuzz/fuzz_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

constexpr char PREFIX[] = "qv=MAPob";
constexpr size_t PREFIX_BYTES = sizeof PREFIX - 1;

std::string g_input;

Map_declaration_impl small_declaration()
{
    Map_declaration_impl declaration(3);
    declaration.add_scalar("weight");
    declaration.add_integer("id");
    return declaration;
}

// `map` written as open binary, without the prefix the target puts back.
void write_seed(Map_impl& map, const std::string& directory, const char* name, size_t cut = 0)
{
    const std::string scratch = directory + "/scratch.tmp";
    map.write(scratch.c_str(), MAP_FORMAT_OPEN_BINARY, false);
    const std::vector<uint8_t> bytes = fuzz_get_file(scratch);
    remove(scratch.c_str());
    if (bytes.size() >= PREFIX_BYTES + cut)
        fuzz_put_file(directory + "/" + name, bytes.data() + PREFIX_BYTES, bytes.size() - PREFIX_BYTES - cut);
}

void write_seeds(const char* directory)
{
    const std::string base = directory;
    {
        Map_impl map(small_declaration());
        fuzz_fill(map, 6);
        write_seed(map, base, "small.ob");
        write_seed(map, base, "small_cut.ob", 7);
    }
    {
        Map_declaration_impl declaration(2);
        declaration.add_global_scalar("scale");
        declaration.add_global_string("label", 8);
        declaration.add_global_integer_array("k", 3);
        declaration.add_vector("dir");
        declaration.add_color("c");
        declaration.add_transform("m");
        declaration.add_scalar_array("w", 4);
        declaration.add_integer_array("n", 2);
        Map_impl map(declaration);
        fuzz_fill(map, 3);
        write_seed(map, base, "every_type.ob");
    }
    {
        Map_impl map{Map_declaration_impl(6)};
        write_seed(map, base, "empty6.ob");
    }
    const char bad_item[] = "1dim3s4g\"w\"i0\"n\"$0g\"x\"";
    fuzz_put_file(base + "/bad_item.ob", bad_item, sizeof bad_item);  // with its terminating zero
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_start(MSG_FATAL);
    rcmp_init(true);
    Map_manager::instance().set_size_limit_mb(64.0f);
    if (const char* seeds = getenv("QV_OPEN_FUZZ_SEEDS")) {
        write_seeds(seeds);
        exit(0);
    }
    g_input = fuzz_scratch("qv_open_fuzz", ".ob");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The field text parser alone, on the raw bytes, in a dimension the first byte picks.
    {
        Map_declaration_impl declaration(size ? 1 + data[0] % 6 : 3);
        map_open_binary_parse_fields(reinterpret_cast<const char*>(data), size, declaration, "fuzz", true);
    }

    if (!fuzz_put_file(g_input, data, size, PREFIX))
        return 0;

    // A read, touching every element and global value.
    {
        Map_impl map;
        map.bvh_enabled = (size & 1) != 0;
        map.read(g_input.c_str(), MAP_READ_VERBOSE);
        if (const Map_declaration_impl* declaration = map.get_declaration()) {
            map.commit();
            std::vector<uint8_t> element(declaration->element_bytes());
            for (uint32_t i = 0; i < map.size(); ++i)
                map.read_element(i, element.data());
            volatile uint8_t sink = 0;
            for (uint32_t i = 0; map.get_globals() && i < declaration->global_bytes(); ++i)
                sink = sink + map.get_globals()[i];
        }
    }

    // Onto a filled map of a fixed layout, and onto a map without declaration.
    {
        Map_impl map(small_declaration());
        fuzz_fill(map, 3);
        uint32_t format = 0;
        map.append_from_file(g_input.c_str(), true, false, &format);
        map.build_bvh(2.0f, false, false);
        Map_impl empty;
        empty.append_from_file(g_input.c_str(), true, true, &format);
    }

    // An append to the file is refused whatever its header holds.
    {
        Map_impl map(small_declaration());
        fuzz_fill(map, 2);
        if (map.append_to_file(g_input.c_str(), true) == MAP_SUCCESS)
            abort();
    }
    return 0;
}
