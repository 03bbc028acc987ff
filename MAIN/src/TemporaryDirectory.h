#pragma once

#include <optional>
#include <string>

namespace Launcher {

/// Settles the path of the run's directory for temporary files and publishes it under
/// TAVREL_TMPDIR; the entry script creates it. A TAVREL_TMPDIR of the user's is taken, made
/// absolute in Configuration only; otherwise it is "tavrel_tmpdir_" and the process id in the
/// folder of TMPDIR, or in the system's, which TMPDIR then names in Configuration. Main thread
/// only: Configuration and the process environment are read and written.
/// @return the path; none, with nothing published, if the system has no folder for temporary files
/// @throw boost::filesystem::filesystem_error if a relative TAVREL_TMPDIR meets no current folder
std::optional<std::string> chooseTemporaryDirectory();

}  // namespace Launcher
