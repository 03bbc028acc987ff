#pragma once

#include <sys/types.h>

#include <optional>

#include "process/ScopedFd.h"

namespace Cleanup {

/// Ways into a folder that can't lead anywhere else. None of them follows a symbolic link in the
/// last component or opens anything but a folder: neither a FIFO nor a device is touched. Each
/// returns a descriptor that the caller owns, or an empty one with `errno` set; ENOTDIR or ELOOP
/// says that something else than a folder stands there.

/// A mount as far as it can be distinguished from others: by the number of its device, and where
/// the kernel has no openat2(2) by its own number, too.
struct Mount {
    dev_t device;
    std::optional<int> id;  ///< none where neither name_to_handle_at(2) nor /proc has it
};

/// The mount of an open folder; nothing, with `errno`, if it can't be asked.
std::optional<Mount> mountOf(int folderFd);

/// Opens the folder `name` (one component) in `parentFd` if it is on `mount`; fails with EXDEV if
/// it is on another one, and with EOPNOTSUPP if that can't be found out. `access` is O_RDONLY or
/// O_PATH.
Plexum3::Base::ScopedFd openSubfolder(int parentFd, const char* name, int access,
                                      const Mount& mount);

/// Opens the folder behind the O_PATH descriptor `pathFd` for reading. If its mode forbids that,
/// the mode becomes 0700, on this very folder whatever its path means by now. Needs /proc for that.
Plexum3::Base::ScopedFd openForReading(int pathFd);

/// Sets the mode of the folder behind the O_PATH descriptor to 0700. False with EACCES on failure.
bool makeAccessible(int pathFd);

}  // namespace Cleanup
