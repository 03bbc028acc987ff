#pragma once

#include <cstdint>

namespace Launcher {

// What the build puts into the executable, each by a source of its own making.

// With the linkage of C: the program that a start is measured against is in C and carries it, too.
extern "C" {

/// The entry script python/Main/Main.py as a marshalled code object of the tree's own interpreter.
extern const unsigned char entryScript[];

extern const std::uint32_t entryScriptLength;  ///< in bytes

}  // extern "C"

/// When the launcher was last linked with anything new, or SOURCE_DATE_EPOCH: UTC, as
/// 2024-03-01T12:34:56.
extern const char buildTime[];

}  // namespace Launcher
