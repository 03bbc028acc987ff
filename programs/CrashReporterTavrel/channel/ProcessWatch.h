#pragma once

#include <sys/types.h>

#include <cstdint>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

/// Shows when another process has ended, however it ended: exit, signal, exec failure; and wakes it
/// when it has been stopped.
///
/// Make it while the process is surely there. A fork takes it along: it works in the child, too.
class ProcessWatch {
  public:
    /// Opens a pidfd on `pid`. Never fails: where the kernel has no pidfd_open, or filters it, the
    /// process table is asked, by start time, and the caller looks at `gone` every
    /// `pollIntervalMs`.
    explicit ProcessWatch(pid_t pid);

    pid_t pid() const { return pid_; }

    /// Readable once the process has ended; -1 where only looking helps. Owned by this object.
    int fd() const { return pidfd_.get(); }

    /// Milliseconds between two looks: -1 (none needed) with a descriptor, 250 without one.
    int pollIntervalMs() const;

    bool gone() const;

    /// Sends SIGCONT if a signal has stopped the process. One that a debugger holds stays as it is.
    void wakeIfStopped() const;

  private:
    pid_t pid_;
    std::uint64_t startTicks_;
    Plexum3::Base::ScopedFd pidfd_;
};

/// The process that made a report channel (SO_PEERCRED), from its server end: the launcher. That is
/// this process's parent, unless a program that runs another (strace, a script) was put in the
/// reporter's place: it waits for the reporter, and would never end if the reporter waited for it.
/// Where the maker can't be seen, the parent stands for it.
pid_t launcherOf(int channelFd);

}  // namespace Zendrik::Reporter
