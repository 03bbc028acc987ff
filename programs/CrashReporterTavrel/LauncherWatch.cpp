#include "programs/CrashReporterTavrel/LauncherWatch.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Zendrik::Reporter {

LauncherWatch::LauncherWatch()
    : launcher_(getppid()), pidfd_(static_cast<int>(syscall(SYS_pidfd_open, launcher_, 0))) {}

int LauncherWatch::pollIntervalMs() const {
    constexpr int intervalMs = 250;
    return pidfd_.get() >= 0 ? -1 : intervalMs;
}

bool LauncherWatch::gone() const {
    if (getppid() != launcher_) {
        return true;
    }
    pollfd ended{pidfd_.get(), POLLIN, 0};
    return pidfd_.get() >= 0 && poll(&ended, 1, 0) == 1;
}

}  // namespace Zendrik::Reporter
