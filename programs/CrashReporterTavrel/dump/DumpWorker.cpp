#include "programs/CrashReporterTavrel/dump/DumpWorker.h"

#include <client/linux/handler/exception_handler.h>
#include <client/linux/minidump_writer/minidump_writer.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>
#include <vector>

#include "programs/CrashReporterTavrel/channel/HandledSignals.h"
#include "programs/CrashReporterTavrel/dump/CrashDumper.h"
#include "programs/CrashReporterTavrel/dump/CrashMemory.h"
#include "programs/CrashReporterTavrel/dump/ProcessSnapshot.h"
#include "programs/CrashReporterTavrel/question/KeepPrompt.h"
#include "programs/CrashReporterTavrel/report/Announcement.h"
#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "stacks/NativeFrames.h"
#include "stacks/PythonStream.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;
using CrashContext = google_breakpad::ExceptionHandler::CrashContext;

constexpr std::size_t pairsKept = 20;
constexpr int promptSeconds = 60;
constexpr char dumpDraft[] = "dump";

// What is taken while the process waits.
struct Evidence {
    ProcessSnapshot process;
    time_t time;
    Stacks::StackCapture capture;
    Stacks::PythonStacks python;
    std::string note;
    ScopedFd dump;          // open for reading and writing; none: there is no dump
    std::string whyNoDump;  // a clause, then
};

void tell(const WorkerTask& task, Progress progress) {
    // Fails only when the guardian has gone; the work goes on without it.
    const ssize_t written = write(task.progressFd, &progress, sizeof progress);
    static_cast<void>(written);
}

