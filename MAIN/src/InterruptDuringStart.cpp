#include "MAIN/src/InterruptDuringStart.h"

#include <pthread.h>
#include <unistd.h>

namespace Launcher {

namespace {

// What a child of fork has to unblock; empty but for the time of the start. Site code may start
// programs, and what those inherit lasts for their whole life.
sigset_t childUnblocks = {};

void childUnblock() {
    static_cast<void>(pthread_sigmask(SIG_UNBLOCK, &childUnblocks, nullptr));
}

// The kernel drops a signal that the first process of a container has no handler for.
void endFirstProcess(int number) {
    _exit(128 + number);
}

}  // namespace

// The calls here fail for bad arguments alone; without memory for the handler of fork the children
// inherit the block.
InterruptDuringStart::InterruptDuringStart() {
    struct sigaction before = {};
    sigaction(SIGINT, nullptr, &before);
    endsTheProcess_ = before.sa_handler == SIG_DFL;
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &previousMask_);
    if (sigismember(&previousMask_, SIGINT) == 0) {
        childUnblocks = interrupt;
        static_cast<void>(pthread_atfork(nullptr, nullptr, childUnblock));
    }
}

InterruptDuringStart::~InterruptDuringStart() {
    struct sigaction now = {};
    sigaction(SIGINT, nullptr, &now);
    if (endsTheProcess_ && now.sa_handler != SIG_IGN) {
        constexpr pid_t firstProcess = 1;
        std::signal(SIGINT, getpid() == firstProcess ? endFirstProcess : SIG_DFL);
    }
    sigemptyset(&childUnblocks);
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

}  // namespace Launcher
