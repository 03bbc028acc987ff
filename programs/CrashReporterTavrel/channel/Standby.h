#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/channel/Service.h"

namespace Zendrik::Reporter {

/// The process beside the guardian, so that no crashed process waits for a dead one:
///
/// - When the guardian has died, it starts another. A request that was being worked on is still in
///   the queue, and is served anew.
/// - When the guardian has been stopped, it sends SIGCONT.
/// - When a request is older than `holdLimit`, it kills the worker that holds the process, and lets
///   the process go. For that it needs nobody: the guardian may hang, or be held by a debugger.
/// - When the launcher has ended and nobody waits any more, it shuts the channel, by which the
///   guardian knows; and ends. So does SIGTERM.
///
/// The guardian watches this process in the same way and starts another one, so either may be
/// killed or stopped, and then the other. Only if both are at the same moment, nobody is left, and
/// a crash leaves the launcher waiting: it holds the channel itself, which so never hangs up.
///
/// It is the process that the launcher has started, and that PR_SET_PTRACER names, and the guardian
/// its child; for descendants may trace, and of the two it does less that could fell it. Only a
/// later one, started by a guardian that has lost its own, is the guardian's child; where ptrace is
/// restricted to descendants, no dumps can be made by then.
///
/// Idle it costs few pages of its own, being a fork of the same small program.
class Standby {
  public:
    /// @param guardian to stand beside; 0: none yet, `run` begins with starting it
    Standby(const Service& service, pid_t guardian);

    /// Stands by until the channel is shut. Forked guardians never return from here. Should no
    /// guardian be startable, it shuts the channel: crashes leave no dump then, but end.
    /// @return the exit status of the process, 0
    int run();

  private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        DumpRequest request;
        Clock::time_point since;
    };

    bool startGuardian();
    void waitForEvents();
    int waitMs() const;
    void mindRequest();
    void endWorkOn(const DumpRequest& request) const;

    const Service& service_;
    std::optional<ProcessWatch> guardian_;
    bool guardianIsChild_;
    Clock::time_point guardianStarted_;
    int earlyEnds_ = 0;                ///< guardians in a row that ended as soon as they began
    Plexum3::Base::ScopedFd signals_;  ///< signalfd of SIGTERM and SIGCHLD
    std::optional<Waiting> waiting_;   ///< the first request, since when it has been seen
};

}  // namespace Zendrik::Reporter
