#pragma once

// What the kernel tells about a process that has crashed and waits for its dump. Taken while the
// process is held, so it is kept short: a few files under /proc, nothing else.

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

using Plexum3::Base::ScopedFd;

struct ProcessSnapshot {
    pid_t pid = -1;
    std::string executable;        // /proc/PID/exe; empty when it can't be read
    std::string runMode;           // "UI", "batch", "script" or "shell", from /proc/PID/cmdline
    int64_t startedNs = 0;         // wall clock, nanoseconds since the epoch; 0 when unknown
    double uptimeSeconds = -1;     // -1 when unknown
    int64_t residentKiB = -1;      // VmRSS of /proc/PID/status; -1 when unknown, as the next ones
    int64_t peakResidentKiB = -1;  // VmHWM
    int64_t virtualKiB = -1;       // VmSize
    int64_t threads = -1;
    ScopedFd workingDirectory;  // stays usable when the process has gone; none when unreadable
};

// Never fails: what can't be read stays unknown.
ProcessSnapshot takeSnapshot(pid_t pid);

// Field 22 of /proc/PID/stat, clock ticks since boot; -1 when the process is gone. Together with
// the pid it names one process for good. Unlike getProcessCreationTime it copes with a command name
// that holds blanks or parentheses, which an application is free to choose.
int64_t startTicks(pid_t pid);

// The pieces that read text, apart from where it comes from.
int64_t startTicksOf(const std::string& stat);
// The number behind "NAME:" in the form of /proc/PID/status; -1 without one.
int64_t numberBehind(const std::string& text, const std::string& name);
// The mode that the launcher chooses for these arguments, its own name in front.
std::string runModeOf(const std::vector<std::string>& arguments);

// Up to `limit` bytes of a file, path relative to `folder` (AT_FDCWD for none); empty on failure.
std::string readText(int folder, const std::string& path, size_t limit, int extraFlags = 0);

}  // namespace Zendrik::Reporter
