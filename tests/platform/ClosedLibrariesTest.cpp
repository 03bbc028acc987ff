#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <thread>
#include <vector>

#include "ZkConfiguration/Configuration.h"
#include "ZkLoggingHost/ZkLoggerGlue.h"
#include "ZkPlexum3/ZkPlexum3.h"

namespace {

using Plexum3::ZkConfiguration::v1::Config;
using testing::Eq;
using testing::ExitedWithCode;
using testing::HasSubstr;

// The libraries can be brought up once in a process: each case runs in a child of its own and
// ends with 0 when all went as expected.
#define EXPECT_IN_CHILD(statement, standardErrorMatcher) \
    EXPECT_EXIT(                                         \
        {                                                \
            statement;                                   \
            _exit(testing::Test::HasFailure() ? 1 : 0);  \
        },                                               \
        ExitedWithCode(0), standardErrorMatcher)

TEST(LifeCycle, RefusesEveryCallOutOfOrder) {
    struct Case {
        const char* calls;  // m, f: the initialisations; M, F: with a bad argument; d: down
        std::vector<int> results;
    };
    const std::vector<Case> cases = {
        {"mfd", {0, 0}}, {"f", {2}},           {"mm", {0, 2}},  {"mff", {0, 0, 2}},
        {"Mm", {1, 0}},  {"mFf", {0, 1, 0}},   {"mdm", {0, 2}}, {"mfdf", {0, 0, 2}},
        {"dmf", {0, 0}}, {"mfddm", {0, 0, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.calls);
        const auto run = [&] {
            std::vector<int> results;
            for (const char* call = c.calls; *call != '\0'; ++call) {
                switch (*call) {
                    case 'd':
                        ZkPlexum3Uninitialize(nullptr);
                        break;
                    case 'f':
                    case 'F':
                        results.push_back(ZkPlexum3Initialize(*call == 'F' ? 5 : 0));
                        break;
                    default:
                        results.push_back(ZkPlexum3InitializeMinimally(*call == 'M' ? 5 : 0));
                }
            }
            EXPECT_EQ(results, c.results);
        };
        EXPECT_IN_CHILD(run(), Eq(""));
    }
}

void checkSnapshot() {
    ::setenv("TAVREL_TEST_SET", "a=b", 1);
    ::setenv("TAVREL_TEST_EMPTY", "", 1);
    EXPECT_FALSE(Config().has("TAVREL_TEST_SET"));
    ASSERT_EQ(ZkPlexum3InitializeMinimally(0), 0);
    EXPECT_TRUE(Config().has("TAVREL_TEST_SET"));
    EXPECT_EQ(Config().get("TAVREL_TEST_SET"), "a=b");
    EXPECT_FALSE(Config().has("TAVREL_TEST_EMPTY"));
    EXPECT_FALSE(Config().has("TAVREL_TEST_ABSENT"));
    EXPECT_EQ(Config().get("TAVREL_TEST_ABSENT"), "");

    ::setenv("TAVREL_TEST_LATE", "x", 1);
    EXPECT_FALSE(Config().has("TAVREL_TEST_LATE")) << "a snapshot does not follow the environment";
    Config().set("TAVREL_TEST_SET", "");
    EXPECT_FALSE(Config().has("TAVREL_TEST_SET"));
    EXPECT_STREQ(::getenv("TAVREL_TEST_SET"), "a=b");
    ZkPlexum3Uninitialize(nullptr);
    EXPECT_EQ(Config().get("PATH"), "");
}

TEST(Configuration, StartsAsTheEnvironmentAndGoesItsOwnWay) {
    EXPECT_IN_CHILD(checkSnapshot(), Eq(""));
}

TEST(Configuration, ReadersSeeWholeValuesWhileOthersWrite) {
    const std::string values[] = {std::string(100, 'a'), std::string(200, 'b')};
    Config().set("shared", values[0]);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i) {
            Config().set("shared", values[i % 2]);
            Config().set("key " + std::to_string(i), "x");
        }
        stop = true;
    });
    while (!stop) {
        const std::string value = Config().get("shared");
        EXPECT_TRUE(value == values[0] || value == values[1]);
    }
    writer.join();
    EXPECT_TRUE(Config().has("key 19999"));
}

