#pragma once

#include <sys/types.h>

#include <optional>

#include "programs/CrashReporterTavrel/Guardian.h"

namespace Zendrik::Reporter {

/// The guardian's parent, so that no crashed process waits for a dead or stopped one. It starts
/// another guardian for one that has died, and wakes one that was stopped. When a request is older
/// than `holdLimit` it kills the worker that holds the process and lets the process go, without
/// the guardian, which may hang. SIGTERM shuts the channel; then it ends after its guardian.
///
/// When this process has died, its guardian takes its place. It is the one that PR_SET_PTRACER
/// names: where ptrace is restricted to descendants, there are no dumps once it has died.
class Standby {
  public:
    explicit Standby(const Service& service);

    /// Returns the exit status, 0, when the channel is shut and the guardian has ended. Where no
    /// guardian can be started it shuts the channel: crashes leave no dump then, but end.
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
