#include "programs/CrashReporterTavrel/channel/Guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "process/DescriptorIo.h"
#include "process/ProcessLife.h"
#include "programs/CrashReporterTavrel/channel/HandledSignals.h"
#include "programs/CrashReporterTavrel/channel/Standby.h"
#include "programs/CrashReporterTavrel/report/Announcement.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;
using std::chrono::milliseconds;

// Until when each attempt has to be through, from when the request was sent. A dump takes far less
// than a second, also of a big process, of which it holds the stacks alone; what takes longer is a
// file system that hangs.
milliseconds limitOf(Attempt attempt) {
    constexpr milliseconds dump(5000);
    constexpr milliseconds stacks(6500);
    constexpr milliseconds facts(7000);
    static_assert(facts < holdLimit);
    return attempt == Attempt::Dump ? dump : attempt == Attempt::StacksAlone ? stacks : facts;
}

constexpr std::chrono::seconds reportLimit(120);

int waitForEnd(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string endOf(int status) {
    return WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string noDumpOf(const DumpRequest& request) {
    return "no dump of process " + std::to_string(request.pid);
}

}  // namespace

Guardian::Guardian(const Service& service, pid_t standby)
    : service_(service), standby_(standby), signals_(openSignalFd()) {}

int Guardian::run() {
    int error = 0;
    DumpFolder::open(DumpFolder::configuredPath(), &error).sweep();
    while (!ending_) {
        waitForEvents();
    }
    service_.channel.shut();
    while (std::any_of(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return worker.stage != Stage::Asking; })) {
        waitForEvents();
    }
    return 0;
}

bool Guardian::isHolding() const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return worker.stage < Stage::Reporting; });
}

int Guardian::waitMs() const {
    constexpr int lookMs = 1000;  // a parent that has been stopped shows only when it is looked at
    int shortest = ending_ ? -1 : standbyIsChild_ ? standby_.pollIntervalMs() : lookMs;
    for (const Worker& worker : workers_) {
        if (worker.stage != Stage::Asking) {
            const auto left =
                std::chrono::ceil<milliseconds>(worker.deadline - Clock::now()).count();
            const int leftMs = static_cast<int>(std::max<decltype(left)>(left, 0));
            shortest = shortest < 0 ? leftMs : std::min(shortest, leftMs);
        }
    }
    return shortest;
}

void Guardian::waitForEvents() {
    const auto whenServing = [this](int fd) { return ending_ ? -1 : fd; };
    const short requests = isHolding() ? 0 : POLLIN;  // the channel's end shows in any case
    std::vector<pollfd> waits{{whenServing(service_.channel.fd()), requests, 0},
                              {whenServing(standby_.fd()), POLLIN, 0},
                              {signals_.get(), POLLIN, 0}};
    for (const Worker& worker : workers_) {
        waits.push_back({worker.progress.get(), POLLIN, 0});
    }
    if (poll(waits.data(), waits.size(), waitMs()) < 0) {
        return;  // EINTR, or no memory in the kernel: the loop comes again
    }
    // A worker that ended may be followed by another one, which nothing is known of yet.
    auto worker = workers_.begin();
    for (auto wait = waits.begin() + 3; wait != waits.end(); ++wait, ++worker) {
        if (wait->revents != 0) {
            readProgress(*worker);
        }
    }
    workers_.remove_if([](const Worker& worker) { return worker.pid < 0; });
    const TakenSignals taken = takeSignals(signals_.get());
    lookAfterWorkers(taken.child);
    ending_ = ending_ || taken.terminate || service_.channel.isShut();
    if (ending_) {
        return;
    }
    lookAfterStandby();
    if ((waits[0].revents & POLLIN) != 0) {
        serveNextRequest();
    }
}

void Guardian::lookAfterStandby() {
    if (!standby_.gone()) {
        standby_.wakeIfStopped();
        return;
    }
    const pid_t self = getpid();
    const pid_t standby = fork();
    if (standby == 0) {
        for (Worker& worker : workers_) {
            worker.staging.leaveToOthers();
        }
        _exit(Standby(service_, self).run());
    }
    if (standby > 0) {
        standby_ = ProcessWatch(standby);
        standbyIsChild_ = true;
    }
}

void Guardian::serveNextRequest() {
    const std::optional<DumpRequest> request = service_.channel.peek();
    if (!request || isHolding()) {
        return;
    }
    if (!request->wellFormed || wasServed(request->pid)) {
        service_.channel.letGo(*request);
        return;
    }
    Worker worker{-1, *request, Attempt::Dump, {}, ScopedFd(), Stage::Holding, {},
                  {}, {},       newGuid()};
    const std::string path = DumpFolder::configuredPath();
    int error = 0;
    worker.folder = DumpFolder::open(path, &error);
    error = error != 0 ? error : worker.folder.makeStaging(&worker.staging);
    if (error != 0) {
        refuse(*request, noDumpOf(*request) + " in " + path + ": " + strerror(error) + "; " +
                             adviceFor(error));
        return;
    }
    startWorker(std::move(worker));
}

