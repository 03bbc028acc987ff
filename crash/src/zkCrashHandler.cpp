#include "crash/src/zkCrashHandler.h"

#include <boost/io/ios_state.hpp>
#include <client/linux/crash_generation/crash_generation_server.h>
#include <client/linux/handler/exception_handler.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "base/ExecPointers.h"
#include "base/ExecutablePath.h"
#include "base/Log.h"

namespace Zendrik::Breakpad {

namespace {

using Base::ExceptionInfo;
using Base::execPointers;
using google_breakpad::ExceptionHandler;
using google_breakpad::MinidumpDescriptor;
using Parameters = CrashHandler::Parameters;

/// Where a record was refused, as reports show it.
struct ThrowSite {
    int line;
    const char* function;
};
constexpr ThrowSite setModeSite = {53,
                                   "void Zendrik::Breakpad::CrashHandler::Parameters::setMode("
                                   "Zendrik::Breakpad::CrashHandler::Mode)"};
constexpr ThrowSite validateSite = {
    136, "void Zendrik::Breakpad::CrashHandler::Parameters::validate() const"};

[[noreturn]] void throwAt(const ThrowSite& site, const std::string& message) {
    Exception exception(message);
    exception << ExceptionInfo<std::string>("ThrowFile", "src/zkCrashHandler")
              << ExceptionInfo<int>("ThrowLine", site.line)
              << ExceptionInfo<std::string>("ThrowFunction", site.function);
    throw exception;
}

// std::cerr flushes behind each piece of a line: the lines of several processes would mix. Without
// that the standard stream below it, line-buffered by main, writes a line at its end.
void logLine(Log::Level level, const std::string& text) {
    const boost::io::ios_flags_saver flags(std::cerr);
    std::cerr << std::nounitbuf;
    if (Log::Entry(level, Log::Channel{})) {
        Log::stream() << text << std::endl;
    }
}

void logMessage(const std::string& text) {
    logLine(Log::Level::message, text);
}

void logError(const std::string& text) {
    logLine(Log::Level::error, text);
}

/// "(13: Permission denied)"
std::string errnoText(int error) {
    return "(" + std::to_string(error) + ": " + std::strerror(error) + ")";
}

constexpr int handshakeTimeoutMs = 2000;
constexpr char reporterIsUp = 1;
/// What execve returned; the exit status is its low byte, 255.
constexpr int executionFailed = -1;

/// Neither is ever closed.
struct CrashChannel {
    int serverFd = -1;
    int clientFd = -1;
};

/// Breakpad marks the server end close-on-exec, and the reporter has to inherit it.
std::optional<CrashChannel> createCrashChannel() {
    CrashChannel channel;
    if (!google_breakpad::CrashGenerationServer::CreateReportChannel(&channel.serverFd,
                                                                     &channel.clientFd) ||
        fcntl(channel.serverFd, F_SETFD, 0) != 0) {
        return std::nullopt;
    }
    return channel;
}

// The forked child. Unlike those of process/ it uses heap and log: beside the main thread there is
// at most one that watches a controlling process. That one uses the heap, whose locks the C library
// holds itself across fork, and neither the log nor a lock of this project.

std::string childReporterPath(const Parameters& parameters) {
    const std::string application = parameters.applicationPath();
    return application.substr(0, application.rfind('/')) + "/" + parameters.reporterName();
}

/// The session identifier is appended, not merged: an inherited variable of that name stays in
/// front.
std::vector<std::string> childEnvironment(const Parameters& parameters) {
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    environment.push_back("ZK_SESSION_ID=" + parameters.sessionId());
    return environment;
}

/// Returns only if the program can't be executed, with errno's value.
int childExecute(std::vector<std::string>& arguments, const Parameters& parameters) {
    std::vector<std::string> environment = childEnvironment(parameters);
    const std::vector<char*> argv = execPointers(arguments);
    const std::vector<char*> envp = execPointers(environment);
    execve(argv.front(), argv.data(), envp.data());
    return errno;
}

/// Becomes the reporter, or exits. Where /proc/self/exe can't be resolved it throws
/// std::logic_error, and unwinds as a second copy of its parent.
[[noreturn]] void childRunReporter(const Parameters& parameters, int serverFd, int handshakeFd) {
    const std::string server = std::to_string(serverFd);
    const std::string writeEnd = std::to_string(handshakeFd);
    const std::string prompt = parameters.prompt() ? "1" : "0";
    std::vector<std::string> arguments = {childReporterPath(parameters), server, writeEnd, prompt};
    logMessage("Launching crash reporting child process: " + arguments.front() + " " + server +
               " " + writeEnd + " " + prompt);
    const int error = childExecute(arguments, parameters);
    logMessage("execv has continued... this means it failed to launch the crash reporter: " +
               errnoText(error));
    _exit(executionFailed);
}

/// True once the pipe has something to read; false after the time-out, an error or a mere hang-up.
bool awaitHandshake(int readFd) {
    pollfd waited = {readFd, POLLIN | POLLERR, 0};
    int ready = 0;
    do {
        ready = poll(&waited, 1, handshakeTimeoutMs);
    } while (ready == -1 && errno == EINTR);
    return ready == 1 && (waited.revents & POLLIN) != 0;
}

bool reporterAnswers(int readFd) {
    if (!awaitHandshake(readFd)) {
        logError("Crash reporting child process failed to return a success message");
        return false;
    }
    char answer = 0;  // a read that fails leaves the refusal
    [[maybe_unused]] const ssize_t length = read(readFd, &answer, sizeof answer);
    close(readFd);
    if (answer != reporterIsUp) {
        logError("Crash reporter indicated failure to start");
        return false;
    }
    return true;
}

/// Where ptrace is restricted to descendants, the reporter, itself one, needs leave to attach.
void letReporterTrace(pid_t reporter) {
    logMessage("Crash reporter indicated successful start");
    logMessage("*** Breakpad workaround: allowing ptrace in out-of-process");
    // A kernel that doesn't restrict ptrace refuses this, and no harm is done.
    static_cast<void>(syscall(SYS_prctl, PR_SET_PTRACER, reporter, 0L, 0L, 0L));
}

/// In place of the channel's client end, for Breakpad's handler, too: capture in process.
constexpr int noReporter = -1;

/// The client end of the crash channel once a reporter serves it, or noReporter. What was opened
/// for one that doesn't stays open.
int startReporter(const Parameters& parameters) {
    const std::optional<CrashChannel> channel = createCrashChannel();
    if (!channel) {
        logMessage("Failed to create file descriptors from CreateReportChannel");
        return noReporter;
    }
    int handshake[2];
    if (pipe(handshake) != 0) {
        const int error = errno;
        logMessage("Failed to create interprocess pipe file descriptors, errno = " +
                   std::to_string(error));
        return noReporter;
    }
    const auto [readFd, writeFd] = handshake;
    logMessage(std::string(87, '-'));
    logMessage("Created CreateReportChannel");
    logMessage("\tserver fd = " + std::to_string(channel->serverFd));
    logMessage("\tclient fd = " + std::to_string(channel->clientFd));

    const pid_t reporter = fork();
    if (reporter == -1) {
        const int error = errno;
        logError("Forking error: " + errnoText(error));
        return noReporter;
    }
    if (reporter == 0) {
        close(readFd);
        childRunReporter(parameters, channel->serverFd, writeFd);
    }
    close(writeFd);
    if (!reporterAnswers(readFd)) {
        return noReporter;
    }
    letReporterTrace(reporter);
    return channel->clientFd;
}

// Crashing thread: no heap, no lock, no log. passDumpResult runs only where it wrote the dump
// itself.

bool alwaysDump(void* /*context*/) {
    return true;
}

bool passDumpResult(const MinidumpDescriptor& /*descriptor*/, void* /*context*/, bool succeeded) {
    return succeeded;
}

}  // namespace

Exception::Exception(const std::string& message) {
    add(ExceptionInfo<std::string>("UserMessage", message));
}

std::string temporaryDirectory() {
    return "/var/tmp/";
}

void CrashHandler::Parameters::setMode(Mode mode) {
    if (mode == Mode::Default) {
        mode = Mode::OutOfProcess;
    } else if (static_cast<std::uint32_t>(mode) > Mode::OutOfProcess) {
        std::ostringstream message;
        message << "Invalid Breakpad Mode: " << static_cast<std::int32_t>(mode);
        throwAt(setModeSite, message.str());
    }
    mode_ = mode;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): callers ask it of their record
std::string CrashHandler::Parameters::applicationPath() const {
    return Base::executablePath();
}

void CrashHandler::Parameters::validate() const {
    if (productName_.empty()) {
        throwAt(validateSite, "Product name must be provided");
    }
}

CrashHandler::CrashHandler(const Parameters& parameters) {
    if (!parameters.enabled()) {
        logMessage("Google Breakpad is disabled");
        return;
    }
    parameters.validate();
    logMessage("Initiating Google Breakpad setup...");
    const int handlerFd =
        parameters.mode() == Mode::OutOfProcess ? startReporter(parameters) : noReporter;

    constexpr bool installHandler = true;
    constexpr void* noContext = nullptr;
    auto handler =
        std::make_unique<ExceptionHandler>(MinidumpDescriptor(parameters.dumpPath()), alwaysDump,
                                           passDumpResult, noContext, installHandler, handlerFd);
    logMessage(handler->IsOutOfProcess() ? "Breakpad exception handler is Out of Process"
                                         : "Breakpad exception handler is In Process");
    exceptionHandler_ = std::move(handler);
}

CrashHandler::~CrashHandler() = default;

}  // namespace Zendrik::Breakpad
