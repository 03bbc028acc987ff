#pragma once

namespace Zendrik::Reporter {

/// Blocks SIGTERM and SIGCHLD, and nothing else, and makes a signalfd of them, the caller's; -1
/// where the kernel is out of descriptors.
int openSignalFd();

/// For a child of such a process: SIGTERM stays blocked, as a report in progress is finished.
void blockTerminationOnly();

struct TakenSignals {
    bool terminate = false;
    bool child = false;
};

/// All signals that wait in such a descriptor; none for -1.
TakenSignals takeSignals(int signalFd);

}  // namespace Zendrik::Reporter
