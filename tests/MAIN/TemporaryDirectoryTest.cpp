#include "MAIN/src/TemporaryDirectory.h"

#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>
#include <gmock/gmock.h>

#include <boost/algorithm/string/replace.hpp>
#include <iostream>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "tests/ForkedRole.h"

using Plexum3::ZkConfiguration::v1::Config;

TEST(TemporaryDirectory, IsChosenAndPublished) {
    const struct {
        const char* directory;       // TAVREL_TMPDIR of the user
        const char* base;            // TMPDIR of the user
        std::string path;            // the result, also in Configuration; empty: refused
        std::string environment;     // TAVREL_TMPDIR afterwards in the process environment
        std::string configuredBase;  // TMPDIR afterwards in Configuration
    } cases[] = {
        {nullptr, nullptr, "/tmp/tavrel_tmpdir_PID", "/tmp/tavrel_tmpdir_PID", "/tmp"},
        {"", nullptr, "/tmp/tavrel_tmpdir_PID", "/tmp/tavrel_tmpdir_PID", "/tmp"},
        {nullptr, "/x", "/x/tavrel_tmpdir_PID", "/x/tavrel_tmpdir_PID", "/x"},
        {nullptr, "/x/", "/x/tavrel_tmpdir_PID", "/x/tavrel_tmpdir_PID", "/x/"},
        {nullptr, "x", "x/tavrel_tmpdir_PID", "x/tavrel_tmpdir_PID", "x"},
        {nullptr, "", "", "none", ""},  // the system's own rule takes the empty folder and fails
        {"/mine", "/x", "/mine", "/mine", "/x"},
        {"mine", "/x", "/usr/mine", "mine", "/x"},
        {"../mine", nullptr, "/usr/../mine", "../mine", ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(std::string(row.directory ? row.directory : "none") + " in " +
                     (row.base ? row.base : "none"));
        const RoleOutcome outcome = runRole([&row] {
            setVariables({{"TAVREL_TMPDIR", row.directory},
                          {"TMPDIR", row.base},
                          {"TMP", nullptr},
                          {"TEMP", nullptr},
                          {"TEMPDIR", nullptr}});
            ZkPlexum3InitializeMinimally(0);
            std::string path;
            const bool isChosen = chdir("/usr") == 0 && chooseTemporaryDirectory(path);
            const std::string text = path + '\n' + Config().get("TAVREL_TMPDIR") + '\n' +
                                     getEnvironmentVariable("TAVREL_TMPDIR", "none") + '\n' +
                                     Config().get("TMPDIR") + '\n' +
                                     getEnvironmentVariable("TMPDIR", "none");
            std::cout << isChosen
                      << boost::algorithm::replace_all_copy(text, std::to_string(getpid()), "PID");
            return 0;
        });
        EXPECT_EQ(outcome.output, (row.path.empty() ? "0" : "1") + row.path + '\n' + row.path +
                                      '\n' + row.environment + '\n' + row.configuredBase + '\n' +
                                      (row.base ? row.base : "none"));
    }
}

TEST(TemporaryDirectory, IsCleanedUpUnlessToldOtherwise) {
    const std::pair<const char*, bool> cases[] = {{"0", false}, {"1", true},  {"no", true},
                                                  {"", true},   {"00", true}, {nullptr, false}};
    for (const auto& [value, isKept] : cases) {
        setVariables({{"TAVREL_KEEP_TMPDIR", value}});
        EXPECT_EQ(keepsTemporaryDirectory(), isKept) << (value ? value : "not set");
    }
    EXPECT_THAT(
        cleanupCommand("/root of tree", "/x"),
        testing::ElementsAre("/root of tree/bin/tavrelCleanup", std::to_string(getpid()), "/x"));
}