class ScratchFolder : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "tavrel_platform_XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(folder / name) << text;
        return folder / name;
    }
    static std::string read(const std::string& path) {
        std::ifstream stream(path);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    std::filesystem::path folder;
};

using Logging = ScratchFolder;

void logAtEveryLevel(const std::string& configurationFile) {
    Config().set("ZKLOGGING_CONFIG", configurationFile);
    const ZkLoggingHost::ZkLoggerGlue logger("MAIN");
    std::cerr << logger.debugEnabled() << logger.infoEnabled() << logger.errorEnabled() << '\n';
    logger.debug("fine {0}", "MAIN/src/tavrel", 7);
    logger.info("two\twords", "MAIN/src/tavrel", 123);
    logger.error("bad", "MAIN/src/tavrel", 345);
}

const char* const debugLine = "[DEBUG MAIN] fine {0} (MAIN/src/tavrel:7)\n";
const char* const infoLine = "[INFO MAIN] two\twords (MAIN/src/tavrel:123)\n";
const char* const errorLine = "[ERROR MAIN] bad (MAIN/src/tavrel:345)\n";

TEST_F(Logging, WritesTheLevelsThatTheFileAsksFor) {
    const std::string info = std::string("011\n") + infoLine + errorLine;
    const std::pair<std::string, std::string> cases[] = {
        {"[log]\nlevel=debug\n", std::string("111\n") + debugLine + infoLine + errorLine},
        {"[log]\nlevel = info\ndestination = stderr\n", info},
        {"; nothing set\n", info},
        {"[log]\nlevel=error", std::string("001\n") + errorLine},
        {"[log]\nlevel=off\n", "000\n"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        EXPECT_IN_CHILD(logAtEveryLevel(write("log.conf", text)), Eq(expected));
    }
    EXPECT_IN_CHILD(logAtEveryLevel(""), Eq(info));
    EXPECT_IN_CHILD(logAtEveryLevel(TAVREL_LOG_CONF), Eq(info));
}

TEST_F(Logging, OneLineSaysWhatIsWrongAndTheDefaultsHold) {
    const std::pair<std::string, std::string> cases[] = {
        {"[log]\nlevel=loud\n", "level \"loud\" is none of debug, info, error, off"},
        {"[log]\nlevle=info\n", "setting \"levle\" is neither level nor destination"},
        {"[log]\ndestination=\n", "destination is empty: give stderr or the path of a file"},
        {"[logs]\nlevel=error\n", "\"logs\" stands where only [log] may"},
        {"level=error\n", "\"level\" stands where only [log] may"},
        {"[log]\nlevel\n", "line 2: '=' character not found in line"},
    };
    const auto expected = [](const std::string& path, const std::string& reason) {
        return "[ERROR LOGGING] \"" + path + "\": " + reason +
               "; logging to standard error at level info (log.conf:1)\n011\n" + infoLine +
               errorLine;
    };
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(text);
        const std::string path = write("log.conf", text);
        EXPECT_IN_CHILD(logAtEveryLevel(path), Eq(expected(path, reason)));
    }
    const std::string missing = folder / "none.conf";
    EXPECT_IN_CHILD(logAtEveryLevel(missing), Eq(expected(missing, "No such file or directory")));
}

TEST_F(Logging, AppendsToTheFileThatIsNamed) {
    const std::string log = write("out.log", "before\n");
    const std::string path = write("log.conf", "[log]\ndestination=" + log + "\n");
    EXPECT_IN_CHILD(logAtEveryLevel(path), Eq("011\n"));
    EXPECT_EQ(read(log), std::string("before\n") + infoLine + errorLine);

    const std::string bad = write("bad.conf", "[log]\ndestination=" + folder.string() + "\n");
    EXPECT_IN_CHILD(logAtEveryLevel(bad), HasSubstr("logging to standard error at level info"));
}

}  // namespace
