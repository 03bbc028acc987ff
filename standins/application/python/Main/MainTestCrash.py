"""Crashes on purpose, so that a studio can try its settings of crash capture."""

import os


def _isCaptured(isUi):
    """As the launcher has decided."""
    wanted = os.environ.get("TAVREL_CRASH_HANDLING")
    return wanted == "1" or (isUi and wanted != "0")


def _raise():
    raise RuntimeError("test of an uncaught exception")


def _hang():
    """What a deadlock looks like from outside. Ctrl-C ends it."""
    import threading

    lock = threading.Lock()
    lock.acquire()
    lock.acquire()


def Run(kind, isUi):
    """Does not return."""
    import CrashAPI_cmodule
    import MainLogging

    MainLogging.PrintToStderr("tavrel: test of %s in process %d; crash capture is %s\n" % (
        kind, os.getpid(),
        "on" if _isCaptured(isUi) else "off, TAVREL_CRASH_HANDLING=1 switches it on"))
    {"segv": CrashAPI_cmodule.segv, "abort": CrashAPI_cmodule.abort,
     "throw": CrashAPI_cmodule.throwException, "python": _raise, "hang": _hang}[kind]()
