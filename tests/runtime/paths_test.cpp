#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/paths.h"
#include "runtime/registry.h"
#include "tests/run_support.h"
#include "tests/test_support.h"

namespace {

const std::string ESC(1, char(27));


class PathsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        for (const char* name : {"QV_RAY_SUBSTITUTE", "SI_LINKTAB_LOCATION", "SI_LOCATION"})
            unsetenv(name);
        setenv("QVT_A", "val", 1);
        setenv("QVT_B", "B", 1);
        unsetenv("QVT_UNSET");
        path_clear_rules();
        path_start();
    }
    void TearDown() override { path_clear_rules(); }

    std::string apply(const std::string& rules, const std::string& path)
    {
        path_clear_rules();
        path_start();
        path_parse_rules(rules.c_str());
        return take(path_apply_rules(path.c_str()));
    }
};

}  // namespace

TEST_F(PathsTest, RulesRewriteByAnchorsWildcardsAndOrder)
{
    const std::string native_names = "/.so$/.dll/ /.dylib$/.dll/ /.o$/.obj/ /.a$/.lib/";
    struct Case {
        std::string rules, path, expected;
    } cases[] = {
        {native_names, "libx.so.1", "libx.so.1"},  // $ anchors at the end only
        {native_names, "a.o", "a.obj"},
        {"|^C:/x/y/|/mnt/|", "C:/x/y/C:/x/y/f", "/mnt/C:/x/y/f"},
        {"|C:/x/y/|/mnt/|", "C:/x/y/C:/x/y/f", "/mnt//mnt/f"},
        {"|`ab|X|", "abab", "Xab"},
        {"|^zz|X|", "abzz", "abzz"},
        {"/a?c/Z/", "abcaXcac", "ZZac"},
        {"/[0-9]/#/", "a1b22", "a#b##"},
        {"/x$-/Q/", "ax$-b", "aQb"},                     // $ before the end is an ordinary character
        {"/a" + ESC + "/b/c/", "xa/by", "xcy"},         // ESC before the delimiter
        {"/x/" + ESC + "$QVT_A/", "x", "$QVT_A"},       // ESC before $ keeps it
        {"/a/b/ |b|c|", "a", "c"},                      // each rule works on the last result
        {"  \t", "same", "same"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(apply(c.rules, c.path), c.expected) << c.rules << " on " << c.path;
}

// Rules from the environment, variables and the malformed rule texts are checked where the user
// meets them (tests/tool/substitute_test.cpp); these are the branches a run cannot show.
TEST_F(PathsTest, BrokenRangeIsReportedAtEveryPlaceTriedAndNeverMatches)
{
    Msg_collect messages;
    EXPECT_EQ(apply("/[a-zz]/X/", "abc"), "abc");
    EXPECT_EQ(messages.count(MSG_ERROR, "path substitution: incorrect [x-y] match syntax"), 3);
}

TEST_F(PathsTest, VariablesExpandAndStopAtTheFirstError)
{
    struct Case {
        std::string text, expected;
        int error;
    } cases[] = {
        {"a$QVT_B", "aB", 0},
        {"$?QVT_A|$?QVT_UNSET|${?QVT_A}", "1||1", 0},
        {"a" + ESC + "$QVT_A", "a$QVT_A", 0},
        {"cost $-x $", "cost $-x $", 0},
        {"x${QVT_A", "x", 39},
    };
    for (const Case& c : cases) {
        Msg_collect messages;
        EXPECT_EQ(take(path_expand_vars(c.text.c_str())), c.expected) << c.text;
        EXPECT_EQ(messages.numbers(MSG_ERROR), c.error ? std::vector<int>{c.error} : std::vector<int>{})
            << c.text;
    }
    EXPECT_EQ(take(path_expand_vars(nullptr)), "<null>");
}

TEST_F(PathsTest, ResultsAreCutToTheBufferWithATerminatingZero)
{
    char out[16];
    std::memset(out, 'x', sizeof out);
    Msg_collect messages;
    // A path of exactly the buffer size leaves no room for the zero.
    path_substitute(out, "abcdefgh", 8);
    EXPECT_STREQ(out, "abcdefg");
    EXPECT_EQ(out[8], 'x');  // nothing written past the buffer
    EXPECT_EQ(messages.numbers(MSG_ERROR), std::vector<int>{38});

    // Expansion stops at 4,095 characters, silently.
    std::string huge(5000, 'p');
    setenv("QVT_HUGE", huge.c_str(), 1);
    EXPECT_EQ(take(path_apply_rules("$QVT_HUGE$QVT_HUGE")).size(), PATH_EXPAND_CHARS);
    EXPECT_EQ(take(path_apply_rules(nullptr)), "<null>");
    path_substitute(out, nullptr, sizeof out);
    EXPECT_STREQ(out, "");
}

TEST_F(PathsTest, LazyStartReadsRulesAndTheLinkTable)
{
    Temp_dir temp;
    const std::string dir = temp.path();
    write_file(dir + "/linktab.ini", "# comment\n\n   //server/share  /net/share\nshare!sub /u/x\nonly_nt\n!x /y\n");
    setenv("SI_LINKTAB_LOCATION", dir.c_str(), 1);
    setenv("QV_RAY_SUBSTITUTE", "/.o$/.obj/", 1);
    path_clear_rules();
    Msg_collect messages;
    char out[PATH_CALLER_BUFFER];
    EXPECT_STREQ(path_substitute(out, "/net/share/a.o", sizeof out), "//server/share/a.obj");
    EXPECT_STREQ(path_substitute(out, "/u/x/f", sizeof out), "share!sub/f");
    EXPECT_EQ(messages.count(MSG_INFO, "reading link table file \"" + dir + "/linktab.ini\""), 1);
    EXPECT_EQ(messages.count(MSG_DEBUG, "5: missing UNIX string"), 1);
    EXPECT_EQ(messages.count(MSG_DEBUG, "6: missing NT string"), 1);
}

TEST_F(PathsTest, RegistryStepExpandsEntriesAndCanEmptyThePath)
{
    registry_init();
    registry_begin("{root}");
    registry_add("{root}", "value", "/data");
    char out[PATH_CALLER_BUFFER];
    EXPECT_STREQ(path_substitute(out, "{root}/a", sizeof out), "/data/a");
    EXPECT_STREQ(path_substitute_raw(out, "{root}/a", sizeof out, false), "{root}/a");
    EXPECT_STREQ(path_substitute(out, "{_QV_unset}", sizeof out), "");
    registry_exit();
}
