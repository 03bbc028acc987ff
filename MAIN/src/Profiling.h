#pragma once

#include "MAIN/src/CommandLine.h"

namespace Launcher {

/// Passes on through Configuration what profiling the command line asks for; nothing without such
/// an option. What is profiled and where the results go is the closed libraries' affair.
/// @param isBatch whether the run is given --batch: only there --profile profiles the whole run
void requestProfiling(const LauncherValues& values, bool isBatch);

}  // namespace Launcher
