// Writing the open ASCII text line by line. (Open binary files are read back in the open
// read tests and through the tool, which shows their writer's faults too.)
#include <regex>

#include "tests/maps/map_file_test_support.h"

using namespace map_file_test;

namespace {

class Map_file_open : public Map_file_test {};

std::string file_text(const std::string& path)
{
    std::vector<uint8_t> bytes = file_bytes(path);
    return std::string(bytes.begin(), bytes.end());
}

} // namespace

TEST_F(Map_file_open, OpenAsciiText)
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

    // Without globals the first element follows the head directly; an empty map has nothing.
    // A caller's comment replaces the version line.
    Map_impl bare(small_declaration());
    ASSERT_EQ(bare.write(path("bare.map").c_str(), MAP_FORMAT_OPEN_ASCII, false, "made by a test"), MAP_SUCCESS);
    text = file_text(path("bare.map"));
    EXPECT_EQ(text.rfind("#\n# made by a test# open ASCII map file, 0 elements\n#\n\n", 0), 0u) << text;
    EXPECT_TRUE(text.size() > 20 && text.substr(text.size() - 10) == "\nend map\n\n");
    EXPECT_EQ(text[text.size() - 11], '"') << "the head, then the end";
    Small_element one = small_element(4);
    bare.append_raw(&one);
    bare.commit();
    ASSERT_EQ(bare.write(path("bare.map").c_str(), MAP_FORMAT_OPEN_ASCII, false), MAP_SUCCESS);
    text = file_text(path("bare.map"));
    EXPECT_NE(text.find("\"\n\t{4 2 -4 , 2 , "), std::string::npos) << text;

    EXPECT_EQ(map.write(path("no/such/dir.map").c_str(), MAP_FORMAT_OPEN_ASCII, true), MAP_FILE_CANNOT_OPEN);
    EXPECT_TRUE(saw("cannot open map file \"" + path("no/such/dir.map") + "\" for writing"));
    map.editable = false;
    EXPECT_EQ(map.write(name.c_str(), MAP_FORMAT_OPEN_ASCII, true), MAP_NOT_EDITABLE);
}
