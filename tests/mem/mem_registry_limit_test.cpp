// The heap limit taken from the registry entry "{_QV_REG_MEMORY_LIMIT}" (a value in MB).
#include "runtime/registry.h"
#include "tests/mem/mem_fixture.h"

TEST_F(Mem_test, RegistryEntryGivesTheHeapLimitAndANegativeOneClearsIt)
{
    constexpr uint64_t MB = uint64_t(1) << 20;
    const bool started = registry_started();
    if (!started)
        registry_init();
    struct Case {
        const char* value;
        uint32_t priority;
        uint64_t limit_bytes;
        const char* warning;  // or null
    } cases[] = {
        {"300", 4, 300 * MB, nullptr},
        {"0", 2, 0, nullptr},
        {"-5", 4, 0, "_QV_REG_MEMORY_LIMIT: -5 is not a valid memory limit"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        mem_testing_reset_limits();
        mem_set_heap_limit(123 * MB, 0);
        ASSERT_EQ(registry_begin("{_QV_REG_MEMORY_LIMIT}"), 1);
        ASSERT_TRUE(registry_add("{_QV_REG_MEMORY_LIMIT}", "value", c.value));
        Line_capture capture;
        mem_set_limit_from_registry(c.priority);
        EXPECT_EQ(mem_heap_limit_bytes(), c.limit_bytes);
        EXPECT_EQ(capture.count_text(c.warning ? c.warning : "no such line"), c.warning ? 1 : 0);
        // A valid value is set at the caller's priority: a lower one cannot replace it.
        if (!c.warning && c.priority > 1) {
            mem_set_heap_limit(77 * MB, 1);
            EXPECT_EQ(mem_heap_limit_bytes(), c.limit_bytes);
        }
    }
    // Later tests see the registry as they would have without this one.
    if (started)
        registry_begin("{_QV_REG_MEMORY_LIMIT}");
    else
        registry_exit();
    mem_testing_reset_limits();
}
