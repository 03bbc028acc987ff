#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/Service.h"

namespace Zendrik::Reporter {

/// The guardian's parent, so that no crashed process waits for a dead or stopped one:
///
/// - When the guardian has died, it starts another. A request that was being worked on is still in
///   the queue, and is served anew.
/// - When the guardian has been stopped, it sends SIGCONT.
/// - When a request is older than `holdLimit`, it kills the worker that holds the process, and lets
///   the process go. For that it needs no other process: the guardian may hang, or be held by a
///   debugger.
/// - When the channel is shut, it ends after its guardian, which may have been stopped while it
///   finishes a report. SIGTERM shuts it.
///
/// When this process has died, its guardian takes its place and starts a guardian of its own. Only
/// while both are dead or stopped a crash leaves the launcher waiting: it holds the channel itself,
/// which so never hangs up.
///
/// It is the process that the launcher has started, and that PR_SET_PTRACER names: its descendants
/// may trace. Where ptrace is restricted to descendants, no dumps can be made once it has died.
///
/// It never wakes by itself while nothing happens, and has few pages of its own, being a fork of
/// the same small program.
class Standby {
  public:
    explicit Standby(const Service& service);

    /// Stands by until the channel is shut and the guardian has ended. Should no guardian be
    /// startable, it shuts the channel: crashes leave no dump then, but end.
    /// @return the exit status of the process, 0
    int run();

  private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        DumpRequest request;
        Clock::time_point deadline;
    };

    bool startGuardian();
    void waitForEvents();
    int waitMs() const;
    void mindRequest();
    void endWorkOn(const DumpRequest& request) const;

    const Service& service_;
    std::optional<Plexum3::Base::ProcessEnd> guardian_;
    Clock::time_point guardianStarted_;
    int earlyEnds_ = 0;                ///< guardians in a row that ended as soon as they began
    Plexum3::Base::ScopedFd signals_;  ///< signalfd of SIGTERM and SIGCHLD
    std::optional<Waiting> waiting_;   ///< the first request
};

}  // namespace Zendrik::Reporter
