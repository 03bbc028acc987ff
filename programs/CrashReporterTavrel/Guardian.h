#pragma once

#include <chrono>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/Service.h"
#include "programs/CrashReporterTavrel/Worker.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"

namespace Zendrik::Reporter {

/// The process that serves the report channel while the launcher runs:
///
///     Guardian guardian(service, standby);
///     if (guardian.run() == Guardian::End::Orphaned) ...   // the standby has died: take its place
///
/// It never looks into a crashed process or a dump, which may make a process fail. For every
/// process that asks for a dump it forks a worker. None waits beside it between crashes: a fork of
/// this small process takes less than a millisecond, and what does not exist uses no memory and
/// can't have died unnoticed.
///
/// A worker has one attempt. It writes a report first, so when it dies or hangs later, that stands:
/// the guardian adds a line to it, lets the process go, and removes what is unfinished. Where there
/// is none yet, the guardian writes what the request says. While a worker holds a crashed process
/// it ends with its guardian: then the next guardian serves the request, which is still queued,
/// and its worker writes files of the same names.
class Guardian {
  public:
    enum class End {
        Served,    ///< the launcher has ended, or SIGTERM came, and no worker is needed any more
        Orphaned,  ///< the standby has died, and no worker is under way
    };

    /// @param standby this process's parent
    Guardian(const Service& service, pid_t standby);

    /// Serves until the launcher has ended and no process waits any more, or the channel is shut;
    /// then waits for the workers, so that reports in progress are finished. A worker that asks the
    /// user isn't waited for. Throws what allocation throws; the standby then starts another
    /// guardian.
    End run();

  private:
    using Clock = std::chrono::steady_clock;
    enum class Stage {
        Holding,    ///< the crashed process waits; no second request is served meanwhile
        Reporting,  ///< it has been let go
        Asking,     ///< the report is whole
    };

    struct Worker {
        pid_t pid;
        DumpRequest request;
        Plexum3::Base::ScopedFd progress;  ///< read end of its pipe; end of file is its death
        Stage stage;
        Clock::time_point deadline;
        DumpFolder folder;
        std::string guid;
    };

    /// One turn of the loop. Whatever happens shows as a descriptor that turns readable, or as a
    /// deadline:
    ///
    ///     channel    a request ────────► serveNextRequest ──► fork a worker: Holding
    ///                shut ─────────────► ending: nothing but the workers is waited for any more
    ///     launcher   ended ────────────► shut the channel, once no request waits
    ///     signals    SIGTERM ──────────► shut the channel
    ///                SIGCHLD ──────────► a stopped worker: SIGCONT
    ///     worker     "LetGo" ──────────► Reporting ┐
    ///                "Reported" ───────► Asking    ├ each a byte of its pipe
    ///                end of file ──────► finish    ┘
    ///     deadline   of a worker ──────► SIGKILL, which shows as its end of file
    ///
    ///     a request:   in the queue ··· taken out by the worker
    ///     its worker:  Holding ────────► Reporting ──► Asking
    ///     limits:      5 s from its      120 s         its own
    ///                  sending
    ///
    /// As long as the process isn't let go the channel isn't listened to: the queue has one reader
    /// at a time, and the request being served is still its first.
    void waitForEvents();
    int waitMs() const;
    bool isHolding() const;
    bool isBusy() const;
    void serveNextRequest();
    bool wasServed(pid_t client);
    void startWorker(Worker worker);
    void refuse(const DumpRequest& request, const std::string& why) const;
    void readProgress(Worker& worker);
    void finish(Worker& worker);
    void finishHeld(const Worker& worker, const std::string& end) const;
    void lookAfterWorkers(bool childChanged);
    static std::string lastLine(const Worker& worker, const std::string& why);

    const Service& service_;
    Plexum3::Base::ProcessEnd standby_;
    Plexum3::Base::ScopedFd signals_;  ///< signalfd of SIGTERM and SIGCHLD
    bool ending_ = false;
    bool launcherGone_ = false;
    std::list<Worker> workers_;
    std::vector<std::pair<pid_t, std::uint64_t>> served_;  ///< pid and start time
};

}  // namespace Zendrik::Reporter
