#pragma once

#include "crash/src/zkCrashHandler.h"

namespace Zendrik::Breakpad {

/// In place of the channel's client end, for Breakpad's handler, too: capture in process.
constexpr int noReporter = -1;

/// Starts the crash reporter of `parameters` as a child of this process and waits at most 2,000 ms,
/// anew after each signal, for the byte that says that it serves. What goes wrong is logged; what
/// was opened by then stays open. Main thread, with no other thread but
/// the one that watches a controlling process.
/// @return the client end of the crash channel, or noReporter
int startReporter(const CrashHandler::Parameters& parameters);

}  // namespace Zendrik::Breakpad
