#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

/// @return whether TAVREL_KEEP_TMPDIR, in the process environment, is anything but "0"
bool keepsTemporaryDirectory();

/// Starts tavrelCleanup from the tree's bin, which deletes `temporaryDirectory` when this process
/// has ended. To be called before the directory exists: whatever becomes of this process, somebody
/// is there to clean up. Main thread.
/// @param verbosity above 1, the start is logged
/// @return false, after a log line, if the process can't be started. True doesn't prove that the
///         program runs: one that is missing is logged and ends no start
bool startCleanup(const std::string& rootPath, const std::string& temporaryDirectory,
                  std::int32_t verbosity);

}  // namespace Launcher
