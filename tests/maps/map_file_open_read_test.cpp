// Open map files: binary ones read back through read and append_from_file, every header and
// field text fault with its message, the partial-element rule; the ASCII text as written.
#include <regex>

#include "maps/map_dbhandle.h"
#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_open_read : public Map_file_test {};

std::string file_text(const std::string& path)
{
    std::vector<uint8_t> bytes = file_bytes(path);
    return std::string(bytes.begin(), bytes.end());
}

} // namespace

TEST_F(Map_file_open_read, ReadGivesTheWrittenDeclarationGlobalsAndElements)
{
    // Several pages' worth, so that the elements cross page borders on their way in.
    const uint32_t count = 3 * map_elements_per_page(20, 3) + 11;
    const std::string name = path("round.ob");
    written(name, count, MAP_FORMAT_OPEN_BINARY);

    Map_impl back;
    ASSERT_EQ(back.read(name.c_str(), MAP_READ_VERBOSE), MAP_SUCCESS);
    EXPECT_EQ(count_lines(MSG_ERROR, ""), 0);
    const Map_declaration_impl declaration = declaration_with_globals();
    ASSERT_TRUE(back.get_declaration()->is_equal(&declaration, nullptr));
    ASSERT_EQ(back.size(), count);
    EXPECT_EQ(back.get_pending_count(), 0u);
    float scale = 0;
    char label[5] = {};
    EXPECT_EQ(back.get(back.get_declaration()->get_field_id("scale", nullptr), scale), MAP_SUCCESS);
    EXPECT_EQ(back.get(back.get_declaration()->get_field_id("label", nullptr), label), MAP_SUCCESS);
    EXPECT_EQ(scale, 0.75f);
    EXPECT_STREQ(label, "abcd");
    EXPECT_NE(back.global_bvh, nullptr) << "the read ends with a build";
    EXPECT_EQ(back.page_store().file_count(), 0u) << "an open binary file never backs a map";

    // Without a BVH the elements stay in file order. A handle opened on a file reads it alike.
    Map_impl plain;
    plain.bvh_enabled = false;
    ASSERT_EQ(plain.read(name.c_str(), 0), MAP_SUCCESS);
    EXPECT_TRUE(holds_elements(plain, count));
    Map_status status = MAP_NOT_EDITABLE;
    EXPECT_EQ(Access_map_dbhandle_impl(name.c_str(), &status).get()->size(), count);
    EXPECT_EQ(status, MAP_SUCCESS);
}

TEST_F(Map_file_open_read, AppendFromFileGoesBehindTheMapsElements)
{
    const std::string name = path("more.ob");
    written(name, 700, MAP_FORMAT_OPEN_BINARY, 3);
    holder.bvh_enabled = false;
    // One pending element of its own stays in front of the file's.
    Small_element pending = small_element(2);
    holder.append_raw(&pending);
    uint32_t format = 99;
    ASSERT_EQ(holder.append_from_file(name.c_str(), true, false, &format), MAP_SUCCESS);
    EXPECT_EQ(format, uint32_t(MAP_FORMAT_OPEN_BINARY));
    ASSERT_EQ(holder.size(), 704u);
    for (uint32_t i = 0; i < 704; ++i)
        ASSERT_TRUE(same(element_of(holder, i), small_element(i < 3 ? 100 + i : i - 1))) << i;
    float scale = 1.0f;
    EXPECT_EQ(holder.get(holder.get_declaration()->get_field_id("scale", nullptr), scale), MAP_NO_SUCH_FIELD)
        << "the map keeps its own declaration";

    // Another layout and an append onto an open file are refused in the tool's and the binary
    // append tests.
}

