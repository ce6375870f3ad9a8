// libFuzzer target: entries whose names, keys and texts come from the input are defined, and a
// text from the input is expanded in every mode. Only keys without outside effects are used
// ("value", "echo", "link" with no linker, "spdl"), so mode 1 runs echo actions, which expand
// again. Nothing may crash, overrun or hang. Built and run by scripts/fuzz_paths.sh.
#include "runtime/msg.h"
#include "runtime/registry.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

void start()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    fuzz_start(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO | MSG_DEBUG);  // every line, and none shown
    setenv("QVF_E", "{env}", 1);
}

const char* const KEYS[] = {"value", "echo", "link", "spdl", "value"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    start();
    registry_init();
    // Pieces split at zero bytes: name, text pairs for the entries, the last one is expanded.
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0 && parts.size() < 16)
            parts.emplace_back();
        else
            parts.back().push_back(char(data[i]));
    }
    for (size_t i = 0; i + 2 < parts.size(); i += 2) {
        std::string name = "{" + parts[i] + "}";
        const char* key = KEYS[parts[i + 1].empty() ? 0 : uint8_t(parts[i + 1][0]) % 5];
        if (i % 4 == 0)
            registry_begin(name.c_str());
        registry_add(name.c_str(), key, parts[i + 1].c_str());
    }
    for (int mode = 0; mode <= 8; ++mode)
        mem_free(__FILE__, __LINE__, registry_lookup(parts.back().c_str(), mode));
    registry_exit();
    return 0;
}
