#pragma once

namespace Launcher {

// What the phases of a start take, noted only where TAVREL_STARTUP_TIME is 1 in the process
// environment. The application adds its own and prints all of them at the end of the start.

/// Notes that a phase ends here; it began where the one before ended, and the first one with the
/// process: waiting counts, but for the last clock tick of it. Main thread.
/// @param name text for the user
void endStartupPhase(const char* name);

/// Hands the phases to the application by the key TAVREL_STARTUP_PHASES: a line for each, its end
/// in nanoseconds of the monotonic clock, a blank, its name. The first line has the start and no
/// name.
void publishStartupPhases();

}  // namespace Launcher
