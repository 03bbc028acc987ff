#include "programs/CrashReporterTavrel/Guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "process/DescriptorIo.h"
#include "process/ProcessEnd.h"
#include "programs/CrashReporterTavrel/channel/Announcement.h"
#include "programs/CrashReporterTavrel/channel/HandledSignals.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;
using std::chrono::milliseconds;

// From when the request was sent. A dump takes far less than a second, also of a big process, of
// which it holds the stacks alone; what takes longer is a file system that hangs.
constexpr milliseconds dumpLimit(5000);
static_assert(dumpLimit < holdLimit);
constexpr std::chrono::seconds reportLimit(120);

// The deadline of a worker that has exceeded its own.
constexpr auto killed = std::chrono::steady_clock::time_point::max();

std::string waitForEnd(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0           ? ""
           : WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                                 : "exit status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

std::string Guardian::lastLine(const Worker& worker, const std::string& why) {
    return "\nThe report ends here: " + why +
           (worker.folder.holds(worker.guid + ".dmp") ? "; the dump is whole.\n"
                                                      : "; there is no dump.\n");
}

Guardian::Guardian(const Service& service, pid_t standby)
    : service_(service), standby_(standby), signals_(openSignalFd()) {}

Guardian::End Guardian::run() {
    int error = 0;
    std::string refusal;
    DumpFolder::openConfigured(&error, &refusal).sweep();
    if (!refusal.empty()) {
        announce(refusal + "; until then crash reports go to /var/tmp");
    }
    while (!ending_) {
        if (!isBusy() && standby_.hasEnded()) {
            return End::Orphaned;
        }
        waitForEvents();
    }
    service_.channel.shut();
    while (isBusy()) {
        waitForEvents();
    }
    standby_.wakeIfStopped();  // it ends, too
    return End::Served;
}

bool Guardian::isHolding() const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return worker.stage == Stage::Holding; });
}

bool Guardian::isBusy() const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return worker.stage != Stage::Asking; });
}

int Guardian::waitMs() const {
    int shortest =
        ending_ ? -1 : std::max(service_.launcher.pollIntervalMs(), standby_.pollIntervalMs());
    for (const Worker& worker : workers_) {
        if (worker.stage != Stage::Asking) {
            const auto left =
                std::chrono::ceil<milliseconds>(worker.deadline - Clock::now()).count();
            const int leftMs = static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
            shortest = shortest < 0 ? leftMs : std::min(shortest, leftMs);
        }
    }
    return shortest;
}

void Guardian::waitForEvents() {
    const auto when = [](bool wanted, int fd) { return wanted ? fd : -1; };
    const short requests = isHolding() ? 0 : POLLIN;  // the channel's end shows in any case
    std::vector<pollfd> waits{{when(!ending_, service_.channel.fd()), requests, 0},
                              {when(!ending_ && !launcherGone_, service_.launcher.fd()), POLLIN, 0},
                              {when(!ending_ && !isBusy(), standby_.fd()), POLLIN, 0},
                              {signals_.get(), POLLIN, 0}};
    const auto firstWorker = static_cast<std::ptrdiff_t>(waits.size());
    for (const Worker& worker : workers_) {
        waits.push_back({worker.progress.get(), POLLIN, 0});
    }
    if (poll(waits.data(), waits.size(), waitMs()) < 0) {
        return;  // EINTR, or no memory in the kernel: the loop comes again
    }
    // A worker that is started below has no wait yet.
    auto worker = workers_.begin();
    for (auto wait = waits.begin() + firstWorker; wait != waits.end(); ++wait, ++worker) {
        if (wait->revents != 0) {
            readProgress(*worker);
        }
    }
    workers_.remove_if([](const Worker& worker) { return worker.pid < 0; });
    const TakenSignals taken = takeSignals(signals_.get());
    lookAfterWorkers(taken.child);
    launcherGone_ = launcherGone_ || service_.launcher.hasEnded();
    // What waits when the launcher has ended is served all the same: a child of its, or itself.
    ending_ = ending_ || taken.terminate || service_.channel.isShut() ||
              (launcherGone_ && !service_.channel.peek());
    if (!ending_) {
        serveNextRequest();
    }
}

