#include <gmock/gmock.h>

#include <functional>

#include "crash/src/zkCrashHandler.h"

// How it starts its reporter: tests/system/crash.

namespace {

using testing::AllOf;
using testing::HasSubstr;
using Zendrik::Breakpad::CrashHandler;
using Zendrik::Breakpad::Exception;
using Mode = CrashHandler::Mode;
using Parameters = CrashHandler::Parameters;

std::string reportOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& exception) {
        return exception.reportText();
    }
    return "no exception";
}

TEST(CrashHandlerParameters, RefusalsNameMessageAndOrigin) {
    Parameters parameters;
    EXPECT_THAT(reportOf([&] { const CrashHandler unnamed(parameters); }),
                AllOf(HasSubstr("\n  User message is 'Product name must be provided'\n"),
                      HasSubstr("\n  From src/zkCrashHandler:136 in 'void Zendrik::Breakpad::"
                                "CrashHandler::Parameters::validate() const'\n")));
    parameters.setMode(Mode::InProcess);
    EXPECT_THAT(reportOf([&] { parameters.setMode(static_cast<Mode>(-2)); }),
                AllOf(HasSubstr("\n  User message is 'Invalid Breakpad Mode: -2'\n"),
                      HasSubstr("\n  From src/zkCrashHandler:53 in 'void Zendrik::Breakpad::"
                                "CrashHandler::Parameters::setMode(Zendrik::Breakpad::"
                                "CrashHandler::Mode)'\n")));
    EXPECT_THAT(reportOf([&] { parameters.setMode(static_cast<Mode>(2)); }),
                HasSubstr("'Invalid Breakpad Mode: 2'\n"));
    EXPECT_EQ(parameters.mode(), Mode::InProcess);
    parameters.setMode(Mode::Default);
    EXPECT_EQ(parameters.mode(), Mode::OutOfProcess);
}

TEST(CrashHandler, IsNotCheckedWhileItIsDisabled) {
    Parameters parameters;
    parameters.setEnabled(false);
    EXPECT_EQ(reportOf([&] { const CrashHandler unnamed(parameters); }), "no exception");
}

}  // namespace
