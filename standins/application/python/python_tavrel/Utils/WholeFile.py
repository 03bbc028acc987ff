"""Files that appear whole or not at all."""

import errno
import os
import stat


def CheckPlace(path, size):
    """OSError if Write could not put so many bytes there: to be asked before the bytes are made."""
    folder = os.path.dirname(os.path.realpath(path))
    if os.path.isdir(path):
        raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), path)
    if os.path.exists(path) and not os.path.isfile(path):
        return
    # statvfs fails for a folder that is missing, or none.
    room = os.statvfs(os.path.join(folder, ""))
    reason = (errno.EROFS if room.f_flag & os.ST_RDONLY
              else errno.EACCES if not os.access(folder, os.W_OK | os.X_OK)
              else errno.ENOSPC if room.f_bavail * room.f_frsize < size else 0)
    if reason:
        raise OSError(reason, os.strerror(reason), path)


def Write(path, pieces):
    """Writes pieces of bytes to a file, which takes the place of one that was there only when all
    of it is written. OSError if that can't be done; then nothing is left. What is no regular file, as
    a pipe or a device, is written to and stays what it is.

    A process that is killed meanwhile leaves PATH.RANDOM.partial: a process id would be that of another
    process, too, in a second container.
    """
    if os.path.exists(path) and not os.path.isfile(path):
        with open(path, "wb") as file:
            file.writelines(pieces)
        return
    path = os.path.realpath(path)
    partial = "%s.%s.partial" % (path, os.urandom(4).hex())
    file = open(partial, "xb")
    try:
        with file:
            if os.path.exists(path):
                # What no other user might read stays so.
                os.fchmod(file.fileno(), stat.S_IMODE(os.stat(path).st_mode))
            file.writelines(pieces)
        os.replace(partial, path)
    except BaseException:
        if os.path.exists(partial):
            os.remove(partial)
        raise
