#pragma once

#include <chrono>
#include <list>
#include <utility>
#include <vector>

#include "programs/CrashReporterTavrel/DumpFolder.h"
#include "programs/CrashReporterTavrel/DumpWorker.h"
#include "programs/CrashReporterTavrel/LauncherWatch.h"
#include "programs/CrashReporterTavrel/ReportChannel.h"

namespace Zendrik::Reporter {

// The process that the launcher has started, and that PR_SET_PTRACER names. It holds the server end
// of the report channel for as long as the launcher runs and does nothing that could fell it: it
// never looks into a crashed process or a dump. For every process that asks for a dump it forks a
// worker, which may trace as its descendant. A worker that dies or hangs costs its dump, not more:
// its end lets the crashed process go, and what it left half done is taken away.
//
// No worker waits beside it between crashes: a fork of this small process takes less than a
// millisecond, and what does not exist uses no memory and can't have died unnoticed.
class Guardian {
  public:
    Guardian(ReportChannel channel, LauncherWatch launcher, bool prompt);

    // Serves until the launcher has ended, the channel has no client end left, or SIGTERM has come;
    // then refuses further requests and waits for the workers, so that reports in progress are
    // finished. Returns the exit status of the process, 0.
    int run();

  private:
    using Clock = std::chrono::steady_clock;
    enum class Stage { Dumping, Reporting, Asking };

    struct Worker {
        pid_t pid;
        pid_t client;
        ScopedFd progress;  // read end of its pipe; end of file is its death
        Stage stage;
        Clock::time_point deadline;
        DumpFolder folder;
        Staging staging;
        std::string guid;
    };

    void waitForEvents();
    int waitMs() const;
    bool isDumping() const;
    void serveNextRequest();
    void startWorker(pid_t client);
    void readProgress(Worker& worker);
    void finish(Worker& worker);
    void noteUnfinishedReport(const Worker& worker, int status) const;
    void killOverdueWorkers();
    void fallSilentWhileAsking();
    bool wasServed(pid_t client);

    ReportChannel channel_;
    LauncherWatch launcher_;
    bool prompt_;
    ScopedFd terminate_;  // signalfd of SIGTERM
    bool ending_ = false;
    bool standardErrorHeld_ = true;
    std::list<Worker> workers_;
    std::vector<std::pair<pid_t, int64_t>> served_;  // pid and start time
};

}  // namespace Zendrik::Reporter
