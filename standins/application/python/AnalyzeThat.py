"""When this run began, as the application sees it."""

import time

_startSeconds = time.monotonic()


def GetRunSeconds():
    """Seconds since the application began to load."""
    return time.monotonic() - _startSeconds
