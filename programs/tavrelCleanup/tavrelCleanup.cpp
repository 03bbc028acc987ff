// tavrelCleanup PID FOLDER: waits until the process PID has ended, then deletes FOLDER with all
// that is in it. The launcher starts it as a daemon of its own, before the folder exists. A
// relative FOLDER is taken from the working directory of PID.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "process/ProcessEnd.h"
#include "process/ScopedFd.h"
#include "process/StandardStreams.h"
#include "programs/tavrelCleanup/Arguments.h"
#include "programs/tavrelCleanup/FolderAccess.h"
#include "programs/tavrelCleanup/ProtectedFolders.h"
#include "programs/tavrelCleanup/Report.h"
#include "programs/tavrelCleanup/TreeRemoval.h"

namespace {

using Cleanup::Arguments;
using Cleanup::report;
using Plexum3::Base::ScopedFd;

enum ExitStatus { NothingLeft = 0, SomethingLeft = 1, Refused = 2 };

// The end of a session sends these to every process of the user, which is when there is work to
// do.
void ignoreStopSignals() {
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) {
        std::signal(signal, SIG_IGN);
    }
}

// The folder that a relative path starts from; empty with `errno` if the process has gone.
ScopedFd openWorkingDirectory(pid_t pid) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/%d/cwd", static_cast<int>(pid));
    return ScopedFd(open(link, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// The folder to delete and the one that holds it, as O_PATH descriptors. Both are empty, with
// `errno`, if either can't be reached.
struct Target {
    ScopedFd parent;
    ScopedFd folder;
};

Target openTarget(const Arguments& arguments, int startFd) {
    const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Target target;
    target.parent = ScopedFd(openat(startFd, arguments.parent.c_str(), flags));
    if (!target.parent.isOpen()) {
        // No folder on the way: so the one at its end isn't there either.
        errno = errno == ENOTDIR ? ENOENT : errno;
        return {};
    }
    target.folder =
        ScopedFd(openat(target.parent.get(), arguments.name.c_str(), flags | O_NOFOLLOW));
    return target.folder.isOpen() ? std::move(target) : Target();
}

bool isRefused(const Arguments& arguments, const Cleanup::Objection& objection) {
    const bool isCertain = objection.reason != nullptr && objection.error == 0;
    if (isCertain) {
        report("refuses to delete '%s': %s", arguments.path.c_str(), objection.reason);
    }
    return isCertain;
}

ExitStatus leaveAlone(const Arguments& arguments, const std::string& reason) {
    report("leaves '%s' alone: %s", arguments.path.c_str(), reason.c_str());
    return SomethingLeft;
}

// Nothing if the next try may fare better; the reason is then in `errno`, as it is on entry.
std::optional<ExitStatus> giveUpUnlessPassing(const Arguments& arguments, const char* unknown) {
    const int error = errno;
    if (Cleanup::isPassing(error)) {
        return std::nullopt;
    }
    const std::string what =
        unknown == nullptr ? "" : "can't tell whether " + std::string(unknown) + ": ";
    return leaveAlone(arguments, what + std::strerror(error));
}

// Asks once more, in another way, before a folder counts as gone.
std::optional<ExitStatus> confirmGone(const Arguments& arguments, int startFd) {
    const std::string path = arguments.parent + "/" + arguments.name;
    struct stat status = {};
    if (fstatat(startFd, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
    } else if (errno == ENOENT || errno == ENOTDIR) {
        return NothingLeft;
    }
    return giveUpUnlessPassing(arguments, nullptr);
}

std::optional<ExitStatus> handleUnreachable(const Arguments& arguments, int startFd) {
    if (errno == ENOENT) {
        return confirmGone(arguments, startFd);
    }
    if (errno == ENOTDIR || errno == ELOOP) {
        return leaveAlone(arguments, "it is not a folder");
    }
    return giveUpUnlessPassing(arguments, nullptr);
}

ExitStatus reportLeftover(const Arguments& arguments, const Cleanup::TreeRemoval& removal) {
    const std::string& entry = removal.firstObstacle();
    const int error = removal.firstError();
    const char* const reason = error == EXDEV        ? "It is on another file system"
                               : error == EOPNOTSUPP ? "It may be on another file system"
                                                     : std::strerror(error);
    report("could not delete '%s%s%s': %s; %zu left in all", arguments.path.c_str(),
           entry.empty() ? "" : "/", entry.c_str(), reason, removal.obstacleCount());
    return SomethingLeft;
}

// Nothing if another try may fare better, with `errno`.
std::optional<ExitStatus> tryToDelete(const Arguments& arguments, int startFd) {
    const Target target = openTarget(arguments, startFd);
    if (!target.folder.isOpen()) {
        return handleUnreachable(arguments, startFd);
    }
    const Cleanup::Objection objection =
        Cleanup::objectionTo(target.folder.get(), target.parent.get());
    if (isRefused(arguments, objection)) {
        return Refused;
    }
    if (objection.error != 0) {
        errno = objection.error;
        return giveUpUnlessPassing(arguments, objection.reason);
    }
    const auto mount = Cleanup::mountOf(target.folder.get());
    ScopedFd top = mount ? Cleanup::openForReading(target.folder.get()) : ScopedFd();
    if (!top.isOpen()) {
        return handleUnreachable(arguments, startFd);
    }
    Cleanup::TreeRemoval removal(target.parent.get(), arguments.name.c_str(), std::move(top),
                                 *mount);
    return removal.run() ? confirmGone(arguments, startFd) : reportLeftover(arguments, removal);
}

ExitStatus deleteFolder(const Arguments& arguments, int startFd) {
    const pid_t owner = Cleanup::livingOwner(arguments.name);
    if (owner != 0 && owner != arguments.pid) {
        return leaveAlone(arguments, "it belongs to process " + std::to_string(owner) +
                                         ", which is still running");
    }
    for (int pass = 0; pass < Cleanup::maxPasses; ++pass) {
        Cleanup::pauseBeforePass(pass);
        if (const auto status = tryToDelete(arguments, startFd)) {
            return *status;
        }
    }
    return leaveAlone(arguments, std::strerror(errno));
}

ExitStatus runCleanup(const Arguments& arguments) {
    const Plexum3::Base::ProcessEnd end(arguments.pid);
    ScopedFd start;
    if (arguments.isRelative()) {
        start = openWorkingDirectory(arguments.pid);
        if (!start.isOpen()) {
            report("can't tell what '%s' is relative to: process %d: %s", arguments.path.c_str(),
                   static_cast<int>(arguments.pid), std::strerror(errno));
            return SomethingLeft;
        }
    }
    // Usually there is nothing yet; a folder that is there can be refused without a wait.
    if (const Target early = openTarget(arguments, start.get());
        early.folder.isOpen() &&
        isRefused(arguments, Cleanup::objectionTo(early.folder.get(), early.parent.get()))) {
        return Refused;
    }
    end.await();
    return deleteFolder(arguments, start.get());
}

}  // namespace

int main(int argc, char** argv) {
    Plexum3::Base::openClosedStandardStreams();
    ignoreStopSignals();
    try {
        const auto arguments = Cleanup::parseArguments(argc, argv);
        return arguments ? runCleanup(*arguments) : Refused;
    } catch (const std::bad_alloc&) {
        report("leaves '%s' alone: not enough memory", argv[argc - 1]);
        return SomethingLeft;
    }
}
