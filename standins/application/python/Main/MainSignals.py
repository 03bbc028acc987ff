"""Signals that end a run in order: clean-up, exit handlers and the scripts' own finally blocks."""

# Not the module signal, whose functions are Python and take long enough to be met by a signal.
import _signal

import SignalAPI_cmodule


def StopInOrderOn(*names, onStop=None):
    """Makes the first of these signals end the run by SystemExit with 128 and its number; a second
    one ends it at once, also while native code keeps the first from being noticed.

    onStop() is called first. SIGHUP and SIGINT that are ignored stay so: nohup asks for that, and a
    shell for what runs in its background.
    """
    import os
    numbers = [number for number in (getattr(_signal, name) for name in names)
               if number == _signal.SIGTERM or _signal.getsignal(number) != _signal.SIG_IGN]
    arrived = []

    def stop(number, frame):
        for each in numbers:
            SignalAPI_cmodule.setDefault(each)
        arrived.append(number)
        if len(arrived) > 1:
            # It came before Python had looked at the first.
            os.kill(os.getpid(), number)
        if onStop is not None:
            onStop()
        raise SystemExit(128 + number)

    # What comes meanwhile finds all handlers in place.
    before = _signal.pthread_sigmask(_signal.SIG_BLOCK, ())
    try:
        _signal.pthread_sigmask(_signal.SIG_BLOCK, numbers)
        for each in numbers:
            _signal.signal(each, stop)
            SignalAPI_cmodule.handleOnce(each)
    finally:
        _signal.pthread_sigmask(_signal.SIG_SETMASK, before)


def EndedByInterrupt(main):
    """Decorates the Main of a mode: Ctrl-C ends the run with 130 wherever it meets it."""
    def endedByInterrupt(options, args):
        try:
            main(options, args)
        except KeyboardInterrupt:
            raise SystemExit(130) from None
    return endedByInterrupt
