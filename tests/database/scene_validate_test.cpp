// Validators report every fault of a record, not only the first: each row below makes one
// record and lists every line its validation must give.
#include <cstring>
#include <functional>

#include "database/scene_validate.h"
#include "tests/database/scene_test_support.h"

namespace {

class SceneValidateTest : public SceneTest {
protected:
    // A declaration record under a new tag; `bytes` may differ from what its counters ask for.
    static Db_tag make_funcdecl(uint32_t bytes, int32_t language, int32_t result_size, int32_t subtags,
                                const std::string& name, char result_class = 0, Db_tag root = 0)
    {
        Db_tag tag = 0;
        auto* decl = static_cast<Scene_funcdecl*>(qv_db_create(&tag, SCENE_FUNCDECL, bytes));
        decl->language = language;
        decl->result_size = result_size;
        decl->subtag_count = subtags;
        std::memcpy(decl->name, name.data(), std::min<size_t>(name.size(), SCENE_FUNCDECL_NAME_BYTES));
        if (result_size > 0)
            decl->result[0] = result_class;
        decl->root = root;
        return tag;
    }
};

TEST_F(SceneValidateTest, EveryFaultOfARecordHasItsLine)
{
    const Db_tag function = scene_new(SCENE_FUNC), material = scene_new(SCENE_MATERIAL);
    const uint32_t plain = qv_scene_funcdecl_size(0, 0), composite = qv_scene_funcdecl_size(4, 0);
    struct Case {
        const char* what;
        std::function<Db_tag()> make;
        std::vector<std::string> lines;  // %#x is the record's tag; "" when the record is valid
    } cases[] = {
        {"size and name", [&] { return make_funcdecl(plain + 8, 0, 0, 0, ""); },
         {"decl %#x: wrong db item size " + std::to_string(plain + 8) + ", expected " + std::to_string(plain),
          "decl %#x: missing function name"}},
        // Subtags on a plain declaration, a name that fills its field, a size matching neither.
        {"three faults",
         [&] { return make_funcdecl(qv_scene_funcdecl_size(0, 1) + 4, 2, 0, 1, std::string(80, 'n')); },
         {"wrong db item size", "too long", "has unexpected subtags"}},
        {"name that just fits", [&] { return make_funcdecl(plain, 0, 0, 0, std::string(79, 'n')); }, {}},
        {"language", [&] { return make_funcdecl(plain, 9, 0, 0, "odd"); }, {"decl %#x (odd): bad language type"}},
        // A composite of class 'm' takes a material root; any other class a shader root or none.
        {"function root", [&] { return make_funcdecl(composite, 1, 4, 0, "mix", 'm', function); },
         {"cannot put reference to func"}},
        {"no root", [&] { return make_funcdecl(composite, 1, 4, 0, "mix", 'm'); },
         {"decl %#x: null root material tag"}},
        {"material root", [&] { return make_funcdecl(composite, 1, 4, 0, "mix", 'm', material); }, {}},
        {"shader without root", [&] { return make_funcdecl(composite, 1, 4, 0, "mix", 's'); }, {}},
        {"shader with material", [&] { return make_funcdecl(composite, 1, 4, 0, "mix", 's', material); },
         {"root shader"}},
        {"polygons", [] { return make_unpinned(SCENE_POLYGON, 30); },
         {"poly %#x: wrong db item size 30, not multiple of 20"}},
        {"approximations", [] { return make_unpinned(SCENE_APPROXLIST, 57); },
         {"approx_list %#x: wrong db item size 57, expected multiple of 56"}},
        {"instance", [] { return make_unpinned(SCENE_INSTANCE, SCENE_INSTANCE_SIZE + 4); },
         {"wrong db item size", "instance %#x: null item tag"}},
        {"box", [this] { return scene_new(SCENE_BOX, 3); }, {}},
        {"untyped", [] { return make_unpinned(0, 4); }, {"tag %#x has unknown type 0"}},
        {"string, no validator", [this] { return scene_new(SCENE_STRING, 12); }, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Db_tag tag = c.make();
        db_messages().clear();
        EXPECT_EQ(qv_scene_validate(tag), c.lines.empty() ? 1 : 0);
        EXPECT_EQ(Msg_collect::count(MSG_ERROR, ""), int(c.lines.size()));
        for (const std::string& line : c.lines) {
            char text[256];
            std::snprintf(text, sizeof text, line.c_str(), tag);
            EXPECT_EQ(Msg_collect::count(MSG_ERROR, text), 1) << text;
        }
    }
}

}  // namespace
