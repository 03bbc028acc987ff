#pragma once

/// Arms crash capture for the rest of the process: out of process with the reporter
/// CrashReporterTavrel from the launcher's own folder, in process if that can't be had. A second
/// call arms nothing. Main thread, during start-up; waits at most 2,000 ms for the reporter.
/// @param prompt whether the reporter is to ask the user about a crash report
/// @return false if the handler refused its parameters, which standard error then tells; true says
///         that capture is armed, not where the dump will be taken
bool setupCrashHandler(bool prompt);
