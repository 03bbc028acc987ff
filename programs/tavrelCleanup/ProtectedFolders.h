#pragma once

#include <sys/types.h>

#include <string>

namespace Cleanup {

/// What must never be deleted, whatever the command line says: the user's home folder (the one that
/// HOME names and the one of the user data base), the folders `bin` and `plugins` of the install
/// tree that this program stands in and all that is in them, and every folder above one of these,
/// up to the root. Folders are identified by device and inode number, so that neither symbolic
/// links, nor bind mounts of them, nor a spelling of the path hide one.
struct Objection {
    /// Why the folder has to stay, for a message ("it is or holds the user's home folder"); null if
    /// there is nothing to fear.
    const char* reason = nullptr;
    /// An errno if it could not be found out, with what a message can say of it in `reason`.
    int error = 0;
};

/// `folderFd` is any descriptor of a folder, O_PATH included, `parentFd` one of the folder that
/// holds it. What stands above a home folder is protected also while that folder can't be reached
/// or left.
Objection objectionTo(int folderFd, int parentFd);

/// The process whose run a folder belongs to by its name, "tavrel_tmpdir_" and a process id, as
/// long as that process lives and may be a launcher. A launcher that another one has started
/// inherits the path of its folder, but not the right to end it: the first one's own cleanup
/// program does that.
///
/// A process that shows another program than a launcher has got the id later. One that lives and
/// doesn't show its program is taken for a launcher.
///
/// @return 0 if the folder is named otherwise, or that process has ended
pid_t livingOwner(const std::string& folderName);

}  // namespace Cleanup
