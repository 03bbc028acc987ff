#pragma once

#include <string>

#include "programs/CrashReporterTavrel/channel/ReportChannel.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"

namespace Zendrik::Reporter {

/// How far a worker is; it writes each but the first to its pipe, as a byte.
enum class Stage : char {
    Holding,    ///< the crashed process waits; no second request is served meanwhile
    Reporting,  ///< it has been let go; report, dump and the user's line are there
    Asking,     ///< the report is whole
};

struct WorkerTask {
    const ReportChannel& channel;
    const DumpFolder& folder;
    const DumpRequest& request;  ///< the first in the queue
    const std::string& guid;     ///< name of dump and report
    bool prompt;                 ///< ask the user afterwards
    int progressFd;              ///< write end, closed by the worker's end
};

/// The whole life of a worker, a child of the guardian that dies with it until the crashed process
/// has been let go. Holds that, captures its stacks once, writes first report and dump from that,
/// and the user's line, lets it go; then completes the report, and asks whether to keep it.
/// The exit status is 0, or 1 for a failure that was announced.
[[noreturn]] void childRunWorker(const WorkerTask& task, pid_t guardian);

/// What a request alone says, for a worker that died before it could write a report.
std::string reportOf(const DumpRequest& request, const std::string& dump);

/// One line for the user, whatever came of a crash.
/// @param dump, report their paths, empty for none; @param why a clause, where one is missing
void announceOutcome(pid_t pid, const std::string& dump, const std::string& report,
                     const std::string& why);

}  // namespace Zendrik::Reporter
