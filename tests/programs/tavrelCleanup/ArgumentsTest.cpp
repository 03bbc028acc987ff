#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "programs/tavrelCleanup/Arguments.h"

namespace Cleanup {
namespace {

std::optional<Arguments> parse(const std::vector<std::string>& words) {
    std::vector<const char*> argv{"tavrelCleanup"};
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return parseArguments(static_cast<int>(argv.size()) - 1, argv.data());
}

TEST(CleanupArguments, BadOnesAreRefusedInOneLine) {
    const std::string own = std::to_string(getpid());
    std::vector<std::vector<std::string>> table{{}, {"1"}, {"1", "/a", "b"}};
    for (const char* pid : {"", "0", "-1", "+1", " 1", "1 ", "1x", "0x1", "2147483648",
                            "99999999999999999999", own.c_str()}) {
        table.push_back({pid, "/a"});
    }
    for (const char* path : {"", "/", "///", ".", "..", "/.", "/a/.", "a/../", "/a/..//"}) {
        table.push_back({"1", path});
    }
    for (const auto& words : table) {
        SCOPED_TRACE(testing::PrintToString(words));
        testing::internal::CaptureStderr();
        EXPECT_FALSE(parse(words));
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text.find("tavrelCleanup: "), 0U);
        EXPECT_EQ(text.find('\n'), text.size() - 1);
    }
}

TEST(CleanupArguments, PathIsSplitBeforeItsLastName) {
    struct Row {
        std::string path, parent, name;
        bool isRelative;
    };
    for (const Row& row : {Row{"/a", "/", "a", false}, Row{"//a//", "/", "a", false},
                           Row{"/tmp/a b/.c/", "/tmp/a b", ".c", false}, Row{"a", ".", "a", true},
                           Row{"../a/...", "../a", "...", true}}) {
        SCOPED_TRACE(row.path);
        const auto arguments = parse({"2147483647", row.path});
        ASSERT_TRUE(arguments);
        EXPECT_EQ(arguments->pid, 2147483647);
        EXPECT_EQ(arguments->parent, row.parent);
        EXPECT_EQ(arguments->name, row.name);
        EXPECT_EQ(arguments->isRelative(), row.isRelative);
    }
}

}  // namespace
}  // namespace Cleanup
