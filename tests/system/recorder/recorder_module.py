"""Linked into a scratch tree under the name of each module that the entry script imports."""

import recording


def __getattr__(name):
    if name.startswith("__"):
        raise AttributeError(name)
    return recording.Call(__name__ + "." + name)
