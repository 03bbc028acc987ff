// Forked child: heap and log may be used, see the header. Out by execve or _exit; only an
// executable path that can't be resolved leaves by its exception.

#include "crash/src/ReporterChild.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/ExecPointers.h"
#include "crash/src/HandlerLog.h"

namespace Zendrik::Breakpad {

namespace {

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

}  // namespace

void childRunReporter(const Parameters& parameters, const ReporterChildEnds& ends) {
    close(ends.handshakeReadFd);
    const std::string server = std::to_string(ends.serverFd);
    const std::string writeEnd = std::to_string(ends.handshakeWriteFd);
    const std::string prompt = parameters.prompt() ? "1" : "0";
    std::vector<std::string> arguments = {childReporterPath(parameters), server, writeEnd, prompt};
    logMessage("Launching crash reporting child process: " + arguments.front() + " " + server +
               " " + writeEnd + " " + prompt);
    const int error = childExecute(arguments, parameters);
    logMessage("execv has continued... this means it failed to launch the crash reporter: " +
               errnoText(error));
    _exit(executionFailed);
}

}  // namespace Zendrik::Breakpad
