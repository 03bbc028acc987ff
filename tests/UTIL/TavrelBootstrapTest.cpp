#include "UTIL/src/TavrelBootstrap.h"

#include <gtest/gtest.h>

#include <boost/filesystem/path.hpp>
#include <iostream>

#include "tests/ForkedRole.h"

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
