#include <gtest/gtest.h>

#include <string>

#include "ZkPlexumSDK/pystring.h"

namespace {

using Plexum3::internal::pystring_v1::join;
using Plexum3::internal::pystring_v1::replace;

TEST(Pystring, ReplaceGivesWhatPython37Gives) {
    const struct {
        std::string text, old, replacement;
        int count;
        std::string result;
    } cases[] = {
        {"aaaa", "aa", "b", -1, "bb"},
        {"aaa", "a", "aa", 2, "aaaaa"},
        {"abab", "ab", "", 100, ""},
        {"abc", "b", "x", 0, "abc"},
        {"abc", "d", "x", -2, "abc"},
        {"", "a", "x", -1, ""},
        // Nothing stands in front of each character and behind the last. Only without a count does
        // an empty text have such a place.
        {"ab", "", "-", -1, "-a-b-"},
        {"ab", "", "-", 2, "-a-b"},
        {"ab", "", "-", 3, "-a-b-"},
        {"", "", "-", -1, "-"},
        {"", "", "-", 1, ""},
        // A character of several bytes is one, each byte of what is no UTF-8 is one.
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "", "-", -1,
         "-\xc3\xa9-\xe2\x82\xac-\xf0\x9f\x98\x80-"},
        {"\xc0\x80\xe0\x80\x80", "", "-", -1, "-\xc0-\x80-\xe0-\x80-\x80-"},
        {"\xed\xa0\x80\xf4\x90\x80\x80", "", "-", 5, "-\xed-\xa0-\x80-\xf4-\x90\x80\x80"},
        {"\xf0\x8f\x80\x80\xe2\x82", "", "-", -1, "-\xf0-\x8f-\x80-\x80-\xe2-\x82-"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(replace(each.text, each.old, each.replacement, each.count), each.result)
            << each.text << " " << each.old << " " << each.count;
    }
    EXPECT_EQ(join(":", {}), "");
    EXPECT_EQ(join(", ", {"a", "", "b"}), "a, , b");
}

}  // namespace
