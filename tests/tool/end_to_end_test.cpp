// The tool run as a user runs it, on files made here, with its outputs decoded byte by byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "tests/tool/classic_file.h"
#include "tests/tool/run_tool.h"

namespace {

std::vector<Classic_point> sample_points()
{
    std::vector<Classic_point> points;
    for (int i = 0; i < 40; ++i)
        points.push_back(make_point(float(i % 5), float(i / 5) * 0.5f, float(i % 3), 10 + uint32_t(i), i));
    return points;
}

// Records by point_id, for comparisons that do not depend on the kd-tree's order.
std::map<int32_t, Classic_point> by_id(const std::vector<Classic_point>& points)
{
    std::map<int32_t, Classic_point> result;
    for (const Classic_point& p : points) {
        int32_t id;
        std::memcpy(&id, &p.words[17], 4);
        result[id] = p;
    }
    return result;
}

// The header of a classic output: magic, byte order 1, version 1, no rays option, the count.
void expect_classic_header(const Classic_file& file, uint32_t count)
{
    ASSERT_TRUE(file.ok);
    std::string expected(120, '\0');
    std::memcpy(&expected[0], "qvFG    3.9.4.14", 16);
    std::memcpy(&expected[32], "qvFH\1\0\0\0\1", 9);
    std::memcpy(&expected[96], &count, 4);
    EXPECT_EQ(file.header, expected);
}

class EndToEndTest : public ::testing::Test {
protected:
    Temp_dir dir;
    std::string input = dir.file("in.fg");
    std::string output = dir.file("out.fg");

    void SetUp() override { write_file(input, classic_bytes(sample_points())); }

    Classic_file run_legacy(std::vector<std::string> args, int expected_exit = 0)
    {
        args.insert(args.begin(), {"-l", "on"});
        Tool_result r = run_tool(args);
        EXPECT_EQ(r.exit_code, expected_exit) << r.err;
        last_err = r.err;
        return decode_classic(read_file(output));
    }
    std::string last_err;
};

}  // namespace

// The records come out in the order of the balanced kd-tree: heap nodes 1 to 6, node k with the
// children 2k and 2k + 1, each inner node splitting its box on the axis of greatest extent at the
// record whose in-order place in the subtree it holds. Worked by hand for six points in z = 0:
// node 1 splits x over the whole box (extent 5 > 4) and takes the fourth smallest x, id 5; the
// left box x in [0, 3] is taller than wide, so node 2 splits y among ids 0, 2, 4 and takes id 4,
// with ids 0 and 2 below it; node 3 splits y between ids 1 and 3 and takes id 3, the larger,
// since its only child lies before it in order.
TEST_F(EndToEndTest, LegacyOutputFollowsTheBalancedTree)
{
    const float xy[6][2] = {{0, 0}, {5, 1}, {1, 3}, {4, 4}, {2, 2.5f}, {3, 0.5f}};
    std::vector<Classic_point> points;
    for (int id = 0; id < 6; ++id)
        points.push_back(make_point(xy[id][0], xy[id][1], 0, 1, id));
    write_file(input, classic_bytes(points));
    Classic_file out = run_legacy({input, output});
    ASSERT_EQ(out.points.size(), 6u);
    std::vector<int32_t> order;
    for (const Classic_point& p : out.points)
        order.push_back(int32_t(p.words[17]));
    EXPECT_EQ(order, (std::vector<int32_t>{5, 4, 3, 0, 2, 1}));
}

// A missing input is reported at the info level only; an input listed twice loads twice, and a
// box that is no box is reported and selects nothing away.
TEST_F(EndToEndTest, MissingInputIsSkippedInputsAccumulateABadBoxIsIgnoredAndAMissingOutputDirIsReported)
{
    expect_classic_header(run_legacy({dir.file("missing.fg"), input, input, output}), 80);
    EXPECT_EQ(last_err, "");
    EXPECT_EQ(run_legacy({"-B", "1", "0", "0", "0", "1", "1", input, output}).count, 40u);
    EXPECT_EQ(last_err,
              "MAIN 0.0  error: bad box option: -b 1.000000 0.000000 0.000000 0.000000 1.000000 1.000000, "
              "ignoring\n");

    // An output in a missing directory is reported, and the run still ends with 0.
    output = dir.file("no/such/dir/out.fg");
    Tool_result r = run_tool({"-l", "on", input, output});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_NE(r.err.find("cannot save finalgather map"), std::string::npos) << r.err;
    r = run_tool({input, output});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_NE(r.err.find("cannot open map file"), std::string::npos) << r.err;
}

