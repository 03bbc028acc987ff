#pragma once

#include <cstdint>

namespace Launcher {

// With the linkage of C: the program that a start is measured against is in C and carries it, too.
extern "C" {

/// The application's entry script, python/Main/Main.py, as a marshalled code object of the tree's
/// own interpreter. The build compiles it in (see cmake/EmbedEntryScript.cmake), so that a run
/// needs no file for it. Read-only data of the executable.
extern const unsigned char entryScript[];

/// Number of bytes in entryScript.
extern const std::uint32_t entryScriptLength;

}  // extern "C"

}  // namespace Launcher
