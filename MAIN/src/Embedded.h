#pragma once

#include <cstdint>

namespace Launcher {

// What the build puts into the executable, each by a source of its own making.

// With the linkage of C: the program that a start is measured against is in C and carries it, too.
extern "C" {

/// The application's entry script, python/Main/Main.py, as a marshalled code object of the tree's
/// own interpreter (see cmake/EmbedEntryScript.cmake), so that a run needs no file for it.
/// Read-only data of the executable.
extern const unsigned char entryScript[];

/// Number of bytes in entryScript.
extern const std::uint32_t entryScriptLength;

}  // extern "C"

/// When the launcher was last linked with anything new: UTC, as 2024-03-01T12:34:56. With
/// SOURCE_DATE_EPOCH set in the build's environment it is that moment instead.
extern const char buildTime[];

}  // namespace Launcher