// Two threads that crash together ask twice: when the second is heard, the first has brought the
// process down already or is about to. What can't be looked at is told apart by nothing, and is
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

// Nobody waits for the words.
void Guardian::refuse(const DumpRequest& request, const std::string& line) {
    service_.channel.letGo(request);
    announce("%s", line.c_str());
}

void Guardian::startWorker(Worker worker) {
    worker.deadline = Clock::now() + limitOf(worker.attempt) - worker.request.age;
    int ends[2] = {-1, -1};
    const bool piped = pipe2(ends, O_CLOEXEC) == 0;
    worker.progress.reset(ends[0]);
    const ScopedFd writeEnd(ends[1]);
    const pid_t self = getpid();
    worker.pid = piped ? fork() : -1;
    const int error = errno;
    if (worker.pid == 0) {
        // This process has one thread, so its child may use the heap.
        childRunWorker(
            {service_.channel, worker.folder, worker.staging, worker.request, worker.attempt,
             worker.whyNoDump, worker.guid, service_.prompt, writeEnd.get()},
            self);
    }
    if (worker.pid < 0) {
        refuse(worker.request, noDumpOf(worker.request) + ": " + strerror(error));
        return;
    }
    workers_.push_back(std::move(worker));
}

void Guardian::readProgress(Worker& worker) {
    Progress progress{};
    const ssize_t size =
        Plexum3::Base::readRetry(worker.progress.get(), &progress, sizeof progress, nullptr);
    if (size != static_cast<ssize_t>(sizeof progress)) {
        finish(worker);
        return;
    }
    switch (progress) {
        case Progress::Held:
            worker.stage = Stage::Dumping;
            return;  // its time is running still
        case Progress::Dumped:
            worker.stage = Stage::Reporting;
            break;
        case Progress::Reported:
            worker.stage = Stage::Asking;
            worker.staging = Staging();
            break;
    }
    worker.deadline = Clock::now() + reportLimit;
}

void Guardian::finish(Worker& worker) {
    const int status = waitForEnd(worker.pid);
    worker.pid = -1;
    if (worker.stage < Stage::Reporting) {
        finishHeld(worker, status);
    } else if (status != 0 && worker.stage == Stage::Reporting) {
        noteUnfinishedReport(worker, status);
    }
    worker.staging = Staging();
}

// It ended over a process that may still be held.
void Guardian::finishHeld(Worker& worker, int status) {
    const std::optional<DumpRequest> first = service_.channel.peek();
    const bool held = first && first->isSameAs(worker.request);
    const std::string why =
        std::string("the process that ") +
        (worker.stage == Stage::Holding ? "took the stacks" : "wrote the dump") +
        (Clock::now() < worker.deadline ? " ended (" : " took too long (") + endOf(status) + ")";
    if (!held || worker.attempt == Attempt::FactsAlone) {
        refuse(worker.request, noDumpOf(worker.request) + ", and no report: " + why);
        return;
    }
    worker.request.age = first->age;
    worker.attempt = worker.attempt == Attempt::Dump ? Attempt::StacksAlone : Attempt::FactsAlone;
    worker.whyNoDump = worker.whyNoDump.empty() ? why : worker.whyNoDump;
    worker.stage = Stage::Holding;
    startWorker(std::move(worker));
}

void Guardian::noteUnfinishedReport(const Worker& worker, int status) const {
    const std::string name = worker.guid + ".txt";
    const std::string end = endOf(status);
    const ScopedFd draft(
        openat(worker.staging.fd(), reportDraft, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
    if (draft.isOpen()) {
        static_cast<void>(dprintf(
            draft.get(), "\nThe report ends here: the reporter failed (%s).\n", end.c_str()));
        static_cast<void>(
            worker.staging.publish(reportDraft, name));  // the line below holds either way
    }
    announce("process %d has crashed; its dump is %s, its report %s could not be finished (%s)",
             static_cast<int>(worker.request.pid),
             worker.folder.pathOf(worker.guid + ".dmp").c_str(), worker.folder.pathOf(name).c_str(),
             end.c_str());
}

void Guardian::lookAfterWorkers(bool childChanged) const {
    for (const Worker& worker : workers_) {
        if (worker.stage != Stage::Asking && Clock::now() >= worker.deadline) {
            static_cast<void>(
                kill(worker.pid, SIGKILL));  // not reaped yet; its pipe tells of its end
        } else if (childChanged) {
            static_cast<void>(kill(worker.pid, SIGCONT));  // does nothing to one that runs
        }
    }
}

}  // namespace Zendrik::Reporter
