#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <regex>
#include <sstream>

#include "base/Log.h"
#include "tests/ForkedRole.h"

namespace {

using Zendrik::Log;
using Level = Log::Level;

class LogTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "log.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string contents(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(folder_ / name).rdbuf();
        return text.str();
    }

    /// What the log says of a file that it can't open.
    static std::string failure(const std::string& path) {
        return "Zendrik::Log Error cannot open " + path + " for writing \n";
    }

    std::filesystem::path folder_;
};

/// Runs @p role in a process of its own, with lines going to standard error unless it changes that,
/// and returns what that took.
std::string errorsOf(const std::function<void()>& role) {
    return runRole([&] {
               setVariables({{"ZENDRIK_LOG_FILE", ""}, {"ZENDRIK_LOG_LEVEL", nullptr}});
               role();
               return 0;
           })
        .errors;
}

void write(Level level, const std::string& text, Log::Channel channel = {}) {
    if (Log::Entry(level, channel)) {
        Log::stream() << text << std::endl;
    }
}

TEST_F(LogTest, EnvironmentSettlesTheLevelOnce) {
    const struct {
        const char* variable;
        const char* written;
    } cases[] = {
        {nullptr, "01"},    {"", "01"},          {"debug", "01"},      {"quiet", "0"},
        {"Warning", "012"}, {"message", "0123"}, {"VERBOSE", "01234"}, {"all", "01234"},
    };
    for (const auto& each : cases) {
        const std::string written = errorsOf([&] {
            setVariables({{"ZENDRIK_LOG_LEVEL", each.variable}});
            Log::hideHeader(Log::Channel{});
            for (int level = 0; level <= 4; ++level) {
                if (Log::Entry(static_cast<Level>(level), Log::Channel{})) {
                    Log::stream() << level;
                }
                setVariables({{"ZENDRIK_LOG_LEVEL", "verbose"}});
            }
        });
        EXPECT_EQ(written, each.written) << (each.variable == nullptr ? "(unset)" : each.variable);
    }
}

TEST_F(LogTest, DestinationComesFromTheEnvironment) {
    std::filesystem::create_directories(folder_ / "home/Desktop");
    const std::string home = folder_ / "home";
    const std::string bareHome = folder_;
    const std::string file = folder_ / "own.log";
    const std::string unwritable = folder_ / "none/own.log";
    const std::string fifo = folder_ / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        const char* file;
        const char* home;
        std::string created;
        std::string standardError;
    } cases[] = {
        {nullptr, home.c_str(), "home/Desktop/zendrik.log", ""},
        {file.c_str(), home.c_str(), "own.log", ""},
        {"", home.c_str(), "", "one\ntwo\n"},
        {nullptr, nullptr, "", "one\ntwo\n"},
        {nullptr, bareHome.c_str(), "", failure(bareHome + "/Desktop/zendrik.log") + "one\ntwo\n"},
        {unwritable.c_str(), nullptr, "", failure(unwritable) + "one\ntwo\n"},
        {fifo.c_str(), nullptr, "", failure(fifo) + "one\ntwo\n"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.standardError + each.created);
        const std::string errors = errorsOf([&] {
            setVariables({{"ZENDRIK_LOG_FILE", each.file}, {"HOME", each.home}});
            Log::hideHeader(Log::Channel{});
            write(Level::message, "dropped");
            write(Level::error, "one");
            write(Level::error, "two");
        });
        EXPECT_EQ(errors, each.standardError);
        EXPECT_EQ(contents(each.created), each.created.empty() ? "" : "one\ntwo\n");
    }
}

TEST_F(LogTest, HeadersNameApplicationChannelAndLevel) {
    const std::string errors = errorsOf([] {
        Log::setLevel(Level::verbose, false);
        const Log::Channel net{Log::channelNames().add("net")};
        write(Level::error, "unnamed");
        write(Level::error, "not enabled", net);
        Log::enableChannel(net);
        write(Level::warning, "channel", net);
        Log::setApplicationName("app");
        write(Level::message, "application");
        write(Level::verbose, "both", net);
        Log::hideHeader(net);
        write(Level::quiet, "short", net);
        Log::showHeader(net);
        write(Level::quiet, "full", net);
        Log::disableChannel(net);
        write(Level::error, "disabled", net);
        std::cerr << std::setw(3) << 7 << "|" << std::endl;
    });
    const std::regex time(R"(\[\d{4}(/\d\d){2}(:\d\d){3}\] )");
    EXPECT_EQ(
        std::regex_replace(errors, time, "[time] "),
        "[Error][time] unnamed\n[net Warning][time] channel\n[app Message][time] application\n"
        "[app/net Verbose][time] both\n[net] short\n[app/net Quiet][time] full\n007|\n");
}

}  // namespace
