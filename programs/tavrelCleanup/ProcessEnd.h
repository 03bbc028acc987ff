#pragma once

#include <sys/types.h>

#include <cstdint>

#include "process/ScopedFd.h"

namespace Cleanup {

/// The end of a process that is not a child of this one. Construct it at once, since from then on
/// the process is known for what it is, whatever gets its id later; then `await` it. A process that
/// has died counts as ended also before it has been reaped.
///
/// Takes a process descriptor (pidfd_open(2)). Where there is none, because the kernel is older
/// than 5.3 or a sandbox forbids the call, it reads /proc/PID/stat ten times a second and compares
/// the start time; where there is one that can't be waited for, without that comparison. Where
/// /proc doesn't show the process either, it has ended when kill(2) doesn't know it any more.
class ProcessEnd {
  public:
    explicit ProcessEnd(pid_t pid);

    /// Returns when the process has ended, at once if it already has. Never fails: as long as in
    /// doubt, it waits.
    void await() const;

  private:
    bool hasEnded() const;

    pid_t pid_;
    Plexum3::Base::ScopedFd pidFd_;
    bool goneAtStart_ = false;
    std::uint64_t startTicks_ = 0;  ///< see ProcessLife
};

}  // namespace Cleanup
