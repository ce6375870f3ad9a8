#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "runtime/files.h"
#include "tests/run_support.h"
#include "tests/test_support.h"

TEST(FilesTest, DirectoryPatternsAndOpenFailuresAreLogged)
{
    qv_test_init();
    Temp_dir temp;
    const std::string dir = temp.path();
    for (const char* name : {"a.fg", "b.fg", "c.txt"})
        write_file(temp.file(name), "");

    auto list = [](const std::string& path) {
        Directory directory;
        std::vector<std::string> names;
        if (!directory.open(path.c_str()))
            return std::vector<std::string>{"<not found>"};
        while (const char* name = directory.read())
            if (name[0] != '.')
                names.push_back(name);
        std::sort(names.begin(), names.end());
        return names;
    };
    Msg_collect messages;
    EXPECT_EQ(list(dir), (std::vector<std::string>{"a.fg", "b.fg", "c.txt"}));
    EXPECT_EQ(list(dir + "/"), (std::vector<std::string>{"a.fg", "b.fg", "c.txt"}));
    EXPECT_EQ(list(dir + "/*.fg"), (std::vector<std::string>{"a.fg", "b.fg"}));
    EXPECT_EQ(list(dir + "/none"), std::vector<std::string>{"<not found>"});
    EXPECT_EQ(messages.count(MSG_INFO, "open directory \"" + dir + "/*\", ok"), 2);
    EXPECT_EQ(messages.count(MSG_INFO, "open directory \"" + dir + "/none/*\", not found"), 1);

    File file;
    EXPECT_FALSE(file.open((dir + "/none/x").c_str()));
    EXPECT_FALSE(file.is_open());
    EXPECT_NE(file.error(), 0);
    EXPECT_EQ(messages.count(MSG_INFO, "open file \"" + dir + "/none/x\", mode r: "), 1);
    // A quiet object logs nothing unless the global switch is on.
    file.set_quiet(true);
    ASSERT_TRUE(file.open((dir + "/a.fg").c_str(), "rb"));
    EXPECT_EQ(messages.count(MSG_INFO, "a.fg\", mode rb, ok"), 0);
    file_services_set_verbose(true);
    ASSERT_TRUE(file.open((dir + "/b.fg").c_str(), "rb"));
    file_services_set_verbose(false);
    EXPECT_EQ(messages.count(MSG_INFO, "b.fg\", mode rb, ok"), 1);
    file.close();
}
