#include <gtest/gtest.h>
#include <unistd.h>

#include "ZkPlexum3/ZkPlexum3.h"
#include "ZkPlexumSDK/pystring.h"

namespace {

namespace Pystring = Plexum3::internal::pystring_v1;

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
        // They can be brought up once in a process.
        EXPECT_EXIT(_exit(resultsOf(calls) == results ? 0 : 1), testing::ExitedWithCode(0), "")
            << calls;
    }
}

TEST(Pystring, ReplaceGivesWhatPython37Gives) {
    const struct {
        std::string text, old, replacement;
        int count;
        std::string result;
    } cases[] = {
        {"aaaa", "aa", "b", -1, "bb"},
        {"aaa", "a", "aa", 2, "aaaaa"},
        {"abc", "b", "x", 0, "abc"},
        {"abc", "d", "x", -2, "abc"},
        {"ab", "", "-", 2, "-a-b"},
        // A character of several bytes is one, each byte of what is no UTF-8 is one.
        {"\xc3\xa9\xf0\x9f\x98\x80\xc0", "", "-", -1, "-\xc3\xa9-\xf0\x9f\x98\x80-\xc0-"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(Pystring::replace(each.text, each.old, each.replacement, each.count), each.result)
            << each.text << " " << each.old << " " << each.count;
    }
    EXPECT_EQ(Pystring::join(", ", {"a", "", "b"}) + Pystring::join(":", {}), "a, , b");
}

}  // namespace
