#pragma once

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/channel/Service.h"
#include "programs/CrashReporterTavrel/dump/DumpFolder.h"
#include "programs/CrashReporterTavrel/dump/DumpWorker.h"

namespace Zendrik::Reporter {

/// The process that serves the report channel while the launcher runs:
///
///     Guardian guardian(service, standby);
///     return guardian.run();
///
/// It does nothing that could fell it: it never looks into a crashed process or a dump. For every
/// process that asks for a dump it forks a worker. None waits beside it between crashes: a fork of
/// this small process takes less than a millisecond, and what does not exist uses no memory and
/// can't have died unnoticed.
///
/// A worker that dies or hangs costs its dump, not more. The request stays in the queue until the
/// worker has what it needs, so the guardian can hand it to a second worker, which doesn't try a
/// dump but writes the report alone, and to a third, which doesn't even look into the process; and
/// after that lets the process go. What a worker left half done is taken away. While a worker holds
/// a crashed process it ends with its guardian: then the next guardian serves the request from the
/// start.
///
/// The two processes look after each other, see Standby.
class Guardian {
  public:
    /// @param standby the process that stands by, this one's parent or its child
    Guardian(const Service& service, pid_t standby);

    /// Serves until the channel is shut, which SIGTERM does, too; then waits for the workers, so
    /// that reports in progress are finished. A worker that asks the user isn't waited for.
    /// Throws what allocation throws; the standby then starts another guardian.
    /// @return the exit status of the process, 0
    int run();

  private:
    using Clock = std::chrono::steady_clock;
    enum class Stage {
        Holding,    ///< the crashed process waits; no second request is served meanwhile
        Dumping,    ///< so it does, and its stacks have been taken
        Reporting,  ///< it has been let go, from here on nobody waits
        Asking,     ///< the report has its name
    };

    struct Worker {
        pid_t pid;
        DumpRequest request;
        Attempt attempt;
        std::string whyNoDump;             ///< how the first worker of a request ended
        Plexum3::Base::ScopedFd progress;  ///< read end of its pipe; end of file is its death
        Stage stage;
        Clock::time_point deadline;
        DumpFolder folder;
        Staging staging;
        std::string guid;
    };

    /// One turn of the loop. Whatever happens shows as a descriptor that turns readable, or as a
    /// deadline:
    ///
    ///     channel    a request ────────► serveNextRequest ──► fork a worker: Holding
    ///                shut ─────────────► ending: nothing but the workers is waited for any more
    ///     signals    SIGTERM ──────────► shut the channel
    ///                SIGCHLD ──────────► a stopped worker: SIGCONT
    ///     standby    ended ────────────► fork another
    ///     worker     "Dumped" ─────────► Reporting ┐
    ///                "Reported" ───────► Asking    ├ each a byte of its pipe
    ///                end of file ──────► finish    ┘ before "Dumped": once more, trying less
    ///     deadline   of a worker ──────► SIGKILL, which shows as its end of file
    ///
    ///     a request:   in the queue ·························· taken out by the worker
    ///     its worker:  Holding ─────► Dumping ────────────────► Reporting ──► Asking
    ///     limits:      5, 6.5, 7 s from when it was sent        120 s         its own
    ///
    /// As long as the process isn't let go the channel isn't listened to: the queue has one reader
    /// at a time, and the request being served is still its first.
    void waitForEvents();
    int waitMs() const;
    bool isHolding() const;
    void lookAfterStandby();
    void serveNextRequest();
    bool wasServed(pid_t client);
    void startWorker(Worker worker);
    void refuse(const DumpRequest& request, const std::string& line);
    void readProgress(Worker& worker);
    void finish(Worker& worker);
    void finishHeld(Worker& worker, int status);
    void noteUnfinishedReport(const Worker& worker, int status) const;
    void lookAfterWorkers(bool childChanged) const;

    const Service& service_;
    ProcessWatch standby_;
    bool standbyIsChild_ = false;
    Plexum3::Base::ScopedFd signals_;  ///< signalfd of SIGTERM and SIGCHLD
    bool ending_ = false;
    std::list<Worker> workers_;
    std::vector<std::pair<pid_t, std::uint64_t>> served_;  ///< pid and start time
};

}  // namespace Zendrik::Reporter
