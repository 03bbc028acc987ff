#pragma once

/// Whether a process still lives, with certainty or not at all, where it has no descriptor to wait
/// on. It is for programs that act on the end of a process and do harm if they are wrong.
///
/// getProcessCreationTime (ProcessTable.h) asks the same file; there a process names itself to
/// others in a form that is settled, which a blank in a command name defeats. This reader copes
/// with every name that a process may give itself. Needs the C library alone.

#include <sys/types.h>

#include <cstdint>

namespace Plexum3::Base {

/// What the process table says of one process.
struct ProcessLife {
    enum class State {
        Unknown,  ///< could not be found out: to be taken for living
        Living,
        Ended,  ///< gone, or dead and only not reaped yet
    };
    State state = State::Unknown;
    /// When it was started, in clock ticks since the machine booted; 0 unless Living or a process
    /// that is dead and not reaped. Together with the pid it names one process,
    /// unless the pid is used again within the same clock tick (10 ms).
    std::uint64_t startTicks = 0;
};

/// Asks /proc/PID/stat, and kill(2) where that can't be read: a process that kill doesn't know has
/// ended, any other answer leaves the matter open. Never fails; any thread, also between fork and
/// exec.
ProcessLife readProcessLife(pid_t pid);

/// The same from the text of such a file, terminated. A process whose first thread has left before
/// the others reads as a zombie there, but lives.
ProcessLife parseProcessLife(const char* stat);

}  // namespace Plexum3::Base
