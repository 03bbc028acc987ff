"""The first of the application's modules to do anything in a run."""

import os

import ConfigurationAPI_cmodule as Configuration

_isTimed = os.environ.get("TAVREL_STARTUP_TIME") == "1"


def EndPhase(name, isLast=False):
    """Notes that a phase of the start ends here, for a user who wants to know what they take; the
    last one prints them."""
    if _isTimed:
        import MainStartupTime
        MainStartupTime.EndPhase(name)
        if isLast:
            MainStartupTime.Print()


def Init():
    """Sees to it that the keys which everything else builds on are there.

    The launcher has set them; under another program they are derived here.
    """
    if not Configuration.has("TAVREL_ROOT"):
        folder = os.path.dirname(os.path.abspath(__file__))
        Configuration.set("TAVREL_ROOT", os.path.normpath(os.path.join(folder, "../../..")))
    if not Configuration.has("TAVREL_TMPDIR"):
        base = os.environ.get("TMPDIR") or "/tmp"
        Configuration.set("TAVREL_TMPDIR", os.path.join(base, "tavrel_tmpdir_%d" % os.getpid()))
    EndPhase("first imports")
