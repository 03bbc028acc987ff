#pragma once

#include <sys/types.h>

#include "programs/tavrelCleanup/FileDescriptor.h"

namespace Cleanup {

/// The end of a process that is not a child of this one. Construct it at once, since from then on
/// the process is known for what it is, whoever gets its id later; then `await` it. A process that
/// has died counts as ended also before it has been reaped.
///
/// Takes a process descriptor (pidfd_open(2)). Where there is none, because the kernel is older
/// than 5.3 or a sandbox forbids the call, it reads /proc/PID/stat ten times a second and compares
/// the start time.
class ProcessEnd {
  public:
    explicit ProcessEnd(pid_t pid);

    /// Returns when the process has ended, at once if it already has. Never fails: as long as in
    /// doubt, it waits.
    void await() const;

  private:
    void awaitByProcessTable() const;

    pid_t pid_;
    FileDescriptor pidFd_;
    bool goneAtStart_ = false;
    unsigned long long startTime_ = 0;  // clock ticks since boot, 0 if unknown
};

}  // namespace Cleanup
