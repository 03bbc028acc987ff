#include <boost/filesystem/path.hpp>
#include <gtest/gtest.h>

#include <iostream>

#include "UTIL/src/TavrelBootstrap.h"
#include "tests/ForkedRole.h"

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
