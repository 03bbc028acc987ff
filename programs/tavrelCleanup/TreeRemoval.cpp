#include "programs/tavrelCleanup/TreeRemoval.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "programs/tavrelCleanup/FolderAccess.h"

namespace Cleanup {
namespace {

using Plexum3::Base::ScopedFd;

// After a walk that has used up its budget: others may come to an end meanwhile.
void pauseBetweenWalks() {
    const timespec pause = {0, 100'000'000};
    nanosleep(&pause, nullptr);
}

}  // namespace

bool isPassing(int error) {
    switch (error) {
        case ENOTEMPTY:
        case EEXIST:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case EBUSY:
        case ESTALE:
        case EINTR:
        case EAGAIN:
        case ENOMEM:
        case ENFILE:
            return true;
        default:
            return false;
    }
}

void pauseBeforePass(int pass) {
    if (pass >= 2) {
        const long milliseconds = std::min(10L << (pass - 2), 1000L);
        const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1'000'000};
        nanosleep(&pause, nullptr);
    }
}

TreeRemoval::TreeRemoval(int parentFd, const char* name, ScopedFd top, const Mount& mount)
    : parentFd_(parentFd), name_(name), mount_(mount), levels_(new Level[maxLevels]) {
    levels_[0].isAccessGranted = false;
    levels_[0].fd = std::move(top);
}

bool TreeRemoval::run() {
    std::size_t spent = 0;
    for (int pass = 0; pass < maxPasses;) {
        pauseBeforePass(pass);
        walk();
        if (removeTop()) {
            return true;
        }
        spent += seenCount_;
        const bool isCutShort = seenCount_ == walkBudget;
        if (isCutShort) {
            pauseBetweenWalks();
        }
        if ((isCutShort || hoistedCount_ > 0) && spent < totalBudget) {
            continue;
        }
        if (removedCount_ == 0 && passingCount_ == 0) {
            return false;
        }
        ++pass;
    }
    return false;
}

void TreeRemoval::walk() {
    removedCount_ = hoistedCount_ = obstacleCount_ = passingCount_ = 0;
    static_cast<void>(lseek(levels_[0].fd.get(), 0, SEEK_SET));  // can't fail for a folder
    levels_[0].length = levels_[0].next = 0;
    depth_ = 0;
    for (seenCount_ = 0; seenCount_ < walkBudget;) {
        if (nextEntry()) {
            ++seenCount_;
            removeEntry();
        } else if (depth_ > 0) {
            leave();
        } else {
            return;
        }
    }
    for (; depth_ > 0; --depth_) {
        current().fd.reset();
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
            const ssize_t length = getdents64(level.fd.get(), level.entries, entriesBytes);
            // ENOENT: the folder itself has been deleted by another process.
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
    Fate fate = Fate::Stays;
    // What the folder says of the kind of an entry may be missing, or out of date.
    bool isFolder = current().entry->d_type == DT_DIR;
    if (!isFolder) {
        fate = removeName(0);
        isFolder = fate == Fate::Stays && errno == EISDIR;
    }
    if (isFolder) {
        fate = removeFolder();
    }
    if (fate == Fate::Stays) {
        addObstacle(depth_, errno);
    }
}

/// Deletes the current entry of the current level: Gone or Stays.
TreeRemoval::Fate TreeRemoval::removeName(int flags) {
    Level& level = current();
    int result = unlinkat(level.fd.get(), level.entry->d_name, flags);
    if (result != 0 && errno == EACCES && grantAccess(level)) {
        result = unlinkat(level.fd.get(), level.entry->d_name, flags);
    }
    if (result == 0) {
        ++removedCount_;
    }
    return result == 0 || errno == ENOENT ? Fate::Gone : Fate::Stays;
}

/// Goes into the current entry, or gets it out of the way.
TreeRemoval::Fate TreeRemoval::removeFolder() {
    const Fate fate = enter();
    if (fate != Fate::Stays) {
        return fate;
    }
    const int error = errno;
    if (error == ENOTDIR || error == ELOOP) {
        return removeName(0);
    }
    // An empty folder needs no way in. Of any other one it counts why there was none.
    if (removeName(AT_REMOVEDIR) == Fate::Gone) {
        return Fate::Gone;
    }
    errno = error;
    return Fate::Stays;
}

TreeRemoval::Fate TreeRemoval::enter() {
    if (depth_ + 1 == maxLevels) {
        return hoist();
    }
    Level& level = current();
    ScopedFd folder = openSubfolder(level.fd.get(), level.entry->d_name, O_RDONLY, mount_);
    if (!folder.isOpen() && errno == EACCES) {
        folder = openDespiteMode();
    }
    if (folder.isOpen()) {
        push(std::move(folder));
        return Fate::Entered;
    }
    if ((errno == EMFILE || errno == ENFILE) && depth_ > 0) {
        return hoist();
    }
    return errno == ENOENT ? Fate::Gone : Fate::Stays;
}

ScopedFd TreeRemoval::openDespiteMode() {
    Level& level = current();
    static_cast<void>(grantAccess(level));  // the next call shows whether it helped
    const ScopedFd path = openSubfolder(level.fd.get(), level.entry->d_name, O_PATH, mount_);
    return path.isOpen() ? openForReading(path.get()) : ScopedFd();
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

void TreeRemoval::push(ScopedFd folder) {
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
    Fate fate = removeName(AT_REMOVEDIR);
    if (fate == Fate::Stays && errno == ENOTDIR) {
        fate = removeName(0);
    }
    if (fate == Fate::Stays && isCleared) {
        addObstacle(depth_, errno);
    }
}

/// Moves the current entry, a folder, up into the top folder. The names there may be taken by what
/// an earlier, killed run left; an empty folder under such a name is replaced, which is as good.
TreeRemoval::Fate TreeRemoval::hoist() {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        char newName[32];
        std::snprintf(newName, sizeof newName, ".tavrelCleanup.%u", ++hoistNumber_);
        if (renameIntoTop(newName)) {
            ++hoistedCount_;
            return Fate::Hoisted;
        }
        if (!isPassing(errno)) {
            break;
        }
    }
    return errno == ENOENT ? Fate::Gone : Fate::Stays;
}

/// False with `errno`.
bool TreeRemoval::renameIntoTop(const char* newName) {
    Level& level = current();
    Level& top = levels_[0];
    const char* const name = level.entry->d_name;
    if (renameat(level.fd.get(), name, top.fd.get(), newName) == 0) {
        return true;
    }
    if (errno != EACCES) {
        return false;
    }
    // Three folders have to be writable: the two that hold the names, and the one that moves, since
    // its ".." changes.
    static_cast<void>(grantAccess(level));
    static_cast<void>(grantAccess(top));
    const ScopedFd folder = openSubfolder(level.fd.get(), name, O_PATH, mount_);
    return folder.isOpen() && makeAccessible(folder.get()) &&
           renameat(level.fd.get(), name, top.fd.get(), newName) == 0;
}

/// `depth` is the level whose current entry is in the way; -1 for the top folder itself.
void TreeRemoval::addObstacle(int depth, int error) {
    passingCount_ += isPassing(error) ? 1 : 0;
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
