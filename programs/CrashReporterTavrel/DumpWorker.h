#pragma once

#include <sys/types.h>

#include <string>

#include "programs/CrashReporterTavrel/DumpFolder.h"
#include "programs/CrashReporterTavrel/ReportChannel.h"

namespace Zendrik::Reporter {

// What a worker tells the guardian through its pipe, each time in one whole write.
struct Progress {
    enum class Stage : char {
        Dumped,    // the dump has its final name and the crashed process has been let go
        Reported,  // the report has its final name, the user's line is out
    };
    Stage stage;
    char guid[40];  // null-terminated
};
static_assert(sizeof(Progress) <= 512);  // POSIX's least PIPE_BUF: a record is never split

// Name of the report in the staging folder while it is being written; also its partial rest when
// a worker dies over it.
inline constexpr char kReportDraft[] = "report";

struct WorkerTask {
    const ReportChannel& channel;
    const DumpFolder& folder;
    const Staging& staging;
    pid_t client;    // who waits first in the queue
    bool prompt;     // ask the user afterwards
    int progressFd;  // write end, closed by the worker's end
};

// The whole life of a worker: serves the waiting request with Breakpad's CrashGenerationServer,
// then, when the crashed process has been let go, writes the report, tells the user, and asks
// whether to keep it. Runs in a child forked for it; returns the child's exit status.
int runWorker(const WorkerTask& task);

// What the user can do about a dump that failed with this errno: words to follow a semicolon.
std::string adviceFor(int error);

}  // namespace Zendrik::Reporter
