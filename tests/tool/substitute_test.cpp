// Inputs and the output named through variables and QV_RAY_SUBSTITUTE rules, as a user runs it.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "tests/tool/classic_file.h"
#include "tests/tool/run_tool.h"

namespace {

std::vector<Classic_point> points(int count, int first_id)
{
    std::vector<Classic_point> result;
    for (int i = 0; i < count; ++i)
        result.push_back(make_point(float(i), 0.5f * float(i), 1.0f, 7, first_id + i));
    return result;
}

class SubstituteTest : public ::testing::Test {
protected:
    Temp_dir dir;
    void SetUp() override
    {
        write_file(dir.file("a.fg"), classic_bytes(points(5, 0)));
        write_file(dir.file("b.fg"), classic_bytes(points(3, 100)));
    }
    uint32_t classic_count(const std::string& name) { return decode_classic(read_file(dir.file(name))).count; }
};

}  // namespace

TEST_F(SubstituteTest, VariablesAndRulesNameInputsAndOutputAndTheirFaultsAreReported)
{
    // A file under the raw, unsubstituted output name is removed; the write goes elsewhere.
    ASSERT_EQ(mkdir(dir.file("$FGDIR").c_str(), 0755), 0);
    write_file(dir.file("$FGDIR/out.fg"), "stale");
    Tool_result r = run_tool({"-l", "on", "$FGDIR/a.fg", "${FGDIR}/b$?UNSET_QV_VAR.fg$?FGDIR", "$FGDIR/out.fg"},
                             dir.path(), {"FGDIR=" + dir.path()});
    // "$?FGDIR" gives "1": the second input is b.fg1, which does not exist.
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_FALSE(file_exists(dir.file("$FGDIR/out.fg")));
    EXPECT_EQ(classic_count("out.fg"), 5u);

    // The substituted name is not removed before the write: the classic writer would append.
    unlink(dir.file("out.fg").c_str());
    write_file(dir.file("b.fg1"), classic_bytes(points(3, 100)));
    r = run_tool({"-l", "on", "$FGDIR/a.fg", "${FGDIR}/b$?UNSET_QV_VAR.fg$?FGDIR", "$FGDIR/out.fg"}, dir.path(),
                 {"FGDIR=" + dir.path()});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(classic_count("out.fg"), 8u);

    // The current format goes to the substituted name too.
    r = run_tool({"$FGDIR/a.fg", "$FGDIR/out.fgm"}, "", {"FGDIR=" + dir.path()});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(file_exists(dir.file("out.fgm")));
    // ... and is read back as an input named the same way.
    r = run_tool({"-l", "on", "${FGDIR}/out.fgm", "$FGDIR/back.fg"}, "", {"FGDIR=" + dir.path()});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(classic_count("back.fg"), 5u);

    // Rules rewrite names.
    unlink(dir.file("out.fg").c_str());
    r = run_tool({"-l", "on", "data:a.fg", "data:b.tmp", "data:out.fg"}, "",
                             {"FGDIR=" + dir.path(), "QV_RAY_SUBSTITUTE=|^data:|${FGDIR}/| /.tmp$/.fg/"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(classic_count("out.fg"), 8u);

    // The undefined variable leaves an empty name, which loads nothing; the other input does.
    r = run_tool({"-l", "on", "$NO_SUCH_QV_VAR/a.fg", dir.file("b.fg"), dir.file("out.fg")});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_NE(r.err.find("RCFG 0.0  error  541040: path substitution: undefined $var \"NO_SUCH_QV_VAR\"\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(classic_count("out.fg"), 3u);

    // Malformed rule text is reported and the run goes on.
    struct Case {
        std::string rules, line;
        uint32_t points;
    } cases[] = {
        {"//x/", "RCFG 0.0  error  541041: path substitution: null search string\n", 5},
        {"/abc", "RCFG 0.0  error  541042: path substitution: unterminated search string\n", 5},
        // Rules before the fault stay: a.fg becomes b.fg.
        {"/a.fg/b.fg/ /x/y", "RCFG 0.0  error  541043: path substitution: unterminated replace string\n", 3},
    };
    for (const Case& c : cases) {
        Tool_result r = run_tool({"-l", "on", dir.file("a.fg"), dir.file("out.fg")}, "", {"QV_RAY_SUBSTITUTE=" + c.rules});
        EXPECT_EQ(r.exit_code, 0) << c.rules;
        // The parse stops at the first fault, reported once for the whole run.
        EXPECT_EQ(r.err, c.line) << c.rules;
        EXPECT_EQ(classic_count("out.fg"), c.points) << c.rules;
    }
}
