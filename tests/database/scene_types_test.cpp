// The type table: registration, copies, edits, and the module's own areas.
#include <algorithm>
#include <vector>

#include "runtime/modules.h"
#include "tests/database/scene_test_support.h"

namespace {


class SceneTypesTest : public SceneTest {};

int record_unlink(Db_tag, Db_tag child) { return child == 0x1234 ? 1 : 0; }

TEST_F(SceneTypesTest, RegistrationAcceptsOnlyTheFreeNumbers)
{
    const Scene_swap_fn funcdecl_swap = qv_scene_handlers(SCENE_FUNCDECL).swap;
    for (int type : {39, 64, 127, 1, 38, 63, 128, -5}) {
        const bool free = type == 39 || type == 64 || type == 127;
        db_messages().clear();
        EXPECT_EQ(qv_scene_register_type(type, nullptr, nullptr, nullptr, nullptr, record_unlink), free) << type;
        // Error 4 of module SCENE (7), as the message layer numbers it (errors share class 1).
        EXPECT_EQ(count_messages((7 * 10 + 1) * 1000 + SCENE_ERROR_REGISTER_RANGE), free ? 0 : 1) << type;
        if (free)
            qv_scene_register_type(type, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    EXPECT_EQ(qv_scene_handlers(SCENE_FUNCDECL).swap, funcdecl_swap);
    EXPECT_EQ(qv_scene_handlers(38).unlink, nullptr);
}

std::vector<Db_tag> g_forgotten;
std::vector<Db_tag> g_changed;
void remember_forget(Db_tag tag, void*) { g_forgotten.push_back(tag); }
void remember_change(Db_tag tag) { g_changed.push_back(tag); }

TEST_F(SceneTypesTest, EditMarksTheRecordAndTellsFunctionsAndObjects)
{
    g_forgotten.clear();
    g_changed.clear();
    qv_scene_set_edit_hooks({remember_forget, remember_change});
    Db_tag function = scene_new(SCENE_FUNC);
    Db_tag object = scene_new(SCENE_OBJECT, 2);
    Db_tag material = scene_new(SCENE_MATERIAL);
    qv_db_peek(material)->flags = 0x10;

    EXPECT_EQ(qv_scene_edit(material)->flags, 0x17);
    qv_scene_edit(function);
    qv_scene_edit(object);
    qv_scene_set_edit_hooks({});
    EXPECT_EQ(g_forgotten, std::vector<Db_tag>{function});
    EXPECT_EQ(g_changed, std::vector<Db_tag>{object});
    EXPECT_EQ(scene_word(qv_db_access(object), SCENE_OBJECT_TYPE_WORD), 2);
}

}  // namespace

// The module's per-thread area is plain storage; its tag stack lives in the session area, made
// with the global areas and torn down with them.
TEST_F(SceneTypesTest, SessionAreaHoldsTheTagStackAndTheContextAreaStaysPlain)
{
    const auto* context = static_cast<const uint8_t*>(mod_context_area(MOD_SCENE));
    ASSERT_NE(context, nullptr);
    EXPECT_TRUE(std::all_of(context, context + 440, [](uint8_t b) { return b == 0; }));

    mod_create_global_areas();
    const auto* session = static_cast<void* const*>(mod_session_area(MOD_SCENE));
    ASSERT_NE(session, nullptr);
    EXPECT_NE(session[0], nullptr) << "the session's init made the tag stack";
    mod_destroy_global_areas();
    EXPECT_EQ(mod_session_area(MOD_SCENE), nullptr);
}
