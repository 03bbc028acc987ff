#pragma once

#include <sys/types.h>

#include "programs/tavrelCleanup/FileDescriptor.h"

namespace Cleanup {

// Ways into a folder that can't lead anywhere else. None of them follows a symbolic link in the
// last component or opens anything but a folder: neither a FIFO nor a device is touched. Each
// returns a descriptor that the caller owns, or an empty one with `errno` set; ENOTDIR or ELOOP
// says that something else than a folder stands there.

/// Opens the folder `name` (one component) in `parentFd` if it is on the same mount; fails with
/// EXDEV otherwise. `access` is O_RDONLY or O_PATH. Where the kernel has no openat2(2), a mount
/// shows only by its device number, so that a bind mount of the same file system passes.
FileDescriptor openSubfolder(int parentFd, const char* name, int access, dev_t device);

/// Opens the folder behind the O_PATH descriptor `pathFd` for reading. If its mode forbids that,
/// the mode becomes 0700, on this very folder whatever its path means by now. Needs /proc for that.
FileDescriptor openForReading(int pathFd);

/// Sets the mode of the folder behind the O_PATH descriptor to 0700. False with EACCES on failure.
bool makeAccessible(int pathFd);

}  // namespace Cleanup
