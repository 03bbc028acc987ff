"""Batch mode: Python files run one after the other, without a display."""


def _stopInOrderOn(*names):
    """Makes the first of these signals end the run by SystemExit; a second one ends it at once,
    also while native code keeps the first from being noticed."""
    import signal

    import SignalAPI_cmodule

    numbers = [getattr(signal, name) for name in names]

    def stop(number, frame):
        for each in numbers:
            signal.signal(each, signal.SIG_DFL)
        raise SystemExit(128 + number)

    for each in numbers:
        signal.signal(each, stop)
        SignalAPI_cmodule.handleOnce(each)


def Main(options, args):
    """Runs the files in order. The first that fails, by an exception or by a status, ends the run
    with that status. SIGTERM and SIGINT end it in order, with 143 and 130."""
    if not args:
        return
    _stopInOrderOn("SIGTERM", "SIGINT")
    import MainPythonFile
    for path in args:
        try:
            MainPythonFile.Run([path])
        except SystemExit as end:
            if end.code not in (None, 0):
                raise
