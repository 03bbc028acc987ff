#include "programs/CrashReporterTavrel/channel/HandledSignals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <initializer_list>

namespace Zendrik::Reporter {

namespace {

sigset_t blockOnly(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    static_cast<void>(sigprocmask(SIG_SETMASK, &set, nullptr));  // fails only for a bad argument
    return set;
}

}  // namespace

int openSignalFd() {
    const sigset_t set = blockOnly({SIGTERM, SIGCHLD});
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void blockTerminationOnly() {
    static_cast<void>(blockOnly({SIGTERM}));
}

TakenSignals takeSignals(int signalFd) {
    TakenSignals taken;
    signalfd_siginfo signal{};
    while (read(signalFd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
        taken.terminate = taken.terminate || signal.ssi_signo == SIGTERM;
        taken.child = taken.child || signal.ssi_signo == SIGCHLD;
    }
    return taken;
}

}  // namespace Zendrik::Reporter
