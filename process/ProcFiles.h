#pragma once

// Small readers of /proc. What can't be read is empty: the process may end at any moment.

#include <boost/system/error_code.hpp>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace Plexum3::Base {

/// All that comes from a descriptor until its end. Empty if reading fails, with errno, in the
/// system category, in *errorCode, which may be null.
std::string readToEnd(int fd, boost::system::error_code* errorCode = nullptr);

/// All of a file whose size can't be asked beforehand. Empty if it can't be opened or read, with
/// errno, in the system category, in *errorCode, which may be null.
std::string readSmallFile(const std::string& path, boost::system::error_code* errorCode = nullptr);

/// The content of /proc/PID/`name`, or of /proc/`name` for the PID 0.
std::string readProcFile(pid_t pid, const std::string& name);

/// What stands behind "`name`:" and blanks in a text of the form of /proc/PID/status, to the end of
/// its line.
std::string statusField(std::string_view status, std::string_view name);

/// The name that a thread gave itself, which may hold any bytes, from its file comm.
std::string threadName(pid_t tid);

/// The threads of a process, from /proc/PID/task.
std::vector<pid_t> listThreads(pid_t pid);

}  // namespace Plexum3::Base
