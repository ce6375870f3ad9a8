// Module RCFG: what its start registers, and the per-thread cache.
#include <memory>
#include <thread>

#include "fg_test_support.h"
#include "database/scene_types.h"
#include "runtime/threads.h"
#include "serial/deserialization_manager.h"

using namespace fg_test;

namespace {

class RcfgModuleTest : public Fg_test {};

TEST_F(RcfgModuleTest, StartRegistersPowersTypesAndClasses)
{
    fg_module_init();
    // "2i3c5i": three words turned, four bytes left alone, six words turned.
    uint32_t tag = 0;
    auto* words = static_cast<uint32_t*>(fg_grid_border_create(&tag));
    ASSERT_EQ(qv_db_size(tag), 40u);
    for (uint32_t n = 0; n < 10; ++n)
        words[n] = 0x01020304u + n;
    qv_scene_handlers(FG_TYPE_GRID_BORDER).swap(qv_db_peek(tag), true);
    for (uint32_t n = 0; n < 10; ++n)
        EXPECT_EQ(words[n], n == 3 ? 0x01020307u : __builtin_bswap32(0x01020304u + n)) << n;
    fg_grid_border_delete(tag);

    for (const char* name : {"FGGG", "FGcG"}) {
        const uint32_t id = QV::SERIAL::qv_class_id(name);
        const std::unique_ptr<QV::SERIAL::Serializable> grid(QV::SERIAL::serial_manager()->construct(id));
        ASSERT_NE(grid, nullptr) << name;
        EXPECT_EQ(grid->get_class_id(), id) << name;
    }
}

TEST_F(RcfgModuleTest, CacheBelongsToOneThreadAndNewMapsCopyIt)
{
    QV::RCMAP::Map_declaration_impl* mine = fg_cached_declaration();
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(fg_cached_declaration(), mine);

    QV::RCMAP::Map_impl* map = fg_map_new();
    EXPECT_NE(map->get_declaration(), mine);
    EXPECT_TRUE(map->get_declaration()->is_equal(mine, nullptr));
    delete map;

    const QV::RCMAP::Map_declaration_impl* theirs = nullptr;
    std::string their_signature;
    bool foreign_has_none = false;
    std::thread worker([&] {
        thread_init_current();
        theirs = fg_cached_declaration();
        their_signature = theirs->signature();
        thread_end_current();  // the area's exit frees the cache
    });
    worker.join();
    std::thread foreign([&] { foreign_has_none = !fg_cached_declaration() && !fg_scratch_point(); });
    foreign.join();
    EXPECT_NE(theirs, mine);
    EXPECT_EQ(their_signature, mine->signature());
    EXPECT_TRUE(foreign_has_none);
}

}  // namespace
