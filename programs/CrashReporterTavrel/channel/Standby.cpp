#include "programs/CrashReporterTavrel/channel/Standby.h"

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

#include "programs/CrashReporterTavrel/channel/Guardian.h"
#include "programs/CrashReporterTavrel/channel/HandledSignals.h"
#include "programs/CrashReporterTavrel/report/Announcement.h"
#include "stacks/ProcFiles.h"

namespace Zendrik::Reporter {

namespace {

using std::chrono::milliseconds;

constexpr int secondMs = 1000;

}  // namespace

Standby::Standby(const Service& service, pid_t guardian)
    : service_(service),
      guardianIsChild_(guardian == 0),
      guardianStarted_(Clock::now()),
      signals_(openSignalFd()) {
    if (guardian != 0) {
        guardian_.emplace(guardian);
    }
}

int Standby::run() {
    while (!service_.channel.isShut()) {
        if ((!guardian_ || guardian_->gone()) && !startGuardian()) {
            const int error = errno;
            service_.channel.shut();
            announce("no crash reports: the process that serves them can't be kept running (%s)",
                     std::strerror(error));
            return 0;
        }
        waitForEvents();
        mindRequest();
        // What waits when the launcher has ended is served all the same: a child of its, or itself.
        if (service_.launcher.gone() && !waiting_) {
            service_.channel.shut();
        }
    }
    return 0;
}

// False when there can't be one: no process can be forked, or one after the other ends at once.
bool Standby::startGuardian() {
    constexpr int endsTolerated = 3;
    earlyEnds_ =
        guardian_ && Clock::now() - guardianStarted_ < milliseconds(secondMs) ? earlyEnds_ + 1 : 0;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    const pid_t self = getpid();
    errno = ECHILD;
    const pid_t guardian = earlyEnds_ > endsTolerated ? -1 : fork();
    if (guardian == 0) {
        // This process has one thread, so its child may use the heap.
        _exit(Guardian(service_, self).run());
    }
    if (guardian > 0) {
        guardian_.emplace(guardian);
        guardianIsChild_ = true;
        guardianStarted_ = Clock::now();
    }
    return guardian > 0;
}

int Standby::waitMs() const {
    int shortest = std::max(service_.launcher.pollIntervalMs(), guardian_->pollIntervalMs());
    // Of a child the kernel tells when it has been stopped.
    if (shortest < 0 && (waiting_ || !guardianIsChild_)) {
        shortest = secondMs;
    }
    return shortest;
}

void Standby::waitForEvents() {
    // Without a request its end is always news: it may have ended before this process first looked.
    const bool launcherIsOver = waiting_ && service_.launcher.gone();
    std::array<pollfd, 4> waits{{
        // A request that waits must not spin the loop; the channel's end shows in any case.
        {service_.channel.fd(), static_cast<short>(waiting_ ? 0 : POLLIN), 0},
        {guardian_->fd(), POLLIN, 0},
        {launcherIsOver ? -1 : service_.launcher.fd(), POLLIN, 0},
        {signals_.get(), POLLIN, 0},
    }};
    if (poll(waits.data(), waits.size(), waitMs()) < 0) {
        return;  // EINTR, or no memory in the kernel: the loop comes again
    }
    if (takeSignals(signals_.get()).terminate) {
        service_.channel.shut();
    }
    guardian_->wakeIfStopped();
}

void Standby::mindRequest() {
    const std::optional<DumpRequest> first = service_.channel.peek();
    if (!first) {
        waiting_.reset();
        return;
    }
    if (!waiting_ || !waiting_->request.isSameAs(*first)) {
        waiting_ = Waiting{*first, Clock::now()};
    }
    if (first->age >= holdLimit || Clock::now() - waiting_->since >= holdLimit) {
        endWorkOn(*first);
        service_.channel.letGo(*first);
        announce("no dump and no report of process %d: the guardian, process %d, didn't answer",
                 static_cast<int>(first->pid), static_cast<int>(guardian_->pid()));
        waiting_.reset();
    }
}

// A worker that hangs may hold the process's threads as their tracer. A debugger of the user's may,
// too, and is left alone: workers are children of the guardian.
void Standby::endWorkOn(const DumpRequest& request) const {
    const std::string guardian = std::to_string(guardian_->pid());
    for (const pid_t tid : Stacks::listThreads(request.pid)) {
        const std::string field =
            Stacks::statusField(Stacks::readProcFile(tid, "status"), "TracerPid");
        const pid_t tracer = std::atoi(field.c_str());
        if (tracer > 0 &&
            Stacks::statusField(Stacks::readProcFile(tracer, "status"), "PPid") == guardian) {
            static_cast<void>(kill(tracer, SIGKILL));  // the guardian has not reaped it
        }
    }
}

}  // namespace Zendrik::Reporter
