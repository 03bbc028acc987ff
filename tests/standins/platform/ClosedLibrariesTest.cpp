#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "ZkConfiguration/Configuration.h"
#include "ZkLoggingHost/LogLines.h"
#include "ZkLoggingHost/ZkLoggerGlue.h"
#include "ZkPlexum3/ZkPlexum3.h"

namespace {

using Plexum3::ZkConfiguration::v1::Config;
using testing::Eq;
using testing::ExitedWithCode;

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
    char first[] = "TAVREL_TEST_TWICE=1", second[] = "TAVREL_TEST_TWICE=2";
    char* twice[] = {first, second, nullptr};
    environ = twice;
    setenv("TAVREL_TEST_SET", "a=b", 1);
    setenv("TAVREL_TEST_EMPTY", "", 1);
    ASSERT_EQ(ZkPlexum3InitializeMinimally(0), 0);
    EXPECT_EQ(Config().get("TAVREL_TEST_SET") + Config().get("TAVREL_TEST_TWICE"), "a=b1");
    setenv("TAVREL_TEST_LATE", "x", 1);
    Config().set("TAVREL_TEST_SET", "");
    EXPECT_STREQ(getenv("TAVREL_TEST_SET"), "a=b");
    for (const char* key :
         {"TAVREL_TEST_EMPTY", "TAVREL_TEST_ABSENT", "TAVREL_TEST_LATE", "TAVREL_TEST_SET"}) {
        EXPECT_FALSE(Config().has(key)) << key;
        EXPECT_EQ(Config().get(key), "");
    }
    ZkPlexum3Uninitialize(nullptr);
    EXPECT_EQ(Config().get("TAVREL_TEST_TWICE"), "");
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
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(folder_ / name) << text;
        return folder_ / name;
    }
    std::filesystem::path folder_;
};

void logAtEveryLevel(const std::string& configurationFile) {
    Config().set("ZKLOGGING_CONFIG", configurationFile);
    const ZkLoggingHost::ZkLoggerGlue logger("MAIN");
    std::cerr << logger.debugEnabled() << logger.infoEnabled() << logger.errorEnabled() << '\n';
    logger.debug("fine {0}", "MAIN/src/tavrel", 7);
    logger.info("two\twords", "MAIN/src/tavrel", 123);
    logger.error("bad", "MAIN/src/tavrel", 345);
    ZkLoggingHost::writeLine("more");
}

