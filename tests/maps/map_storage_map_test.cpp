// Map_impl on top of the page store: pending appends and runs of them, commit, globals, the
// stored form, files behind elements in memory.
#include <memory>

#include "maps/map_element.h"
#include "serial/media_queue.h"
#include "tests/maps/map_storage_support.h"

using namespace QV::RCMAP;
using namespace qv::shader_v3;
using namespace map_storage_test;

namespace {

class Map_storage_map : public Map_storage_test {};

} // namespace

TEST_F(Map_storage_map, AppendsStayPendingUntilCommit)
{
    Map_impl map;
    Map_element_impl bare;
    Map_declaration_impl declaration = small_declaration();
    Map_element_impl element(&declaration);
    float position[3] = {1.0f, -2.0f, 3.0f};
    element.set_position(position);
    element.set(declaration.get_field_id("id", nullptr), int32_t(42));
    ASSERT_EQ(map.append(&element), MAP_SUCCESS);
    EXPECT_TRUE(map.has_declaration()) << "the first element brings its declaration";
    EXPECT_EQ(map.size(), 0u);
    EXPECT_EQ(map.get_pending_count(), 1u);
    EXPECT_FALSE(map.get_bounds().valid);

    map.commit();
    EXPECT_EQ(map.size(), 1u);
    EXPECT_TRUE(map.needs_build);
    EXPECT_EQ(map.get_bounds().minimum[1], -2.0f);
    // An element without declaration, or with another one, is retyped to the map's layout.
    Map_declaration_impl flat(2);
    flat.add_vector("x");
    Map_element_impl foreign(&flat);
    for (Map_element_impl* e : {&bare, &foreign}) {
        ASSERT_EQ(map.get(0, e), MAP_SUCCESS);
        EXPECT_TRUE(e->get_declaration()->is_layout_equivalent(declaration));
        int32_t id = 0;
        EXPECT_EQ(e->get(declaration.get_field_id("id", nullptr), id), MAP_SUCCESS);
        EXPECT_EQ(id, 42);
    }

    // Names do not matter for an append; a set that moves a position asks for a refit.
    Map_declaration_impl renamed(3);
    renamed.add_scalar("w");
    renamed.add_integer("n");
    Map_element_impl other_names(&renamed);
    const float far[3] = {100.0f, 0.0f, 0.0f};
    other_names.set_position(far);
    EXPECT_EQ(map.append(&other_names), MAP_SUCCESS);
    EXPECT_EQ(map.set(0, &other_names), MAP_SUCCESS);
    EXPECT_TRUE(map.needs_refit);
    EXPECT_EQ(map.get_bounds().maximum[0], 100.0f);

    // A committed count of 0 does not ask for a build.
    Map_impl empty(declaration);
    empty.commit();
    EXPECT_FALSE(empty.needs_build);
}

TEST_F(Map_storage_map, StoredFormRoundTrips)
{
    Map_declaration_impl declaration = small_declaration();
    declaration.add_global_integer("frame");
    Map_impl map(declaration);
    map.set(declaration.get_field_id("frame", nullptr), int32_t(17));
    const uint32_t count = map.page_store().elements_per_page + 10;
    fill(map, 0, count);
    map.quiet = true;

    // As a stored object, the class id alone brings the map back (registered by the module).
    QV::DB::Db_serializer framed;
    framed.serialize(&map);
    QV::DB::Db_deserializer reader(&framed.queue());
    std::unique_ptr<QV::SERIAL::Serializable> object(reader.deserialize());
    auto* back = dynamic_cast<Map_impl*>(object.get());
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(reader.is_valid());
    ASSERT_TRUE(back->has_declaration());
    EXPECT_TRUE(back->get_declaration()->is_equal(&declaration, nullptr));
    EXPECT_TRUE(back->quiet);
    int32_t frame = 0;
    EXPECT_EQ(back->get(declaration.get_field_id("frame", nullptr), frame), MAP_SUCCESS);
    EXPECT_EQ(frame, 17);
    EXPECT_EQ(memcmp(&back->get_bounds(), &map.get_bounds(), offsetof(Map_bounds, valid)), 0);
    EXPECT_TRUE(holds_elements(*back, count));
}

