#include "base/Exception.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <type_traits>

namespace {

using namespace Zendrik::Base;
using Text = ExceptionInfo<std::string>;
using Number = ExceptionInfo<int>;

static_assert(!std::is_convertible_v<Exception*, std::exception*>);
static_assert(!std::is_polymorphic_v<std::string> && std::is_polymorphic_v<ExceptionInfoBase>);
static_assert(std::is_abstract_v<ExceptionInfoBase>);
static_assert(std::is_base_of_v<ExceptionDecoration, Exception>);
static_assert(sizeof(ExceptionInfoBase) == 2 * sizeof(void*));
static_assert(sizeof(Text) == sizeof(ExceptionInfoBase) + sizeof(std::string));
static_assert(sizeof(ExceptionDecoration) == sizeof(void*) + sizeof(std::map<int, int>));
static_assert(sizeof(Exception) == sizeof(ExceptionDecoration) + sizeof(std::list<int>));

const std::string rule(80, '+');

/// The slot of a virtual operation as the ABI numbers them: twice the destructor, then the others.
template <typename Operation>
std::ptrdiff_t slotOf(Operation operation) {
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &operation, sizeof offset);
    return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

std::string printed(const ExceptionDecoration& decoration, std::size_t indent) {
    std::ostringstream text;
    decoration.print(text, indent);
    return text.str();
}

std::string valueOf(const ExceptionDecoration& decoration, const std::string& key) {
    std::ostringstream text;
    const ExceptionInfoBase* info = decoration.find(key);
    return info == nullptr ? "absent" : (info->print(text), text.str());
}

TEST(Exception, VirtualOperationsKeepTheirSlots) {
    EXPECT_EQ(slotOf(&ExceptionInfoBase::clone), 2);
    EXPECT_EQ(slotOf(&ExceptionInfoBase::print), 3);
    EXPECT_EQ(slotOf(&ExceptionInfoBase::type), 4);
}

TEST(Exception, InfosKnowTheirTypeAndShareTheKeyWithClones) {
    const Text text("key", "value");
    const auto copy = text.clone();
    EXPECT_EQ(copy->name(), text.name());
    EXPECT_EQ(copy->type(), typeid(std::string));
    EXPECT_EQ(Number("key", 3).type(), typeid(int));
    std::ostringstream hexadecimal;
    Number("key", 255).print(hexadecimal << std::hex);
    EXPECT_EQ(hexadecimal.str(), "ff");
}

TEST(Exception, LaterAddWinsAndAssignmentKeepsWhatIsThere) {
    ExceptionDecoration target;
    target << Text("Kept", "old") << Text("Replaced", "first") << Number("Replaced", 2);
    ExceptionDecoration other;
    other << Text("Kept", "new") << Text("Added", "third");
    target = other;
    other << Text("Added", "changed after the copy");
    EXPECT_EQ(valueOf(target, "Kept"), "old");
    EXPECT_EQ(valueOf(target, "Replaced"), "2");
    EXPECT_EQ(valueOf(target, "Added"), "third");
    const ExceptionDecoration& itself = target;
    target = itself;
    EXPECT_EQ(valueOf(target, "Kept"), "old");
}

TEST(Exception, PlaceholdersAreFilledOnce) {
    ExceptionDecoration decoration;
    decoration << Number("Count", 3) << Text("Nested", "%%(Count)%%") << Text("", "empty key");
    const struct {
        const char* text;
        const char* filled;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"%%(Count)%% of %%(Count)%%.", "3 of 3."},
        {"a %%(Absent)%% z", "a (Absent unknown) z"},
        {"%%(Nested)%%", "%%(Count)%%"},
        {"%%()%%", "empty key"},
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
    std::ostringstream withoutKey;
    ExceptionDecoration().expand(withoutKey, "%%()%%");
    EXPECT_EQ(withoutKey.str(), "( unknown)");
    EXPECT_EQ(decoration.filledText("Nested"), "3");
    EXPECT_EQ(decoration.filledText("Count"), "");
    EXPECT_EQ(decoration.filledText("Absent"), "");
}

TEST(Exception, PrintTellsWhatIsMissing) {
    ExceptionDecoration message;
    message << Text("UserMessage", "text") << Number("Also", 1);
    ExceptionDecoration origin;
    origin << Text("ThrowFile", "src/unit") << Number("ThrowLine", 53)
           << Text("ThrowFunction", "void f()") << Text("ExceptionClass", "Kind");
    ExceptionDecoration wrongTypes;
    wrongTypes << Number("ThrowFile", 1) << Text("ThrowLine", "53") << Number("ThrowFunction", 2)
               << Number("ExceptionClass", 3);
    const char* const unknown =
        "  Threw exception of type unknown type\n"
        " unknown source file at unknown line in unknown function\n";
    EXPECT_EQ(printed(message, 2), std::string(unknown) +
                                       "  Decoration is...\n    [Also] = 1\n"
                                       "    [UserMessage] = text\n");
    EXPECT_EQ(printed(wrongTypes, 2), unknown);
    std::ostringstream streamed;
    streamed << origin;
    EXPECT_EQ(streamed.str(), "Threw exception of type Kind\nFrom src/unit:53 in 'void f()'\n");
}

Exception withMessage(const char* message) {
    Exception exception;
    exception << Text("UserMessage", message);
    return exception;
}

TEST(Exception, ReportShowsEarlierExceptionsNewestFirst) {
    Exception second = withMessage("second after %%(Step)%%");
    second << Number("Step", 2) << Text("UserTitle", "") << Text("UserDetail", "d%%(Step)%%");
    second.rememberPrevious(withMessage("first"));
    Exception third;
    third.rememberPrevious(second);
    const char* const unknown = " unknown source file at unknown line in unknown function\n";
    std::string expected = rule + "\nEXCEPTION REPORT\n  User message is ''\n";
    expected += std::string("  Threw exception of type unknown type\n") + unknown;
    expected += "\n    -------\n    PREVIOUSLY THREW\n    Threw exception of type unknown type\n";
    expected += unknown;
    expected +=
        "    Decoration is...\n"
        "      [FilledUserDetail] = d2\n"
        "      [FilledUserMessage] = second after 2\n"
        "      [Step] = 2\n"
        "      [UserDetail] = d%%(Step)%%\n"
        "      [UserMessage] = second after %%(Step)%%\n"
        "      [UserTitle] = \n"
        "    -------\n";
    expected +=
        "\n      -------\n      PREVIOUSLY THREW\n      Threw exception of type unknown type\n";
    expected += unknown;
    expected +=
        "      Decoration is...\n"
        "        [FilledUserMessage] = first\n"
        "        [UserMessage] = first\n"
        "      -------\n";
    expected += rule + "\n";
    EXPECT_EQ(third.reportText(), expected);
    EXPECT_EQ(Exception(third).reportText(), expected);
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

TEST(Exception, RememberingAgainTakesOverTheOtherList) {
    Exception newest;
    newest.rememberPrevious(withMessage("first"));
    newest.rememberPrevious(withMessage("second"));
    EXPECT_EQ(count(newest.reportText(), "PREVIOUSLY THREW"), 1U);
    EXPECT_EQ(count(newest.reportText(), "[UserMessage] = second"), 1U);

    // Both lists have one element: it is merged, and the value here wins.
    Exception other = withMessage("third");
    Exception below = withMessage("below third");
    below << Number("Extra", 9);
    other.rememberPrevious(below);
    newest.rememberPrevious(other);
    EXPECT_EQ(count(newest.reportText(), "PREVIOUSLY THREW"), 2U);
    EXPECT_EQ(count(newest.reportText(), "[UserMessage] = second"), 1U);
    EXPECT_EQ(count(newest.reportText(), "[Extra] = 9"), 1U);
    EXPECT_EQ(count(newest.reportText(), "below third"), 0U);

    newest.rememberPrevious(newest);
    EXPECT_EQ(count(newest.reportText(), "PREVIOUSLY THREW"), 3U);
    EXPECT_EQ(count(newest.reportText(), "[FilledUserMessage] = \n"), 1U);
}

}  // namespace
