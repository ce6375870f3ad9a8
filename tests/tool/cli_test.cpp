// The command line as a user meets it: exact texts and exit codes of the built binary.
#include <gtest/gtest.h>

#include <unistd.h>

#include "tests/tool/run_tool.h"

namespace {

const std::string program = QV_TEST_TOOL_PATH;

std::string usage_text()
{
    return "finalgather map copy and merge utility for Quovray\n" + program +
           " [opts] map1 ... mapN out_map\n"
           "-b box     only copy finalgather points WITHIN the box\n"
           "           defined by: xmin ymin zmin xmax ymax zmax\n"
           "-B box     only copy finalgather points OUTSIDE the box\n"
           "           defined by: xmin ymin zmin xmax ymax zmax\n"
           "-f F       merge finalgather points within that distance\n"
           "-h         print help information\n"
           "-l on|off  if on, saved fg map will be a legacy one (default off)\n"
           "-v         verbose output\n";
}

const std::string info_lines =
    "MAIN  .0  info : Copyright (c) the fg_splice authors\n"
    "MAIN  .0  info : fg_splice version 1.2.0\n"
    "MAIN  .0  info : version 3.9.4.14, May 12 2011\n";

std::string illegal(int letter)
{
    return "MAIN  .0  error: " + program + ": illegal option: " + std::to_string(letter) + "\n";
}

}  // namespace

TEST(CliTest, HelpAndMissingOperandsPrintUsageAndExitOne)
{
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"-h"}, {"out"}, {}, {"-h", "in", "out"}, {"-f", "0.1"}}) {
        Tool_result r = run_tool(args);
        EXPECT_EQ(r.exit_code, 1);
        EXPECT_EQ(r.err, usage_text());
        EXPECT_EQ(r.out, "");
    }
}

TEST(CliTest, VerbosePrintsThreeInfoLinesBeforeUsage)
{
    Tool_result r = run_tool({"-v"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, info_lines + usage_text());

    // The info lines come after the whole option loop, so -v anywhere in the options counts.
    r = run_tool({"-h", "-v"});
    EXPECT_EQ(r.err, info_lines + usage_text());
}

TEST(CliTest, HelpLeavesAnExistingOutputUntouched)
{
    Temp_dir dir;
    write_file(dir.file("out"), "keep me");
    Tool_result r = run_tool({"-h", dir.file("in"), dir.file("out")});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(read_file(dir.file("out")), "keep me");
}

TEST(CliTest, BoxCountsWordsSoAShortBoxSwallowsTheInput)
{
    // Six words are taken: 0 0 0 1 1 in; "out" is then the only operand left.
    Tool_result r = run_tool({"-b", "0", "0", "0", "1", "1", "in", "out"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, usage_text());

    // Fewer than six words behind -b: usage, nothing consumed.
    r = run_tool({"-b", "0", "0", "1"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, usage_text());
}

TEST(CliTest, BadLegacyWordIsConsumedAndRequestsUsage)
{
    Tool_result r = run_tool({"-l", "maybe", "in", "out"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, usage_text());

    // -l as the very last word reads argv's null terminator; a cluster takes one word per
    // letter, and every word at or past the end reads as that null word. Behind argv's
    // terminator lie the environment's entries and then the auxiliary vector, so a cluster
    // longer than the environment would reach words that are no strings.
    size_t environment = 0;
    while (environ[environment])
        ++environment;
    std::string cluster(environment + 9, 'l');
    cluster[0] = '-';
    for (const std::string& word : {std::string("-l"), std::string("-lll"), cluster}) {
        r = run_tool({word});
        EXPECT_EQ(r.exit_code, 1) << word;
        EXPECT_EQ(r.err, usage_text()) << word;
    }
}

TEST(CliTest, UnknownOptionIsReportedByNumberThenUsage)
{
    Tool_result r = run_tool({"-x", "in", "out"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, illegal('x') + usage_text());
}

TEST(CliTest, GluedLegacyWordComparesTheWordItselfAndReportsItsLetters)
{
    // The scanner has not left "-lon" when main reads the word, so "-lon" is compared with
    // "on", and the letters o and n are then scanned as options of their own.
    Tool_result r = run_tool({"-lon", "in", "out"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, illegal('o') + illegal('n') + usage_text());
}

TEST(CliTest, MissingArgumentOfDistanceIsReported)
{
    Tool_result r = run_tool({"in", "out", "-f"});
    EXPECT_EQ(r.exit_code, 1);  // "in" stops the options; the run finds no point
    r = run_tool({"-f"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, "MAIN  .0  error: " + program + ": option requires an argument: 102\n" + usage_text());
}

TEST(CliTest, ClusterWithBoxTakesTheClusterAsFirstNumberAndSkipsAWord)
{
    // "-bv" stays the current word while main reads the six numbers, so the box is
    // -bv 0 0 1 1 1; v is still returned and the cluster's end skips the word "skipped".
    Tool_result r = run_tool({"-bv", "0", "0", "1", "1", "1", "skipped", "out"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, info_lines + usage_text());
}

TEST(CliTest, DoubleDashEndsOptionsAndLoneDashIsAnOperand)
{
    Tool_result r = run_tool({"--", "-h"});
    // "-h" is now the only operand: usage because no output word remains, and -h was not seen
    // as an option (no info lines either way, so the text alone cannot tell; the exit code can't
    // either). Adding an output shows the difference: the run goes on to the intake.
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err, usage_text());
    r = run_tool({"--", "-h", "out"});
    EXPECT_EQ(r.err.find("finalgather map copy"), std::string::npos);

    r = run_tool({"-", "out"});
    EXPECT_EQ(r.err.find("finalgather map copy"), std::string::npos);
}
