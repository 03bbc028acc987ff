#pragma once

#include "UTIL/src/PythonReference.h"

namespace Launcher {

// The exit status, and whether the output has arrived: a full disk may show as late as when the
// last buffer is flushed. Main thread.

/// Has the interpreter flush sys.stdout behind all other exit functions. What can't be written is
/// noted, once, and dropped. With the interpreter lock held.
void flushOutputAtExit();

/// Turns the way the entry script ended into the exit status; reports on standard error what the
/// user has to know. With the interpreter lock held and the script's exception still pending.
/// @param module what running the script returned: null if it raised an exception
/// @return 0 to 255, or -1 for an exception other than SystemExit; no exception is pending then
int takeApplicationStatus(UTIL::PythonReference module);

/// Flushes what native code has printed, after the interpreter has gone. Says in one line on
/// standard error if output was lost.
/// @return `status`, but 255 in place of 0 where batch or script mode has lost output
int statusAfterOutput(int status);

}  // namespace Launcher
