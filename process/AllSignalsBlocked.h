#pragma once

/// Keeps signals away from a stretch of code, or from what is born in it:
///
///     const AllSignalsBlocked blocked;
///     ... a thread that is created here never receives a signal of the process; a child that is
///         forked here runs none of its parent's handlers ...
///
/// Touches the mask of the calling thread alone.

#include <pthread.h>

#include <csignal>

namespace Plexum3::Base {

/// Blocks every signal that can be blocked; puts the mask that was there before back when it goes.
class AllSignalsBlocked {
  public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        // Fails for a bad first argument only, here and below.
        static_cast<void>(pthread_sigmask(SIG_SETMASK, &all, &previous_));
    }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
    ~AllSignalsBlocked() {
        if (restores_) {
            static_cast<void>(pthread_sigmask(SIG_SETMASK, &previous_, nullptr));
        }
    }

    /// The signals stay blocked when this object goes.
    void leaveBlocked() noexcept { restores_ = false; }

  private:
    sigset_t previous_{};
    bool restores_ = true;
};

}  // namespace Plexum3::Base
