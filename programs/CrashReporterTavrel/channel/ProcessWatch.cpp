#include "programs/CrashReporterTavrel/channel/ProcessWatch.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "process/ProcFiles.h"
#include "process/ProcessLife.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ProcessLife;
using Plexum3::Base::readProcessLife;

int openPidfd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// 'T' in proc(5): stopped by a signal. A tracer's stop is 't'.
bool isStopped(pid_t pid) {
    const std::string stat = Plexum3::Base::readProcFile(pid, "stat");
    const std::size_t nameEnd = stat.rfind(')');
    return nameEnd != std::string::npos && stat.compare(nameEnd, 3, ") T") == 0;
}

}  // namespace

ProcessWatch::ProcessWatch(pid_t pid)
    : pid_(pid), startTicks_(readProcessLife(pid).startTicks), pidfd_(openPidfd(pid)) {}

int ProcessWatch::pollIntervalMs() const {
    constexpr int intervalMs = 250;
    return pidfd_.isOpen() ? -1 : intervalMs;
}

bool ProcessWatch::gone() const {
    if (pidfd_.isOpen()) {
        pollfd ended{pidfd_.get(), POLLIN, 0};
        return poll(&ended, 1, 0) == 1;
    }
    const ProcessLife life = readProcessLife(pid_);
    return life.state == ProcessLife::State::Ended ||
           (life.state == ProcessLife::State::Living && life.startTicks != startTicks_);
}

void ProcessWatch::wakeIfStopped() const {
    if (isStopped(pid_) && !gone()) {
        static_cast<void>(kill(pid_, SIGCONT));  // fails only for one that has just ended
    }
}

pid_t launcherOf(int channelFd) {
    ucred maker{};
    socklen_t size = sizeof maker;
    const bool told = getsockopt(channelFd, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0;
    return told && maker.pid > 0 && kill(maker.pid, 0) == 0 ? maker.pid : getppid();
}

}  // namespace Zendrik::Reporter
