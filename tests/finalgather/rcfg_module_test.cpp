// Module RCFG: what its start registers and the per-thread cache.
#include <thread>

#include "fg_test_support.h"
#include "maps/map_declaration.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "runtime/threads.h"
#include "serial/deserialization_manager.h"

using namespace fg_test;
using QV::RCMAP::Map_declaration_impl;

namespace {

class RcfgModuleTest : public Fg_test {};

TEST_F(RcfgModuleTest, PowerTableHoldsPowersOfSixTenthsAboveOneTenth)
{
    uint32_t length = 0;
    const float* powers = fg_power_table(&length);
    ASSERT_NE(powers, nullptr);
    ASSERT_EQ(length, 5u);
    const float expected[5] = {1.0f, 0.6f, float(0.6 * 0.6), float(0.6 * 0.6 * 0.6), float(0.6 * 0.6 * 0.6 * 0.6)};
    for (uint32_t n = 0; n < length; ++n)
        EXPECT_EQ(powers[n], expected[n]) << n;
    // A second start keeps the one table.
    fg_module_init();
    EXPECT_EQ(fg_power_table(nullptr), powers);
}

TEST_F(RcfgModuleTest, ObsoleteVariableGivesTwoInfoLinesEvenWhenEmpty)
{
    setenv("QV_RCFG_RASTER_FACTOR", "", 1);
    fg_module_init();
    unsetenv("QV_RCFG_RASTER_FACTOR");
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_EQ(lines()[0].level, MSG_INFO);
    EXPECT_EQ(lines()[0].text, "Environment variable QV_RCFG_RASTER_FACTOR is obsolete, use");
    EXPECT_EQ(lines()[1].text, "finalgather presample density (linear scale) instead");

    lines().clear();
    fg_module_init();
    EXPECT_TRUE(lines().empty());
}

TEST_F(RcfgModuleTest, GridClassesConstructByTheirIds)
{
    QV::SERIAL::Deserialization_manager* manager = QV::SERIAL::serial_manager();
    QV::SERIAL::Serializable* general = manager->construct(QV::SERIAL::qv_class_id("FGGG"));
    QV::SERIAL::Serializable* tile = manager->construct(QV::SERIAL::qv_class_id("FGcG"));
    ASSERT_NE(general, nullptr);
    ASSERT_NE(tile, nullptr);
    EXPECT_EQ(general->get_class_id(), 0x46474747u);
    EXPECT_EQ(tile->get_class_id(), 0x46476347u);
    delete general;
    delete tile;
}

TEST_F(RcfgModuleTest, GridBorderIsFortyBytesSwappedByItsTemplateAndOwnsTwoTags)
{
    for (int type : {FG_TYPE_POINTS, FG_TYPE_POINT_TREE, FG_TYPE_GRID_BORDER})
        EXPECT_NE(qv_scene_handlers(type).swap, nullptr) << type;

    uint32_t tag = 0;
    auto* words = static_cast<uint32_t*>(fg_grid_border_create(&tag));
    ASSERT_NE(tag, 0u);
    ASSERT_EQ(qv_db_size(tag), 40u);
    for (uint32_t n = 0; n < 10; ++n)
        words[n] = 0x01020304u + n;
    // "2i3c5i": three words turned, four bytes left, six words turned.
    qv_scene_handlers(FG_TYPE_GRID_BORDER).swap(qv_db_peek(tag), true);
    for (uint32_t n = 0; n < 10; ++n) {
        const uint32_t original = 0x01020304u + n;
        EXPECT_EQ(words[n], n == 3 ? original : byte_swapped(original)) << n;
    }

    uint32_t first = 0, second = 0;
    qv_db_create(&first, FG_TYPE_POINTS, 8);
    qv_db_create(&second, FG_TYPE_POINT_TREE, 8);
    words[0] = first;
    words[1] = second;
    EXPECT_EQ(qv_scene_unlink(tag, second), 1);
    EXPECT_EQ(words[1], 0u);
    words[1] = second;
    fg_grid_border_delete(tag);
    EXPECT_EQ(qv_db_peek(first)->state, DB_STATE_FREE);
    EXPECT_EQ(qv_db_peek(second)->state, DB_STATE_FREE);
    EXPECT_EQ(qv_db_peek(tag)->state, DB_STATE_FREE);
}

TEST_F(RcfgModuleTest, CacheIsPerThreadAndSurvivesUntilTheAreaGoes)
{
    Map_declaration_impl* mine = fg_cached_declaration();
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(fg_cached_declaration(), mine);
    EXPECT_EQ(fg_scratch_element()->get_declaration()->signature(), mine->signature());
    EXPECT_EQ(fg_scratch_element(), fg_scratch_element());

    Map_declaration_impl* theirs = nullptr;
    std::string their_signature;
    std::thread worker([&] {
        thread_init_current();
        theirs = fg_cached_declaration();
        their_signature = theirs->signature();
        thread_end_current();
    });
    worker.join();
    EXPECT_NE(theirs, mine);
    EXPECT_EQ(their_signature, mine->signature());

    // A thread the system does not know has no cache at all.
    bool foreign_null = false;
    std::thread foreign([&] { foreign_null = !fg_cached_declaration() && !fg_scratch_element() && !fg_scratch_point(); });
    foreign.join();
    EXPECT_TRUE(foreign_null);
}

TEST_F(RcfgModuleTest, NewMapCarriesACopyOfTheCachedDeclaration)
{
    QV::RCMAP::Map_impl* map = fg_map_new();
    ASSERT_NE(map->get_declaration(), nullptr);
    EXPECT_NE(map->get_declaration(), fg_cached_declaration());
    EXPECT_TRUE(map->get_declaration()->is_equal(fg_cached_declaration(), nullptr));
    EXPECT_EQ(map->size(), 0u);
    delete map;
}

TEST_F(RcfgModuleTest, PoolHandsBackZeroedBlocks)
{
    auto* block = static_cast<uint8_t*>(fg_block_alloc());
    std::memset(block, 0x5A, FG_POOL_BLOCK_BYTES);
    fg_block_free(block);
    auto* again = static_cast<uint8_t*>(fg_block_alloc());
    EXPECT_EQ(again, block);
    for (uint32_t n = 0; n < FG_POOL_BLOCK_BYTES; ++n)
        ASSERT_EQ(again[n], 0) << n;
    fg_block_free(again);
}

}  // namespace
