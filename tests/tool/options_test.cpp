#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tool/options.h"

namespace {

struct Scan {
    std::vector<int> letters;
    std::vector<std::string> arguments;
    int end_index = 0;
};

Scan scan(std::vector<std::string> words)
{
    qv_test_init();
    words.insert(words.begin(), "prog");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    opt_reset();
    Scan result;
    int letter;
    while ((letter = opt_next(int(words.size()), argv.data(), "bBf:hvl")) != -1) {
        result.letters.push_back(letter);
        result.arguments.push_back(opt_argument ? opt_argument : "");
    }
    result.end_index = opt_index;
    return result;
}

}  // namespace

TEST(OptionScannerTest, ArgumentGluedOrSeparateAndClusters)
{
    Scan s = scan({"-f0.5", "-vh", "-f", "2", "in"});
    EXPECT_EQ(s.letters, (std::vector<int>{'f', 'v', 'h', 'f'}));
    EXPECT_EQ(s.arguments[0], "0.5");
    EXPECT_EQ(s.arguments[3], "2");
    EXPECT_EQ(s.end_index, 5);  // stays on "in"
}

TEST(OptionScannerTest, DoubleDashIsSkippedButLoneDashIsKept)
{
    EXPECT_EQ(scan({"-v", "--whatever", "in"}).end_index, 3);
    EXPECT_EQ(scan({"-v", "-", "in"}).end_index, 2);
}

TEST(OptionScannerTest, UnknownLettersAndColonAreMistakesThatKeepScanning)
{
    Scan s = scan({"-x:v", "in"});
    EXPECT_EQ(s.letters, (std::vector<int>{'?', '?', 'v'}));
    EXPECT_EQ(s.end_index, 2);
}

TEST(OptionScannerTest, MissingArgumentAtTheEndIsAMistake)
{
    Scan s = scan({"-v", "-f"});
    EXPECT_EQ(s.letters, (std::vector<int>{'v', '?'}));
    EXPECT_EQ(s.end_index, 3);
}