// What writing to the folder runs into: a full or limited file system shows only in the attempt,
// which leaves its room to the report.
int writingError(const Staging& staging) {
    constexpr char probe[] = "probe";
    const ScopedFd file(
        openat(staging.fd(), probe, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.get() < 0) {
        return errno;
    }
    const std::vector<char> dumpSized(std::size_t{64} * 1024);
    std::size_t left = dumpSized.size();
    ssize_t written = 0;
    // What stops a write halfway is told to the next one.
    while (left > 0 && (written = write(file.get(), dumpSized.data(), left)) > 0) {
        left -= static_cast<std::size_t>(written);
    }
    const int error = left == 0 ? 0 : written < 0 ? errno : ENOSPC;
    for (const char* name : {probe, dumpDraft}) {
        static_cast<void>(unlinkat(staging.fd(), name, 0));  // goes with the folder at the latest
    }
    return error;
}

std::string whyUnwritten(const WorkerTask& task, int error) {
    const int reason = error != 0 ? error : writingError(task.staging);
    return reason == 0
               ? "Breakpad could not write it"
               : task.folder.pathOf("") + ": " + strerror(reason) + "; " + adviceFor(reason);
}

std::string whyRefused(const std::string& refusal) {
    const bool isForbidden = refusal.compare(0, 4, "may ") == 0;
    return "the process " + refusal +
           (isForbidden ? "; set kernel.yama.ptrace_scope to 0, or give the container ptrace" : "");
}

// 0, or the errno of what kept a written dump from its final name.
int publishDump(const WorkerTask& task, Evidence& evidence) {
    evidence.dump.reset(openat(task.staging.fd(), dumpDraft, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    const int error =
        !evidence.dump.isOpen() ? errno : task.staging.publish(dumpDraft, task.guid + ".dmp");
    if (error != 0) {
        evidence.dump.reset();
    }
    return error;
}

// While the crashed process waits: what must be known of it is looked at now, everything else has
// to wait.
Evidence takeEvidence(const WorkerTask& task) {
    CrashContext crash{};
    std::memcpy(&crash, task.request.context.data(), sizeof crash);
    CrashDumper dumper(task.request.pid, crash, [&task] { tell(task, Progress::Held); });
    Evidence evidence{{}, std::time(nullptr), {}, {}, {}, {}, task.whyNoDump};
    bool written = false;
    if (task.attempt == Attempt::Dump) {
        const std::string path = task.staging.path() + "/" + dumpDraft;
        written = google_breakpad::WriteMinidump(path.c_str(), {},
                                                 memoryOfCrash(task.request.pid, crash), &dumper);
    } else if (task.attempt == Attempt::StacksAlone) {
        dumper.hold();
    } else {
        dumper.leaveAlone();
    }
    evidence.process = takeSnapshot(task.request.pid);
    evidence.capture = dumper.capture();
    evidence.python = dumper.python();
    evidence.note = dumper.note();
    const int error = written ? publishDump(task, evidence) : 0;
    if (task.attempt != Attempt::FactsAlone && !dumper.refusal().empty()) {
        evidence.whyNoDump = whyRefused(dumper.refusal());
    } else if (!evidence.dump.isOpen() && evidence.whyNoDump.empty()) {
        evidence.whyNoDump = whyUnwritten(task, error);
    }
    return evidence;
}

// One line, whatever came of it.
void announceOutcome(const WorkerTask& task, const Evidence& evidence, int reportError) {
    const auto pid = static_cast<int>(task.request.pid);
    const std::string dump = task.folder.pathOf(task.guid + ".dmp");
    const std::string report = task.folder.pathOf(task.guid + ".txt");
    const char* const why = evidence.whyNoDump.c_str();
    if (!evidence.dump.isOpen() && reportError != 0) {
        announce("no dump and no report of process %d: %s", pid, why);
    } else if (!evidence.dump.isOpen()) {
        announce("process %d has crashed; its report is %s; no dump: %s", pid, report.c_str(), why);
    } else if (reportError != 0) {
        announce("process %d has crashed; its dump is %s, its report could not be written: %s", pid,
                 dump.c_str(), strerror(reportError));
    } else {
        announce("process %d has crashed; its dump is %s, its report is %s", pid, dump.c_str(),
                 report.c_str());
    }
}

// Whether there is a report.
bool report(const WorkerTask& task, const Evidence& evidence) {
    if (evidence.dump.isOpen()) {
        markDump(evidence.dump.get());
        // The dump is as good without them.
        static_cast<void>(Stacks::appendPythonStream(evidence.dump.get(), evidence.capture.threads,
                                                     evidence.python));
    }
    const std::string dump = evidence.dump.isOpen() ? task.folder.pathOf(task.guid + ".dmp")
                                                    : "none: " + evidence.whyNoDump;
    int error =
        writeReport(task.staging.fd(), reportDraft,
                    {evidence.process, sessionIdOf(environ), dump, evidence.time, evidence.note},
                    evidence.capture, evidence.python, Stacks::framesProgram());
    error = error != 0 ? error : task.staging.publish(reportDraft, task.guid + ".txt");
    announceOutcome(task, evidence, error);
    return error == 0;
}

// The launcher's files are not the affair of a process that waits for a user. An old kernel leaves
// them open.
void closeAllBut(int one, int other) {
    unsigned first = STDERR_FILENO + 1;
    for (const int kept : {std::min(one, other), std::max(one, other)}) {
        if (static_cast<unsigned>(kept) > first) {
            static_cast<void>(syscall(SYS_close_range, first, kept - 1, 0));
        }
        first = static_cast<unsigned>(kept) + 1;
    }
    static_cast<void>(syscall(SYS_close_range, first, ~0U, 0));
}

void ask(const WorkerTask& task) {
    static_cast<void>(letGoOfStandardError());  // without it a reader of the output waits longer
    closeAllBut(task.progressFd, task.folder.fd());
    if (askWhetherToKeep(task.folder.pathOf(task.guid + ".txt"), promptSeconds) == Answer::Remove) {
        task.folder.removePair(task.guid);
    }
}

void serve(const WorkerTask& task) {
    bool reported = false;
    {
        const Evidence evidence = takeEvidence(task);
        task.channel.letGo(task.request);
        static_cast<void>(prctl(PR_SET_PDEATHSIG, 0));  // from here on the work is done in any case
        tell(task, Progress::Dumped);
        reported = report(task, evidence);
    }
    tell(task, Progress::Reported);
    task.folder.sweep();
    task.folder.removeOldest(pairsKept);
    if (reported && task.prompt && hasDisplay()) {
        ask(task);
    }
}

}  // namespace

std::string adviceFor(int error) {
    switch (error) {
        case ENOENT:
            return "make the folder, or name another one in TAVREL_CRASH_DIR";
        case ELOOP:
        case ENOTDIR:
            return "name a folder itself, not a link or a file, in TAVREL_CRASH_DIR";
        case ENOSPC:
        case EDQUOT:
            return "make room there, or name another folder in TAVREL_CRASH_DIR";
        case EFBIG:
            return "raise the limit of file sizes (ulimit -f)";
        case EMFILE:
        case ENFILE:
            return "raise the limit of open files (ulimit -n)";
        default:
            return "name a folder that can be written in TAVREL_CRASH_DIR";
    }
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
        announce("the report on process %d failed: %s", static_cast<int>(task.request.pid),
                 failure.what());
    }
    _exit(status);
}

}  // namespace Zendrik::Reporter
