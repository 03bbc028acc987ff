"""Whether an installed tree is as it was installed, by its MANIFEST in the format of sha256sum."""

import hashlib
import os
import threading

_PIECE = 1 << 20


def _fault(path, expected):
    """None, or what is wrong with the file."""
    digest = hashlib.sha256()
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        try:
            piece = os.read(descriptor, _PIECE)
            while piece:
                digest.update(piece)
                piece = os.read(descriptor, _PIECE)
        finally:
            os.close(descriptor)
    except (OSError, ValueError) as error:
        # The latter for a null character, which a power failure may leave in the MANIFEST.
        return getattr(error, "strerror", None) or str(error)
    return None if digest.hexdigest() == expected else "changed"


def Check(root):
    """(number of files, list of (name, what is wrong)); (None, []) for a tree without a MANIFEST.

    hashlib and the system's calls let other threads run meanwhile: each processor has one.
    """
    try:
        with open(os.path.join(root, "MANIFEST"), errors="surrogateescape") as manifest:
            entries = [line.rstrip("\n").split("  ", 1) for line in manifest]
    except FileNotFoundError:
        return None, []
    except OSError as error:
        return 1, [("MANIFEST", error.strerror)]
    waiting = iter(entries)  # next() on it is one step of the interpreter
    faults = []

    def work():
        for entry in waiting:
            fault = "not in the MANIFEST's format"
            if len(entry) == 2:
                fault = _fault(os.path.join(root, entry[1]), entry[0])
            if fault:
                faults.append((entry[-1], fault))

    threads = []
    try:
        for _ in range(len(os.sched_getaffinity(0)) - 1):
            thread = threading.Thread(target=work)
            thread.start()
            threads.append(thread)
    except RuntimeError:
        # A limit on threads is one of the things that a user wants to see.
        pass
    work()
    for thread in threads:
        thread.join()
    return len(entries), sorted(faults)
