#pragma once

namespace Launcher {

/// When the launcher was last linked with anything new: UTC, as 2024-03-01T12:34:56. With
/// SOURCE_DATE_EPOCH set in the build's environment it is that moment instead. In every executable
/// that has MAIN/BuildTime.cmake's source.
extern const char buildTime[];

}  // namespace Launcher
