#include "crash/src/ReporterStart.h"

#include <client/linux/crash_generation/crash_generation_server.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "base/ExecPointers.h"
#include "crash/src/HandlerLog.h"

namespace Zendrik::Breakpad {

namespace {

constexpr int handshakeTimeoutMs = 2000;
constexpr char reporterIsUp = 1;

/// What a crashing thread and the reporter talk through. Not closed by its destruction.
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

void logChannel(const CrashChannel& channel) {
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

using Base::execPointers;
using Parameters = CrashHandler::Parameters;

/// What execve returned; the exit status is its low byte, 255.
constexpr int executionFailed = -1;

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

// Forked child. Unlike the children of process/ it allocates and logs. It may, because of who else
// runs in the process at that time: at most one thread that watches a controlling process. That one
// uses the heap, whose locks the C library itself holds across fork, and never touches the log, nor
// a lock of this project. Out by execve or _exit; only an executable path that can't be resolved
// leaves by its exception: the child then unwinds as a second copy of its parent. Everything that
// is open stays open for the reporter, but for the parent's end of the pipe.
[[noreturn]] void childRunReporter(const Parameters& parameters, const CrashChannel& channel,
                                   const int (&handshake)[2]) {
    close(handshake[0]);
    const std::string server = std::to_string(channel.serverFd);
    const std::string writeEnd = std::to_string(handshake[1]);
    const std::string prompt = parameters.prompt() ? "1" : "0";
    std::vector<std::string> arguments = {childReporterPath(parameters), server, writeEnd, prompt};
    logMessage("Launching crash reporting child process: " + arguments.front() + " " + server +
               " " + writeEnd + " " + prompt);
    const int error = childExecute(arguments, parameters);
    logMessage("execv has continued... this means it failed to launch the crash reporter: " +
               errnoText(error));
    _exit(executionFailed);
}

}  // namespace

int startReporter(const CrashHandler::Parameters& parameters) {
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
    logChannel(*channel);

    const pid_t reporter = fork();
    if (reporter == -1) {
        const int error = errno;
        logError("Forking error: " + errnoText(error));
        return noReporter;
    }
    if (reporter == 0) {
        childRunReporter(parameters, *channel, handshake);
    }
    close(writeFd);
    if (!reporterAnswers(readFd)) {
        return noReporter;
    }
    letReporterTrace(reporter);
    return channel->clientFd;
}

}  // namespace Zendrik::Breakpad
