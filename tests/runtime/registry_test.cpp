#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "runtime/registry.h"
#include "tests/test_support.h"

namespace {


std::string lookup(const std::string& text, int mode = 0) { return take(registry_lookup(text.c_str(), mode)); }

void set_entry(const std::string& name, const std::string& key, const std::string& text)
{
    registry_begin(name.c_str());
    registry_add(name.c_str(), key.c_str(), text.c_str());
}

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        setenv("QVR_E", "env", 1);
        unsetenv("QVR_UNSET");
        registry_init();
    }
    void TearDown() override { registry_exit(); }
};

}  // namespace

// Each lookup with its result and the caller's number of the error it reports (0: none); the
// number carries the mode's base, and system names stay quiet.
TEST_F(RegistryTest, BracesEntriesAndEnvironmentExpandAndErrorsCarryTheModeBase)
{
    set_entry("{a}", "value", "A");
    set_entry("{b}", "value", "{a}-{a}");
    registry_add("{b}", "value", "second value pair is not the value");
    set_entry("{echo_only}", "echo", "said");
    struct Case {
        std::string text;
        int mode;
        std::string expected;
        int error;
    } cases[] = {
        {"a{{b}}c}", 0, "a{b}c}", 0},
        {"", 0, "<null>", 0},
        {"x{a}y", 0, "xAy", 0},
        {"{b}", 0, "A-A", 0},
        {"{b}", 9, "A-A", 0},  // modes above 7 count as 0
        {"{echo_only}", 6, "said", 0},
        {"{$QVR_E}/x", 0, "env/x", 0},
        {"{nope}", 0, "<null>", 25},
        {"{nope}", 1, "<null>", 825},
        {"a{b", 0, "<null>", 22},
        {"a{b{c}", 1, "<null>", 821},
        {"{$QVR_UNSET}/x", 0, "/x", 23},
        {"{echo_only}", 0, "<null>", 27},
        {"{_QV_REG_MEMORY_LIMIT}", 0, "<null>", 0},
    };
    for (const Case& c : cases) {
        Msg_collect messages;
        EXPECT_EQ(lookup(c.text, c.mode), c.expected) << c.text << " mode " << c.mode;
        EXPECT_EQ(messages.numbers(MSG_ERROR), c.error ? std::vector<int>{c.error} : std::vector<int>{})
            << c.text << " mode " << c.mode;
    }
    Msg_collect messages;
    lookup("{$QVR_UNSET}");
    EXPECT_EQ(messages.count(MSG_ERROR, "{$QVR_UNSET}: QVR_UNSET is undefined"), 1);
}

TEST_F(RegistryTest, RecursionStopsAtTwentyLevelsAndOverflowIsRefused)
{
    // A chain of 20 names resolves; one more level is an error and the whole result is null.
    for (int i = 0; i < 21; ++i)
        set_entry("{c" + std::to_string(i) + "}", "value", i == 19 ? "end" : "{c" + std::to_string(i + 1) + "}");
    EXPECT_EQ(lookup("{c0}"), "end");
    set_entry("{c19}", "value", "{c20}");
    set_entry("{c20}", "value", "end");
    Msg_collect messages;
    EXPECT_EQ(lookup("{c0}"), "<null>");
    set_entry("{self}", "value", "x{self}");
    EXPECT_EQ(lookup("{self}"), "<null>");
    EXPECT_EQ(messages.count(MSG_ERROR, "registry name lookup causes to many recursions"), 2);

    set_entry("{big}", "value", std::string(6000, 'b'));
    EXPECT_EQ(lookup("{big}").size(), 6000u);
    EXPECT_EQ(lookup("{big}{big}"), "<null>");
    EXPECT_EQ(messages.numbers(MSG_ERROR), (std::vector<int>{50, 50, 26}));
    Msg_collect long_text;
    EXPECT_EQ(lookup(std::string(REGISTRY_OUTPUT_CHARS + 1, 'z')), "<null>");
    // One report; the message layer splits its long text over several lines.
    std::vector<int> numbers = long_text.numbers(MSG_ERROR);
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers, std::vector<int>(numbers.size(), 20));
}

TEST_F(RegistryTest, BeginReplacesTheEntry)
{
    set_entry("{r}", "value", "old");
    Msg_collect messages;
    set_entry("{r}", "link", "lib.so");
    EXPECT_EQ(messages.count(MSG_DEBUG, "deleting registry entry \"{r}\""), 1);
    EXPECT_EQ(lookup("{r}", 2), "lib.so");
    EXPECT_EQ(lookup("{r}", 0), "<null>");  // the old value went with the old entry
}

TEST_F(RegistryTest, LookupsRaceWithRedefinitions)
{
    set_entry("{shared}", "value", "one");
    Msg_collect quiet;  // a lookup between begin and add finds no value
    std::thread writer([] {
        for (int i = 0; i < 300; ++i)
            set_entry("{shared}", "value", i % 2 ? "one" : "two");
    });
    int odd = 0;
    for (int i = 0; i < 300; ++i) {
        std::string value = lookup("<{shared}>");
        odd += value != "<one>" && value != "<two>" && value != "<>";
    }
    writer.join();
    EXPECT_EQ(odd, 0);
}
