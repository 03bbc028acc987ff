"""Edits that have not been saved, kept for the next run in case this one crashes.

A run has PATH.json in the user's state folder, and holds a lock on PATH.lock as long as it lives: so
the graph of a run that has ended is known by its lock, which the kernel lets go.
"""

import fcntl
import logging
import os

from Utils import StateFolder, WholeFile


def _lock(path):
    """A descriptor with the lock; OSError if another run has it."""
    descriptor = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        os.close(descriptor)
        raise
    return descriptor


class Autosave(object):
    def __init__(self):
        self._path = None
        self._descriptor = -1

    def save(self, text):
        """Keeps a graph. What fails is logged once, and nothing is kept any more."""
        try:
            if self._path is None:
                path = StateFolder.Path("autosave", os.urandom(8).hex())
                os.makedirs(os.path.dirname(path), mode=0o700, exist_ok=True)
                self._descriptor = _lock(path + ".lock")
                self._path = path
            if self._descriptor >= 0:
                WholeFile.Write(self._path + ".json", [text.encode()])
        except OSError as error:
            self._path, self._descriptor = "", -1
            logging.getLogger("GraphWindow").warning("Edits are not kept for a crash: %s.", error)

    def forget(self):
        """They have been saved, or are not wanted any more."""
        if self._path:
            Remove(self._path)
            os.close(self._descriptor)
        self._path, self._descriptor = None, -1


def Find():
    """The path, without its ending, of the newest graph that a run has left; None if there is none."""
    folder = StateFolder.Path("autosave")
    try:
        found = [os.path.join(folder, name[:-5]) for name in os.listdir(folder)
                 if name.endswith(".json")]
        found.sort(key=lambda path: os.stat(path + ".json").st_mtime, reverse=True)
    except OSError:
        return None
    for path in found:
        try:
            os.close(_lock(path + ".lock"))
        except OSError:
            continue  # its run goes on
        return path
    return None


def Remove(path):
    for ending in (".json", ".lock"):
        try:
            os.unlink(path + ending)
        except OSError:
            pass  # it was never written
