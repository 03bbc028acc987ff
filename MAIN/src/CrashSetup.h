#pragma once

#include <cstdint>

/// Arms crash capture for the rest of the process, by the reporter CrashReporterTavrel or, failing
/// that, in process. A second call arms nothing. Main thread; waits at most 2,000 ms for the
/// reporter.
/// @param prompt whether the reporter is to ask the user about a crash report
/// @return false if the handler refused its parameters, which is then on standard error
bool setupCrashHandler(bool prompt);

namespace Launcher {

/// Arms crash capture where TAVREL_CRASH_HANDLING says "1" or, with a window, anything but "0". The
/// reporter asks only a user with a window, unless TAVREL_NO_CRASH_PROMPT is "1".
/// @param verbosity above 0, what is off is logged
void armCrashHandling(bool isUi, std::int32_t verbosity);

}  // namespace Launcher
