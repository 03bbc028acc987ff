#include "programs/CrashReporterTavrel/Worker.h"

#include <boost/algorithm/string/join.hpp>
#include <client/linux/handler/exception_handler.h>
#include <client/linux/minidump_writer/minidump_writer.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <iterator>
#include <utility>

#include "process/DescriptorIo.h"
#include "process/ProcFiles.h"
#include "programs/CrashReporterTavrel/channel/Announcement.h"
#include "programs/CrashReporterTavrel/channel/HandledSignals.h"
#include "programs/CrashReporterTavrel/dump/CrashDumper.h"
#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "programs/CrashReporterTavrel/report/KeepPrompt.h"
#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"
#include "stacks/LiveCapture.h"
#include "stacks/native/NativeFrames.h"
#include "stacks/python/PythonStream.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;
using CrashContext = google_breakpad::ExceptionHandler::CrashContext;

constexpr std::size_t pairsKept = 20;
constexpr int promptSeconds = 60;
constexpr std::chrono::milliseconds stopLimit(500);
constexpr std::chrono::seconds framesLimit(10);

// What is taken while the process is held.
struct Evidence {
    ProcessSnapshot process;
    time_t time = 0;
    Stacks::LiveCapture live;
    bool hasDump = false;
    std::string whyNoDump;  // a clause, if there is none
};

// A process in a PID namespace of its own names its thread by a number that is another's here.
CrashContext contextOf(const DumpRequest& request) {
    CrashContext crash{};
    std::memcpy(&crash, request.context.data(), sizeof crash);
    const std::vector<pid_t> threads = Plexum3::Base::listThreads(request.pid);
    if (!threads.empty() && std::find(threads.begin(), threads.end(), crash.tid) == threads.end()) {
        crash.tid = request.pid;
    }
    return crash;
}

// The process, the signal, and the crashed thread where the signal met it.
Stacks::LiveCapture whatIsRequested(const DumpRequest& request) {
    const CrashContext crash = contextOf(request);
    Stacks::LiveCapture live;
    live.capture.pid = request.pid;
    live.capture.crashedTid = crash.tid;
    live.capture.signal = {crash.siginfo.si_signo, crash.siginfo.si_code,
                           reinterpret_cast<std::uintptr_t>(crash.siginfo.si_addr),
                           crash.siginfo.si_pid};
    Stacks::CapturedThread& thread = live.capture.threads.emplace_back();
    thread.tid = crash.tid;
    std::transform(
        std::begin(Stacks::registerTable), std::end(Stacks::registerTable),
        thread.registers.begin(), [&crash](const Stacks::Register& each) {
            return static_cast<std::uint64_t>(crash.context.uc_mcontext.gregs[each.inContext]);
        });
    return live;
}

void enter(const WorkerTask& task, Stage stage) {
    // Fails only when the guardian has gone; the work goes on without it.
    Plexum3::Base::writeRetry(task.progressFd, &stage, sizeof stage, nullptr);
}

// What writing to the folder runs into: a full or limited file system shows only in the attempt.
int writingError(const DumpFolder& folder, const std::string& name) {
    const std::string path = folder.unfinishedPath(name);
    static_cast<void>(unlink(path.c_str()));  // what there is of the dump
    const std::string dumpSized(std::size_t{64} * 1024, '\0');
    return folder.writeText(name, dumpSized);
}

std::string whyUnwritten(const WorkerTask& task, int error) {
    const std::string name = task.guid + ".dmp";
    const int reason = error != 0 ? error : writingError(task.folder, name);
    if (reason == 0) {
        task.folder.remove(name);
        return "Breakpad could not write it";
    }
    return task.folder.pathOf("") + ": " + strerror(reason) + "; " + adviceFor(reason);
}

std::string whyRefused(const std::string& refusal) {
    const bool isForbidden = refusal.compare(0, 4, "may ") == 0;
    return "the process " + refusal +
           (isForbidden ? "; set kernel.yama.ptrace_scope to 0, or give the container ptrace" : "");
}

CrashFacts factsOf(const Evidence& evidence, const std::string& dump) {
    return {evidence.process, dump, evidence.time,
            boost::algorithm::join(evidence.live.notes, " ")};
}

// 0, or the errno of the failure.
int writeFirstReport(const WorkerTask& task, const Evidence& evidence) {
    const std::string dump = task.folder.pathOf(task.guid + ".dmp") + ", whole if it is there";
    return task.folder.writeText(
        task.guid + ".txt",
        firstText(factsOf(evidence, dump), evidence.live.capture, evidence.live.python));
}