TEST_F(Map_file_open_read, EveryHeaderFaultHasItsMessageAndLeavesTheMapAlone)
{
    struct Case {
        const char* what;
        std::string bytes;
        Map_status status;
        int32_t code;
        std::string message; // %s is the file name
    };
    const std::string NUL(1, '\0');
    const std::string declaration = "syntax error in declaration of open binary map file \"%s\"";
    const std::vector<Case> cases = {
        {"dim cut short", "qv=MAPob1di", MAP_FILE_MALFORMED, 32,
         "syntax error reading from open binary map file \"%s\"(expected \"dim\")"},
        {"dimension 0", "qv=MAPob1dim0" + NUL, MAP_FILE_MALFORMED, 33,
         "wrong dimension (0) in open binary map file \"%s\""},
        {"g is no type", "qv=MAPob1dim3g\"a\"" + NUL, MAP_FILE_MALFORMED, 34, declaration + " - unrecognized field type"},
        {"letter then end", "qv=MAPob1dim3s" + NUL, MAP_FILE_MALFORMED, 36, declaration + " - unexpected end of string"},
        {"string of count 0", "qv=MAPob1dim3$0g\"s\"" + NUL, MAP_FILE_MALFORMED, 37, declaration + " - illegal field"},
        {"reserved name", "qv=MAPob1dim3v\"position\"" + NUL, MAP_FILE_MALFORMED, 37, declaration + " - illegal field"},
        {"count past 16 bits", "qv=MAPob1dim3s70000\"w\"" + NUL, MAP_FILE_MALFORMED, 37,
         declaration + " - illegal field"},
        {"element past a page", "qv=MAPob1dim3s9000\"w\"" + NUL, MAP_FILE_MALFORMED, 37,
         declaration + " - illegal field"},
        {"global block cut", "qv=MAPob1dim3tg\"m\"" + NUL + std::string(63, 'x'), MAP_FILE_MALFORMED, 29,
         "reading from open binary map file \"%s\""},
    };
    const std::string name = path("bad.ob");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        put_file(name, c.bytes.data(), c.bytes.size());
        std::string message = c.message;
        message.replace(message.find("%s"), 2, name);
        captured().clear();
        EXPECT_EQ(holder.read(name.c_str(), MAP_READ_VERBOSE), c.status);
        ASSERT_EQ(captured().size(), 1u) << "one error, no info line for a refused file";
        EXPECT_EQ(captured()[0].level, MSG_ERROR);
        EXPECT_EQ(captured()[0].text, message);
        EXPECT_EQ(captured()[0].number % 1000, c.code);
        // Quiet callers get the status alone.
        captured().clear();
        EXPECT_EQ(holder.read(name.c_str(), 0), c.status);
        EXPECT_TRUE(captured().empty());
        ASSERT_EQ(holder.size(), 3u);
        ASSERT_EQ(holder.get_pending_count(), 0u);
        ASSERT_TRUE(holds_elements(holder, 3, 100));
    }
}

