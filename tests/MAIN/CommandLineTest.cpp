#include <gtest/gtest.h>

#include "MAIN/src/CommandLine.h"

// What a command line makes of the launcher is seen from outside, in tests/system.
TEST(CommandLine, ExtraParserSplitsLongOptionsAtTheFirstEqualsSign) {
    const std::pair<std::string, std::string> none;
    const std::pair<const char*, std::pair<std::string, std::string>> cases[] = {
        {"--name", {"name", ""}},
        {"--", none},
        {"--name=", {"name", ""}},
        {"--name=a=b", {"name", "a=b"}},
        {"-V=2", none},
        {"--=value", {"", "value"}},
        {"name=value", none},
    };
    for (const auto& [argument, pair] : cases) {
        EXPECT_EQ(parseExtraOption(argument), pair) << argument;
    }
}