void Guardian::serveNextRequest() {
    const std::optional<DumpRequest> request = isHolding() ? std::nullopt : service_.channel.peek();
    if (!request) {
        return;
    }
    if (!request->wellFormed || wasServed(request->pid)) {
        service_.channel.letGo(*request);
        return;
    }
    int error = 0;
    std::string refusal;
    DumpFolder folder = DumpFolder::openConfigured(&error, &refusal);
    if (error != 0) {
        service_.channel.letGo(*request);
        announceOutcome(request->pid, "", "",
                        folder.pathOf("") + ": " + strerror(error) + "; " + adviceFor(error));
        return;
    }
    const std::uint64_t startTicks = Plexum3::Base::readProcessLife(request->pid).startTicks;
    startWorker({-1,
                 *request,
                 ScopedFd(),
                 Stage::Holding,
                 {},
                 std::move(folder),
                 guidOf(service_.nameSeed, request->pid, startTicks)});
    standby_.wakeIfStopped();  // it is needed should this process be lost now
}

// Two threads that crash together ask twice: when the second is heard, the first has brought the
// process down already or is about to. What can't be looked at can't be distinguished, and is
// served: what comes of it says why it can't be.
bool Guardian::wasServed(pid_t client) {
    using Plexum3::Base::ProcessLife;
    const ProcessLife life = Plexum3::Base::readProcessLife(client);
    if (life.startTicks == 0) {
        return life.state == ProcessLife::State::Ended;
    }
    const std::pair<pid_t, std::uint64_t> process(client, life.startTicks);
    if (std::find(served_.begin(), served_.end(), process) != served_.end()) {
        return true;
    }
    constexpr std::size_t remembered = 32;
    if (served_.size() == remembered) {
        served_.erase(served_.begin());
    }
    served_.push_back(process);
    return false;
}

void Guardian::startWorker(Worker worker) {
    worker.deadline = Clock::now() + dumpLimit - worker.request.age;
    int ends[2] = {-1, -1};
    const bool piped = pipe2(ends, O_CLOEXEC) == 0;
    worker.progress.reset(ends[0]);
    const ScopedFd writeEnd(ends[1]);
    const pid_t self = getpid();
    worker.pid = piped ? fork() : -1;
    const int error = errno;
    if (worker.pid == 0) {
        // This process has one thread, so its child may use the heap.
        childRunWorker({service_.channel, worker.folder, worker.request, worker.guid,
                        service_.prompt, writeEnd.get()},
                       self);
    }
    if (worker.pid < 0) {
        finishHeld(worker, std::string("could not be started (") + strerror(error) + ")");
        return;
    }
    workers_.push_back(std::move(worker));
}

void Guardian::readProgress(Worker& worker) {
    if (Plexum3::Base::readRetry(worker.progress.get(), &worker.stage, 1, nullptr) == 1) {
        worker.deadline = Clock::now() + reportLimit;
    } else {
        finish(worker);
    }
}

void Guardian::finish(Worker& worker) {
    const std::string failure = waitForEnd(worker.pid);
    worker.pid = -1;
    worker.folder.removeUnfinished(worker.guid);
    if (worker.stage == Stage::Holding) {
        finishHeld(worker, (worker.deadline == killed ? "took too long (" : "ended (") +
                               (failure.empty() ? "exit status 0" : failure) + ")");
    } else if (worker.stage == Stage::Reporting && !failure.empty()) {
        // The first report stands; where there is none, there was no room for it.
        static_cast<void>(worker.folder.appendText(
            worker.guid + ".txt", lastLine(worker, "the reporter failed (" + failure + ")")));
    }
}

// It ended over a process that may still be held.
void Guardian::finishHeld(const Worker& worker, const std::string& end) const {
    const std::string why = "the process that takes dump and report " + end;
    const std::string report = worker.guid + ".txt";
    const std::string dump =
        worker.folder.holds(worker.guid + ".dmp") ? worker.folder.pathOf(worker.guid + ".dmp") : "";
    const std::string last = lastLine(worker, why);
    int error = worker.folder.appendText(report, last);
    if (error == ENOENT) {
        error = worker.folder.writeText(
            report, reportOf(worker.request, dump.empty() ? "none: " + why : dump) + last);
    }
    service_.channel.letGo(worker.request);
    announceOutcome(worker.request.pid, dump, error == 0 ? worker.folder.pathOf(report) : "", why);
}

// One that waits in the kernel for a file server may take its time to end.
void Guardian::lookAfterWorkers(bool childChanged) {
    for (Worker& worker : workers_) {
        if (worker.stage != Stage::Asking && Clock::now() >= worker.deadline) {
            static_cast<void>(kill(worker.pid, SIGKILL));  // not reaped yet; its pipe shows its end
            worker.deadline = killed;
        } else if (childChanged) {
            static_cast<void>(kill(worker.pid, SIGCONT));  // does nothing to one that runs
        }
    }
}

}  // namespace Zendrik::Reporter
