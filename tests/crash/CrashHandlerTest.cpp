#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <array>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <iostream>
#include <regex>

#include "crash/src/zkCrashHandler.h"
#include "tests/ForkedRole.h"

struct pollfd;  // its header defines poll inline

namespace {

volatile std::sig_atomic_t reporterHasSpoken;
int handshakeWaits;
bool isSilent;

}  // namespace

// In libc's place: the wait for a reporter's answer. It takes as long as a busy machine does; with
// a silent reporter, its signal interrupts the first wait, and the second is over.
extern "C" int poll(pollfd* fds, unsigned long count, int timeoutMs) {
    const bool isHandshake = timeoutMs == 2000;
    handshakeWaits += isHandshake ? 1 : 0;
    if (!isHandshake || !isSilent) {
        return static_cast<int>(syscall(SYS_poll, fds, count, isHandshake ? -1 : timeoutMs));
    }
    while (reporterHasSpoken == 0) {
        usleep(1000);
    }
    errno = EINTR;
    return handshakeWaits == 1 ? -1 : 0;
}

namespace {

// The process that may trace this one, as it was named last.
long namedTracer;

}  // namespace

// In libc's place, which it calls: the handler bypasses the wrapper of prctl.
extern "C" long syscall(long number, ...) noexcept {
    va_list rest;
    va_start(rest, number);
    std::array<long, 6> given{};
    for (long& each : given) {
        each = va_arg(rest, long);
    }
    va_end(rest);
    if (number == SYS_prctl && given[0] == PR_SET_PTRACER) {
        namedTracer = given[1];
    }
    static const auto libc = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    return libc(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
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

/// Log lines without time stamps, with M or E for the level; numbers and folders that differ from
/// run to run masked.
std::string masked(std::string text) {
    text = std::regex_replace(text, std::regex(R"(\[(E|M)\w+\]\[[\d/:]+\] )"), "$1 ");
    text = std::regex_replace(text, std::regex("fd = [0-9]+"), "fd = N");
    const std::regex command("(process: )[^\n]*(/[^ /\n]*) [0-9]+ [0-9]+ ");
    return std::regex_replace(text, command, "$1DIR$2 N N ");
}

/// Needs no descriptor itself.
int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
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

/// The reporter's exit status, "running" or "none"; and that it may trace this process.
std::string reporterFate(bool waits) {
    int status = 0;
    if (namedTracer != 0) {
        pid_t reporter = 0;
        std::ifstream("/proc/thread-self/children") >> reporter;
        return namedTracer == reporter ? "running, may trace" : "another may trace";
    }
    const pid_t child = waitpid(-1, &status, waits ? 0 : WNOHANG);
    if (child == -1) {
        return "none";
    }
    return child == 0 ? "running" : std::to_string(WEXITSTATUS(status));
}

void limit(decltype(RLIMIT_NOFILE) resource, rlim_t value) {
    const rlimit limits = {value, value};
    setrlimit(resource, &limits);
}

/// The limit on processes doesn't bind root.
void limitProcesses() {
    constexpr uid_t nobody = 65534;
    static_cast<void>(setresuid(nobody, nobody, nobody));
    limit(RLIMIT_NPROC, 0);
}

const std::string channel = "M " + std::string(87, '-') +
                            "\nM Created CreateReportChannel\n"
                            "M \tserver fd = N\nM \tclient fd = N\n";
const std::string launch = "M Launching crash reporting child process: DIR/";
const std::string served =
    "M Crash reporter indicated successful start\n"
    "M *** Breakpad workaround: allowing ptrace in out-of-process\n"
    "M Breakpad exception handler is Out of Process\nrunning, may trace 2 1\n";
const std::string inProcess = "M Breakpad exception handler is In Process\n";
const std::string noMessage =
    "E Crash reporting child process failed to return a success message\n" + inProcess;
const std::string refused =
    " N N 1\nreporter: ZK_SESSION_ID=; 3 arguments; channel open; prompt 1\n"
    "E Crash reporter indicated failure to start\n" +
    inProcess + "running 2 1\n";

TEST(CrashHandler, StartsItsReporterOrServesInProcess) {
    // What is done before, the log behind its first lines, the reporter's fate and how many
    // descriptors are left open, and how often the handler waited.
    const struct {
        std::function<void(Parameters&)> prepare;
        std::string trace;
    } cases[] = {
        {[](Parameters&) { setenv("ZK_SESSION_ID", "before", 1); },
         channel + launch +
             "servingReporter N N 1\nreporter: ZK_SESSION_ID=before ZK_SESSION_ID=; 3 arguments; "
             "channel open; prompt 1\n" +
             served},
        {[](Parameters& parameters) {
             clearenv();
             parameters.setPrompt(false);
             parameters.setSessionId("session 7");
         },
         channel + launch +
             "servingReporter N N 0\nreporter: ZK_SESSION_ID=session 7; 3 arguments; "
             "channel open; prompt 0\n" +
             served},
        {[](Parameters& parameters) { parameters.setReporterName(""); },
         channel + launch +
             " N N 1\nM execv has continued... this means it failed to launch the crash reporter: "
             "(13: Permission denied)\n" +
             noMessage + "255 3 1\n"},
        {[](Parameters& parameters) { parameters.setReporterName("refusingReporter"); },
         channel + launch + "refusingReporter" + refused},
        {[](Parameters& parameters) { parameters.setReporterName("puzzlingReporter"); },
         channel + launch + "puzzlingReporter" + refused},
        // A signal doesn't end the wait.
        {[](Parameters& parameters) {
             isSilent = true;
             std::signal(SIGUSR1, [](int) { reporterHasSpoken = 1; });
             parameters.setReporterName("silentReporter");
         },
         channel + launch +
             "silentReporter N N 1\nreporter: ZK_SESSION_ID=; 3 arguments; channel open; "
             "prompt 1\n" +
             noMessage + "running 3 2\n"},
        {[](Parameters& parameters) { parameters.setMode(Mode::InProcess); },
         inProcess + "none 0 0\n"},
        {[](Parameters&) { limit(RLIMIT_NOFILE, 3); },
         "M Failed to create file descriptors from CreateReportChannel\n" + inProcess + "none "},
        {[](Parameters&) { limit(RLIMIT_NOFILE, 5); },
         "M Failed to create interprocess pipe file descriptors, errno = 24\n" + inProcess +
             "none "},
        {[](Parameters&) { limitProcesses(); },
         channel + "E Forking error: (11: Resource temporarily unavailable)\n" + inProcess +
             "none "},
    };
    for (const auto& each : cases) {
        const std::string trace = traceOf([&] {
            Parameters parameters;
            parameters.setEnabled(false);
            // Not checked, having no product name yet. The sanitizer looks at a stream's type with
            // a pipe of its own, once.
            { const CrashHandler disabled(parameters); }
            parameters.setEnabled(true);
            parameters.setProductName("Product");
            parameters.setReporterName("servingReporter");
            each.prepare(parameters);
            const int before = openDescriptors();
            const CrashHandler handler(parameters);
            const int leftOpen = openDescriptors() - before;
            std::cerr << reporterFate(parameters.reporterName().empty()) << " " << leftOpen << " "
                      << handshakeWaits << '\n';
        });
        EXPECT_THAT(trace, StartsWith("M Google Breakpad is disabled\n"
                                      "M Initiating Google Breakpad setup...\n" +
                                      each.trace));
    }
}

}  // namespace
