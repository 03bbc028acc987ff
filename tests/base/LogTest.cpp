#include "base/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/base/ForkedRole.h"

namespace {

using Zendrik::Log;
using Level = Log::Level;

class LogTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "log.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string contents(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(m_folder / name).rdbuf();
        return text.str();
    }

    std::filesystem::path m_folder;
};

void setOrClear(const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
}

void write(Level level, const std::string& text, Log::Channel channel = {}) {
    if (Log::Entry(level, channel)) {
        Log::stream() << text << std::endl;
    }
}

/// Times differ from run to run: only their form counts.
std::string timesMasked(const std::string& text) {
    static const std::regex time(R"(\[\d{4}(/\d\d){2}(:\d\d){3}\] )");
    return std::regex_replace(text, time, "[time] ");
}

TEST_F(LogTest, EnvironmentSettlesTheLevelOnce) {
    const struct {
        const char* variable;
        const char* written;
    } cases[] = {
        {nullptr, "01"},     {"", "01"},           {"debug", "01"},
        {"quiet", "0"},      {"error", "01"},      {"Warning", "012"},
        {"message", "0123"}, {"VERBOSE", "01234"}, {"all", "01234"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.variable == nullptr ? "(unset)" : each.variable);
        const RoleOutcome outcome = runForked([&] {
            setOrClear("ZENDRIK_LOG_LEVEL", each.variable);
            setenv("ZENDRIK_LOG_FILE", "", 1);
            Log::hideHeader(Log::Channel{});
            for (int level = 0; level <= 5; ++level) {
                if (Log::Entry(static_cast<Level>(level), Log::Channel{})) {
                    Log::stream() << level;
                }
                setenv("ZENDRIK_LOG_LEVEL", "verbose", 1);
            }
        });
        EXPECT_EQ(outcome.text, each.written);
    }
}

TEST_F(LogTest, SetLevelHonoursTheEnvironmentOnlyIfAsked) {
    const RoleOutcome outcome = runForked([] {
        setenv("ZENDRIK_LOG_LEVEL", "verbose", 1);
        Log::setLevel(Level::quiet, false);
        std::cerr << static_cast<int>(Log::level());
        Log::setLevel("warning", true);
        std::cerr << static_cast<int>(Log::level());
        setenv("ZENDRIK_LOG_LEVEL", "nonsense", 1);
        Log::setLevel("message", true);
        std::cerr << static_cast<int>(Log::level());
        Log::setLevel("nonsense", true);
        std::cerr << static_cast<int>(Log::level());
    });
    EXPECT_EQ(outcome.text, "0431");
}

TEST_F(LogTest, DestinationComesFromTheEnvironment) {
    std::filesystem::create_directories(m_folder / "home/Desktop");
    const std::string home = m_folder / "home";
    const std::string bareHome = m_folder;
    const std::string file = m_folder / "own.log";
    const std::string unwritable = m_folder / "none/own.log";
    const auto failure = [](const std::string& path) {
        return "Zendrik::Log Error cannot open " + path + " for writing \n";
    };
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
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.standardError + each.created);
        const RoleOutcome outcome = runForked([&] {
            unsetenv("ZENDRIK_LOG_LEVEL");
            setOrClear("ZENDRIK_LOG_FILE", each.file);
            setOrClear("HOME", each.home);
            Log::hideHeader(Log::Channel{});
            write(Level::message, "dropped");
            if (!each.created.empty() && std::filesystem::exists(m_folder / each.created)) {
                std::cerr << "opened too early";
            }
            write(Level::error, "one");
            write(Level::error, "two");
        });
        EXPECT_EQ(outcome.text, each.standardError);
        if (!each.created.empty()) {
            EXPECT_EQ(contents(each.created), "one\ntwo\n");
            std::filesystem::remove(m_folder / each.created);
        }
    }
}

TEST_F(LogTest, FilesAreAppendedToAndReplacedByStreams) {
    const std::string file = m_folder / "own.log";
    std::ofstream(file) << "before\n";
    const RoleOutcome outcome = runForked([&] {
        Log::hideHeader(Log::Channel{});
        Log::setFile(file);
        Log::setFile(m_folder / "none/own.log");
        write(Level::error, Log::file() == file ? "still here" : "lost the file");
        std::ostringstream own;
        Log::setStream(&own);
        write(Level::error, "elsewhere");
        setenv("ZENDRIK_LOG_FILE", "", 1);
        Log::setStream(nullptr);
        write(Level::error, own.str() + Log::file());
    });
    EXPECT_EQ(contents("own.log"), "before\nstill here\n");
    EXPECT_EQ(outcome.text, "Zendrik::Log Error cannot open " +
                                (m_folder / "none/own.log").string() +
                                " for writing \nelsewhere\n\n");
}

TEST_F(LogTest, HeadersNameApplicationChannelAndLevel) {
    const RoleOutcome outcome = runForked([] {
        setenv("ZENDRIK_LOG_FILE", "", 1);
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
    EXPECT_EQ(
        timesMasked(outcome.text),
        "[Error][time] unnamed\n[net Warning][time] channel\n[app Message][time] application\n"
        "[app/net Verbose][time] both\n[net] short\n[app/net Quiet][time] full\n007|\n");
}

TEST_F(LogTest, HeaderHoldsTheLocalTime) {
    const RoleOutcome outcome = runForked([] {
        setenv("ZENDRIK_LOG_FILE", "", 1);
        setenv("TZ", "XXX-05:30", 1);
        tzset();
        write(Level::error, "");
    });
    std::tm written = {};
    std::istringstream(outcome.text) >> std::get_time(&written, "[Error][%Y/%m/%d:%H:%M:%S]");
    const std::time_t age = std::time(nullptr) + 19800 - timegm(&written);
    EXPECT_GE(age, 0) << outcome.text;
    EXPECT_LT(age, 60) << outcome.text;
}

TEST(LogChannelNames, IdentifiersStayAndClearKeepsTheEmptyName) {
    Log::ChannelNames names;
    EXPECT_EQ(names.add(""), 0U);
    EXPECT_EQ(names.add("a"), 1U);
    EXPECT_EQ(names.add("b"), 2U);
    EXPECT_EQ(names.add("a"), 1U);
    EXPECT_EQ(names.find("b"), 2U);
    EXPECT_EQ(names.find("c"), 0U);
    EXPECT_EQ(names.name(2), "b");
    EXPECT_EQ(names.name(3), "");
    names.clear();
    EXPECT_EQ(names.find("b"), 0U);
    EXPECT_EQ(names.name(1), "");
    EXPECT_EQ(names.add("c"), 1U);
}

TEST(LogChannelNames, ThreadsShareOneRegister) {
    std::atomic<std::uint32_t> sum = 0;
    const auto add = [&sum] { sum += Log::channelNames().add("shared"); };
    std::thread first(add);
    std::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(sum, 2 * Log::channelNames().find("shared"));
    EXPECT_NE(sum, 0U);
}

}  // namespace
