#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

/// Settles the path of the run's directory for temporary files, publishes it under TAVREL_TMPDIR,
/// and starts tavrelCleanup from the tree's bin, which deletes the directory when this process has
/// ended; not if TAVREL_KEEP_TMPDIR, in the process environment, is anything but "0". The entry
/// script creates the directory, later: whatever becomes of this process, the program that cleans
/// up is there.
///
/// A TAVREL_TMPDIR of the user's is taken, made absolute in Configuration only; otherwise it is
/// "tavrel_tmpdir_" and the process id in the folder of TMPDIR, or in the system's, which TMPDIR
/// then names in Configuration. Main thread only: Configuration and the process environment are
/// read and written.
/// @param verbosity above 1, the start of tavrelCleanup is logged
/// @return false, after a log line, if the system has no folder for temporary files or the process
///         can't be started. True doesn't prove that the program runs: one that is missing is
///         logged and ends no start
/// @throw boost::filesystem::filesystem_error if a relative TAVREL_TMPDIR meets no current folder
bool prepareTemporaryDirectory(const std::string& rootPath, std::int32_t verbosity);

}  // namespace Launcher
