#pragma once

namespace Launcher {

/// Standard output of a run whose output is its result. Lines wait in buffers until the very end,
/// and a full disk may show as late as that:
///
///     flushOutputAtExit();              // before the application registers its own exit functions
///     ...the application...
///     Py_Finalize();
///     return statusAfterOutput(status);
///
/// Main thread.

/// Has the interpreter flush sys.stdout behind all other exit functions. What can't be written is
/// noted, once, and dropped. With the interpreter lock held.
void flushOutputAtExit();

/// Flushes what native code has printed, after the interpreter has gone. Says in one line on
/// standard error if output was lost.
/// @return `status`, but 255 in place of 0 where batch or script mode has lost output; that of a
///         window or a shell isn't its result
int statusAfterOutput(int status);

}  // namespace Launcher
