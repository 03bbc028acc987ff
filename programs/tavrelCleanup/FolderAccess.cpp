#include "programs/tavrelCleanup/FolderAccess.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Cleanup {
namespace {

using Plexum3::Base::ScopedFd;

// The number of the mount in the kernel's list; it distinguishes two mounts of one file system.
std::optional<int> mountIdOf(int fd) {
    // Without room for a handle the call fails, but not before it has given the mount.
    file_handle none = {};
    int id = 0;
    if (name_to_handle_at(fd, "", &none, &id, AT_EMPTY_PATH) == 0 || errno == EOVERFLOW) {
        return id;
    }
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    const ScopedFd file(open(path, O_RDONLY | O_CLOEXEC));
    char text[512] = {};
    if (!file.isOpen() || read(file.get(), text, sizeof text - 1) <= 0) {
        return std::nullopt;
    }
    const char* const line = std::strstr(text, "mnt_id:");
    return line != nullptr && std::sscanf(line, "mnt_id: %d", &id) == 1 ? std::optional(id)
                                                                        : std::nullopt;
}

// Opens without asking for the mount, then asks what has been opened.
ScopedFd openAndCompare(int parentFd, const char* name, int flags, const Mount& mount) {
    ScopedFd folder(openat(parentFd, name, flags));
    if (!folder.isOpen()) {
        return folder;
    }
    const std::optional<int> id = mountIdOf(folder.get());
    if (!id || !mount.id || *id != *mount.id) {
        folder.reset();
        errno = id && mount.id ? EXDEV : EOPNOTSUPP;
    }
    return folder;
}

ScopedFd openWithinMount(int parentFd, const char* name, int flags, const Mount& mount) {
    open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.resolve = RESOLVE_NO_XDEV;
    ScopedFd folder(static_cast<int>(syscall(SYS_openat2, parentFd, name, &how, sizeof how)));
    // Kernels before 5.6, and sandboxes that don't know the call.
    const bool isUnknownCall = !folder.isOpen() && (errno == ENOSYS || errno == EPERM);
    return isUnknownCall ? openAndCompare(parentFd, name, flags, mount) : std::move(folder);
}

}  // namespace

std::optional<Mount> mountOf(int folderFd) {
    struct stat status = {};
    if (fstat(folderFd, &status) != 0) {
        return std::nullopt;
    }
    return Mount{status.st_dev, mountIdOf(folderFd)};
}

ScopedFd openSubfolder(int parentFd, const char* name, int access, const Mount& mount) {
    const int flags = access | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    ScopedFd folder = openWithinMount(parentFd, name, flags, mount);
    struct stat status = {};
    if (!folder.isOpen()) {
        return folder;
    }
    if (fstat(folder.get(), &status) != 0) {
        folder.reset();
    } else if (status.st_dev != mount.device) {
        folder.reset();
        errno = EXDEV;
    }
    return folder;
}

ScopedFd openForReading(int pathFd) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    ScopedFd folder(openat(pathFd, ".", flags));
    if (!folder.isOpen() && errno == EACCES && makeAccessible(pathFd)) {
        folder = ScopedFd(openat(pathFd, ".", flags));
    }
    return folder;
}

bool makeAccessible(int pathFd) {
    // fchmod refuses an O_PATH descriptor. This link leads to the open folder itself, not to its
    // name.
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", pathFd);
    if (chmod(link, S_IRWXU) == 0) {
        return true;
    }
    // Why the mode can't be changed is of less interest than that it is in the way.
    errno = EACCES;
    return false;
}

}  // namespace Cleanup
