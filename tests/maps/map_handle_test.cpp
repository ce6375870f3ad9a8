// Map iterators and handles: walking by index, in-place access, and the life of a map behind an
// access or edit handle.
#include <memory>

#include "database/transaction.h"
#include "maps/map_dbhandle.h"
#include "maps/map_element.h"
#include "maps/map_impl.h"
#include "maps/map_iterator.h"
#include "tests/maps_support.h"
#include "tests/test_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;

namespace {

class MapHandleTest : public ::testing::Test {
protected:
    void SetUp() override { qv_test_map_init(); }
};

Map_declaration_impl point_declaration()
{
    Map_declaration_impl d(3);
    d.add_scalar("w");   // 0
    d.add_integer("id"); // 1
    return d;
}

// A committed map of `count` elements: element i at (i, 2i, -i) with id i.
Map_impl* filled_map(uint32_t count)
{
    const Map_declaration_impl d = point_declaration();
    auto* map = new Map_impl(d);
    Map_element_impl e(&d);
    for (uint32_t i = 0; i < count; ++i) {
        const float position[3] = {float(i), 2.0f * float(i), -float(i)};
        e.set_position(position);
        e.set(1, int32_t(i));
        map->append(&e);
    }
    map->commit();
    return map;
}

} // namespace

TEST_F(MapHandleTest, IteratorReadsAndWritesInPlaceAndAMovedPositionMakesTheBvhStale)
{
    std::unique_ptr<Map_impl> map(filled_map(40));
    Map_iterator_impl it(map.get());
    ASSERT_EQ(it.set_to(9), MAP_SUCCESS);
    float position[3];
    ASSERT_EQ(it.get_position(position), MAP_SUCCESS);
    EXPECT_EQ(position[1], 18.0f);
    ASSERT_EQ(it.set(0, 4.5f), MAP_SUCCESS);
    // The write reached the map; whole elements go through the iterator too.
    Map_element_impl e;
    ASSERT_EQ(map->get(9, &e), MAP_SUCCESS);
    float w = 0;
    e.get(0, w);
    EXPECT_EQ(w, 4.5f);
    e.set(1, int32_t{1000});
    ASSERT_EQ(it.set(&e), MAP_SUCCESS);
    int32_t id = 0;
    ASSERT_EQ(map->get(9, &e), MAP_SUCCESS);
    e.get(1, id);
    EXPECT_EQ(id, 1000);

    // Moving a position makes the BVH stale; writing a field does not.
    map->needs_build = map->needs_refit = false;
    ASSERT_EQ(it.set(0, 2.0f), MAP_SUCCESS);
    EXPECT_FALSE(map->needs_build || map->needs_refit);
    const Map_vector3 far{100.0f, 200.0f, 300.0f};
    ASSERT_EQ(it.set_position(far), MAP_SUCCESS);
    EXPECT_TRUE(map->needs_build || map->needs_refit);
    EXPECT_GE(map->get_bounds().maximum[2], 300.0f);
}

// The build that ends the edit of a stored map reports like any build with its messages on:
// with the time class on, its timer line goes out at the info level.
TEST_F(MapHandleTest, StoreHandsTheMapToTheDatabaseOnceAndEndsWithAReportedBuild)
{
    const uint32_t classes = msg_class_mask(MOD_RCMP), levels = msg_level_mask();
    msg_set_classes(MOD_RCMP, MSG_CLASS_TIME);
    qv_test::capture_messages(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO);
    Db_tag tag = 0;
    {
        Edit_map_dbhandle_impl edit(filled_map(6));
        EXPECT_FALSE(edit.is_in_database());
        Map_impl* before = edit.get_map();
        tag = edit.store();
        EXPECT_EQ(edit.store(), tag);
        // The same object, now reached through the database.
        EXPECT_EQ(edit.get_map(), before);
    }
    qv_errorhandler(nullptr);
    msg_set_levels(levels);
    msg_set_classes(MOD_RCMP, classes);
    ASSERT_NE(tag, 0u);
    EXPECT_EQ(qv_test::count_lines(MSG_INFO, "for building the BVH for map "), 1);
    // The handle's end left the map in the database, committed and readable.
    EXPECT_EQ(QV::DB::get_transaction()->get_class_id(tag), MAP_CLASS_ID);
    {
        Access_map_dbhandle_impl read(tag);
        ASSERT_NE(read.get(), nullptr);
        EXPECT_EQ(read.get()->size(), 6u);
        Map_iterator_impl it(read.get());
        it.set_to(5);
        int32_t id = 0;
        EXPECT_EQ(it.get(1, id), MAP_SUCCESS);
        EXPECT_EQ(id, 5);
    }
    // Release removes the tag; the handle is empty afterwards and releasing again is harmless.
    Edit_map_dbhandle_impl edit(tag);
    ASSERT_NE(edit.get(), nullptr);
    edit.release();
    EXPECT_EQ(edit.get(), nullptr);
    EXPECT_EQ(edit.get_tag(), 0u);
    edit.release();
    const Db_record* record = qv_db_peek(tag);
    EXPECT_TRUE(record == nullptr || record->data == nullptr);
}
