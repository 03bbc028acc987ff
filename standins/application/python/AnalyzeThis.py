"""Counts what happens in a run, for whoever asks at its end."""

_counts = {}


def Count(name):
    _counts[name] = _counts.get(name, 0) + 1


def GetCounts():
    """A copy: name of the event -> how often it happened."""
    return dict(_counts)
