#include "programs/tavrelCleanup/ProtectedFolders.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/auxv.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "process/ProcessEnd.h"
#include "process/ScopedFd.h"
#include "programs/tavrelCleanup/Arguments.h"

namespace Cleanup {
namespace {

using Plexum3::Base::ProcessLife;
using Plexum3::Base::ScopedFd;

// Unknown leaves its reason in `errno`.
enum class Answer { No, Yes, Unknown };

bool isSameFolder(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Nothing is there, or the modes don't let one see it.
bool isOutOfReach(int error) {
    return error == EACCES || error == ENOENT || error == ENOTDIR || error == ELOOP ||
           error == ENAMETOOLONG;
}

// Whether `folder` is met on the way up from the open folder `current` over "..".
Answer isOnWayUp(const struct stat& folder, ScopedFd current) {
    struct stat here = {};
    struct stat below = {};
    while (current.isOpen() && fstat(current.get(), &here) == 0) {
        if (isSameFolder(here, folder)) {
            return Answer::Yes;
        }
        if (isSameFolder(here, below)) {
            return Answer::No;
        }
        below = here;
        current = ScopedFd(openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return Answer::Unknown;
}

// Whether `folder` is the one at the absolute `path` or stands above it. Each part of the path is
// a start of its own: one that isn't there, or can't be left upward, hides those above it.
Answer isAtOrAbove(const struct stat& folder, std::string path) {
    for (;;) {
        const char* const start = path.empty() ? "/" : path.c_str();
        const Answer answer =
            isOnWayUp(folder, ScopedFd(open(start, O_PATH | O_DIRECTORY | O_CLOEXEC)));
        if (answer == Answer::Yes || (answer == Answer::Unknown && !isOutOfReach(errno)) ||
            path.empty()) {
            return answer;
        }
        path.resize(path.rfind('/'));
    }
}

// Whether the folder at `path` holds the open folder, at whatever depth.
Answer holds(const std::string& path, int folderFd) {
    struct stat holder = {};
    if (stat(path.c_str(), &holder) != 0) {
        return isOutOfReach(errno) ? Answer::No : Answer::Unknown;
    }
    return isOnWayUp(holder, ScopedFd(openat(folderFd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC)));
}

Answer isOrHoldsHome(const struct stat& folder) {
    const char* const home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') {
        if (const Answer answer = isAtOrAbove(folder, home); answer != Answer::No) {
            return answer;
        }
    }
    errno = 0;
    const passwd* const user = getpwuid(getuid());
    if (user == nullptr) {
        // The numbers that stand for "no such user", see getpwuid(3).
        const bool hasNone = errno == 0 || errno == ENOENT || errno == ESRCH;
        return hasNone || home != nullptr ? Answer::No : Answer::Unknown;
    }
    return user->pw_dir[0] == '/' ? isAtOrAbove(folder, user->pw_dir) : Answer::No;
}

// The folder that this program stands in; empty with `errno` if that can't be found out.
std::string programFolder() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    if (program.empty()) {
        const auto* const started = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
        program = started != nullptr && started[0] == '/' ? started : "";
    }
    return program.substr(0, program.rfind('/'));
}

Answer isOrHoldsOwnTree(const struct stat& folder, int parentFd) {
    const std::string bin = programFolder();
    if (bin.empty()) {
        errno = errno == 0 ? ENOENT : errno;
        return Answer::Unknown;
    }
    for (const std::string& own : {bin, bin.substr(0, bin.rfind('/')) + "/plugins"}) {
        Answer answer = isAtOrAbove(folder, own);
        if (answer == Answer::No) {
            // From the parent: a folder that forbids it can't be left upward.
            answer = holds(own, parentFd);
        }
        if (answer != Answer::No) {
            return answer;
        }
    }
    return Answer::No;
}

bool mayBeLauncher(pid_t pid) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
    char target[PATH_MAX];
    const ssize_t length = readlink(link, target, sizeof target);
    if (length <= 0) {
        return true;
    }
    const std::string_view path(target, static_cast<std::size_t>(length));
    const std::string_view name = path.substr(path.rfind('/') + 1);
    // The second is what the kernel makes of it while an upgrade replaces the program.
    return name == "tavrel" || name == "tavrel (deleted)";
}

}  // namespace

Objection objectionTo(int folderFd, int parentFd) {
    struct stat folder = {};
    if (fstat(folderFd, &folder) != 0) {
        return {"it may be deleted", errno};
    }
    Answer answer = isOrHoldsHome(folder);
    if (answer != Answer::No) {
        return {"it is or holds the user's home folder", answer == Answer::Yes ? 0 : errno};
    }
    answer = isOrHoldsOwnTree(folder, parentFd);
    if (answer != Answer::No) {
        return {"it is, holds or belongs to this program's own install tree",
                answer == Answer::Yes ? 0 : errno};
    }
    return {};
}

pid_t livingOwner(const std::string& folderName) {
    constexpr std::string_view prefix = "tavrel_tmpdir_";
    if (folderName.compare(0, prefix.size(), prefix) != 0) {
        return 0;
    }
    const pid_t pid = parsePid(std::string_view(folderName).substr(prefix.size()));
    const bool hasEnded =
        pid == 0 || Plexum3::Base::readProcessLife(pid).state == ProcessLife::State::Ended;
    return hasEnded || !mayBeLauncher(pid) ? 0 : pid;
}

}  // namespace Cleanup
