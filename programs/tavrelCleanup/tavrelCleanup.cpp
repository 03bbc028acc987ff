// tavrelCleanup PID FOLDER: waits until the process PID has ended, then deletes FOLDER with all
// that is in it. The launcher starts it as a daemon of its own, before the folder exists. A
// relative FOLDER is taken from the working directory of PID.

#include <fcntl.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "programs/tavrelCleanup/Arguments.h"
#include "programs/tavrelCleanup/FileDescriptor.h"
#include "programs/tavrelCleanup/FolderAccess.h"
#include "programs/tavrelCleanup/ProcessEnd.h"
#include "programs/tavrelCleanup/ProtectedFolders.h"
#include "programs/tavrelCleanup/Report.h"
#include "programs/tavrelCleanup/TreeRemoval.h"

namespace {

using Cleanup::Arguments;
using Cleanup::FileDescriptor;
using Cleanup::report;

enum ExitStatus { kNothingLeft = 0, kSomethingLeft = 1, kBadArguments = 2 };

/// The end of a session sends these to every process of the user, which is when there is work to
/// do.
void ignoreStopSignals() {
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) {
        std::signal(signal, SIG_IGN);
    }
}

/// The folder that a relative path starts from; empty with `errno` if the process has gone.
FileDescriptor openWorkingDirectory(pid_t pid) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/%d/cwd", static_cast<int>(pid));
    return FileDescriptor(open(link, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// The folder to delete and the one that holds it, as O_PATH descriptors. Both are empty, with
/// `errno`, if either can't be reached.
struct Target {
    FileDescriptor parent;
    FileDescriptor folder;
};

Target openTarget(const Arguments& arguments, int startFd) {
    const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Target target;
    target.parent = FileDescriptor(openat(startFd, arguments.parent.c_str(), flags));
    if (!target.parent.isOpen()) {
        // No folder on the way: so the one at its end isn't there either.
        errno = errno == ENOTDIR ? ENOENT : errno;
        return {};
    }
    target.folder =
        FileDescriptor(openat(target.parent.get(), arguments.name.c_str(), flags | O_NOFOLLOW));
    return target.folder.isOpen() ? std::move(target) : Target();
}

bool isRefused(const Arguments& arguments, const Target& target) {
    const char* const content = Cleanup::protectedContent(target.folder.get());
    if (content != nullptr) {
        report("refuses to delete '%s': it is or holds %s", arguments.path.c_str(), content);
    }
    return content != nullptr;
}

ExitStatus reportUnreachable(const Arguments& arguments, int error) {
    if (error == ENOENT) {
        return kNothingLeft;
    }
    const bool isOther = error == ENOTDIR || error == ELOOP;
    report("leaves '%s' alone: %s", arguments.path.c_str(),
           isOther ? "it is not a folder" : std::strerror(error));
    return kSomethingLeft;
}

void reportLeftover(const Arguments& arguments, const Cleanup::TreeRemoval& removal) {
    const std::string& entry = removal.firstObstacle();
    const char* const reason = removal.firstError() == EXDEV ? "It is on another file system"
                                                             : std::strerror(removal.firstError());
    report("could not delete '%s%s%s': %s; %zu left in all", arguments.path.c_str(),
           entry.empty() ? "" : "/", entry.c_str(), reason, removal.obstacleCount());
}

ExitStatus deleteFolder(const Arguments& arguments, int startFd) {
    const Target target = openTarget(arguments, startFd);
    if (!target.folder.isOpen()) {
        return reportUnreachable(arguments, errno);
    }
    if (isRefused(arguments, target)) {
        return kBadArguments;
    }
    FileDescriptor top = Cleanup::openForReading(target.folder.get());
    if (!top.isOpen()) {
        return reportUnreachable(arguments, errno);
    }
    Cleanup::TreeRemoval removal(target.parent.get(), arguments.name.c_str(), std::move(top));
    if (removal.run()) {
        return kNothingLeft;
    }
    reportLeftover(arguments, removal);
    return kSomethingLeft;
}

}  // namespace

int main(int argc, char** argv) {
    ignoreStopSignals();
    const auto arguments = Cleanup::parseArguments(argc, argv);
    if (!arguments) {
        return kBadArguments;
    }
    const Cleanup::ProcessEnd end(arguments->pid);
    FileDescriptor start;
    if (arguments->isRelative()) {
        start = openWorkingDirectory(arguments->pid);
        if (!start.isOpen()) {
            report("can't tell what '%s' is relative to: process %d: %s", arguments->path.c_str(),
                   static_cast<int>(arguments->pid), std::strerror(errno));
            return kSomethingLeft;
        }
    }
    // Usually there is nothing yet; a folder that is there can be refused without a wait.
    if (const Target early = openTarget(*arguments, start.get());
        early.folder.isOpen() && isRefused(*arguments, early)) {
        return kBadArguments;
    }
    end.await();
    return deleteFolder(*arguments, start.get());
}
