// Reporters for the tests of the crash handler. Each says on standard error what it was started
// with, and takes the part that its own name names.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

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
    const int pipeFd = std::atoi(argv[2]);
    std::cerr << "reporter:";
    for (char** entry = environment; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (text.rfind("ZK_SESSION_ID=", 0) == 0) {
            std::cerr << " " << text << (entry == environment ? " (first)" : "");
        }
    }
    const bool channelIsOpen = fcntl(std::atoi(argv[1]), F_GETFD) != -1;
    std::cerr << "; " << argc << " arguments; channel " << (channelIsOpen ? "open" : "closed")
              << "; prompt " << argv[3] << std::endl;
    if (role == "servingReporter") {
        say(pipeFd, 1);
        stayUntilKilled();
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
