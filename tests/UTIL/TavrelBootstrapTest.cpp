#include <Python.h>  // first: it settles feature macros of the system's headers

#include "UTIL/src/TavrelBootstrap.h"

#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>
#include <gmock/gmock.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/path.hpp>
#include <iostream>

#include "tests/ForkedRole.h"
#include "tests/ScratchRoot.h"

using boost::algorithm::replace_all_copy;
using Plexum3::ZkConfiguration::v1::Config;

TEST(TavrelBootstrap, SplitsListsAtEachSeparator) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {}},      {"a", {"a"}},      {"a:b", {"a", "b"}}, {"a::b", {"a", "", "b"}},
        {"a:", {"a"}}, {":a", {"", "a"}}, {":", {""}},         {"a::", {"a", ""}},
    };
    for (const auto& [value, pieces] : cases) {
        std::vector<std::string> list{"before"};
        UTIL::SplitPathList(value, list);
        EXPECT_EQ(list.front(), "before");
        list.erase(list.begin());
        EXPECT_EQ(list, pieces) << value;
    }
}

TEST(TavrelBootstrap, PathsConvertAsUtf8InEveryLocale) {
    for (const char* locale : {"C", "C.UTF-8", "xx_YY.nowhere"}) {
        const RoleOutcome outcome = runRole([locale] {
            setVariables({{"LC_ALL", locale}});
            UTIL::InitPathEncoding();
            UTIL::InitPathEncoding();
            std::cout << boost::filesystem::path(L"caf\u00e9").string() << getenv("LC_ALL");
            return 0;
        });
        EXPECT_EQ(outcome.output, std::string("caf\xc3\xa9") + locale) << outcome.errors;
    }
}

TEST(TavrelBootstrap, UsdFoldersGoBehindTheUsersOwn) {
    const boost::filesystem::path executable = boost::filesystem::canonical("/proc/self/exe");
    const std::string root = executable.parent_path().parent_path().string();
    const std::string usd = root + "/plugins/Resources/Usd";
    const std::pair<const char*, const char*> cases[] = {
        {nullptr, "USD/lib/python\nUSD/lib/resources"},
        {"a:b", "a:b:USD/lib/python\na:b:USD/lib/resources"},
        {"a::b", "a::b:USD/lib/python\na::b:USD/lib/resources"},
        {"a:", "a:USD/lib/python\na:USD/lib/resources"},
    };
    for (const auto& [value, expected] : cases) {
        const RoleOutcome outcome = runRole([value = value] {
            setVariables({{"TAVREL_POST_PYTHONPATH", value}, {"ZKPXR_PLUGINPATH", value}});
            ZkPlexum3InitializeMinimally(0);
            UTIL::InitUsdPaths();
            UTIL::InitUsdPaths();
            std::cout << Config().get("TAVREL_POST_PYTHONPATH") << '\n'
                      << Config().get("ZKPXR_PLUGINPATH");
            return 0;
        });
        EXPECT_EQ(replace_all_copy(outcome.output, usd, "USD"), expected);
    }
}

TEST(TavrelBootstrap, SearchPathHasItsOrderAndNoDuplicates) {
    const std::string python =
        "ROOT/bin/python3.7:ROOT/bin/python3.7/lib/python37.zip:ROOT/bin/python3.7/lib/python3.7:"
        "ROOT/bin/python3.7/lib/python3.7/lib-dynload:"
        "ROOT/bin/python3.7/lib/python3.7/site-packages:";
    const std::string application =
        "ROOT/bin/python:ROOT/bin/python/python_tavrel:ROOT/bin/python/Main:"
        "ROOT/plugins/Resources/Core/Plugins:ROOT";
    const std::string tree = python + "ROOT/bin:" + application;
    const struct {
        const char* what;
        std::string pre, post, pythonPath, expected;
    } cases[] = {
        {"nothing set", "", "", "", tree},
        {"in front", "/x:ROOT/bin", "", "", "/x:ROOT/bin:" + python + application},
        {"behind", "", "/p:ROOT/bin:/p/:/p", "", tree + ":/p:/p/"},
        {"empty pieces", "", "::/p", "", tree + "::/p"},
        {"PYTHONPATH", "/x", "/p", "/u:ROOT/bin:/p", "/x:" + tree + ":/u:/p"},
        {"not in UTF-8", "", "", "/\xff:/u", tree + ":/u"},
    };
    const ScratchRoot scratch("a caf\xc3\xa9");
    const std::string root = scratch.path("a caf\xc3\xa9");
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        const RoleOutcome outcome = runRole([&] {
            const std::string pre = replace_all_copy(row.pre, "ROOT", root);
            const std::string post = replace_all_copy(row.post, "ROOT", root);
            const std::string pythonPath = replace_all_copy(row.pythonPath, "ROOT", root);
            setVariables({{"TAVREL_DEBUG_PRE_PYTHONPATH", pre.c_str()},
                          {"TAVREL_POST_PYTHONPATH", post.c_str()},
                          {"PYTHONPATH", pythonPath.c_str()},
                          {"PYTHONHOME", "/nowhere"},
                          {"LC_ALL", "C"}});
            ZkPlexum3InitializeMinimally(0);
            UTIL::InitPython(root);
            std::cout << Config().get("TAVREL_INTERNAL_PYTHONPATH") << '\n' << std::flush;
            return PyRun_SimpleString(
                "import sys, os\n"
                "print(os.environ['TAVREL_INTERNAL_PYTHONPATH'], sys.executable,\n"
                "      sys.tavrel_verbosityLevel, sep='\\n', flush=True)");
        });
        EXPECT_EQ(outcome.errors, "");
        EXPECT_EQ(replace_all_copy(outcome.output, root, "ROOT"),
                  row.expected + "\n" + row.expected + "\nROOT/bin/python3.7/bin/python3.7\n1\n");
    }
}

TEST(TavrelBootstrap, PathThatBreaksTheScriptIsReportedAndSurvived) {
    const ScratchRoot scratch("it's");
    const RoleOutcome outcome = runRole([&scratch] {
        ZkPlexum3InitializeMinimally(0);
        UTIL::InitPython(scratch.path("it's"));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.errors,
                testing::HasSubstr("[ERROR BOOTSTRAP] Error setting TAVREL_INTERNAL_PYTHONPATH in "
                                   "`os.environ`. (UTIL/src/TavrelBootstrap:345)"));
}
