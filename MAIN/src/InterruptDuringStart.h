#pragma once

#include <csignal>

namespace Launcher {

/// Keeps Ctrl-C what it is before the interpreter exists: the end of the process by SIGINT. Inside
/// Py_Initialize a KeyboardInterrupt would abort the process, end it with a status that means a
/// failure, or be printed and forgotten; while modules are imported the interpreter may drop it in
/// a callback of its own.
///
///     {
///         const InterruptDuringStart interrupt;  // an interrupt waits from here on
///         Py_Initialize();
///     }                                          // one that waited ends the process here
///     ...the entry script's imports: an interrupt ends the process...
///     ...the mode, which the entry script hands over to: Python's handler...
///
/// Process 1 of a container, which no signal ends by itself, ends with 130 instead. The
/// interpreter's own table of handlers isn't touched. A SIGINT that is ignored or blocked, or
/// that something took before, is left as it is. Programs that are forked meanwhile don't inherit
/// the block. Main thread, once in a process.
class InterruptDuringStart {
  public:
    InterruptDuringStart();
    ~InterruptDuringStart();
    InterruptDuringStart(const InterruptDuringStart&) = delete;
    InterruptDuringStart& operator=(const InterruptDuringStart&) = delete;

  private:
    bool endsTheProcess_;
    sigset_t previousMask_;
};

}  // namespace Launcher
