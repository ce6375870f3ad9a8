// libFuzzer target: rule text, a variable's value and a path, all from the input, go through the
// whole rewrite (lazy start with QV_RAY_SUBSTITUTE, variables, rules, registry step) into a heap
// buffer of exactly the size the input asks for, so any write past it is caught. Built and run
// by scripts/fuzz_paths.sh, not by the test build.
#include "runtime/msg.h"
#include "runtime/paths.h"
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
    registry_init();
    registry_begin("{r}");
    registry_add("{r}", "value", "/reg/{_QV_missing}");
    registry_begin("{loop}");
    registry_add("{loop}", "value", "{loop}");
}

// Splits at zero bytes into at most `count` pieces; missing pieces are empty.
std::vector<std::string> pieces(const uint8_t* data, size_t size, size_t count)
{
    std::vector<std::string> out(count);
    size_t piece = 0;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0 && piece + 1 < count)
            ++piece;
        else
            out[piece].push_back(char(data[i]));
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    start();
    if (size < 2)
        return 0;
    size_t buffer_bytes = 1 + (size_t(data[0]) | size_t(data[1] & 7) << 8);  // 1 .. 2048
    std::vector<std::string> parts = pieces(data + 2, size - 2, 3);
    setenv("QV_RAY_SUBSTITUTE", parts[0].c_str(), 1);
    setenv("QVF_V", parts[1].c_str(), 1);
    path_clear_rules();  // the next call starts again with the new rule text

    char* out = static_cast<char*>(malloc(buffer_bytes));
    path_substitute(out, parts[2].c_str(), buffer_bytes);
    if (strnlen(out, buffer_bytes) >= buffer_bytes)
        abort();  // no terminating zero inside the buffer
    path_substitute_raw(out, parts[2].c_str(), buffer_bytes, false);
    free(out);
    mem_free(__FILE__, __LINE__, path_expand_vars(parts[2].c_str()));
    mem_free(__FILE__, __LINE__, path_apply_rules(parts[1].c_str()));
    return 0;
}
