#pragma once

/// What the kernel reports about a process that has crashed: a few files under /proc, read while it
/// is held.

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

struct ProcessSnapshot {
    pid_t pid = -1;
    std::string executable;         ///< /proc/PID/exe; empty when it can't be read
    std::string runMode;            ///< "UI", "batch", "script" or "shell", from /proc/PID/cmdline
    std::int64_t startedNs = 0;     ///< wall clock, nanoseconds since the epoch; 0 when unknown
    double uptimeSeconds = -1;      ///< -1 when unknown
    std::int64_t residentKiB = -1;  ///< -1 when unknown, as the next ones
    std::int64_t peakResidentKiB = -1;
    std::int64_t virtualKiB = -1;
    std::int64_t threads = -1;
    /// Stays usable when the process has gone; none when unreadable.
    Plexum3::Base::ScopedFd workingDirectory;
};

/// Never fails: what can't be read stays unknown.
/// @param tid a thread of the process that has not ended; the first one may have
ProcessSnapshot takeSnapshot(pid_t pid, pid_t tid);

/// The number behind "NAME:" in the form of /proc/PID/status; -1 without one.
std::int64_t numberBehind(const std::string& text, const std::string& name);
/// The mode that the launcher chooses for these arguments, in the form of /proc/PID/cmdline.
std::string runModeOf(const std::string& commandLine);

}  // namespace Zendrik::Reporter
