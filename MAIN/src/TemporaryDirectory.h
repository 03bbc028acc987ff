#pragma once

#include <string>
#include <vector>

/// The run's directory for temporary files. The launcher names it and has it deleted after its own
/// end; the entry script creates it:
///
///     std::string temporaryDirectory;
///     if (!chooseTemporaryDirectory(temporaryDirectory)) ...  // no folder for temporary files
///     if (!keepsTemporaryDirectory()) spawn(cleanupCommand(rootPath, temporaryDirectory));
///
/// Main thread only: Configuration and the process environment are read and written.

/// Settles the path and publishes it under TAVREL_TMPDIR. A TAVREL_TMPDIR of the user's is taken,
/// made absolute in Configuration only; otherwise "tavrel_tmpdir_" and the process id in the folder
/// of TMPDIR, or in the system's, which TMPDIR then names in Configuration.
/// @param path receives the result
/// @return false if the system has no folder for temporary files; nothing is published then
/// @throw boost::filesystem::filesystem_error if a relative TAVREL_TMPDIR meets no current folder
bool chooseTemporaryDirectory(std::string& path);

/// @return whether TAVREL_KEEP_TMPDIR, in the process environment, is anything but "0"
bool keepsTemporaryDirectory();

/// @return program and arguments of the process that deletes `temporaryDirectory` when this process
///         has ended
std::vector<std::string> cleanupCommand(const std::string& rootPath,
                                        const std::string& temporaryDirectory);
