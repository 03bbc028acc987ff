#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

/// Settles the path of the run's directory for temporary files, publishes it under TAVREL_TMPDIR
/// and, unless TAVREL_KEEP_TMPDIR is anything but "0", starts tavrelCleanup, which deletes the
/// directory when this process has ended. The entry script creates it, later. Main thread.
/// @return false, after a log line, if the system has no folder for temporary files or the process
///         can't be started; a program that is missing is logged and ends no start
/// @throw boost::filesystem::filesystem_error if a relative TAVREL_TMPDIR meets no current folder
bool prepareTemporaryDirectory(const std::string& rootPath, std::int32_t verbosity);

}  // namespace Launcher
