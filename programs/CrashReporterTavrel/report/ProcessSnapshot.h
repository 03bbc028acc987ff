#pragma once

/// What the kernel reports about a process that has crashed and waits for its dump. Taken while the
/// process is held, so it is kept short: a few files under /proc, nothing else.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

struct ProcessSnapshot {
    pid_t pid = -1;
    std::string executable;      ///< /proc/PID/exe; empty when it can't be read
    std::string runMode;         ///< "UI", "batch", "script" or "shell", from /proc/PID/cmdline
    std::int64_t startedNs = 0;  ///< wall clock, nanoseconds since the epoch; 0 when unknown
    double uptimeSeconds = -1;   ///< -1 when unknown
    std::int64_t residentKiB =
        -1;  ///< VmRSS of /proc/PID/status; -1 when unknown, as the next ones
    std::int64_t peakResidentKiB = -1;  ///< VmHWM
    std::int64_t virtualKiB = -1;       ///< VmSize
    std::int64_t threads = -1;
    /// Stays usable when the process has gone; none when unreadable.
    Plexum3::Base::ScopedFd workingDirectory;
};

/// Never fails: what can't be read stays unknown.
/// @param tid a thread of the process that has not ended; the first one may have
ProcessSnapshot takeSnapshot(pid_t pid, pid_t tid);

/// The pieces that read text, apart from where it comes from.
/// The number behind "NAME:" in the form of /proc/PID/status; -1 without one.
std::int64_t numberBehind(const std::string& text, const std::string& name);
/// The mode that the launcher chooses for these arguments, its own name in front.
std::string runModeOf(const std::vector<std::string>& arguments);

/// Up to `limit` bytes of a file, path relative to `folder` (AT_FDCWD for none); empty on failure.
std::string readText(int folder, const std::string& path, std::size_t limit, int extraFlags = 0);

}  // namespace Zendrik::Reporter