TEST_F(EndToEndTest, BoxKeepsFacesInsideAndNanOutsideAndComesBeforeTheMerge)
{
    std::vector<Classic_point> points = {make_point(0, 0, 0, 1, 0), make_point(1, 1, 1, 1, 1),
                                         make_point(0.5f, 0.5f, 0.5f, 1, 2), make_point(2, 0, 0, 1, 3),
                                         make_point(NAN, 0.5f, 0.5f, 1, 4)};
    write_file(input, classic_bytes(points));

    Classic_file in = run_legacy({"-b", "0", "0", "0", "1", "1", "1", input, output});
    auto kept = by_id(in.points);
    EXPECT_EQ(kept.size(), 3u);
    EXPECT_TRUE(kept.count(0) && kept.count(1) && kept.count(2));

    Classic_file outside = run_legacy({"-B", "0", "0", "0", "1", "1", "1", input, output});
    auto dropped = by_id(outside.points);
    EXPECT_EQ(dropped.size(), 2u);
    EXPECT_TRUE(dropped.count(3) && dropped.count(4));

    Tool_result r = run_tool({"-v", "-l", "on", "-b", "0", "0", "0", "1", "1", "1", input, output});
    EXPECT_NE(r.err.find("MAIN 0.0  info : box selected 3 points\n"), std::string::npos) << r.err;

    // Box selection comes before the merge whatever the order of the options: the point outside
    // the box is gone before it could blend with the one inside.
    write_file(input, classic_bytes({make_point(0.5f, 0.5f, 0.5f, 1, 0), make_point(1.25f, 0.5f, 0.5f, 1, 1)}));
    Classic_file merged = run_legacy({"-f", "1", "-b", "0", "0", "0", "1", "1", "1", input, output});
    ASSERT_EQ(merged.points.size(), 1u);
    EXPECT_EQ(merged.points[0].words[10], 1u);
    EXPECT_EQ(merged.points[0].f(0), 0.5f);
}

// An empty selection still writes a valid file of either kind; the empty current file then
// reads back as having no point, so a run on it finds nothing to write.
TEST_F(EndToEndTest, EmptySelectionWritesAnEmptyFileOfEitherKind)
{
    Tool_result r = run_tool({"-v", "-l", "on", "-b", "100", "100", "100", "101", "101", "101", input, output});
    EXPECT_EQ(r.exit_code, 0);
    std::string bytes = read_file(output);
    EXPECT_EQ(bytes.size(), 120u);
    expect_classic_header(decode_classic(bytes), 0);
    EXPECT_NE(r.err.find("0 new finalgather points saved to"), std::string::npos) << r.err;

    std::string current = dir.file("empty.fgm");
    r = run_tool({"-b", "100", "100", "100", "101", "101", "101", input, current});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(read_file(current).substr(0, 6), "qv=MAP");
    EXPECT_EQ(run_tool({current, output}).exit_code, 1);
}

// A merge distance of 0, no number or a negative one merges nothing.
TEST_F(EndToEndTest, MergeDistanceThatIsNoPositiveNumberMergesNothing)
{
    std::vector<Classic_point> points = {make_point(1, 1, 1, 30, 0), make_point(1, 1, 1, 10, 1),
                                         make_point(5, 5, 5, 7, 2)};
    write_file(input, classic_bytes(points));
    EXPECT_EQ(run_legacy({"-f", "0.1", input, output}).count, 2u);
    for (const char* distance : {"0", "abc", "-1"})
        EXPECT_EQ(run_legacy({"-f", distance, input, output}).count, 3u) << distance;
}