TEST_F(Map_file_open_read, FieldTextItemsMakeTheirTypes)
{
    // What was parsed, as the writer puts it back: globals first, counts only on arrays.
    const struct {
        const char* text;
        const char* written;
    } cases[] = {
        {"i3\"a\"s\"w\"s2\"b\"", "i3\"a\"s\"w\"s2\"b\""},
        {"v5\"d\"c\"c\"t0\"m\"", "v\"d\"c\"c\"t\"m\""},
        {"v\"dir\"sg\"scale\"$8g\"label\"i0g\"k\"", "sg\"scale\"$8g\"label\"ig\"k\"v\"dir\""},
        {"s\"a b\"s\"g\"", "s\"a b\"s\"g\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Map_declaration_impl declaration(2);
        ASSERT_EQ(map_open_binary_parse_fields(c.text, strlen(c.text), declaration, "f", true), MAP_SUCCESS);
        std::string again;
        declaration.signature_text(again);
        EXPECT_EQ(again, c.written);
    }
    EXPECT_EQ(count_lines(MSG_ERROR, ""), 0);
}

TEST_F(Map_file_open_read, APartialElementAtTheEndLeavesTheWholeOnesPending)
{
    const std::string name = path("cut.ob");
    std::vector<uint8_t> bytes = written(name, 5, MAP_FORMAT_OPEN_BINARY);
    bytes.resize(bytes.size() - 7); // four whole elements and 13 bytes of the fifth
    put_file(name, bytes);
    // The message and an empty map's four points are checked end to end; here a map's own
    // elements keep their place in front.
    EXPECT_EQ(holder.append_from_file(name.c_str(), true, false, nullptr), MAP_FILE_MALFORMED);
    EXPECT_EQ(holder.size(), 3u);
    EXPECT_EQ(holder.get_pending_count(), 4u);
    EXPECT_FALSE(holder.get_bounds().valid);
    holder.commit();
    EXPECT_TRUE(holds_elements(holder, 3, 100));
    for (uint32_t i = 0; i < 4; ++i)
        EXPECT_TRUE(same(element_of(holder, 3 + i), small_element(i)));

    // A file that ends right behind its global block is an empty map, not an error.
    bytes.resize(bytes.size() - 4 * 20 - 13);
    put_file(name, bytes);
    Map_impl empty;
    captured().clear();
    EXPECT_EQ(empty.read(name.c_str(), MAP_READ_VERBOSE), MAP_SUCCESS);
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(count_lines(MSG_ERROR, ""), 0);
}

TEST_F(Map_file_open_read, OpenAsciiTextIsWrittenLineByLine)
{
    Map_declaration_impl declaration(3);
    declaration.add_scalar("weight");
    declaration.add_integer("id");
    declaration.add_global_scalar("scale");
    declaration.add_global_string("label", 5);
    Map_impl map(declaration);
    map.set(declaration.get_field_id("scale", nullptr), 2.5f);
    map.set(declaration.get_field_id("label", nullptr), "abc", -1);
    struct Element {
        float position[3];
        float weight;
        int32_t id;
    };
    const Element elements[] = {{{1.0f, 2.5f, -3.0f}, 0.125f, 7}, {{1e-7f, 123456789.0f, 0.0f}, 1.0f / 3.0f, -2}};
    for (const Element& element : elements)
        map.append_raw(&element);
    map.commit();
    const std::string name = path("text.map");
    ASSERT_EQ(map.write(name.c_str(), MAP_FORMAT_OPEN_ASCII, true), MAP_SUCCESS);
    EXPECT_TRUE(saw("writing map file \"" + name + "\""));

    std::string text = file_text(name);
    std::smatch names;
    ASSERT_TRUE(std::regex_search(text, names, std::regex("map \"(map_[A-Za-z0-9]{6})\" \"(map_decl_[A-Za-z0-9]{6})\"")));
    const std::string map_name = names[1], declaration_name = names[2];
    EXPECT_EQ(text, "#\n"
                    "# Quovray, version 3.9.4.14, May 12 2011\n"
                    "# open ASCII map file, 2 elements\n"
                    "#\n\n"
                    "declare map\n"
                    "\t\"" + declaration_name + "\" (\n"
                    "\t\tdim 3,\n"
                    "\t\tglobal scalar \"scale\",\n"
                    "\t\tglobal string 5 \"label\",\n"
                    "\t\tscalar \"weight\",\n"
                    "\t\tinteger \"id\"\n"
                    "\t)\n"
                    "end declare\n\n"
                    "map \"" + map_name + "\" \"" + declaration_name + "\"\n"
                    "\t{global 2.5 , \"abc\" },\n"
                    "\t{1 2.5 -3 , 0.125 , 7 },\n"
                    "\t{1e-07 1.23457e+08 0 , 0.333333 , -2 }\n"
                    "end map\n\n");

    // Without globals the first element follows the head directly. A caller's comment replaces
    // the version line.
    Map_impl bare(small_declaration());
    Small_element one = small_element(4);
    bare.append_raw(&one);
    bare.commit();
    ASSERT_EQ(bare.write(path("bare.map").c_str(), MAP_FORMAT_OPEN_ASCII, false, "made by a test"), MAP_SUCCESS);
    text = file_text(path("bare.map"));
    EXPECT_EQ(text.rfind("#\n# made by a test# open ASCII map file, 1 elements\n#\n\n", 0), 0u) << text;
    EXPECT_NE(text.find("\"\n\t{4 2 -4 , 2 , "), std::string::npos) << text;

    EXPECT_EQ(map.write(path("no/such/dir.map").c_str(), MAP_FORMAT_OPEN_ASCII, true), MAP_FILE_CANNOT_OPEN);
    map.editable = false;
    EXPECT_EQ(map.write(name.c_str(), MAP_FORMAT_OPEN_ASCII, true), MAP_NOT_EDITABLE);
}
