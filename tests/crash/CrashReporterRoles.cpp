// Reporters for the tests of the crash handler. Each says on standard error what it was started
// with, and takes the part that its own name names.

#include <client/linux/crash_generation/crash_generation_server.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

std::string describeChannel(int fd) {
    int type = 0;
    int credentials = 0;
    socklen_t size = sizeof type;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
    getsockopt(fd, SOL_SOCKET, SO_PASSCRED, &credentials, &size);
    return std::string(type == SOCK_SEQPACKET ? "channel" : "no channel") +
           (credentials != 0 ? " credentials" : "") +
           ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? " nonblocking" : "");
}

std::string describePipe(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode) ? "pipe" : "no pipe";
}

void say(int fd, char byte) {
    if (write(fd, &byte, sizeof byte) != sizeof byte) {
        std::abort();
    }
}

[[noreturn]] void stayUntilKilled() {
    for (;;) {
        pause();
    }
}

/// The session identifier is the folder for dumps.
[[noreturn]] void serve(int serverFd, int pipeFd, const std::string& folder) {
    google_breakpad::CrashGenerationServer server(serverFd, nullptr, nullptr, nullptr, nullptr,
                                                  true, &folder);
    say(pipeFd, server.Start() ? 1 : 0);
    stayUntilKilled();
}

/// Interrupts the launcher's wait once, well inside its time-out.
[[noreturn]] void staySilent() {
    poll(nullptr, 0, 300);
    kill(getppid(), SIGUSR1);
    stayUntilKilled();
}

}  // namespace

int main(int argc, char** argv, char** environment) {
    // No test leaves a reporter behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string path = argv[0];
    const std::string role = path.substr(path.rfind('/') + 1);
    const int serverFd = std::atoi(argv[1]);
    const int pipeFd = std::atoi(argv[2]);
    std::string session;
    std::cerr << "reporter:";
    for (char** entry = environment; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (text.rfind("ZK_SESSION_ID=", 0) == 0) {
            session = text.substr(text.find('=') + 1);
            std::cerr << " " << text << (entry == environment ? " (first)" : "");
        }
    }
    std::cerr << "; " << argc << " arguments; " << describeChannel(serverFd) << "; "
              << describePipe(pipeFd) << "; prompt " << argv[3] << std::endl;
    if (role == "servingReporter") {
        serve(serverFd, pipeFd, session);
    }
    if (role == "silentReporter") {
        staySilent();
    }
    if (role == "refusingReporter") {
        say(pipeFd, 0);
    } else if (role == "characterReporter") {
        say(pipeFd, '1');
    }
    return 0;
}
