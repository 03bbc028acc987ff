#include "stacks/memory/HeldThreads.h"

#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <thread>

#include "process/ProcFiles.h"
#include "stacks/memory/TraceRefusal.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::listThreads;
using std::chrono::steady_clock;

Registers registersFrom(const user_regs_struct& raw) {
    Registers registers{};
    std::transform(std::begin(registerTable), std::end(registerTable), registers.begin(),
                   [&raw](const Register& each) { return raw.*each.inUser; });
    return registers;
}

}  // namespace

std::string HeldThreads::hold(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    std::size_t known = 0;
    do {
        known = threads_.size();
        const int error = seizeNewThreads(pid);
        if (threads_.empty()) {
            return whyNotTraceable(pid, error);
        }
        // Only a thread that still runs can start another.
        awaitStops(deadline);
    } while (threads_.size() > known && steady_clock::now() < deadline);
    for (const Thread& thread : threads_) {
        if (thread.state == State::Running) {
            unstopped_.push_back(thread.tid);
        }
    }
    return whyGone(pid);
}

/// All are seized before the first is stopped, so that they stop at nearly the same time.
/// @return the errno value of the last that failed
int HeldThreads::seizeNewThreads(pid_t pid) {
    int error = ESRCH;
    const std::size_t known = threads_.size();
    for (const pid_t tid : listThreads(pid)) {
        const auto isIt = [tid](const Thread& thread) { return thread.tid == tid; };
        if (std::any_of(threads_.begin(), threads_.end(), isIt)) {
            continue;
        }
        // Never with PTRACE_O_EXITKILL: whatever becomes of this process, the other one goes on.
        if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0) {
            threads_.emplace_back().tid = tid;
        } else {
            error = errno;  // it may have ended, or be the first one, which ended before the others
        }
    }
    for (std::size_t i = known; i < threads_.size(); ++i) {
        // Fails if it has ended, which is seen later.
        static_cast<void>(ptrace(PTRACE_INTERRUPT, threads_[i].tid, nullptr, nullptr));
    }
    return error;
}

void HeldThreads::lookAfter(Thread& thread) {
    int status = 0;
    const pid_t reported = waitpid(thread.tid, &status, __WALL | WNOHANG);
    if (reported == thread.tid && WIFSTOPPED(status)) {
        thread.state = State::Stopped;
        // It stopped on its way to a signal: then nothing but this can deliver it.
        thread.pendingSignal = status >> 16 == 0 ? WSTOPSIG(status) : 0;
    } else if (reported != 0) {
        thread.state = State::Ended;
    }
}

void HeldThreads::awaitStops(steady_clock::time_point deadline) {
    constexpr auto pause = std::chrono::microseconds(50);
    for (;;) {
        bool isComplete = true;
        for (Thread& thread : threads_) {
            if (thread.state == State::Running) {
                lookAfter(thread);
            }
            isComplete = isComplete && thread.state != State::Running;
        }
        if (isComplete || steady_clock::now() >= deadline) {
            return;
        }
        std::this_thread::sleep_for(pause);
    }
}

std::vector<CapturedThread> HeldThreads::readRegisters() const {
    std::vector<CapturedThread> captured;
    for (const Thread& thread : threads_) {
        user_regs_struct raw{};
        if (thread.state == State::Stopped &&
            ptrace(PTRACE_GETREGS, thread.tid, nullptr, &raw) == 0) {
            captured.push_back({thread.tid, {}, registersFrom(raw), raw.fs_base});
        }
    }
    return captured;
}

void HeldThreads::release() {
    for (const Thread& thread : threads_) {
        // Fails for one that has been killed meanwhile, and for one that didn't stop.
        static_cast<void>(
            ptrace(PTRACE_DETACH, thread.tid, nullptr, static_cast<long>(thread.pendingSignal)));
    }
    threads_.clear();
}

}  // namespace Zendrik::Stacks
