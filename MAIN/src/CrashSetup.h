#pragma once

#include <cstdint>

/// Arms crash capture for the rest of the process: out of process with the reporter
/// CrashReporterTavrel from the launcher's own folder, in process if that can't be had. A second
/// call arms nothing. Main thread, during start-up; waits at most 2,000 ms for the reporter.
/// @param prompt whether the reporter is to ask the user about a crash report
/// @return false if the handler refused its parameters, which is then on standard error; true says
///         that capture is armed, not where the dump will be taken
bool setupCrashHandler(bool prompt);

namespace Launcher {

/// Arms crash capture where it is wanted: TAVREL_CRASH_HANDLING says "1" or "0", anything else
/// leaves it on with a window and off without. The reporter asks only a user with a window, unless
/// TAVREL_NO_CRASH_PROMPT is "1". Both are read from the process environment. A launcher without
/// crash capture starts all the same.
/// @param verbosity above 0, what is off is logged
void armCrashHandling(bool isUi, std::int32_t verbosity);

}  // namespace Launcher
