#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/test_support.h"
#include "tool/options.h"

TEST(OptionScannerTest, LettersArgumentsAndWhereScanningStops)
{
    qv_test_init();
    const struct {
        std::vector<std::string> words;
        const char* letters;
        const char* arguments;  // the arguments of -f, in order
        int end_index;
    } cases[] = {
        // Arguments glued or separate, letters clustered; the first plain word ends the scan.
        {{"-f0.5", "-vh", "-f", "2", "in"}, "fvhf", "0.5 2 ", 5},
        // "--" is skipped, a lone "-" is an operand.
        {{"-v", "--whatever", "in"}, "v", "", 3},
        {{"-v", "-", "in"}, "v", "", 2},
        // Unknown letters and ':' are mistakes that keep scanning.
        {{"-x:v", "in"}, "??v", "", 2},
        // A missing argument at the end is a mistake.
        {{"-v", "-f"}, "v?", "", 3},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words = c.words;
        words.insert(words.begin(), "prog");
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        SCOPED_TRACE(c.words.front() + " " + c.words[1]);
        opt_reset();
        std::string letters, arguments;
        for (int letter; (letter = opt_next(int(words.size()), argv.data(), "bBf:hvl")) != -1;) {
            letters += char(letter);
            if (letter == 'f')
                arguments += std::string(opt_argument) + " ";
        }
        EXPECT_EQ(letters, c.letters);
        EXPECT_EQ(arguments, c.arguments);
        EXPECT_EQ(opt_index, c.end_index);
    }
}
