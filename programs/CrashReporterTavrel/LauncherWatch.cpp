#include "programs/CrashReporterTavrel/LauncherWatch.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Zendrik::Reporter {

namespace {

// 0, which names no process, where the maker is unknown or of a PID namespace that is not seen.
pid_t makerOf(int channelFd) {
    ucred maker{};
    socklen_t size = sizeof maker;
    return getsockopt(channelFd, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 ? maker.pid : 0;
}

int openPidfd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

LauncherWatch::LauncherWatch(int channelFd)
    : parent_(getppid()), pidfd_(openPidfd(makerOf(channelFd))) {
    if (pidfd_.get() < 0) {
        pidfd_.reset(openPidfd(parent_));
    }
}

int LauncherWatch::pollIntervalMs() const {
    constexpr int intervalMs = 250;
    return pidfd_.get() >= 0 ? -1 : intervalMs;
}

bool LauncherWatch::gone() const {
    if (pidfd_.get() < 0) {
        return getppid() != parent_;
    }
    pollfd ended{pidfd_.get(), POLLIN, 0};
    return poll(&ended, 1, 0) == 1;
}

}  // namespace Zendrik::Reporter