// A batch appended at once leaves the map exactly as appending one by one would.
TEST_F(Map_storage_map, AppendRunBatchesOfAnySizeMatchSingleAppendsAcrossPages)
{
    Map_impl single(small_declaration());
    Map_impl batched(small_declaration());
    const uint32_t per_page = batched.page_store().elements_per_page;
    ASSERT_GT(per_page, 8u);
    // One committed element first, so that the first batch starts inside a page; then batches
    // of one, of a few, of more than a page, and the rest.
    fill(single, 0, 1);
    fill(batched, 0, 1);
    const uint32_t total = 3 * per_page + 5;
    std::vector<Small_element> elements;
    for (uint32_t i = 1; i < total; ++i)
        elements.push_back(small_element(i));
    for (const Small_element& e : elements)
        ASSERT_EQ(single.append_raw(&e), MAP_SUCCESS);
    const uint32_t sizes[] = {1, 7, per_page + 3, uint32_t(elements.size()) - 11 - per_page};
    uint32_t at = 0;
    for (uint32_t size : sizes) {
        ASSERT_EQ(batched.append_raw_run(&elements[at], size), MAP_SUCCESS);
        at += size;
    }
    ASSERT_EQ(at, elements.size());

    EXPECT_EQ(batched.get_pending_count(), single.get_pending_count());
    EXPECT_EQ(memcmp(&single.get_pending_bounds(), &batched.get_pending_bounds(), offsetof(Map_bounds, valid)), 0);
    for (uint32_t i = 0; i < total; ++i) {
        Small_element x, y;
        single.read_element(i, &x);
        batched.read_element(i, &y);
        ASSERT_TRUE(same(x, y)) << "element " << i;
    }
}

namespace {

// In a fresh process: five elements in memory, then a file of two pages behind them; true when
// every element reads back, the file's first element opening a page of its own, and an append
// goes behind the file's partly filled last page. `swapped_out` first pushes the memory elements
// to the swap file.
bool file_behind_memory_reads_back(uint32_t kilobytes, bool swapped_out)
{
    qv_test_init();
    Map_manager::instance().set_requested_page_size_kb(kilobytes);
    rcmp_init(true);
    Map_manager::instance().set_size_limit_mb(64.0f);
    Map_impl map(small_declaration());
    for (uint32_t i = 0; i < 5; ++i) {
        Small_element element = small_element(i);
        map.append_raw(&element);
    }
    if (swapped_out)
        map.flush();
    map.attach_file(new Pattern_source(40, 2), 100, 50, nullptr);
    map.commit();
    uint8_t first = 0, last = 0;
    map.read_field(5, 0, 1, &first);
    map.read_field(104, 19, 1, &last);
    const Small_element element = small_element(7);
    uint32_t index = 0, page = 0, slot = 0;
    map.append_raw(&element, &index);
    map.page_store().locate(index, &page, &slot);
    return holds_elements(map, 5) && first == 40 && last == 41 && index == 105 && page == 3 &&
           slot == 0 && map.page_store().file_pages_per_cache_page == kilobytes / 32;
}

} // namespace

// A cache page of 64 or 128 KB holds several file pages, so a file attached behind elements in
// memory begins inside a cache page that is already resident, or already in the swap file. The
// page size is fixed once per process, so each size (32 KB too) runs in a process of its own.
TEST(Map_storage_large_pages, FileBehindMemoryElementsIsReadIntoTheSharedCachePage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const uint32_t kilobytes : {32u, 64u, 128u}) {
        for (const bool swapped_out : {false, true}) {
            EXPECT_EXIT(std::exit(file_behind_memory_reads_back(kilobytes, swapped_out) ? 0 : 1),
                        ::testing::ExitedWithCode(0), "")
                << kilobytes << " KB, swapped out " << swapped_out;
        }
    }
}
