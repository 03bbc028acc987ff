#include <gtest/gtest.h>
#include <stdio.h>

#include <sstream>
#include <string>
#include <vector>

#include "ZkPlexumSDK/pystring.h"

namespace {

using Plexum3::internal::pystring_v1::join;
using Plexum3::internal::pystring_v1::replace;

std::string hexadecimal(const std::string& text) {
    std::ostringstream out;
    for (const unsigned char byte : text) {
        out << "0123456789abcdef"[byte / 16] << "0123456789abcdef"[byte % 16];
    }
    return out.str();
}

// Runs a program text and returns what it prints.
std::string outputOfPython(const std::string& program) {
    const std::string command = "'" TAVREL_PYTHON37 "' -I -S -X utf8 -c \"" + program + "\"";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string output;
    for (int c = ::fgetc(pipe); c != EOF; c = ::fgetc(pipe)) {
        output.push_back(static_cast<char>(c));
    }
    EXPECT_EQ(::pclose(pipe), 0);
    return output;
}

TEST(Pystring, ReplaceGivesWhatPythonGives) {
    const std::vector<std::string> texts = {
        "", "aaa", "abcabc", "h\xc3\xa9 \xe2\x82\xac\xf0\x9f\x98\x80", "\xff\xc3x\xed\xa0\x80"};
    const std::vector<std::string> olds = {"", "a", "aa", "abc", ".", "\xc3\xa9", "none"};
    const std::vector<std::string> news = {"", "-", "aa", "\xc3\xa9"};
    const std::vector<int> counts = {-2, -1, 0, 1, 2, 3, 100};
    std::string ours;
    std::ostringstream program;
    program << "import os\nfor t, o, n, c in (";
    for (const std::string& text : texts) {
        for (const std::string& old : olds) {
            for (const std::string& replacement : news) {
                for (const int count : counts) {
                    ours += hexadecimal(replace(text, old, replacement, count)) + "\n";
                    program << "('" << hexadecimal(text) << "','" << hexadecimal(old) << "','"
                            << hexadecimal(replacement) << "'," << count << "),";
                }
            }
        }
    }
    program << "):\n  t, o, n = (os.fsdecode(bytes.fromhex(x)) for x in (t, o, n))\n"
               "  print(os.fsencode(t.replace(o, n, c)).hex())";
    EXPECT_EQ(ours, outputOfPython(program.str()));
}

TEST(Pystring, JoinPutsTheSeparatorBetweenOnly) {
    EXPECT_EQ(join(":", {}), "");
    EXPECT_EQ(join(", ", {"a", "", "b"}), "a, , b");
}

}  // namespace
