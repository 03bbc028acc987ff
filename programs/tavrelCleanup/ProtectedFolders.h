#pragma once

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

}  // namespace Cleanup
