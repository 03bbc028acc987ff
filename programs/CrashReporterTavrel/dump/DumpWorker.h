#pragma once

#include <sys/types.h>

#include <string>

#include "programs/CrashReporterTavrel/channel/ReportChannel.h"
#include "programs/CrashReporterTavrel/dump/DumpFolder.h"

namespace Zendrik::Reporter {

/// What a worker tells the guardian through its pipe, each a byte of its own.
enum class Progress : char {
    Held,      ///< the crashed process stands still, its stacks have been taken, the dump is begun
    Dumped,    ///< the crashed process has been let go
    Reported,  ///< the report has its final name, the user's line is out
};

/// Name of the report in the staging folder while it is being written; also its partial rest when
/// a worker dies over it.
inline constexpr char reportDraft[] = "report";

/// What is still tried of a crash; each is what remains after a worker has died over the one
/// before.
enum class Attempt {
    Dump,         ///< dump and report
    StacksAlone,  ///< the report alone
    FactsAlone,   ///< the report, from what is known without looking into the process
};

struct WorkerTask {
    const ReportChannel& channel;
    const DumpFolder& folder;
    const Staging& staging;
    const DumpRequest& request;  ///< the first in the queue
    Attempt attempt;
    const std::string& whyNoDump;  ///< how the first worker ended, a clause
    const std::string& guid;       ///< name of dump and report
    bool prompt;                   ///< ask the user afterwards
    int progressFd;                ///< write end, closed by the worker's end
};

/// The whole life of a worker: writes the dump of the waiting process, lets it go, then writes the
/// report, tells the user, and asks whether to keep it. Without a dump the report is written all
/// the same and says why. Runs in a child that the guardian has forked for it, which dies with its
/// parent until the crashed process has been let go. What is left in the staging folder is the
/// guardian's to remove. Never returns: the exit status is 0, or 1 for a failure that was
/// announced.
[[noreturn]] void childRunWorker(const WorkerTask& task, pid_t guardian);

/// What the user can do about a dump that failed with this errno: words to follow a semicolon.
std::string adviceFor(int error);

}  // namespace Zendrik::Reporter
