"""Batch mode: Python files run one after the other, without a display."""

import sys
import time

# Here, not where they are wanted: Ctrl-C must not meet an import, whose callbacks lose it.
import MainEnvironment
import MainLogging
import MainPythonFile
import MainSignals


def _newProgress(count):
    """A function that says on the terminal which file is next; it does nothing without one."""
    if not sys.stderr.isatty() or sys.tavrel_verbosityLevel < 0:
        return lambda number, path: None
    start = time.monotonic()

    def tell(number, path):
        MainLogging.Tell("tavrel: file %d of %d after %.1f s: %s\n"
                         % (number, count, time.monotonic() - start, path))
    return tell


@MainSignals.EndedByInterrupt
def Main(options, args):
    """Runs the files in order. The first that fails, by an exception or by a status, ends the run
    with that status. SIGTERM and SIGINT end it in order, with 143 and 130."""
    if not args:
        return
    MainSignals.StopInOrderOn("SIGTERM", "SIGINT")
    MainEnvironment.EndPhase("batch mode", isLast=True)
    tell = _newProgress(len(args))
    for number, path in enumerate(args, 1):
        tell(number, path)
        try:
            MainPythonFile.Run([path])
        except SystemExit as end:
            if end.code not in (None, 0):
                raise
