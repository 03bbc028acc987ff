#include "programs/tavrelCleanup/ProtectedFolders.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <climits>
#include <cstdlib>
#include <string>

#include "programs/tavrelCleanup/FileDescriptor.h"

namespace Cleanup {
namespace {

bool isSameFolder(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Whether `folder` is met on the way up from `path` over "..", as far as the modes let one go.
bool isOnWayUp(const struct stat& folder, const std::string& path) {
    FileDescriptor current(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat here = {};
    struct stat below = {};
    while (fstat(current.get(), &here) == 0 && !isSameFolder(here, below)) {
        if (isSameFolder(here, folder)) {
            return true;
        }
        below = here;
        current = FileDescriptor(openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return false;
}

/// Whether `folder` is the one at the absolute `path` or stands above it. Each part of the path is
/// a start of its own: one that isn't there, or can't be left upward, hides those above it.
bool isAtOrAbove(const struct stat& folder, std::string path) {
    for (; !path.empty(); path.resize(path.rfind('/'))) {
        if (isOnWayUp(folder, path)) {
            return true;
        }
    }
    return isOnWayUp(folder, "/");
}

std::string programFolder() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return program.substr(0, program.rfind('/'));
}

}  // namespace

const char* protectedContent(int folderFd) {
    struct stat folder = {};
    if (fstat(folderFd, &folder) != 0) {
        return "a folder that can't be told from others";
    }
    const char* const home = std::getenv("HOME");
    const passwd* const user = getpwuid(getuid());
    if ((home != nullptr && home[0] == '/' && isAtOrAbove(folder, home)) ||
        (user != nullptr && user->pw_dir[0] == '/' && isAtOrAbove(folder, user->pw_dir))) {
        return "the user's home folder";
    }
    return isAtOrAbove(folder, programFolder()) ? "this program's own install tree" : nullptr;
}

}  // namespace Cleanup
