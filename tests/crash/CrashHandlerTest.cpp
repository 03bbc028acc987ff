#include "crash/src/zkCrashHandler.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <regex>

#include "base/Log.h"
#include "tests/ForkedRole.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using Zendrik::Breakpad::CrashHandler;
using Zendrik::Breakpad::Exception;
using Mode = CrashHandler::Mode;
using Parameters = CrashHandler::Parameters;
namespace fs = std::filesystem;

Parameters parametersFor(const std::string& reporterName) {
    Parameters parameters;
    parameters.setProductName("Product");
    parameters.setReporterName(reporterName);
    return parameters;
}

/// Without a product name, too: a disabled record isn't checked.
Parameters disabledParameters() {
    Parameters parameters;
    parameters.setEnabled(false);
    return parameters;
}

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
    EXPECT_THAT(reportOf([&] { parameters.validate(); }),
                AllOf(HasSubstr("\n  User message is 'Product name must be provided'\n"),
                      HasSubstr("\n  From src/zkCrashHandler:136 in 'void Zendrik::Breakpad::"
                                "CrashHandler::Parameters::validate() const'\n")));
    parameters.setMode(Mode::InProcess);
    EXPECT_THAT(reportOf([&] { parameters.setMode(static_cast<Mode>(-2)); }),
                AllOf(HasSubstr("\n  User message is 'Invalid Breakpad Mode: -2'\n"),
                      HasSubstr("\n  From src/zkCrashHandler:53 in 'void Zendrik::Breakpad::"
                                "CrashHandler::Parameters::setMode(Zendrik::Breakpad::"
                                "CrashHandler::Mode)'\n")));
    EXPECT_EQ(parameters.mode(), Mode::InProcess);
    parameters.setMode(Mode::Default);
    EXPECT_EQ(parameters.mode(), Mode::OutOfProcess);
}

/// Log lines without time stamps, with M or E for the level; numbers and folders that differ from
/// run to run masked.
std::string masked(std::string text) {
    const std::string folder = fs::canonical("/proc/self/exe").parent_path();
    for (auto at = text.find(folder); at != std::string::npos; at = text.find(folder)) {
        text.replace(at, folder.size(), "DIR");
    }
    text = std::regex_replace(text, std::regex(R"(\[(E|M)\w+\]\[[\d/:]+\] )"), "$1 ");
    text = std::regex_replace(text, std::regex("fd = [0-9]+"), "fd = N");
    return std::regex_replace(text, std::regex("(process: [^ \n]*) [0-9]+ [0-9]+ "), "$1 N N ");
}

std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

