#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// All threads of a process, held where they are by ptrace(2) until this is released or destroyed.
/// For one thread, from the first call to the last. When that thread ends in the meantime, the
/// kernel lets everything go.
///
/// A process that was stopped (SIGSTOP) stays so afterwards, and a signal that came meanwhile
/// reaches its thread. A system call that waits goes on waiting, but for those that signal(7) names
/// as interrupted by a stop.
class HeldThreads {
  public:
    HeldThreads() = default;
    HeldThreads(const HeldThreads&) = delete;
    HeldThreads& operator=(const HeldThreads&) = delete;
    ~HeldThreads() { release(); }

    /// Holds all threads of `pid`, also those that start meanwhile. A thread in a system call that
    /// nothing can interrupt doesn't stop, and isn't waited for longer than `limit`.
    /// @return why not, as whyNotTraceable has it; empty if the process is held
    std::string hold(pid_t pid, std::chrono::milliseconds limit);

    /// Threads that didn't stop. They would, later, and then stay held by the thread of the caller
    /// until it ends.
    const std::vector<pid_t>& unstopped() const { return unstopped_; }

    /// The registers and thread pointers of the threads that stopped, without names.
    std::vector<CapturedThread> readRegisters() const;

    void release();

  private:
    enum class State { Running, Stopped, Ended };

    struct Thread {
        pid_t tid = 0;
        State state = State::Running;
        int pendingSignal = 0;
    };

    int seizeNewThreads(pid_t pid);
    void awaitStops(std::chrono::steady_clock::time_point deadline);
    static void lookAfter(Thread& thread);

    std::vector<Thread> threads_;
    std::vector<pid_t> unstopped_;
};

/// Why an attempt to trace a process failed, looked up after it: a clause whose subject is the
/// process ("is being traced by process 4711").
/// @param error the attempt's errno value. It is all that is given where no reason is found
std::string whyNotTraceable(pid_t pid, int error);

/// What a process that can't be traced because it isn't there any more is said to be; empty for one
/// that is there.
std::string whyGone(pid_t pid);

}  // namespace Zendrik::Stacks
