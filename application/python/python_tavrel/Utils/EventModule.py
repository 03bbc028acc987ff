"""The event queue. Events are queued from any thread; ProcessEvents hands them to the handlers on
the thread that calls it."""

import logging

# Nobody may ever process events in a long batch run: the oldest go.
_MOST_WAITING = 10000

_waiting = []
_handlers = []


def RegisterEventHandler(handler):
    """handler(name, arguments) is called for every event processed from now on."""
    if handler not in _handlers:
        _handlers.append(handler)


def QueueEvent(name, **arguments):
    if len(_waiting) >= _MOST_WAITING:
        del _waiting[0]
    _waiting.append((name, arguments))


def ProcessEvents():
    """Hands over what is waiting, in order; what handlers queue meanwhile waits for the next call."""
    events = _waiting[:]
    del _waiting[:len(events)]
    for name, arguments in events:
        for handler in list(_handlers):
            handler(name, arguments)
    return len(events)


def _logEvent(name, arguments):
    logging.getLogger("Events").info(
        "%s(%s)", name, ", ".join("%s=%r" % item for item in sorted(arguments.items())))


def RegisterDebugEventHandler():
    """Logs every event."""
    RegisterEventHandler(_logEvent)
