// What the Element template fixes for every concrete element, and the element's own stored form.
#include "base/lib/mem/i_mem_allocatable.h"
#include "tests/database/transaction_test_elements.h"

using namespace QV::DB;
using namespace transaction_test;

namespace {

TEST(ElementBaseTest, CopyIsADeepCopyOfTheFinalClassAndKeepsItsKind)
{
    qv_test_init();
    Counted::destroyed = 0;
    Counted original(5);
    original.label = "original";
    original.references = {0x400, 0x401, 0x402};
    Element_base* copy = original.copy();
    auto* counted = dynamic_cast<Counted*>(copy);
    ASSERT_NE(counted, nullptr);
    EXPECT_EQ(counted->payload, 5);
    EXPECT_EQ(counted->label, "original");
    EXPECT_EQ(counted->references, original.references);
    counted->references.push_back(0x403);
    EXPECT_EQ(original.references.size(), 3u);
    // Class id 0 matches every element; any other only its own class.
    EXPECT_TRUE(copy->is_a(Counted::CLASS_ID) && copy->is_a(0));
    EXPECT_FALSE(copy->is_a(Sized::CLASS_ID));
    delete copy;   // through the base: the final destructor runs
    EXPECT_EQ(Counted::destroyed, 1);
}

TEST(ElementBaseTest, ElementsAreChargedToTheModuleCurrentAtAllocation)
{
    qv_test_init();
    mem_init();  // before MEM starts, every allocation is charged to module 0
    uint64_t before = mem_module_bytes(MOD_RCGI);
    Element_base* element;
    {
        Module_scope scope(MOD_RCGI);
        element = new Counted();
    }
    EXPECT_GE(mem_module_bytes(MOD_RCGI), before + sizeof(Counted));
    delete element;
    EXPECT_EQ(mem_module_bytes(MOD_RCGI), before);
}

}  // namespace
