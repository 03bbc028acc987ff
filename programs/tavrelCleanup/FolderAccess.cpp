#include "programs/tavrelCleanup/FolderAccess.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <cerrno>
#include <cstdio>

namespace Cleanup {
namespace {

int openWithinMount(int parentFd, const char* name, int flags) {
    open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.resolve = RESOLVE_NO_XDEV;
    const int fd = static_cast<int>(syscall(SYS_openat2, parentFd, name, &how, sizeof how));
    // Kernels before 5.6, and sandboxes that don't know the call.
    if (fd < 0 && (errno == ENOSYS || errno == EPERM)) {
        return openat(parentFd, name, flags);
    }
    return fd;
}

}  // namespace

FileDescriptor openSubfolder(int parentFd, const char* name, int access, dev_t device) {
    const int flags = access | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor folder(openWithinMount(parentFd, name, flags));
    struct stat status = {};
    if (folder.isOpen() && (fstat(folder.get(), &status) != 0 || status.st_dev != device)) {
        folder.reset();
        errno = EXDEV;
    }
    return folder;
}

FileDescriptor openForReading(int pathFd) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    FileDescriptor folder(openat(pathFd, ".", flags));
    if (!folder.isOpen() && errno == EACCES && makeAccessible(pathFd)) {
        folder = FileDescriptor(openat(pathFd, ".", flags));
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
