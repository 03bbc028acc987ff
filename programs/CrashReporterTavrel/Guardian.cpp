#include "programs/CrashReporterTavrel/Guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "programs/CrashReporterTavrel/Announcement.h"
#include "programs/CrashReporterTavrel/ProcessSnapshot.h"

namespace Zendrik::Reporter {

namespace {

// Generous: they separate slow from hung, and a hung worker holds the crashed process.
constexpr std::chrono::seconds kDumpLimit(60);
constexpr std::chrono::seconds kReportLimit(120);

int openTerminateFd() {
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    (void)sigprocmask(SIG_SETMASK, &terminate, nullptr);  // fails only for a bad argument
    return signalfd(-1, &terminate, SFD_CLOEXEC | SFD_NONBLOCK);
}

int waitForEnd(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// The guardian has one thread, so its child may use the heap.
[[noreturn]] void childRun(const WorkerTask& task) {
    int status = 1;
    try {
        status = runWorker(task);
    } catch (const std::exception& failure) {
        announce("the report on process %d failed: %s", static_cast<int>(task.client),
                 failure.what());
    }
    _exit(status);  // the staging folder is the guardian's to remove
}

const char* endOf(int status) {
    return WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "exit";
}

}  // namespace

Guardian::Guardian(ReportChannel channel, LauncherWatch launcher, bool prompt)
    : channel_(channel),
      launcher_(std::move(launcher)),
      prompt_(prompt),
      terminate_(openTerminateFd()) {}

int Guardian::run() {
    while (!ending_) {
        waitForEvents();
        // What waits when the launcher has ended is served all the same: a child of its, or itself.
        ending_ = ending_ || (launcher_.gone() && !isDumping() && !channel_.peek());
    }
    channel_.shut();
    while (!workers_.empty()) {
        fallSilentWhileAsking();
        waitForEvents();
    }
    return 0;
}

bool Guardian::isDumping() const {
    return std::any_of(workers_.begin(), workers_.end(),
                       [](const Worker& worker) { return worker.stage == Stage::Dumping; });
}

int Guardian::waitMs() const {
    int shortest = ending_ ? -1 : launcher_.pollIntervalMs();
    for (const Worker& worker : workers_) {
        if (worker.stage != Stage::Asking) {
            using std::chrono::milliseconds;
            const auto left =
                std::chrono::ceil<milliseconds>(worker.deadline - Clock::now()).count();
            const int leftMs = static_cast<int>(std::max<decltype(left)>(left, 0));
            shortest = shortest < 0 ? leftMs : std::min(shortest, leftMs);
        }
    }
    return shortest;
}

void Guardian::waitForEvents() {
    // While a worker takes one request, the next stays queued: the queue has one reader at a time.
    const bool listening = !ending_ && !isDumping();
    std::vector<pollfd> waits{{listening ? channel_.fd() : -1, POLLIN, 0},
                              {ending_ ? -1 : launcher_.fd(), POLLIN, 0},
                              {ending_ ? -1 : terminate_.get(), POLLIN, 0}};
    // The launcher's end must not spin the loop while a dump is still being made.
    if (!listening && launcher_.gone()) {
        waits[1].fd = -1;
    }
    for (const Worker& worker : workers_) {
        waits.push_back({worker.progress.get(), POLLIN, 0});
    }
    if (poll(waits.data(), waits.size(), waitMs()) < 0) {
        return;  // EINTR, or no memory in the kernel: the loop comes again
    }
    auto wait = waits.begin() + 3;
    for (Worker& worker : workers_) {
        if ((wait++)->revents != 0) {
            readProgress(worker);
        }
    }
    workers_.remove_if([](const Worker& worker) { return worker.pid < 0; });
    killOverdueWorkers();
    ending_ = ending_ || waits[2].revents != 0 || (waits[0].revents & ~POLLIN) != 0;
    if ((waits[0].revents & POLLIN) != 0) {
        serveNextRequest();
    }
}

void Guardian::serveNextRequest() {
    const std::optional<DumpRequest> request = channel_.peek();
    if (!request) {
        return;
    }
    if (!request->wellFormed || wasServed(request->pid)) {
        channel_.letGo();
        return;
    }
    startWorker(request->pid);
}

// Two threads that crash together ask twice: when the second is heard, the first has brought the
// process down already or is about to. The same for a worker that died before it took the request.
bool Guardian::wasServed(pid_t client) {
    const std::pair<pid_t, int64_t> process(client, startTicks(client));
    if (std::find(served_.begin(), served_.end(), process) != served_.end()) {
        return true;
    }
    constexpr size_t remembered = 32;
    if (served_.size() == remembered) {
        served_.erase(served_.begin());
    }
    served_.push_back(process);
    return process.second < 0;
}

void Guardian::startWorker(pid_t client) {
    const std::string path = DumpFolder::configuredPath();
    int error = 0;
    Worker worker{-1, client, ScopedFd(), Stage::Dumping, Clock::now() + kDumpLimit, {}, {}, {}};
    worker.folder = DumpFolder::open(path, &error);
    error = error != 0 ? error : worker.folder.makeStaging(&worker.staging);
    if (error != 0) {
        announce("no dump of process %d in %s: %s; %s", static_cast<int>(client), path.c_str(),
                 strerror(error), adviceFor(error).c_str());
        channel_.letGo();
        return;
    }
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == 0) {
        worker.progress.reset(ends[0]);
    }
    const ScopedFd writeEnd(ends[1]);
    worker.pid = writeEnd.get() < 0 ? -1 : fork();
    if (worker.pid == 0) {
        childRun({channel_, worker.folder, worker.staging, client, prompt_, writeEnd.get()});
    }
    if (worker.pid < 0) {
        announce("no dump of process %d: %s", static_cast<int>(client), strerror(errno));
        channel_.letGo();
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
    const bool dumped = progress.stage == Progress::Stage::Dumped;
    worker.stage = dumped ? Stage::Reporting : Stage::Asking;
    worker.deadline = Clock::now() + kReportLimit;
    worker.guid = progress.guid;
    if (!dumped) {
        worker.staging = Staging();
    }
}

void Guardian::finish(Worker& worker) {
    const int status = waitForEnd(worker.pid);
    const bool failed = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    if (failed && worker.stage == Stage::Dumping) {
        announce("no dump of process %d: the worker that made it ended (%s)",
                 static_cast<int>(worker.client), endOf(status));
    } else if (failed && worker.stage == Stage::Reporting) {
        noteUnfinishedReport(worker, status);
    }
    worker.staging = Staging();
    worker.pid = -1;
}

void Guardian::noteUnfinishedReport(const Worker& worker, int status) const {
    const std::string name = worker.guid + ".txt";
    const ScopedFd draft(
        openat(worker.staging.fd(), kReportDraft, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
    if (draft.get() >= 0) {
        (void)dprintf(draft.get(), "\nThe report ends here: the reporter failed (%s).\n",
                      endOf(status));
        (void)worker.staging.publish(kReportDraft, name);  // the line below holds either way
    }
    announce("process %d has crashed; its dump is %s, its report %s could not be finished (%s)",
             static_cast<int>(worker.client), worker.folder.pathOf(worker.guid + ".dmp").c_str(),
             worker.folder.pathOf(name).c_str(), endOf(status));
}

void Guardian::killOverdueWorkers() {
    for (const Worker& worker : workers_) {
        if (worker.stage != Stage::Asking && Clock::now() >= worker.deadline) {
            (void)kill(worker.pid, SIGKILL);  // not reaped yet; its pipe tells of its end
        }
    }
}

void Guardian::fallSilentWhileAsking() {
    const bool silent = std::all_of(workers_.begin(), workers_.end(), [](const Worker& worker) {
        return worker.stage == Stage::Asking;
    });
    if (standardErrorHeld_ && silent) {
        standardErrorHeld_ = !letGoOfStandardError();
    }
}

}  // namespace Zendrik::Reporter
