#pragma once

#include "crash/src/zkCrashHandler.h"

/// The half of the reporter's start that runs between fork and exec.
///
/// Unlike the children of process/ this one allocates and logs. It may, because of who else runs in
/// the process at that time: at most one thread that watches a controlling process. That one uses
/// the heap, whose locks the C library itself holds across fork, so that the child finds them free;
/// it never touches the log, nor a lock of this project. Whoever arms crash capture when further
/// threads run has to start the reporter otherwise.
namespace Zendrik::Breakpad {

/// What the child is given, besides a copy of all memory.
struct ReporterChildEnds {
    int serverFd;          ///< of the crash channel, for the reporter; survives exec
    int handshakeReadFd;   ///< the parent's, closed here
    int handshakeWriteFd;  ///< for the reporter's one byte; survives exec
};

/// The child, to the end: becomes the reporter, or logs why it can't and exits with status 255.
/// Everything else that is open stays open.
/// @throw std::logic_error if /proc/self/exe can't be resolved: the child then unwinds as a second
///        copy of its parent
[[noreturn]] void childRunReporter(const CrashHandler::Parameters& parameters,
                                   const ReporterChildEnds& ends);

}  // namespace Zendrik::Breakpad
