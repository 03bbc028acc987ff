"""Linked into a scratch tree under the name of each module that the entry script imports."""

import os

import recording

exec(os.environ.get("RECORDER_IMPORT_" + __name__, ""), {"note": recording.note})


def __getattr__(name):
    if name.startswith("__"):
        raise AttributeError(name)
    return recording.Call(__name__ + "." + name)
