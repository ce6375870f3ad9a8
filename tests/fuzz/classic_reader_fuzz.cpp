// libFuzzer target: every input is handed to the classic final-gather reader as a file, through
// the loader into a map, the loader into a kd-tree and the writer's open (which reads the headers
// to decide between appending and replacing). Whatever the bytes, nothing may crash, hang or
// read outside its buffers. Built and run by scripts/fuzz_classic.sh, not by the test build.
#include "containers/kdtree.h"
#include "database/db.h"
#include "database/element.h"
#include "database/transaction.h"
#include "finalgather/fg_file.h"
#include "finalgather/rcfg_module.h"
#include "maps/map_impl.h"
#include "maps/rcmp_module.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

std::string g_input;
std::string g_output;

void start()
{
    fuzz_start(MSG_FATAL);
    qv_db_init();
    QV::DB::get_transaction();
    QV::DB::element_install_db_handler();
    kdtree_register();
    rcmp_init(true);
    fg_module_init();
    g_input = fuzz_scratch("fg_classic_fuzz", ".in");
    g_output = fuzz_scratch("fg_classic_fuzz", ".out");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool started = (start(), true);
    (void)started;

    // Keep the classic magic: other files go to the map reader, which has fuzzing of its own.
    std::string bytes(reinterpret_cast<const char*>(data), size);
    if (bytes.size() < 4)
        bytes.resize(4, ' ');
    std::memcpy(bytes.data(), "qvFG", 4);
    if (!fuzz_put_file(g_input, bytes.data(), bytes.size()))
        return 0;

    QV::RCMAP::Map_impl* map = fg_map_new();
    fg_map_load(map, g_input.c_str(), true);
    map->build_bvh(0.6f, false, false);
    delete map;

    const uint32_t tree = kdtree_create(1, 92);
    Kdtree_handle* writer = kdtree_open_for_writing(tree, nullptr, 0);
    fg_kdtree_load(writer, g_input.c_str());
    kdtree_close(writer);
    kdtree_delete(tree);

    // The writer's open reads the same headers and decides between appending and replacing.
    // One point is appended where the file is short enough that its end lies near: an absurd
    // count would only make a huge sparse file.
    if (fuzz_put_file(g_output, bytes.data(), bytes.size())) {
        if (Fg_map_writer* out = fg_map_open_write(nullptr, g_output.c_str(), true)) {
            if (out->count < 1000) {
                const Fg_point point{};
                fg_map_write_point(out, point.normal, point.position);
            }
            fg_map_close(out);
        }
        unlink(g_output.c_str());
    }
    unlink(g_input.c_str());
    return 0;
}
