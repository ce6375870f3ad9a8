#include <gtest/gtest.h>

#include "runtime/modules.h"
#include "runtime/threads.h"
#include "tests/test_support.h"

TEST(ModuleScopeTest, NestedScopesKeepTheLastTwoLevels)
{
    qv_test_init();
    Thread_context* context = thread_context();
    context->current_module = MOD_MSG;
    context->previous_module = MOD_MSG;
    {
        Module_scope a(MOD_DB);
        {
            Module_scope b(MOD_SCENE);
            {
                Module_scope c(MOD_RCMP);
                EXPECT_EQ(context->current_module, MOD_RCMP);
                EXPECT_EQ(context->previous_module, MOD_SCENE);
            }
            EXPECT_EQ(context->current_module, MOD_SCENE);
            EXPECT_EQ(context->previous_module, MOD_DB);
        }
        EXPECT_EQ(context->current_module, MOD_DB);
        EXPECT_EQ(context->previous_module, MOD_MSG);
    }
}
