#pragma once

#include <sys/types.h>

#include <string>

#include "programs/CrashReporterTavrel/channel/ReportChannel.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"
#include "stacks/LiveCapture.h"

namespace Zendrik::Reporter {

/// What a worker writes to its pipe for the guardian, each a byte of its own.
enum class Progress : char {
    LetGo,     ///< the crashed process has been let go; report, dump and the user's line are there
    Reported,  ///< the report is whole
};

struct WorkerTask {
    const ReportChannel& channel;
    const DumpFolder& folder;
    const DumpRequest& request;  ///< the first in the queue
    const std::string& guid;     ///< name of dump and report
    bool prompt;                 ///< ask the user afterwards
    int progressFd;              ///< write end, closed by the worker's end
};

/// The whole life of a worker: holds the crashed process, captures its stacks once, writes the
/// first report and the dump from that capture, and the line for the user, lets the process go;
/// then completes the report, and asks whether to keep it. Without a dump the report is written all
/// the same and says why. Runs in a child that the guardian has forked for it, which dies with its
/// parent until the crashed process has been let go. What it leaves unfinished is the guardian's to
/// remove. Never returns: the exit status is 0, or 1 for a failure that was announced.
[[noreturn]] void childRunWorker(const WorkerTask& task, pid_t guardian);

/// What a request alone says, for a worker that died before it could write a report: the first text
/// of one that has the signal, the crashed thread's registers and `dump`.
std::string reportOf(const DumpRequest& request, const std::string& dump);

/// One line for the user, whatever came of a crash.
/// @param dump its path; empty: there is none
/// @param report its path; empty: there is none
/// @param why a clause, where one of them is missing
void announceOutcome(pid_t pid, const std::string& dump, const std::string& report,
                     const std::string& why);

}  // namespace Zendrik::Reporter
