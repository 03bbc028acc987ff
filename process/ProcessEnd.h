#pragma once

/// Whether a process still lives, with certainty or not at all, for programs that act on the end of
/// one that is not their child, and do harm if they are wrong.
///
/// getProcessCreationTime (ProcessTable.h) asks the same file; there a process names itself to
/// others in a form that is settled, which a blank in a command name defeats. This reader copes
/// with every name that a process may give itself. Needs the C library alone.

#include <sys/types.h>

#include <cstdint>

#include "process/ScopedFd.h"

namespace Plexum3::Base {

/// What the process table says of one process.
struct ProcessLife {
    enum class State {
        Unknown,  ///< could not be found out: to be taken for living
        Living,
        Stopped,  ///< living, but stopped by a signal; a tracer's stop is none
        Ended,    ///< gone, or dead and only not reaped yet
    };
    State state = State::Unknown;
    /// When it was started, in clock ticks since the machine booted; 0 if that isn't known.
    /// Together with the pid it names one process, unless the pid is used again within the same
    /// clock tick (10 ms).
    std::uint64_t startTicks = 0;
};

/// Asks /proc/PID/stat, and kill(2) where that can't be read: a process that kill doesn't know has
/// ended, any other answer leaves the matter open. Never fails; any thread, also between fork and
/// exec.
ProcessLife readProcessLife(pid_t pid);

/// The same from the text of such a file, terminated. A process whose first thread has left before
/// the others reads as a zombie there, but lives.
ProcessLife parseProcessLife(const char* stat);

/// The end of a process, whatever gets its id later. Make it while the process is surely there.
/// Takes a process descriptor (pidfd_open(2), Linux 5.3); where there is none, or it can't be
/// waited for, it looks at the process table and compares the start time. A fork takes it along.
class ProcessEnd {
  public:
    /// Never fails; a process that isn't there has ended.
    explicit ProcessEnd(pid_t pid);

    pid_t pid() const { return pid_; }
    /// Readable once the process has ended; -1 where only looking helps. Owned by this object.
    int fd() const { return pidFd_.get(); }
    /// Milliseconds between two looks: -1 (none needed) with a descriptor, 250 without one.
    int pollIntervalMs() const;

    /// Looks once. False in doubt.
    bool hasEnded() const;
    /// Returns when the process has ended, at once if it already has.
    void await() const;
    /// Sends SIGCONT if a signal has stopped the process. One that a debugger holds stays as it is.
    void wakeIfStopped() const;

  private:
    pid_t pid_;
    ScopedFd pidFd_;
    ProcessLife atStart_;
};

}  // namespace Plexum3::Base
