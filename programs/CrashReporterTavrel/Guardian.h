#pragma once

#include <chrono>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "process/ProcessEnd.h"
#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/Worker.h"
#include "programs/CrashReporterTavrel/channel/ReportChannel.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"

namespace Zendrik::Reporter {

/// What the launcher has asked for: the same for every process of the reporter, for its whole run.
struct Service {
    ReportChannel channel;
    Plexum3::Base::ProcessEnd launcher;
    bool prompt;        ///< ask the user about each report
    NameSeed nameSeed;  ///< a guardian that serves a request anew gives it the name that it had
};

/// For how long a crashed process is held at most, whatever becomes of those who work on it. Before
/// that the guardian has given up on the dump, then on the report.
constexpr std::chrono::milliseconds holdLimit(8000);

/// The process that serves the report channel while the launcher runs. It never looks into a
/// crashed process or a dump, which may make a process fail: for each crash it forks a worker.
///
/// A worker has one attempt. When it dies or hangs, the guardian adds a line to its report, or
/// writes one of what the request says, lets the process go, and removes what is unfinished. While
/// a worker holds a crashed process it ends with its guardian: the next guardian serves the
/// request, which is still queued, and its worker writes files of the same names.
class Guardian {
  public:
    enum class End {
        Served,    ///< the launcher has ended, or SIGTERM came, and no worker is needed any more
        Orphaned,  ///< the standby has died, and no worker is under way
    };

    /// @param standby this process's parent
    Guardian(const Service& service, pid_t standby);

    /// Serves until the launcher has ended and no process waits any more, or the channel is shut;
    /// then waits for the workers, but for those that ask the user.
    End run();

  private:
    using Clock = std::chrono::steady_clock;
    struct Worker {
        pid_t pid;
        DumpRequest request;
        Plexum3::Base::ScopedFd progress;  ///< read end of its pipe; end of file is its death
        Stage stage;
        Clock::time_point deadline;
        DumpFolder folder;
        std::string guid;
    };

    /// One turn of the loop: a request starts a worker, whose bytes and end of file move it on; its
    /// deadline kills it. While a process is held the channel isn't listened to: the queue has one
    /// reader at a time, and the request being served is still its first.
    void waitForEvents();
    int waitMs() const;
    bool isHolding() const;
    bool isBusy() const;
    void serveNextRequest();
    bool wasServed(pid_t client);
    void startWorker(Worker worker);
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
