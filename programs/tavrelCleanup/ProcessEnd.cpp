#include "programs/tavrelCleanup/ProcessEnd.h"

#include <poll.h>
#include <sys/syscall.h>

#include <cerrno>
#include <ctime>

#include "process/ProcessLife.h"

namespace Cleanup {
using Plexum3::Base::ProcessLife;
using Plexum3::Base::readProcessLife;

ProcessEnd::ProcessEnd(pid_t pid) : pid_(pid), pidFd_(syscall(SYS_pidfd_open, pid, 0)) {
    if (pidFd_.isOpen()) {
        return;
    }
    const ProcessLife life = readProcessLife(pid);
    goneAtStart_ = life.state == ProcessLife::State::Ended;
    startTicks_ = life.startTicks;
}

void ProcessEnd::await() const {
    const timespec interval = {0, 100'000'000};
    while (!goneAtStart_ && !hasEnded()) {
        nanosleep(&interval, nullptr);
    }
}

// With a descriptor of the process it waits for the end, without one it looks once.
bool ProcessEnd::hasEnded() const {
    pollfd end = {pidFd_.get(), POLLIN, 0};
    while (pidFd_.isOpen()) {
        const int count = poll(&end, 1, -1);
        if (count == 1 && (end.revents & POLLIN) != 0) {
            return true;
        }
        if (count != -1 || errno != EINTR) {
            break;  // for example because the limit of open files has become 0
        }
    }
    const ProcessLife life = readProcessLife(pid_);
    const bool isStranger = startTicks_ != 0 && life.state == ProcessLife::State::Living &&
                            life.startTicks != startTicks_;
    return life.state == ProcessLife::State::Ended || isStranger;
}

}  // namespace Cleanup
