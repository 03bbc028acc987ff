#pragma once

/// What the kernel's process table says of a process. A PID alone is given out again after its
/// process has gone; a PID and the creation time together name one process for as long as the
/// machine is up:
///
///     const auto created = getProcessCreationTime(pid, &error);
///     ...
///     const bool stillTheSame = getProcessCreationTime(pid, &error) == created;
///
/// The splitting of the kernel's text is part of how launchers identify each other, a blank in a
/// command name included. A program that must not be deceived by a name asks ProcessEnd.h.

#include <boost/chrono/duration.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace Plexum3::Base {

/// When the process was started, from /proc/PID/stat: microseconds since the machine booted, in
/// steps of a clock tick. Comparable with other results of this function on the same machine only.
/// -1 on failure; *errorCode, which may be null, then holds
/// - ESRCH, generic category: there is no such process, or it is dead and only not reaped yet,
/// - EOPNOTSUPP, generic category: the kernel's text has fewer fields than it should,
/// - errno, system category: the file could not be opened or read. That includes ESRCH of a process
///   that ended between the two.
/// A command name with a blank or tab in it moves the fields on by one: the time is then 0, and a
/// dead process is not recognised.
///
/// Keeps no state; any thread.
/// @throw std::bad_alloc and nothing else
boost::chrono::microseconds getProcessCreationTime(int pid, boost::system::error_code* errorCode);

/// The same from the text of such a file. `ticksPerSecond` is sysconf(_SC_CLK_TCK). A start time
/// that does not fit in 64 bits as microseconds wraps.
boost::chrono::microseconds parseProcessCreationTime(const std::string& stat, long ticksPerSecond,
                                                     boost::system::error_code* errorCode);

}  // namespace Plexum3::Base
