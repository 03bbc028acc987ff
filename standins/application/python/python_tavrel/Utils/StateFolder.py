"""The user's folder for what a run leaves to the next one."""

import os


def Path(*names):
    """A path in it, which need not exist. A relative XDG_STATE_HOME counts as unset."""
    base = os.environ.get("XDG_STATE_HOME", "")
    if not os.path.isabs(base):
        base = os.path.expanduser("~/.local/state")
    return os.path.join(base, "tavrel", *names)
