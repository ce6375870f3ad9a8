// The memory manager under the whole tool: the block allocator changes no byte of what a run
// gives, and a run under a low heap limit flushes the map cache instead of failing.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

#include "runtime/msg.h"
#include "tests/mem/mem_fixture.h"
#include "tool/bringup.h"
#include "tool/stages.h"

namespace {

class Tool_run_test : public Mem_test {
protected:
    void SetUp() override
    {
        Mem_test::SetUp();
        dir_ = "/tmp/mem_tool_" + std::to_string(getpid());
        ASSERT_EQ(system(("mkdir -p " + dir_).c_str()), 0);
        input_ = dir_ + "/room.fg";
        std::string make = std::string(QV_TEST_MAKE_ROOM_PATH) + " -n 60000 -s 7 " + input_;
        ASSERT_EQ(system(make.c_str()), 0);
    }
    void TearDown() override
    {
        ASSERT_EQ(system(("rm -rf " + dir_).c_str()), 0);
        Mem_test::TearDown();
    }
    // Runs the tool with `environment` prefixed; gives the exit code, and its stderr in `err`.
    int run(const std::string& environment, const std::string& args, std::string* err)
    {
        std::string err_file = dir_ + "/err.txt";
        std::string command = environment + " " + QV_TEST_TOOL_PATH + " " + args + " 2> " + err_file;
        int status = system(command.c_str());
        *err = slurp(err_file);
        return WEXITSTATUS(status);
    }
    static std::string slurp(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string dir_;
    std::string input_;
};

TEST_F(Tool_run_test, BlockAllocatorChangesNoOutputAndALowHeapLimitFlushesInsteadOfFailing)
{
    const std::string jobs[] = {
        "-v -f 0.05 " + input_ + " " + dir_ + "/out",
        "-b 0 0 0 2 2 2 -l on " + input_ + " " + dir_ + "/out",
        "-B 0 0 0 1 1 1 -f 0.2 " + input_ + " " + input_ + " " + dir_ + "/out",
    };
    std::string reference;   // the map the first job writes, as the limited run below must
    for (const std::string& job : jobs) {
        std::string err_blocks, err_heap;
        int code_blocks = run("env -u QV_MEM_NOBLOCKS", job, &err_blocks);
        std::string out_blocks = slurp(dir_ + "/out");
        int code_heap = run("env QV_MEM_NOBLOCKS=1", job, &err_heap);
        std::string out_heap = slurp(dir_ + "/out");
        EXPECT_EQ(code_blocks, 0) << job;
        EXPECT_EQ(code_heap, code_blocks) << job;
        EXPECT_FALSE(out_blocks.empty()) << job;
        EXPECT_TRUE(out_blocks == out_heap) << job;
        EXPECT_EQ(err_blocks, err_heap) << job;
        if (reference.empty())
            reference = out_blocks;
    }
    std::string limited = dir_ + "/limited";
    // The whole pipeline in a child, as the tool runs it, with a limit a little above what the
    // process holds before the maps are read.
    EXPECT_EXIT(
        {
            static int flushes = 0;
            // The map cache reports each flush it runs as "flushed %lu bytes".
            qv_errorhandler([](uint32_t, const char* line, const char* text, int32_t) {
                flushes += std::string(line).rfind("RCMP", 0) == 0 && std::string(text).rfind("flushed ", 0) == 0;
            });
            bring_up_modules();
            // This process's context was made before the host layer numbered it.
            msg_set_host_number(0);
            thread_context()->host_number = 0;
            msg_set_levels(0x1f);
            mem_set_heap_limit(mem_current_bytes() + (4 << 20), 6);
            char* names[] = {const_cast<char*>(input_.c_str())};
            Tag tag = load_maps(names, 1);
            tag = merge_map(tag, 0.05f, 5.0f);
            save_map(limited.c_str(), tag, 0);
            qv_errorhandler(nullptr);
            _exit(tag != 0 && flushes > 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(slurp(limited) == reference);
}

}  // namespace
