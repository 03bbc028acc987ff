#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

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

// m, f: the initialisations; M, F: with a bad argument; d: down
std::string resultsOf(const std::string& calls) {
    std::string results;
    for (const char call : calls) {
        if (call == 'd') {
            ZkPlexum3Uninitialize(nullptr);
        } else {
            const int argument = call == 'F' || call == 'M' ? 5 : 0;
            results +=
                std::to_string(call == 'f' || call == 'F' ? ZkPlexum3Initialize(argument)
                                                          : ZkPlexum3InitializeMinimally(argument));
        }
    }
    return results;
}

TEST(LifeCycle, RefusesEveryCallOutOfOrder) {
    const std::pair<const char*, const char*> cases[] = {
        {"f", "2"},     {"mm", "02"},    {"mff", "002"}, {"Mm", "10"},
        {"mFf", "010"}, {"mdfm", "022"}, {"dmf", "00"},  {"mfddfm", "0022"},
    };
    for (const auto& [calls, results] : cases) {
        EXPECT_IN_CHILD(EXPECT_EQ(resultsOf(calls), results) << calls, Eq(""));
    }
}

void checkSnapshot() {
    ::setenv("TAVREL_TEST_SET", "a=b", 1);
    ::setenv("TAVREL_TEST_EMPTY", "", 1);
    ASSERT_EQ(ZkPlexum3InitializeMinimally(0), 0);
    EXPECT_EQ(Config().get("TAVREL_TEST_SET"), "a=b");
    ::setenv("TAVREL_TEST_LATE", "x", 1);
    for (const char* key : {"TAVREL_TEST_EMPTY", "TAVREL_TEST_ABSENT", "TAVREL_TEST_LATE"}) {
        EXPECT_FALSE(Config().has(key)) << key;
        EXPECT_EQ(Config().get(key), "");
    }
    Config().set("TAVREL_TEST_SET", "");
    EXPECT_FALSE(Config().has("TAVREL_TEST_SET"));
    EXPECT_STREQ(::getenv("TAVREL_TEST_SET"), "a=b");
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
}

class Logging : public testing::Test {
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
    std::filesystem::path folder;
};

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
        {"[log]\nlevel=error", std::string("001\n") + errorLine},
        {"[log]\nlevel=off\n", "000\n"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        EXPECT_IN_CHILD(logAtEveryLevel(write("log.conf", text)), Eq(expected));
    }
    EXPECT_IN_CHILD(logAtEveryLevel(TAVREL_LOG_CONF), Eq(info));
}

TEST_F(Logging, OneLineSaysWhatIsWrongAndTheDefaultsHold) {
    const std::pair<std::string, std::string> cases[] = {
        {"[log]\nlevel=loud\n", "level \"loud\" is none of debug, info, error, off"},
        {"[log]\nlevle=info\n", "setting \"levle\" is neither level nor destination"},
        {"[log]\ndestination=\n", "destination is empty: give stderr or the path of a file"},
        {"[logs]\nlevel=error\n", "\"logs\" stands where only [log] may"},
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
    std::ostringstream written;
    written << std::ifstream(log).rdbuf();
    EXPECT_EQ(written.str(), std::string("before\n") + infoLine + errorLine);
    const std::string bad = write("bad.conf", "[log]\ndestination=" + folder.string() + "\n");
    EXPECT_IN_CHILD(logAtEveryLevel(bad), HasSubstr("logging to standard error at level info"));
}

}  // namespace
