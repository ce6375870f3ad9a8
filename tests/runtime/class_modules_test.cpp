#include <gtest/gtest.h>

#include <string>

#include "runtime/class_modules.h"
#include "tests/runtime/stderr_capture.h"
#include "tests/test_support.h"

using namespace QV::SYSTEM;

namespace {

int g_alpha_made = 0;
int g_alpha_gone = 0;

class Alpha : public Module {
public:
    Alpha() : Module(6, "ALFA") { ++g_alpha_made; }
    ~Alpha() override { ++g_alpha_gone; }
};

// Needs alpha while it runs.
class Beta : public Module {
public:
    Beta() : Module(7, "BETA") { module_start("alpha"); }
    ~Beta() override { module_stop("alpha"); }
};

class Selfish : public Module {
public:
    Selfish() : Module(8, "SELF") { module_start("selfish"); }
};

class Cycle_one : public Module {
public:
    Cycle_one() : Module(8, "CYC1") { module_start("cyc2"); }
};

class Cycle_two : public Module {
public:
    Cycle_two() : Module(9, "CYC2") { module_start("cyc1"); }
};

int g_failing_inits = 0;
int g_failing_exits = 0;

class Failing_registration : public Module_registration_entry {
public:
    Failing_registration() : Module_registration_entry("failing") {}
    IModule* get_module() override { return nullptr; }
    bool init_module() override
    {
        ++g_failing_inits;
        return false;
    }
    void exit_module() override { ++g_failing_exits; }
};

Module_registration<Alpha> g_alpha_registration("alpha", 6);
Module_registration<Beta> g_beta_registration("beta", 7);
Module_registration<Selfish> g_selfish_registration("selfish", 8, false);
Module_registration<Cycle_one> g_cycle_one_registration("cyc1", 8, false);
Module_registration<Cycle_two> g_cycle_two_registration("cyc2", 9, false);
Failing_registration g_failing_registration;

class ClassModulesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        g_alpha_made = g_alpha_gone = 0;
    }
};

TEST_F(ClassModulesTest, UseCountsDecideWhenInitAndExitRun)
{
    ASSERT_EQ(module_start("alpha"), &g_alpha_registration);
    module_start("alpha");
    EXPECT_EQ(g_alpha_made, 1);
    EXPECT_NE(module_object(6), nullptr);
    EXPECT_TRUE(module_stop("alpha"));
    EXPECT_EQ(g_alpha_gone, 0);
    EXPECT_TRUE(module_stop("alpha"));
    EXPECT_EQ(g_alpha_gone, 1);
    EXPECT_EQ(module_object(6), nullptr);
    EXPECT_TRUE(module_stop("alpha")) << "a third stop is harmless";
    EXPECT_EQ(g_alpha_gone, 1);

    // A module that was stopped can start again.
    module_start("alpha");
    EXPECT_EQ(g_alpha_made, 2);
    module_stop("alpha");
}

TEST_F(ClassModulesTest, ModuleStartsWhatItNeedsAndStopsItAgain)
{
    module_start("beta");
    EXPECT_EQ(g_alpha_made, 1);
    module_start("alpha");
    module_stop("beta");
    EXPECT_EQ(g_alpha_gone, 0) << "alpha still has a user";
    module_stop("alpha");
    EXPECT_EQ(g_alpha_gone, 1);
}

TEST_F(ClassModulesTest, FailedInitIsNotRetried)
{
    g_failing_inits = g_failing_exits = 0;
    module_start("failing");
    EXPECT_EQ(g_failing_registration.status(), MODULE_FAILED);
    module_start("failing");
    EXPECT_EQ(g_failing_inits, 1);
    module_stop("failing");
    module_stop("failing");
    EXPECT_EQ(g_failing_exits, 1);
}

TEST_F(ClassModulesTest, NameToIdComparesFourCharactersIgnoringCase)
{
    // The search starts at id 1, so MAIN is not found.
    for (const auto& [name, id] : {std::pair<const char*, uint32_t>{"page", 11}, {"PAGEFILE", 11}, {"weld", 187},
                                   {"MAIN", CLASS_MODULE_NOT_FOUND}, {"zzzz", CLASS_MODULE_NOT_FOUND},
                                   {nullptr, CLASS_MODULE_NOT_FOUND}})
        EXPECT_EQ(module_class_id(name), id) << (name ? name : "null");

    // A running module's object supplies the name in preference to the table.
    EXPECT_STREQ(module_class_name(6), "alpha");
    module_start("alpha");
    EXPECT_STREQ(module_class_name(6), "ALFA");
    EXPECT_EQ(module_class_id("alfa"), 6u);
    module_stop("alpha");
    EXPECT_EQ(module_class_id("alfa"), CLASS_MODULE_NOT_FOUND);
}

using ClassModulesDeathTest = ClassModulesTest;

TEST_F(ClassModulesDeathTest, StartingItselfOrACycleThroughAnotherModuleAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(module_start("selfish"), "^Module selfish has circular dependencies\\. Please fix\\. Will abort now\\.$");
    EXPECT_DEATH(module_start("cyc1"), "Module cyc1 has circular dependencies\\. Please fix\\. Will abort now\\.");
}

}  // namespace
