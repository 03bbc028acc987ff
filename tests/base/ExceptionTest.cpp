#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>

#include "base/Exception.h"

namespace {

using namespace Zendrik::Base;
using Text = ExceptionInfo<std::string>;
using Number = ExceptionInfo<int>;

static_assert(!std::is_base_of_v<std::exception, Exception>);
static_assert(std::is_abstract_v<ExceptionInfoBase>);
static_assert(std::is_base_of_v<ExceptionDecoration, Exception>);

TEST(Exception, LaterAddWinsAndAssignmentKeepsWhatIsThere) {
    ExceptionDecoration target;
    target << Text("Kept", "old") << Text("Replaced", "first") << Number("Replaced", 2);
    ExceptionDecoration other;
    other << Text("Kept", "new") << Text("Added", "third");
    target = other;
    other << Text("Added", "changed after the copy");
    std::ostringstream values;
    target.expand(values, "%%(Kept)%% %%(Replaced)%% %%(Added)%%");
    EXPECT_EQ(values.str(), "old 2 third");
}

TEST(Exception, PlaceholdersAreFilledOnce) {
    ExceptionDecoration decoration;
    decoration << Number("Count", 3) << Text("Nested", "%%(Count)%%");
    const struct {
        const char* text;
        const char* filled;
    } cases[] = {
        {"", ""},
        {"%%(Count)%% of %%(Count)%%.", "3 of 3."},
        {"a %%(Absent)%% z", "a (Absent unknown) z"},
        {"%%(Nested)%%", "%%(Count)%%"},
        {"%%()%%", "( unknown)"},
        {"%%(Count)%% then %%(Count", "3 then %%(Count"},
        {")%% %%(Count)%%", ")%% 3"},
        {"%%(a%%(Count)%%", "(a%%(Count unknown)"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.text);
        std::ostringstream filled;
        decoration.expand(filled, each.text);
        EXPECT_EQ(filled.str(), each.filled);
    }
    EXPECT_EQ(decoration.filledText("Nested"), "3");
    EXPECT_EQ(decoration.filledText("Count"), "") << "no string";
}

Exception withMessage(const char* message) {
    Exception exception;
    exception << Text("UserMessage", message);
    return exception;
}

TEST(Exception, ReportShowsOriginDecorationsAndEarlierExceptions) {
    Exception earlier = withMessage("after %%(Step)%%");
    earlier << Text("UserDetail", "a%%(Step)%%") << Text("UserSummary", "b%%(Step)%%")
            << Text("UserTitle", "c%%(Step)%%") << Number("Step", 2)
            << Text("ThrowFile", "src/unit") << Number("ThrowLine", 53)
            << Text("ThrowFunction", "void f()") << Text("ExceptionClass", "Kind");
    Exception latest;
    // Of the wrong types: as good as missing.
    latest << Number("UserMessage", 3) << Number("ThrowFile", 1) << Text("ThrowLine", "53")
           << Number("ThrowFunction", 2) << Number("ExceptionClass", 3);
    latest.rememberPrevious(earlier);
    const std::string rule = std::string(80, '+') + "\n";
    EXPECT_EQ(Exception(latest).reportText(),
              rule +
                  "EXCEPTION REPORT\n  User message is ''\n"
                  "  Threw exception of type unknown type\n"
                  " unknown source file at unknown line in unknown function\n"
                  "  Decoration is...\n"
                  "    [UserMessage] = 3\n"
                  "\n    -------\n    PREVIOUSLY THREW\n"
                  "    Threw exception of type Kind\n    From src/unit:53 in 'void f()'\n"
                  "    Decoration is...\n"
                  "      [FilledUserDetail] = a2\n      [FilledUserMessage] = after 2\n"
                  "      [FilledUserSummary] = b2\n      [FilledUserTitle] = c2\n"
                  "      [Step] = 2\n      [UserDetail] = a%%(Step)%%\n"
                  "      [UserMessage] = after %%(Step)%%\n"
                  "      [UserSummary] = b%%(Step)%%\n      [UserTitle] = c%%(Step)%%\n"
                  "    -------\n" +
                  rule);
}

}  // namespace
