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

    def report(number, path):
        MainLogging.PrintToStderr("tavrel: file %d of %d after %.1f s: %s\n"
                         % (number, count, time.monotonic() - start, path))
    return report


def _endOf(path):
    try:
        MainPythonFile.Run([path])
    except SystemExit as end:
        return end
    return None


def _isFailure(end):
    """As the launcher sees it, for which a code that can't be read is no failure."""
    try:
        code = end.code
    except Exception:
        failure = sys.exc_info()
    else:
        # What else a class derived from int says of itself counts no more than there.
        return code is not None and not (isinstance(code, int) and int.__eq__(code, 0))
    # When it is no longer being handled: the log would print it twice.
    MainLogging.ReportException(*failure)
    return False


@MainSignals.EndedByInterrupt
def Main(options, args):
    """Runs the files in order. The first that fails, by an exception or by a status, ends the run
    with that status. SIGTERM and SIGINT end it in order, with 143 and 130."""
    if not args:
        return
    MainSignals.StopInOrderOn("SIGTERM", "SIGINT")
    MainEnvironment.EndPhase("batch mode", isLast=True)
    report = _newProgress(len(args))
    for number, path in enumerate(args, 1):
        report(number, path)
        end = _endOf(path)
        if end is not None and _isFailure(end):
            raise end
