// Shared set-up of the map tests: module start, small declarations and maps of known elements.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "maps/map_declaration.h"
#include "maps/map_impl.h"
#include "maps/map_manager.h"
#include "maps/rcmp_module.h"
#include "runtime/msg.h"
#include "runtime/threads.h"
#include "tests/maps_support.h"
#include "tests/test_support.h"

namespace map_storage_test {

using namespace qv_test;

// Every test starts with the module up, all levels captured and a generous cache limit.
class Map_storage_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        qv_test_init();
        rcmp_init(true);
        capture_messages(MSG_FATAL | MSG_ERROR | MSG_WARN | MSG_INFO);
        QV::RCMAP::Map_manager::instance().set_size_limit_mb(64.0f);
    }
    void TearDown() override
    {
        qv_errorhandler(nullptr);
        QV::RCMAP::Map_manager::instance().set_size_limit_mb(64.0f);
    }
};

// Dimension 3 with a scalar "weight" and an integer "id": 20 bytes per element.
inline QV::RCMAP::Map_declaration_impl small_declaration()
{
    QV::RCMAP::Map_declaration_impl declaration(3);
    declaration.add_scalar("weight");
    declaration.add_integer("id");
    return declaration;
}

struct Small_element {
    float position[3];
    float weight;
    int32_t id;
};
static_assert(sizeof(Small_element) == 20, "packed like the declaration");

// A value of element `i` that no other element shares.
inline Small_element small_element(uint32_t i)
{
    Small_element element;
    element.position[0] = float(i);
    element.position[1] = float(i % 97) * 0.5f;
    element.position[2] = -float(i % 13);
    element.weight = float(i) * 0.25f + 1.0f;
    element.id = int32_t(i * 2654435761u);
    return element;
}

inline bool same(const Small_element& a, const Small_element& b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

// Appends elements [first, first + count) of small_element and commits them.
inline void fill(QV::RCMAP::Map_impl& map, uint32_t first, uint32_t count)
{
    for (uint32_t i = first; i < first + count; ++i) {
        Small_element element = small_element(i);
        ASSERT_EQ(map.append_raw(&element), qv::shader_v3::MAP_SUCCESS);
    }
    map.commit();
}

inline Small_element element_of(const QV::RCMAP::Map_impl& map, uint32_t index)
{
    Small_element element;
    map.read_element(index, &element);
    return element;
}

// Elements [0, count) of `map` are small_element(0 + first), small_element(1 + first), ...
inline ::testing::AssertionResult holds_elements(const QV::RCMAP::Map_impl& map, uint32_t count, uint32_t first = 0)
{
    for (uint32_t i = 0; i < count; ++i)
        if (!same(element_of(map, i), small_element(first + i)))
            return ::testing::AssertionFailure() << "element " << i << " differs";
    return ::testing::AssertionSuccess();
}

// A backing file whose page p holds the byte value (p + seed) everywhere.
class Pattern_source : public QV::RCMAP::Map_page_source {
public:
    explicit Pattern_source(uint8_t seed, uint32_t pages, int* reads = nullptr)
        : seed_(seed), pages_(pages), reads_(reads) {}
    bool read_pages(uint32_t page, uint32_t count, void* buffer) override
    {
        if (reads_)
            ++*reads_;
        if (page + count > pages_)
            return false;
        for (uint32_t i = 0; i < count; ++i)
            memset(static_cast<uint8_t*>(buffer) + size_t(i) * QV::RCMAP::MAP_FILE_PAGE_BYTES, uint8_t(page + i + seed_),
                   QV::RCMAP::MAP_FILE_PAGE_BYTES);
        return true;
    }

private:
    uint8_t seed_;
    uint32_t pages_;
    int* reads_;
};

} // namespace map_storage_test
