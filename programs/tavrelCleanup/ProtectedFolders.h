#pragma once

namespace Cleanup {

/// What must never be deleted, whatever the command line says: the user's home folder (the one that
/// HOME names and the one of the user data base), the folder that this program stands in, and every
/// folder above one of them, up to the root. Folders are told by device and inode number, so that
/// neither symbolic links, nor bind mounts, nor a spelling of the path hide one.
///
/// `folderFd` is any descriptor of a folder, O_PATH included. Returns what deleting it would take
/// with it, for a message ("the user's home folder"), or null if there is nothing to fear. What
/// stands above a home folder is protected also while that folder can't be reached or left.
const char* protectedContent(int folderFd);

}  // namespace Cleanup
