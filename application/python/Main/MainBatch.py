"""Batch mode: Python files run one after the other, without a display."""

import signal

_STOPPING_SIGNALS = (signal.SIGTERM, signal.SIGINT)


def _stopInOrder(number, frame):
    # A second signal ends the run at once.
    for stopping in _STOPPING_SIGNALS:
        signal.signal(stopping, signal.SIG_DFL)
    raise SystemExit(128 + number)


def Main(options, args):
    """Runs the files in order. The first that fails, by an exception or by a status, ends the run
    with that status. SIGTERM and SIGINT end it in order, with 143 and 130."""
    for stopping in _STOPPING_SIGNALS:
        signal.signal(stopping, _stopInOrder)
    if not args:
        return
    import MainPythonFile
    for path in args:
        try:
            MainPythonFile.Run([path])
        except SystemExit as end:
            if end.code not in (None, 0):
                raise