std::string contentOf(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

TEST_F(Logging, GoesWhereTheFileAsksOrSaysWhatIsWrongWithIt) {
    const std::string error = "[ERROR MAIN] bad (MAIN/src/tavrel:345)\nmore\n";
    const std::string info = "[INFO MAIN] two\twords (MAIN/src/tavrel:123)\n" + error;
    const std::string toStderr = "; logging to standard error";
    const std::string byDefault = toStderr + " at level info (log.conf:1)\n011\n" + info;
    const std::string conf = folder_ / "log.conf", wrong = "[ERROR LOGGING] \"" + conf + "\": ";
    const std::string none = folder_ / "none/out.log", unusable = "[ERROR LOGGING] \"";
    const std::pair<std::string, std::string> cases[] = {
        {"[log]\nlevel=debug\n", "111\n[DEBUG MAIN] fine {0} (MAIN/src/tavrel:7)\n" + info},
        {"[log]\nlevel = info\ndestination = stderr\n", "011\n" + info},
        {"[log]\nlevel=error", "001\n" + error},
        {"[log]\nlevel=off\n", "000\nmore\n"},
        {contentOf(TAVREL_LOG_CONF), "011\n" + info},
        {"[log]\nlevel=loud\n",
         wrong + "level \"loud\" is none of debug, info, warning, error, off" + byDefault},
        {"[log]\nlevle=info\n", wrong +
                                    "setting \"levle\" is none of level, destination, "
                                    "make_folder, rotate_size, rotate_keep" +
                                    byDefault},
        {"[log]\nmake_folder=on\n",
         wrong + "make_folder is \"on\", neither yes nor no" + byDefault},
        {"[log]\nrotate_size=9999999999G\n",
         wrong + "rotate_size is \"9999999999G\", no whole number such as 500K, 10M or 1G" +
             byDefault},
        {"[log]\nrotate_keep=1K\n", wrong + "rotate_keep is \"1K\", no whole number" + byDefault},
        {"[log]\ndestination=\n",
         wrong + "destination is empty: give stderr or the path of a file" + byDefault},
        {"[logs]\nlevel=error\n", wrong + "\"logs\" stands where only [log] may" + byDefault},
        {"[log]\nlevel\n", wrong + "line 2: '=' character not found in line" + byDefault},
        {"", wrong + "No such file or directory" + byDefault},
        {"[log]\nlevel=error\ndestination=" + folder_.string(),
         unusable + folder_.string() + "\": Is a directory" + toStderr + " (log.conf:1)\n001\n" +
             error},
        {"[log]\nlevel=error\ndestination=" + none, unusable + none +
                                                        "\": No such file or directory" + toStderr +
                                                        " (log.conf:1)\n001\n" + error},
    };
    for (const auto& [text, expected] : cases) {
        std::filesystem::remove(conf);
        EXPECT_IN_CHILD(logAtEveryLevel(text.empty() ? conf : write("log.conf", text)),
                        Eq(expected));
    }
    std::filesystem::remove(conf);
    ASSERT_EQ(mkfifo(conf.c_str(), 0600), 0);
    EXPECT_IN_CHILD(logAtEveryLevel(conf), Eq(wrong + "Not a regular file" + byDefault));
    std::filesystem::remove(conf);
    // The line that didn't fit was made for the file.
    EXPECT_IN_CHILD(logAtEveryLevel(write("log.conf", "[log]\nlevel=error\ndestination=/dev/full")),
                    testing::AllOf(testing::StartsWith("001\n" + unusable +
                                                       "/dev/full\": No space left "
                                                       "on device" +
                                                       toStderr + " (log.conf:1)\n"),
                                   testing::EndsWith(" " + error)));
}

void logFromForkedChildren(const std::string& configurationFile) {
    Config().set("ZKLOGGING_CONFIG", configurationFile);
    ZkLoggingHost::writeLine("as the launcher, before there are threads");
    std::atomic<bool> stop{false};
    std::thread writer([&stop] {
        while (!stop) {
            ZkLoggingHost::writeLine("parent");
        }
    });
    for (int i = 0; i < 200; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(100);
            ZkLoggingHost::writeLine("child");
            _exit(0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    stop = true;
    writer.join();
}

TEST_F(Logging, AForkedChildWritesWhateverItsParentsThreadsWereAt) {
    EXPECT_IN_CHILD(logFromForkedChildren(write("log.conf", "[log]\ndestination=/dev/null\n")),
                    Eq(""));
}

TEST_F(Logging, DropsWhatAPipeHasNoRoomForAndNeitherWaitsNorComplains) {
    const std::string fifo = folder_ / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int pipe = open(fifo.c_str(), O_RDWR);
    Config().set("ZKLOGGING_CONFIG", write("log.conf", "[log]\ndestination=" + fifo));
    const std::string text(200, 'x');
    EXPECT_IN_CHILD(
        for (int i = 0; i < 1000; ++i) { ZkLoggingHost::writeLine(text); }, Eq(""));
    close(pipe);
}

TEST_F(Logging, ProcessesThatShareAFileRotateItTogether) {
    const std::string path = write("log.conf",
                                   "[log]\nrotate_size=20K\nrotate_keep=90\n"
                                   "destination=" +
                                       (folder_ / "out.log").string());
    const std::string text(200, 'x');
    Config().set("ZKLOGGING_CONFIG", path);
    const int free = dup(STDIN_FILENO);
    close(free);
    const pid_t child = fork();
    for (int i = 0; i < 1000; ++i) {
        ZkLoggingHost::writeLine(text);
    }
    if (child == 0) {
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_LE(dup(STDIN_FILENO), free + 2);
    std::filesystem::remove(path);
    int files = 0;
    int lines = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
        std::istringstream content(contentOf(entry.path()));
        for (std::string line; std::getline(content, line); ++lines) {
            EXPECT_THAT(line, testing::EndsWith("] " + text));
        }
        ++files;
    }
    EXPECT_EQ(lines, 2000);
    EXPECT_GT(files, 5);
}

}  // namespace
