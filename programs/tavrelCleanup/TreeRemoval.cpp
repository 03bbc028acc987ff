#include "programs/tavrelCleanup/TreeRemoval.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "programs/tavrelCleanup/FolderAccess.h"

namespace Cleanup {
namespace {

// Each such walk brings a tree up by kMaxLevels; the figure only ends a race against a writer that
// nests folders for ever.
constexpr int kMaxHoistingPasses = 65536;

/// Errors that come from what others do at the same time.
bool isPassing(int error) {
    return error == ENOTEMPTY || error == EEXIST || error == ENOTDIR || error == EISDIR ||
           error == ELOOP;
}

/// None before the first repetition, then 10 ms, doubled up to a second: 2.3 s in all.
void pauseBeforePass(int pass) {
    if (pass >= 2) {
        const long milliseconds = std::min(10L << (pass - 2), 1000L);
        const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1'000'000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

TreeRemoval::TreeRemoval(int parentFd, const char* name, FileDescriptor top)
    : parentFd_(parentFd), name_(name), levels_(new Level[kMaxLevels]) {
    struct stat status = {};
    fstat(top.get(), &status);
    device_ = status.st_dev;
    levels_[0].isAccessGranted = false;
    levels_[0].fd = std::move(top);
}

bool TreeRemoval::run() {
    int hoistingPasses = 0;
    for (int pass = 0; pass < kMaxPasses;) {
        pauseBeforePass(pass);
        walk();
        if (removeTop()) {
            return true;
        }
        if (hoistedCount_ > 0 && ++hoistingPasses < kMaxHoistingPasses) {
            continue;
        }
        if (removedCount_ == 0 && isLasting_) {
            return false;
        }
        ++pass;
    }
    return false;
}

void TreeRemoval::walk() {
    removedCount_ = hoistedCount_ = obstacleCount_ = 0;
    isLasting_ = false;
    lseek(levels_[0].fd.get(), 0, SEEK_SET);
    levels_[0].length = levels_[0].next = 0;
    depth_ = 0;
    for (;;) {
        if (nextEntry()) {
            removeEntry();
        } else if (depth_ > 0) {
            leave();
        } else {
            return;
        }
    }
}

bool TreeRemoval::removeTop() {
    if (unlinkat(parentFd_, name_, AT_REMOVEDIR) == 0 || errno == ENOENT) {
        return true;
    }
    const int error = errno;
    if (obstacleCount_ == 0) {
        addObstacle(-1, error);
    }
    return false;
}

bool TreeRemoval::nextEntry() {
    Level& level = current();
    for (;;) {
        if (level.next >= level.length) {
            const ssize_t length = getdents64(level.fd.get(), level.entries, kEntriesBytes);
            // ENOENT: the folder itself has been deleted by somebody else.
            if (length < 0 && errno != ENOENT) {
                addObstacle(depth_ - 1, errno);
            }
            if (length <= 0) {
                return false;
            }
            level.length = static_cast<std::size_t>(length);
            level.next = 0;
        }
        level.entry = reinterpret_cast<const dirent64*>(level.entries + level.next);
        level.next += level.entry->d_reclen;
        const char* const name = level.entry->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
            return true;
        }
    }
}

void TreeRemoval::removeEntry() {
    int error = current().entry->d_type == DT_DIR ? EISDIR : removeName(0);
    if (error == 0) {
        return;
    }
    if (error == EISDIR) {
        error = enter();
        if (error == ENOTDIR || error == ELOOP) {
            error = removeName(0);
        } else if (error != 0 && removeName(AT_REMOVEDIR) == 0) {
            // An empty folder needs no way in.
            error = 0;
        }
    }
    if (error != 0) {
        addObstacle(depth_, error);
    }
}

/// Deletes the current entry of the current level. Returns 0 or an errno; an entry that has
/// vanished is a success.
int TreeRemoval::removeName(int flags) {
    Level& level = current();
    int result = unlinkat(level.fd.get(), level.entry->d_name, flags);
    if (result != 0 && errno == EACCES && grantAccess(level)) {
        result = unlinkat(level.fd.get(), level.entry->d_name, flags);
    }
    if (result == 0) {
        ++removedCount_;
        return 0;
    }
    return errno == ENOENT ? 0 : errno;
}

/// Goes into the current entry, or gets it out of the way. Returns 0 or an errno.
int TreeRemoval::enter() {
    if (depth_ + 1 == kMaxLevels) {
        return hoist();
    }
    Level& level = current();
    FileDescriptor folder = openSubfolder(level.fd.get(), level.entry->d_name, O_RDONLY, device_);
    if (!folder.isOpen() && errno == EACCES) {
        folder = openDespiteMode();
    }
    if (folder.isOpen()) {
        push(std::move(folder));
        return 0;
    }
    if ((errno == EMFILE || errno == ENFILE) && depth_ > 0) {
        return hoist();
    }
    return errno == ENOENT ? 0 : errno;
}

FileDescriptor TreeRemoval::openDespiteMode() {
    Level& level = current();
    grantAccess(level);
    const FileDescriptor path = openSubfolder(level.fd.get(), level.entry->d_name, O_PATH, device_);
    return path.isOpen() ? openForReading(path.get()) : FileDescriptor();
}

/// Once a folder: true if the mode has been changed and a second try is worth it. Keeps `errno`,
/// which says why the first one failed.
bool TreeRemoval::grantAccess(Level& level) {
    if (level.isAccessGranted) {
        return false;
    }
    level.isAccessGranted = true;
    const int error = errno;
    const bool isChanged = fchmod(level.fd.get(), S_IRWXU) == 0;
    errno = error;
    return isChanged;
}

void TreeRemoval::push(FileDescriptor folder) {
    Level& level = levels_[++depth_];
    level.fd = std::move(folder);
    level.isAccessGranted = false;
    level.obstaclesBefore = obstacleCount_;
    level.length = level.next = 0;
}

void TreeRemoval::leave() {
    const bool isCleared = current().obstaclesBefore == obstacleCount_;
    current().fd.reset();
    --depth_;
    int error = removeName(AT_REMOVEDIR);
    if (error == ENOTDIR) {
        error = removeName(0);
    }
    if (error != 0 && isCleared) {
        addObstacle(depth_, error);
    }
}

/// Moves the current entry, a folder, up into the top folder. The names there may be taken by what
/// an earlier, killed run left; an empty folder under such a name is replaced, which is as good.
int TreeRemoval::hoist() {
    int error = 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        char newName[32];
        std::snprintf(newName, sizeof newName, ".tavrelCleanup.%u", ++hoistNumber_);
        error = renameIntoTop(newName);
        if (error == 0) {
            ++hoistedCount_;
            return 0;
        }
        if (!isPassing(error)) {
            break;
        }
    }
    return error == ENOENT ? 0 : error;
}

int TreeRemoval::renameIntoTop(const char* newName) {
    Level& level = current();
    Level& top = levels_[0];
    const char* const name = level.entry->d_name;
    if (renameat(level.fd.get(), name, top.fd.get(), newName) == 0) {
        return 0;
    }
    if (errno != EACCES) {
        return errno;
    }
    // Three folders have to be writable: the two that hold the names, and the one that moves, since
    // its ".." changes.
    grantAccess(level);
    grantAccess(top);
    const FileDescriptor folder = openSubfolder(level.fd.get(), name, O_PATH, device_);
    if (!folder.isOpen() || !makeAccessible(folder.get())) {
        return errno;
    }
    return renameat(level.fd.get(), name, top.fd.get(), newName) == 0 ? 0 : errno;
}

/// `depth` is the level whose current entry is in the way; -1 for the top folder itself.
void TreeRemoval::addObstacle(int depth, int error) {
    isLasting_ = isLasting_ || !isPassing(error);
    if (++obstacleCount_ > 1) {
        return;
    }
    firstError_ = error;
    firstObstacle_.clear();
    for (int i = 0; i <= depth; ++i) {
        firstObstacle_.append(i == 0 ? "" : "/").append(levels_[i].entry->d_name);
    }
}

}  // namespace Cleanup
