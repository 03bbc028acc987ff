"""Files that appear whole or not at all."""

import os
import stat


def Write(path, pieces):
    """Writes pieces of bytes to a file, which takes the place of one that was there only when all
    of it is written. OSError if that can't be done; then nothing is left. What is no regular file, as
    a pipe or a device, is written to and stays what it is.

    A process that is killed meanwhile leaves PATH.PID.partial.
    """
    if os.path.exists(path) and not os.path.isfile(path):
        with open(path, "wb") as file:
            file.writelines(pieces)
        return
    path = os.path.realpath(path)
    partial = "%s.%d.partial" % (path, os.getpid())
    try:
        with open(partial, "wb") as file:
            if os.path.exists(path):
                # What nobody else might read stays so.
                os.fchmod(file.fileno(), stat.S_IMODE(os.stat(path).st_mode))
            file.writelines(pieces)
        os.replace(partial, path)
    except BaseException:
        if os.path.exists(partial):
            os.remove(partial)
        raise
