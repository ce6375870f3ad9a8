// Validators report every fault of a record, not only the first.
#include <cstring>

#include "database/scene_validate.h"
#include "tests/database/scene_test_support.h"

namespace {

class SceneValidateTest : public SceneTest {
protected:
    // A declaration record under a new tag; `bytes` may differ from what its counters ask for.
    Db_tag make_funcdecl(uint32_t bytes, int32_t language, int32_t result_size, int32_t subtags,
                         const char* name)
    {
        Db_tag tag = 0;
        auto* decl = static_cast<Scene_funcdecl*>(qv_db_create(&tag, SCENE_FUNCDECL, bytes));
        if (bytes >= SCENE_FUNCDECL_FIXED) {
            decl->language = language;
            decl->result_size = result_size;
            decl->subtag_count = subtags;
            std::memcpy(decl->name, name, std::min<size_t>(std::strlen(name), SCENE_FUNCDECL_NAME_BYTES));
        }
        return tag;
    }

    static Scene_funcdecl* decl_of(Db_tag tag) { return static_cast<Scene_funcdecl*>(qv_db_access(tag)); }
};

TEST_F(SceneValidateTest, WrongSizeAndMissingNameAreBothReported)
{
    const uint32_t wanted = qv_scene_funcdecl_size(0, 0);
    Db_tag tag = make_funcdecl(wanted + 8, 0, 0, 0, "");
    EXPECT_EQ(qv_scene_validate(tag), 0);
    EXPECT_TRUE(has_line("decl %#x: wrong db item size %d, expected %d", tag, int(wanted + 8), int(wanted)));
    EXPECT_TRUE(has_line("decl %#x: missing function name", tag));
    EXPECT_EQ(errors_with(""), 2);
}

TEST_F(SceneValidateTest, EveryFaultOfADeclarationIsCounted)
{
    // Subtags on a plain declaration, a name that fills its field, and a size that matches
    // neither counter: three faults, three lines.
    std::string long_name(SCENE_FUNCDECL_NAME_BYTES, 'n');
    Db_tag tag = make_funcdecl(qv_scene_funcdecl_size(0, 1) + 4, 2, 0, 1, long_name.c_str());
    EXPECT_EQ(qv_scene_validate(tag), 0);
    EXPECT_EQ(errors_with("wrong db item size"), 1);
    EXPECT_EQ(errors_with("too long"), 1);
    EXPECT_EQ(errors_with("has unexpected subtags"), 1);
    EXPECT_EQ(errors_with(""), 3);

    db_messages().clear();
    Db_tag bad_language = make_funcdecl(qv_scene_funcdecl_size(0, 0), 9, 0, 0, "odd");
    EXPECT_EQ(qv_scene_validate(bad_language), 0);
    EXPECT_TRUE(has_line("decl %#x (odd): bad language type", bad_language));
}

TEST_F(SceneValidateTest, CompositeRootMustMatchTheResultClass)
{
    Db_tag function = scene_new(SCENE_FUNC);
    Db_tag material = scene_new(SCENE_MATERIAL);

    // Class 'm' with a function as root: wrong type. Class 'm' with no root: null tag.
    Db_tag decl = make_funcdecl(qv_scene_funcdecl_size(4, 0), 1, 4, 0, "mix");
    decl_of(decl)->result[0] = 'm';
    decl_of(decl)->root = function;
    EXPECT_EQ(qv_scene_validate(decl), 0);
    EXPECT_EQ(errors_with("cannot put reference to func"), 1);

    decl_of(decl)->root = 0;
    db_messages().clear();
    EXPECT_EQ(qv_scene_validate(decl), 0);
    EXPECT_TRUE(has_line("decl %#x: null root material tag", decl));

    decl_of(decl)->root = material;
    EXPECT_EQ(qv_scene_validate(decl), 1);

    // Any other class takes a shader root, and no root at all.
    decl_of(decl)->result[0] = 's';
    decl_of(decl)->root = 0;
    db_messages().clear();
    EXPECT_EQ(qv_scene_validate(decl), 1);
    decl_of(decl)->root = material;
    EXPECT_EQ(qv_scene_validate(decl), 0);
    EXPECT_EQ(errors_with("root shader"), 1);
}

TEST_F(SceneValidateTest, FamilyValidatorsUseTheirPrefixAndSizeRule)
{
    const Db_tag polygons = make_unpinned(SCENE_POLYGON, 30);
    EXPECT_EQ(qv_scene_validate(polygons), 0);
    EXPECT_TRUE(has_line("poly %#x: wrong db item size 30, not multiple of 20", polygons));

    const Db_tag approx = make_unpinned(SCENE_APPROXLIST, 57);
    EXPECT_EQ(qv_scene_validate(approx), 0);
    EXPECT_TRUE(has_line("approx_list %#x: wrong db item size 57, expected multiple of 56", approx));

    // An instance of the wrong size that also lacks its item: both faults.
    const Db_tag instance = make_unpinned(SCENE_INSTANCE, SCENE_INSTANCE_SIZE + 4);
    db_messages().clear();
    EXPECT_EQ(qv_scene_validate(instance), 0);
    EXPECT_EQ(errors_with("wrong db item size"), 1);
    EXPECT_TRUE(has_line("instance %#x: null item tag", instance));

    Db_tag box = scene_new(SCENE_BOX, 3);
    EXPECT_EQ(qv_db_size(box), SCENE_BOX_FIXED + 3 * SCENE_BOX_ITEM_SIZE);
    EXPECT_EQ(qv_scene_validate(box), 1);
    qv_db_unpin(box);
}

TEST_F(SceneValidateTest, UnknownTypeAndTypesWithoutValidator)
{
    const Db_tag untyped = make_unpinned(0, 4);
    EXPECT_EQ(qv_scene_validate(untyped), 0);
    EXPECT_TRUE(has_line("tag %#x has unknown type 0", untyped));

    Db_tag text = scene_new(SCENE_STRING, 12);
    EXPECT_EQ(qv_scene_validate(text), 1);
}

}  // namespace
