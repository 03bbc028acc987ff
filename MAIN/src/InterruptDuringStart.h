#pragma once

namespace Launcher {

// Ctrl-C from the first line of main to the application's own handler. A SIGINT that is ignored
// stays ignored, and a handler that something else installs stays.

/// Has SIGINT end the process in whatever thread it arrives: by the signal, or with 130 for the
/// first process of a container, for which the kernel drops a signal that has no handler.
void endOnInterrupt();

/// Installs Python's default handler for SIGINT in place of the one of endOnInterrupt, and
/// `sys.tavrel_checkInterrupt`. With the interpreter lock held, main thread, once in a process.
/// @return false, with the exception pending, if an interrupt came meanwhile or memory is short
bool handInterruptsToPython();

}  // namespace Launcher
