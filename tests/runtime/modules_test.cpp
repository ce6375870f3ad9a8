#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/lib/mem/i_mem_allocatable.h"
#include "runtime/modules.h"
#include "runtime/msg.h"
#include "runtime/msg_testing.h"
#include "runtime/threads.h"
#include "tests/runtime/stderr_capture.h"
#include "tests/test_support.h"

namespace {

// Ids no library code registers in this test binary.
constexpr int MOD_A = MOD_SHDB;
constexpr int MOD_B = MOD_QSLC;
constexpr int MOD_EMPTY = MOD_CFRO;
constexpr int MOD_CHECKED = MOD_GCPP;

std::vector<std::string> g_events;

class ModulesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        msg_testing_reset_all();
        msg_set_host_number(0);
        // Start every test with no context areas on this thread.
        mod_attach_context(nullptr);
        g_events.clear();
    }
    void TearDown() override { msg_testing_reset_all(); }
};

TEST_F(ModulesTest, ContextAreaIsCreatedZeroedOnceAndNotForSizeZero)
{
    static int inits;
    inits = 0;
    mod_register_context_area(MOD_CHECKED, [](void* area) {
        EXPECT_EQ(static_cast<unsigned char*>(area)[31], 0);
        ++inits;
    }, nullptr, 32);
    mod_register_context_area(MOD_EMPTY, nullptr, nullptr, 0);

    void* area = mod_context_area(MOD_CHECKED);
    ASSERT_NE(area, nullptr);
    EXPECT_EQ(mod_context_area(MOD_CHECKED), area);
    EXPECT_EQ(inits, 1);
    EXPECT_EQ(mod_context_area(MOD_EMPTY), nullptr);
}

TEST_F(ModulesTest, DetachFoldsMemAccountsAndHandsTheArrayOver)
{
    static void* folded;
    folded = nullptr;
    mod_register_context_area(MOD_MEM, nullptr, nullptr, 64);
    mod_register_context_area(MOD_A, nullptr, nullptr, 16);
    mod_set_context_fold_hook([](void* area) { folded = area; });
    void* mem_area = mod_context_area(MOD_MEM);
    void* a_area = mod_context_area(MOD_A);

    void** parked = mod_detach_context();
    mod_set_context_fold_hook(nullptr);
    EXPECT_EQ(folded, mem_area);
    ASSERT_NE(parked, nullptr);
    EXPECT_EQ(thread_context()->context_areas, nullptr);

    void* fresh = mod_context_area(MOD_A);
    EXPECT_NE(fresh, nullptr);
    mod_attach_context(parked);
    EXPECT_EQ(mod_context_area(MOD_A), a_area);
    EXPECT_EQ(mod_detach_context(), parked);
    mod_attach_context(parked);
}

TEST_F(ModulesTest, GlobalAreasAreMadeInIdOrderAndTornDownByKindInExitOrder)
{
#define EVENT(text) [](void*) { g_events.push_back(text); }
    mod_register_session_area(MOD_SCENE, [](void* area) {
        EXPECT_EQ(*static_cast<int*>(area), 0);
        g_events.push_back("init SCENE session");
    }, EVENT("exit SCENE session"), 16);
    mod_register_transaction_area(MOD_RC, EVENT("init RC transaction"), EVENT("exit RC transaction"), 8);
    mod_register_transaction_area(MOD_API, EVENT("init API transaction"), EVENT("exit API transaction"), 8);
    mod_register_session_area(MOD_API, EVENT("init API session"), EVENT("exit API session"), 8);
    mod_register_world_area(MOD_RC, nullptr, nullptr, 4);
    mod_register_world_area(MOD_RCFG, nullptr, nullptr, 0);

    msg_set_levels(0x7f);
    Stderr_capture capture;
    mod_create_global_areas();
    std::string out = capture.finish();
    EXPECT_NE(out.find("TRAN 0.0  debug: module SCENE registered for 16 byte session area\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("TRAN 0.0  debug: module RC registered for 4 byte world area\n"), std::string::npos);

    // Registered too late: its row has a size but no area is made for it.
    mod_register_world_area(MOD_RCFG, EVENT("init RCFG world"), nullptr, 8);
#undef EVENT

    EXPECT_NE(mod_transaction_area(MOD_RC), nullptr);
    EXPECT_NE(mod_world_area(MOD_RC), nullptr);
    EXPECT_EQ(mod_world_area(MOD_RCFG), nullptr);

    mod_destroy_global_areas();
    EXPECT_EQ(mod_world_area(MOD_RC), nullptr);
    std::vector<std::string> expected = {
        "init SCENE session", "init RC transaction", "init API transaction", "init API session",
        "exit API transaction", "exit RC transaction", "exit API session", "exit SCENE session",
    };
    EXPECT_EQ(g_events, expected);
}

}  // namespace
