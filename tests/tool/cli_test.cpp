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

// Every command line that ends before the run, with exit code 1 and its exact stderr.
TEST(CliTest, UsageCasesPrintTheirExactTextsAndExitOne)
{
    const std::string usage = usage_text();
    const struct {
        std::vector<std::string> args;
        std::string err;
    } cases[] = {
        {{"-h"}, usage},
        {{}, usage},
        {{"-f", "0.1"}, usage},
        {{"-v"}, info_lines + usage},
        // The info lines come after the whole option loop, so -v anywhere in the options counts.
        {{"-h", "-v"}, info_lines + usage},
        // -b takes six words: 0 0 0 1 1 in; "out" is then the only operand left.
        {{"-b", "0", "0", "0", "1", "1", "in", "out"}, usage},
        // Fewer than six words behind -b: usage, nothing consumed.
        {{"-b", "0", "0", "1"}, usage},
        // A bad legacy word is consumed and asks for usage.
        {{"-l", "maybe", "in", "out"}, usage},
        {{"-x", "in", "out"}, illegal('x') + usage},
        // The scanner has not left "-lon" when main reads the word, so "-lon" is compared with
        // "on", and the letters o and n are then scanned as options of their own.
        {{"-lon", "in", "out"}, illegal('o') + illegal('n') + usage},
        {{"-f"}, "MAIN  .0  error: " + program + ": option requires an argument: 102\n" + usage},
        // "-bv" stays the current word while main reads the six numbers, so the box is
        // -bv 0 0 1 1 1; v is still returned and the cluster's end skips the word "skipped".
        {{"-bv", "0", "0", "1", "1", "1", "skipped", "out"}, info_lines + usage},
        // "--" ends the options: "-h" is the only operand, and no output word remains.
        {{"--", "-h"}, usage},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const std::string& word : c.args)
            line += word + " ";
        SCOPED_TRACE(line);
        const Tool_result r = run_tool(c.args);
        EXPECT_EQ(r.exit_code, 1);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
    // "in" stops the options; the run finds no point.
    EXPECT_EQ(run_tool({"in", "out", "-f"}).exit_code, 1);
    // Help with operands prints usage and leaves an existing output as it was.
    Temp_dir dir;
    write_file(dir.file("out"), "keep me");
    EXPECT_EQ(run_tool({"-h", dir.file("in"), dir.file("out")}).err, usage);
    EXPECT_EQ(read_file(dir.file("out")), "keep me");
    // After "--" and for a lone "-", the word is an operand: with an output word the run goes on
    // to the intake instead of printing usage.
    EXPECT_EQ(run_tool({"--", "-h", "out"}).err.find("finalgather map copy"), std::string::npos);
    EXPECT_EQ(run_tool({"-", "out"}).err.find("finalgather map copy"), std::string::npos);
}

// Regression: -l as the very last word reads argv's null terminator; a cluster takes one word
// per letter, and every word at or past the end reads as that null word. Behind argv's
// terminator lie the environment's entries and then the auxiliary vector, so a cluster longer
// than the environment would reach words that are no strings.
TEST(CliTest, LegacyWordsPastTheEndOfArgvReadAsNull)
{
    size_t environment = 0;
    while (environ[environment])
        ++environment;
    std::string cluster(environment + 9, 'l');
    cluster[0] = '-';
    for (const std::string& word : {std::string("-l"), std::string("-lll"), cluster}) {
        const Tool_result r = run_tool({word});
        EXPECT_EQ(r.exit_code, 1) << word;
        EXPECT_EQ(r.err, usage_text()) << word;
    }
}
