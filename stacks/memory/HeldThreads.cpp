#include "stacks/memory/HeldThreads.h"

#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <thread>

#include "process/ProcFiles.h"
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

using Plexum3::Base::readProcFile;
using Plexum3::Base::statusField;

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

std::string whyGone(pid_t pid) {
    const std::string status = readProcFile(pid, "status");
    if (status.empty()) {
        // A /proc mounted with hidepid shows a user his own processes alone.
        return kill(pid, 0) == -1 && errno == ESRCH ? "doesn't exist" : "is hidden from this user";
    }
    const std::string state = statusField(status, "State");
    // The first thread of a process may end before the others.
    return (state[0] == 'Z' || state[0] == 'X') && listThreads(pid).size() <= 1 ? "has ended" : "";
}

std::string whyNotTraceable(pid_t pid, int error) {
    if (std::string gone = whyGone(pid); !gone.empty()) {
        return gone;
    }
    const std::string status = readProcFile(pid, "status");
    if (const std::string tracer = statusField(status, "TracerPid"); tracer != "0") {
        return "is being traced by process " + tracer;
    }
    const bool isRoot = geteuid() == 0;
    const auto owner = static_cast<uid_t>(std::atol(statusField(status, "Uid").c_str()));
    if (!isRoot && owner != geteuid()) {
        return "belongs to another user: only that user and root may look at it";
    }
    const int scope = std::atoi(readProcFile(0, "sys/kernel/yama/ptrace_scope").c_str());
    if (scope >= 3) {
        return "may be looked at by nobody: kernel.yama.ptrace_scope is 3";
    }
    if (!isRoot && scope > 0) {
        return "may be looked at by root alone: kernel.yama.ptrace_scope is " +
               std::to_string(scope);
    }
    return std::string("may not be looked at (") + std::strerror(error) + ")";
}

}  // namespace Zendrik::Stacks