// 0, or the errno of what kept a written dump from its name.
int completeDump(const WorkerTask& task, const Evidence& evidence) {
    const std::string name = task.guid + ".dmp";
    const ScopedFd dump(
        open(task.folder.unfinishedPath(name).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!dump.isOpen()) {
        return errno;
    }
    markDump(dump.get());
    // The dump is as good without them.
    static_cast<void>(Stacks::appendPythonStream(dump.get(), evidence.live.capture.threads,
                                                 evidence.live.python));
    return task.folder.publish(name);
}

void writeDump(const WorkerTask& task, Evidence& evidence) {
    evidence.hasDump = task.folder.holds(task.guid + ".dmp");
    if (evidence.hasDump) {
        return;  // an earlier attempt, which ended with its guardian, came as far
    }
    if (!evidence.live.failure.empty()) {
        evidence.whyNoDump = whyRefused(evidence.live.failure);
        return;
    }
    const CrashContext crash = contextOf(task.request);
    CrashDumper dumper(crash, evidence.live.capture);
    const bool isWritten = google_breakpad::WriteMinidump(
        task.folder.unfinishedPath(task.guid + ".dmp").c_str(), {}, dumper.otherMemory(), &dumper);
    const int error = isWritten ? completeDump(task, evidence) : 0;
    evidence.hasDump = isWritten && error == 0;
    if (!evidence.hasDump) {
        evidence.whyNoDump = whyUnwritten(task, error);
    }
}

// Everything up to the moment at which the crashed process is let go, in the order of its worth.
Evidence takeEvidence(const WorkerTask& task) {
    Evidence evidence;
    evidence.time = std::time(nullptr);
    task.folder.removeUnfinished(task.guid);  // of an earlier attempt
    evidence.live = whatIsRequested(task.request);
    const pid_t crashedTid = evidence.live.capture.crashedTid;
    Stacks::HeldThreads held;
    evidence.live.failure = held.hold(task.request.pid, stopLimit);
    Stacks::captureContent(held, evidence.live);
    Stacks::nameThreads(held, evidence.live);
    evidence.process = takeSnapshot(task.request.pid, crashedTid);
    int reportError = writeFirstReport(task, evidence);
    writeDump(task, evidence);
    if (!evidence.hasDump && reportError != 0) {
        reportError = writeFirstReport(task, evidence);  // the dump's room is free again
    }
    announceOutcome(task.request.pid,
                    evidence.hasDump ? task.folder.pathOf(task.guid + ".dmp") : "",
                    reportError == 0 ? task.folder.pathOf(task.guid + ".txt") : "",
                    evidence.hasDump ? strerror(reportError) : evidence.whyNoDump);
    return evidence;
}

// 0, or the errno of the failure: then the first report stands.
int completeReport(const WorkerTask& task, const Evidence& evidence) {
    const std::string dump =
        evidence.hasDump ? task.folder.pathOf(task.guid + ".dmp") : "none: " + evidence.whyNoDump;
    const Stacks::NativeStacks native =
        Stacks::findNativeFrames(evidence.live.capture, Stacks::framesProgram(), framesLimit);
    return task.folder.writeText(
        task.guid + ".txt",
        wholeText(factsOf(evidence, dump), evidence.live.capture, evidence.live.python, native));
}

// The launcher's files are not the affair of a process that waits for a user. An old kernel leaves
// them open, and refuses no empty range.
void closeAllBut(int one, int other) {
    const auto [low, high] = std::minmax(one, other);
    static_cast<void>(syscall(SYS_close_range, STDERR_FILENO + 1, low - 1, 0));
    static_cast<void>(syscall(SYS_close_range, low + 1, high - 1, 0));
    static_cast<void>(syscall(SYS_close_range, high + 1, ~0U, 0));
}

void ask(const WorkerTask& task) {
    // A reader of the launcher's output to its end must not wait for a user's answer.
    static_cast<void>(dup2(ScopedFd(open("/dev/null", O_WRONLY | O_CLOEXEC)).get(), STDERR_FILENO));
    closeAllBut(task.progressFd, task.folder.fd());
    if (askWhetherToKeep(task.folder.pathOf(task.guid + ".txt"), promptSeconds) == Answer::Remove) {
        task.folder.removePair(task.guid);
    }
}

void serve(const WorkerTask& task) {
    int error = 0;
    {
        const Evidence evidence = takeEvidence(task);
        task.channel.letGo(task.request);
        static_cast<void>(prctl(PR_SET_PDEATHSIG, 0));  // from here on the work is done in any case
        enter(task, Stage::Reporting);
        error = completeReport(task, evidence);
    }
    enter(task, Stage::Asking);
    task.folder.sweep();
    task.folder.removeOldest(pairsKept);
    if (error == 0 && task.prompt) {
        ask(task);
    }
}

}  // namespace

std::string reportOf(const DumpRequest& request, const std::string& dump) {
    ProcessSnapshot process;
    process.pid = request.pid;
    return firstText({process, dump, std::time(nullptr), {}}, whatIsRequested(request).capture, {});
}

void announceOutcome(pid_t pid, const std::string& dump, const std::string& report,
                     const std::string& why) {
    const std::string crashed = "process " + std::to_string(pid) + " has crashed; ";
    announce(dump.empty() && report.empty()
                 ? "no dump and no report of process " + std::to_string(pid) + ": " + why
             : dump.empty() ? crashed + "its report is " + report + "; no dump: " + why
             : report.empty()
                 ? crashed + "its dump is " + dump + ", its report could not be written: " + why
                 : crashed + "its dump is " + dump + ", its report is " + report);
}

void childRunWorker(const WorkerTask& task, pid_t guardian) {
    // While it holds a crashed process it must not outlive the one that would end it.
    static_cast<void>(prctl(PR_SET_PDEATHSIG, SIGKILL));
    if (getppid() != guardian) {
        _exit(EXIT_FAILURE);
    }
    blockTerminationOnly();
    int status = EXIT_FAILURE;
    try {
        serve(task);
        status = EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        announce("the report on process " + std::to_string(task.request.pid) +
                 " failed: " + failure.what());
    }
    _exit(status);
}

}  // namespace Zendrik::Reporter
