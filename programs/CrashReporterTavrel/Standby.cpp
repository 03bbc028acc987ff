#include "programs/CrashReporterTavrel/Standby.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "process/ProcFiles.h"
#include "programs/CrashReporterTavrel/channel/Announcement.h"
#include "programs/CrashReporterTavrel/channel/HandledSignals.h"

namespace Zendrik::Reporter {

namespace {

using std::chrono::milliseconds;

// One that has lost its standby takes its place.
[[noreturn]] void childRunGuardian(const Service& service, pid_t standby) {
    if (Guardian(service, standby).run() == Guardian::End::Served) {
        _exit(EXIT_SUCCESS);
    }
    _exit(Standby(service).run());
}

}  // namespace

Standby::Standby(const Service& service)
    : service_(service), guardianStarted_(Clock::now()), signals_(openSignalFd()) {}

int Standby::run() {
    while (!service_.channel.isShut()) {
        if ((!guardian_ || guardian_->hasEnded()) && !startGuardian()) {
            const int error = errno;
            service_.channel.shut();
            announce("no crash reports: the process that serves them can't be kept running (" +
                     std::string(std::strerror(error)) + ")");
            return 0;
        }
        waitForEvents();
        mindRequest();
    }
    while (guardian_ && !guardian_->hasEnded()) {
        waitForEvents();
    }
    return 0;
}

// False when no process can be forked, or one guardian after the other ends at once.
bool Standby::startGuardian() {
    constexpr int endsTolerated = 3;
    constexpr std::chrono::seconds early(1);
    earlyEnds_ = guardian_ && Clock::now() - guardianStarted_ < early ? earlyEnds_ + 1 : 0;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    const pid_t self = getpid();
    errno = ECHILD;
    const pid_t guardian = earlyEnds_ > endsTolerated ? -1 : fork();
    if (guardian == 0) {
        // This process has one thread, so its child may use the heap.
        childRunGuardian(service_, self);
    }
    if (guardian > 0) {
        guardian_.emplace(guardian);
        guardianStarted_ = Clock::now();
    }
    return guardian > 0;
}

int Standby::waitMs() const {
    const int looks = guardian_->pollIntervalMs();
    if (!waiting_) {
        return looks;
    }
    const auto left = std::chrono::ceil<milliseconds>(waiting_->deadline - Clock::now()).count();
    const int leftMs = static_cast<int>(std::max<decltype(left)>(left, 0));
    return looks < 0 ? leftMs : std::min(looks, leftMs);
}

void Standby::waitForEvents() {
    std::array<pollfd, 3> waits{{
        // A request that waits must not spin the loop, nor the channel's end, which shows always.
        {service_.channel.isShut() ? -1 : service_.channel.fd(),
         static_cast<short>(waiting_ ? 0 : POLLIN), 0},
        {guardian_->fd(), POLLIN, 0},
        {signals_.get(), POLLIN, 0},
    }};
    if (poll(waits.data(), waits.size(), waitMs()) < 0) {
        return;  // EINTR, or no memory in the kernel: the loop comes again
    }
    const TakenSignals taken = takeSignals(signals_.get());
    if (taken.terminate) {
        service_.channel.shut();
    }
    if (taken.child) {
        guardian_->wakeIfStopped();
    }
}

// Most requests have been served by the time at which this process looks again.
void Standby::mindRequest() {
    const std::optional<DumpRequest> first = service_.channel.peek();
    if (!first) {
        waiting_.reset();
        return;
    }
    if (!waiting_ || !waiting_->request.isSameAs(*first)) {
        waiting_ = Waiting{*first, Clock::now() + holdLimit - first->age};
    }
    if (Clock::now() >= waiting_->deadline) {
        endWorkOn(*first);
        service_.channel.letGo(*first);
        announceOutcome(
            first->pid, "", "",
            "the guardian, process " + std::to_string(guardian_->pid()) + ", didn't answer");
        waiting_.reset();
    }
}

// A worker that hangs may hold the process's threads as their tracer. A debugger of the user's may,
// too, and is left alone: workers are children of the guardian.
void Standby::endWorkOn(const DumpRequest& request) const {
    const auto pidBehind = [](const char* name, pid_t pid) {
        using namespace Plexum3::Base;
        return std::atoi(statusField(readProcFile(pid, "status"), name).c_str());
    };
    for (const pid_t tid : Plexum3::Base::listThreads(request.pid)) {
        const pid_t tracer = pidBehind("TracerPid", tid);
        if (tracer > 0 && pidBehind("PPid", tracer) == guardian_->pid()) {
            static_cast<void>(kill(tracer, SIGKILL));  // the guardian has not reaped it
        }
    }
}

}  // namespace Zendrik::Reporter
