#include "programs/CrashReporterTavrel/DumpWorker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <utility>
#include <vector>

#include "client/linux/crash_generation/client_info.h"
#include "client/linux/crash_generation/crash_generation_server.h"
#include "programs/CrashReporterTavrel/Announcement.h"
#include "programs/CrashReporterTavrel/CrashReport.h"
#include "programs/CrashReporterTavrel/KeepPrompt.h"
#include "programs/CrashReporterTavrel/StackOverflow.h"

namespace Zendrik::Reporter {

namespace {

constexpr size_t kPairsKept = 20;
constexpr int kPromptSeconds = 60;
constexpr char kOverflowDump[] = "overflow";

struct Dump {
    ProcessSnapshot process;
    std::string guid;
    time_t time;
};

struct DumpsTaken {
    const WorkerTask& task;
    const std::vector<char> context;  // what the waiting client has sent
    std::vector<Dump> dumps;
    int error = 0;  // why a finished dump did not get its final name
};

void tell(const WorkerTask& task, Progress::Stage stage, const std::string& guid) {
    Progress progress{stage, {}};
    guid.copy(progress.guid, sizeof progress.guid - 1);
    // Fails only when the guardian has gone; the work goes on without it.
    const ssize_t written = write(task.progressFd, &progress, sizeof progress);
    (void)written;
}

// Runs on the server's thread while the crashed process is held: what must be known of it is looked
// at now, everything else has to wait.
void onDump(void* context, const google_breakpad::ClientInfo* client, const std::string* path) {
    auto& taken = *static_cast<DumpsTaken*>(context);
    const std::string file = path->substr(path->rfind('/') + 1);
    for (const Dump& earlier : taken.dumps) {
        if (earlier.process.pid == client->pid()) {
            return;  // a second thread of the same process: the staging folder's end is this dump's
        }
    }
    Dump dump{takeSnapshot(client->pid()), file.substr(0, file.rfind('.')), std::time(nullptr)};
    const Staging& staging = taken.task.staging;
    const bool overflow =
        client->pid() == taken.task.client &&
        writeDumpOfOverflow(client->pid(), taken.context, staging.path() + "/" + kOverflowDump);
    taken.error = staging.publish(overflow ? kOverflowDump : file, file);
    if (taken.error == 0) {
        taken.dumps.push_back(std::move(dump));
    }
}

// What writing to the folder runs into: a full or limited file system shows only in the attempt.
int writingError(const Staging& staging) {
    const ScopedFd file(
        openat(staging.fd(), "probe", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.get() < 0) {
        return errno;
    }
    const std::vector<char> dumpSized(size_t{64} * 1024);
    const ssize_t written = write(file.get(), dumpSized.data(), dumpSized.size());
    const int error = written < 0 ? errno : ENOSPC;
    return written == static_cast<ssize_t>(dumpSized.size()) ? 0 : error;
}

void explainMissingDump(const DumpsTaken& taken, bool traceable) {
    const WorkerTask& task = taken.task;
    const int error = taken.error != 0 ? taken.error : !traceable ? 0 : writingError(task.staging);
    if (error != 0) {
        announce("no dump of process %d in %s: %s; %s", static_cast<int>(task.client),
                 task.folder.pathOf("").c_str(), strerror(error), adviceFor(error).c_str());
    } else if (!traceable) {
        announce(
            "no dump of process %d: this system does not let it be traced; "
            "set kernel.yama.ptrace_scope to 0, or give the container ptrace",
            static_cast<int>(task.client));
    } else {
        announce("no dump of process %d: it ended before it could be looked at",
                 static_cast<int>(task.client));
    }
}

// 0, or what kept the report from being written. A report on a dump that can't be read is a report.
int draftReport(const WorkerTask& task, const Dump& dump) {
    const int fd = openat(task.staging.fd(), kReportDraft, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
    std::FILE* out = fd < 0 ? nullptr : fdopen(fd, "w");
    if (out == nullptr) {
        return errno;
    }
    const std::string dumpPath = task.folder.pathOf(dump.guid + ".dmp");
    (void)writeReport(out, {dump.process, sessionIdOf(environ), dumpPath, dump.time}, dumpPath);
    const bool failed = std::ferror(out) != 0;
    return std::fclose(out) != 0 || failed ? errno : 0;
}

void report(const WorkerTask& task, const Dump& dump) {
    const std::string name = dump.guid + ".txt";
    const std::string dumpPath = task.folder.pathOf(dump.guid + ".dmp");
    int error = draftReport(task, dump);
    error = error != 0 ? error : task.staging.publish(kReportDraft, name);
    if (error != 0) {
        announce("process %d has crashed; its dump is %s, its report could not be written: %s",
                 static_cast<int>(dump.process.pid), dumpPath.c_str(), strerror(error));
        return;
    }
    announce("process %d has crashed; its dump is %s, its report is %s",
             static_cast<int>(dump.process.pid), dumpPath.c_str(),
             task.folder.pathOf(name).c_str());
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
        case EFBIG:
            return "make room there, or name another folder in TAVREL_CRASH_DIR";
        default:
            return "name a folder that can be written in TAVREL_CRASH_DIR";
    }
}

int runWorker(const WorkerTask& task) {
    // Breakpad's processor logs to these streams what it finds odd in a dump.
    std::clog.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);

    DumpsTaken taken{task, task.channel.peekContext(), {}};
    constexpr uintptr_t anyAddress = 0;
    const bool traceable = readingError(task.client, anyAddress) != EPERM;
    const std::string staging = task.staging.path();
    google_breakpad::CrashGenerationServer server(task.channel.fd(), onDump, &taken, nullptr,
                                                  nullptr, /*generate_dumps=*/true, &staging);
    if (!server.Start()) {
        announce("no dump of process %d: no thread could be started",
                 static_cast<int>(task.client));
        return 1;
    }
    // The request was in the queue before the server looked, and the server looks at the channel
    // before it looks at this: so it has served and let go when it stops.
    server.Stop();

    if (taken.dumps.empty()) {
        explainMissingDump(taken, traceable);
        return 0;
    }
    tell(task, Progress::Stage::Dumped, taken.dumps.back().guid);
    for (const Dump& dump : taken.dumps) {
        report(task, dump);
    }
    tell(task, Progress::Stage::Reported, taken.dumps.back().guid);
    task.folder.removeOldest(kPairsKept);
    if (task.prompt && hasDisplay()) {
        (void)letGoOfStandardError();  // without it a reader of the output waits longer
        const std::string& guid = taken.dumps.back().guid;
        if (askWhetherToKeep(task.folder.pathOf(guid + ".txt"), kPromptSeconds) == Answer::Remove) {
            task.folder.removePair(guid);
        }
    }
    return 0;
}

}  // namespace Zendrik::Reporter
