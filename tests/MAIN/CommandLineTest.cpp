#include "MAIN/src/CommandLine.h"

#include <gmock/gmock.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace {

struct Settings {
    std::int32_t verbosity = 1;
    bool profile = false;
    bool forceProfile = false;
    std::string profilingDir;
    boost::program_options::variables_map options;
};

// `line` holds the arguments, a blank between two.
bool parse(const std::string& line, Settings& settings) {
    std::vector<std::string> words;
    boost::algorithm::split(words, line, boost::algorithm::is_any_of(" "));
    std::vector<const char*> argv{"the program"};
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    const auto launcherOptions = describeLauncherOptions(
        settings.verbosity, settings.profile, settings.forceProfile, settings.profilingDir);
    return parseCommandLine(static_cast<int>(argv.size()), argv.data(), launcherOptions,
                            settings.options);
}

}  // namespace

TEST(CommandLine, ExtraParserSplitsLongOptionsAtTheFirstEqualsSign) {
    const std::pair<std::string, std::string> none;
    const std::pair<const char*, std::pair<std::string, std::string>> cases[] = {
        {"--name", {"name", ""}},
        {"--name=value", {"name", "value"}},
        {"--", none},
        {"", none},
        {"--name=", {"name", ""}},
        {"--name=a=b", {"name", "a=b"}},
        {"-V", none},
        {"-V=2", none},
        {"--=value", {"", "value"}},
        {"--n", {"n", ""}},
        {"name=value", none},
    };
    for (const auto& [argument, pair] : cases) {
        EXPECT_EQ(parseExtraOption(argument), pair) << argument;
    }
}

TEST(CommandLine, ModeAndVerbosityComeFromWhatIsKnown) {
    const struct {
        const char* line;
        const char* ending;
        std::int32_t verbosity = 1;
    } cases[] = {
        {"", " UI..."},
        {"--unknown --other=x file -q -", " UI..."},
        {"-- --batch -V x", " UI..."},
        {"--batch file", " batch..."},
        {"--batch=", " batch..."},
        {"--script --batch --shell", " batch..."},
        {"--shell --script", " script..."},
        {"--script file argument", " script..."},
        {"--script=file", " script..."},
        {"--script=", " script..."},
        {"--shell", " shell..."},
        {"-V 2", " UI...", 2},
        {"-V2", " UI...", 2},
        {"--verbose 2", " UI...", 2},
        {"--verb=2", " UI...", 2},
        {"--verb 2", " UI...", 2},
        {"-V -1", " UI...", -1},
        {"--batch --verbose=2147483647", " batch...", 2147483647},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.line);
        Settings settings;
        ASSERT_TRUE(parse(row.line, settings));
        EXPECT_STREQ(launchLineEnding(settings.options), row.ending);
        EXPECT_EQ(isUiMode(settings.options), std::string(row.ending) == " UI...");
        EXPECT_EQ(settings.verbosity, row.verbosity);
    }
}

TEST(CommandLine, ProfilingAndHelpAreTakenApart) {
    for (const char* line : {"--profile --profiling-dir=a=b", "--profiling-dir a=b --profile x"}) {
        Settings settings;
        ASSERT_TRUE(parse(line, settings));
        EXPECT_TRUE(settings.profile && !settings.forceProfile);
        EXPECT_EQ(settings.profilingDir, "a=b");
        EXPECT_EQ(settings.options.count("help"), 0U);
    }
    Settings settings;
    ASSERT_TRUE(parse("--help --force-profile", settings));
    EXPECT_TRUE(!settings.profile && settings.forceProfile && settings.profilingDir.empty());
    EXPECT_EQ(settings.options.count("help"), 1U);
}

TEST(CommandLine, WrongUseIsOneLineUnderTheProgramsName) {
    for (const char* line :
         {"-V much", "--verbose=2147483648", "--verbose", "--profiling-dir", "--batch=x",
          "--shell=x", "--help=x", "--profile=x", "--batch --batch", "-V1 --verbose=1", "--pro"}) {
        Settings settings;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(parse(line, settings)) << line;
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::MatchesRegex("the program: [^\n]+\n"));
    }
}
