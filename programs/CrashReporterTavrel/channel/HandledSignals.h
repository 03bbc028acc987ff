#pragma once

namespace Zendrik::Reporter {

/// Blocks SIGTERM and SIGCHLD, and nothing else, and makes a signalfd of them, close-on-exec and
/// non-blocking. The caller owns it; -1 where the kernel is out of descriptors: they stay blocked.
int openSignalFd();

/// Restores what a child of such a process expects: SIGCHLD is not blocked any more, and SIGTERM
/// is, as a report in progress is finished.
void blockTerminationOnly();

struct TakenSignals {
    bool terminate = false;
    bool child = false;
};

/// All signals that wait in such a descriptor; none for -1.
TakenSignals takeSignals(int signalFd);

}  // namespace Zendrik::Reporter
