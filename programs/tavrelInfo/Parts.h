#pragma once

#include <string>

#include "programs/tavrelInfo/Findings.h"

/// The parts of a report. Each finds out by itself, changes nothing and doesn't throw; `root` is
/// the tree, absolute. Nothing of the tree's own runs in this process.
namespace Info {

/// Programs and libraries of the launcher, and the files that manifests list.
void lookAtFiles(const std::string& root, Findings& findings);

/// What the loader finds for the launcher and for the extension modules that the entry script
/// imports: each library, and each symbol that none of them has. Calls the loader, in a process of
/// its own, in the mode in which it runs nothing.
void lookAtLibraries(const std::string& root, Findings& findings);

/// The interpreter's version and byte code, and the entry script's modules with the names that it
/// uses of them, looked for in files.
void lookAtPython(const std::string& root, Findings& findings);

/// System, kernel, limits, display.
void lookAtMachine(const std::string& root, Findings& findings);

/// Temporary folder, crash folder with its newest reports, and the variables that matter.
void lookAtUser(Findings& findings);

}  // namespace Info