/// Runs @p role in a process of its own that logs everything to standard error, and returns what
/// that took, masked.
std::string traceOf(const std::function<void()>& role) {
    const RoleOutcome outcome = runRole([&] {
        // As many descriptors as a test of missing ones counts on.
        closefrom(STDERR_FILENO + 1);
        setVariables({{"ZENDRIK_LOG_LEVEL", "message"}, {"ZENDRIK_LOG_FILE", ""}});
        role();
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    return masked(outcome.errors);
}

/// The reporter's exit status, "running" or "none".
/// @param wait WNOHANG, or 0 to wait for the reporter's end
std::string reporterFate(int wait) {
    int status = 0;
    const pid_t child = waitpid(-1, &status, wait);
    if (child == -1) {
        return "none";
    }
    return child == 0 ? "running" : std::to_string(WEXITSTATUS(status));
}

const std::string disabled = "M Google Breakpad is disabled\n";
const std::string setup = "M Initiating Google Breakpad setup...\n";
const std::string channel = "M " + std::string(87, '-') +
                            "\nM Created CreateReportChannel\n"
                            "M \tserver fd = N\nM \tclient fd = N\n";
const std::string noMessage =
    "E Crash reporting child process failed to return a success message\n";
const std::string inProcess = "M Breakpad exception handler is In Process\n";

std::string reporterLine(const std::string& sessions, const std::string& prompt) {
    return "reporter: " + sessions + "; 3 arguments; channel open; prompt " + prompt + "\n";
}

TEST(CrashHandler, ReporterIsLaunchedAndItsAnswerAwaited) {
    const struct {
        const char* name;
        int wait;
        std::string trace;
    } cases[] = {
        {"servingReporter", WNOHANG,
         reporterLine("ZK_SESSION_ID=before ZK_SESSION_ID=", "1") +
             "M Crash reporter indicated successful start\n"
             "M *** Breakpad workaround: allowing ptrace in out-of-process\n"
             "M Breakpad exception handler is Out of Process\nrunning 2\n"},
        {"", 0,
         "M execv has continued... this means it failed to launch the crash reporter: "
         "(13: Permission denied)\n" +
             noMessage + inProcess + "255 3\n"},
    };
    for (const auto& each : cases) {
        const std::string trace = traceOf([&] {
            setVariables({{"ZK_SESSION_ID", "before"}});
            const auto before = openDescriptors();
            const CrashHandler handler(parametersFor(each.name));
            const auto leftOpen = openDescriptors() - before;
            std::cerr << reporterFate(each.wait) << " " << leftOpen << std::endl;
        });
        EXPECT_EQ(trace, setup + channel + "M Launching crash reporting child process: DIR/" +
                             each.name + " N N 1\n" + each.trace);
    }
}

TEST(CrashHandler, ReporterGetsPromptAndSessionInAnEmptyEnvironment) {
    const std::string trace = traceOf([] {
        Parameters parameters = parametersFor("servingReporter");
        parameters.setPrompt(false);
        parameters.setSessionId("session 7");
        clearenv();
        Zendrik::Log::setStream(&std::cerr);
        const CrashHandler handler(parameters);
    });
    EXPECT_EQ(trace, reporterLine("ZK_SESSION_ID=session 7", "0"));
}

TEST(CrashHandler, SilentReporterCostsTheWholeTimeOutAfterASignal) {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    const std::string trace = traceOf([] {
        std::signal(SIGUSR1, [](int) {});
        const CrashHandler handler(parametersFor("silentReporter"));
        std::cerr << reporterFate(WNOHANG) << std::endl;
    });
    const auto waited = steady_clock::now() - start;
    EXPECT_NE(trace.find(noMessage + inProcess + "running\n"), std::string::npos) << trace;
    EXPECT_GE(waited, std::chrono::milliseconds(2250));
    EXPECT_LT(waited, std::chrono::seconds(20));
}

void limit(decltype(RLIMIT_NOFILE) resource, rlim_t value) {
    const rlimit limits = {value, value};
    if (setrlimit(resource, &limits) != 0) {
        std::cerr << "setrlimit failed" << std::endl;
    }
}

/// The limit on processes doesn't bind root.
void limitProcesses() {
    constexpr uid_t nobody = 65534;
    if (geteuid() == 0 && setresuid(nobody, nobody, nobody) != 0) {
        std::cerr << "setresuid failed" << std::endl;
    }
    limit(RLIMIT_NPROC, 0);
}

TEST(CrashHandler, MissingResourcesEndInProcess) {
    const struct {
        std::function<void()> starve;
        std::string trace;
    } cases[] = {
        {[] { limit(RLIMIT_NOFILE, 3); },
         "M Failed to create file descriptors from CreateReportChannel\n"},
        {[] { limit(RLIMIT_NOFILE, 5); },
         "M Failed to create interprocess pipe file descriptors, errno = 24\n"},
        {limitProcesses, channel + "E Forking error: (11: Resource temporarily unavailable)\n"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.trace);
        const std::string trace = traceOf([&] {
            // The sanitizer looks at a stream's type with a pipe of its own, once.
            { const CrashHandler disabled(disabledParameters()); }
            each.starve();
            const CrashHandler handler(parametersFor("servingReporter"));
            std::cerr << reporterFate(WNOHANG) << std::endl;
        });
        std::string expected = disabled + setup;
        EXPECT_EQ(trace, expected.append(each.trace).append(inProcess).append("none\n"));
    }
}

TEST(CrashHandler, ModesWithoutReporterStartNothing) {
    const std::string trace = traceOf([] {
        const auto before = openDescriptors();
        { const CrashHandler disabled(disabledParameters()); }
        Parameters parameters;
        const auto armUnnamed = [&] { const CrashHandler unnamed(parameters); };
        std::cerr << (reportOf(armUnnamed) == "no exception") << std::endl;
        parameters.setProductName("Product");
        parameters.setMode(Mode::InProcess);
        const CrashHandler handler(parameters);
        std::cerr << reporterFate(WNOHANG) << " " << openDescriptors() - before << std::endl;
    });
    EXPECT_EQ(trace, disabled + "0\n" + setup + inProcess + "none 0\n");
}

}  // namespace
