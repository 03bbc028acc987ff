#include "crash/src/zkCrashHandler.h"

#include <client/linux/crash_generation/crash_generation_server.h>
#include <client/linux/handler/exception_handler.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <ostream>
#include <sstream>
#include <utility>
#include <vector>

#include "base/ExecutablePath.h"
#include "base/Log.h"

namespace Zendrik::Breakpad {

namespace {

using Base::ExceptionInfo;
using google_breakpad::CrashGenerationServer;
using google_breakpad::ExceptionHandler;
using google_breakpad::MinidumpDescriptor;
using Parameters = CrashHandler::Parameters;

constexpr int handshakeTimeoutMs = 2000;
constexpr char reporterIsUp = 1;
constexpr int noDescriptor = -1;
/// What execve returned; the exit status is its low byte, 255.
constexpr int executionFailed = -1;

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

void logLine(Log::Level level, const std::string& text) {
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

std::string errnoText(int error) {
    return "(" + std::to_string(error) + ": " + std::strerror(error) + ")";
}

// Crashing thread: no heap, no lock, no log.

bool alwaysDump(void* /*context*/) {
    return true;
}

// Crashing thread, and only where it wrote the dump itself: no heap, no lock, no log.

bool passDumpResult(const MinidumpDescriptor& /*descriptor*/, void* /*context*/, bool succeeded) {
    return succeeded;
}

struct ReportChannel {
    int serverFd = noDescriptor;
    int clientFd = noDescriptor;
};

struct HandshakePipe {
    int readFd = noDescriptor;
    int writeFd = noDescriptor;
};

/// Breakpad marks the server end close-on-exec, and the reporter has to inherit it.
bool createReportChannel(ReportChannel& channel) {
    return CrashGenerationServer::CreateReportChannel(&channel.serverFd, &channel.clientFd) &&
           fcntl(channel.serverFd, F_SETFD, 0) == 0;
}

/// Returns 0, or the error.
int createHandshakePipe(HandshakePipe& handshake) {
    int ends[2];
    if (pipe(ends) != 0) {
        return errno;
    }
    handshake = {ends[0], ends[1]};
    return 0;
}

// From here to childRunReporter: forked child of a process whose only other thread takes no lock,
// so heap and log may be used. Out by execve or _exit. Only an executable path that can't be
// resolved leaves by its exception.

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

std::vector<char*> childPointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Returns only if the program can't be executed, with errno's value.
int childExecute(std::vector<std::string>& arguments, const Parameters& parameters) {
    std::vector<std::string> environment = childEnvironment(parameters);
    const std::vector<char*> argv = childPointers(arguments);
    const std::vector<char*> envp = childPointers(environment);
    execve(argv.front(), argv.data(), envp.data());
    return errno;
}

[[noreturn]] void childRunReporter(const Parameters& parameters, int serverFd,
                                   const HandshakePipe& handshake) {
    close(handshake.readFd);
    const std::string server = std::to_string(serverFd);
    const std::string writeEnd = std::to_string(handshake.writeFd);
    const std::string prompt = parameters.prompt() ? "1" : "0";
    std::vector<std::string> arguments = {childReporterPath(parameters), server, writeEnd, prompt};
    logMessage("Launching crash reporting child process: " + arguments.front() + " " + server +
               " " + writeEnd + " " + prompt);
    const int error = childExecute(arguments, parameters);
    logMessage("execv has continued... this means it failed to launch the crash reporter: " +
               errnoText(error));
    _exit(executionFailed);
}

// From here on: normal process.

void logChannel(const ReportChannel& channel) {
    logMessage(std::string(87, '-'));
    logMessage("Created CreateReportChannel");
    logMessage("\tserver fd = " + std::to_string(channel.serverFd));
    logMessage("\tclient fd = " + std::to_string(channel.clientFd));
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

/// A read that fails leaves the refusing 0 in place.
char takeHandshake(int readFd) {
    char byte = 0;
    [[maybe_unused]] const ssize_t length = read(readFd, &byte, sizeof byte);
    close(readFd);
    return byte;
}

bool reporterAnswers(int readFd) {
    if (!awaitHandshake(readFd)) {
        logError("Crash reporting child process failed to return a success message");
        return false;
    }
    if (takeHandshake(readFd) != reporterIsUp) {
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

/// The client end of the channel to a reporter that serves it, or noDescriptor.
int startReporter(const Parameters& parameters) {
    ReportChannel channel;
    if (!createReportChannel(channel)) {
        logMessage("Failed to create file descriptors from CreateReportChannel");
        return noDescriptor;
    }
    HandshakePipe handshake;
    if (const int error = createHandshakePipe(handshake); error != 0) {
        logMessage("Failed to create interprocess pipe file descriptors, errno = " +
                   std::to_string(error));
        return noDescriptor;
    }
    logChannel(channel);

    const pid_t reporter = fork();
    if (reporter == -1) {
        const int error = errno;
        logError("Forking error: " + errnoText(error));
        return noDescriptor;
    }
    if (reporter == 0) {
        childRunReporter(parameters, channel.serverFd, handshake);
    }
    close(handshake.writeFd);
    if (!reporterAnswers(handshake.readFd)) {
        return noDescriptor;
    }
    letReporterTrace(reporter);
    return channel.clientFd;
}

}  // namespace

Exception::Exception(const std::string& message) {
    add(ExceptionInfo<std::string>("UserMessage", message));
}

std::string temporaryDirectory() {
    return "/var/tmp/";
}

CrashHandler::Parameters::Parameters() {
    setDefaultMode();
    m_dumpPath = temporaryDirectory();
}

void CrashHandler::Parameters::setMode(Mode mode) {
    if (mode == Mode::Default) {
        mode = Mode::OutOfProcess;
    } else if (static_cast<std::uint32_t>(mode) > Mode::OutOfProcess) {
        std::ostringstream message;
        message << "Invalid Breakpad Mode: " << static_cast<std::int32_t>(mode);
        throwAt(setModeSite, message.str());
    }
    m_mode = mode;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): callers ask it of their record
std::string CrashHandler::Parameters::applicationPath() const {
    return Base::executablePath();
}

void CrashHandler::Parameters::validate() const {
    if (m_productName.empty()) {
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
        parameters.mode() == Mode::OutOfProcess ? startReporter(parameters) : noDescriptor;

    constexpr bool installHandler = true;
    constexpr void* noContext = nullptr;
    auto handler =
        std::make_unique<ExceptionHandler>(MinidumpDescriptor(parameters.dumpPath()), alwaysDump,
                                           passDumpResult, noContext, installHandler, handlerFd);
    logMessage(handler->IsOutOfProcess() ? "Breakpad exception handler is Out of Process"
                                         : "Breakpad exception handler is In Process");
    m_exceptionHandler = std::move(handler);
}

CrashHandler::~CrashHandler() = default;

}  // namespace Zendrik::Breakpad
