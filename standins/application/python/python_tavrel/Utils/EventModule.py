"""The event queue. Events are queued from any thread; ProcessEvents hands them to the handlers on
the thread that calls it."""

import collections
import logging
import sys

import MainLogging

# A long batch run may never process events: the oldest go.
_MOST_WAITING = 10000

_waiting = collections.deque(maxlen=_MOST_WAITING)
_handlers = []
_isDebugging = False


def RegisterEventHandler(handler):
    """handler(name, arguments) is called for every event processed from now on. An exception of it
    goes to sys.excepthook, and the next handler is called."""
    if handler not in _handlers:
        _handlers.append(handler)


def QueueEvent(name, **arguments):
    if _isDebugging:
        logging.getLogger("Events").info(
            "%s(%s)", name, ", ".join("%s=%r" % item for item in sorted(arguments.items())))
    _waiting.append((name, arguments))


def _failureOf(handler, name, arguments):
    try:
        handler(name, arguments)
    except Exception:
        return sys.exc_info()
    return None


def ProcessEvents():
    """Hands over what is waiting, in order, and returns how much that was; what handlers queue
    meanwhile waits for the next call."""
    most, count = len(_waiting), 0
    while _waiting and count < most:
        # One by one, so that an exception which passes through here loses no other event.
        name, arguments = _waiting.popleft()
        count += 1
        for handler in list(_handlers):
            # Reported when it is no longer being handled: the log would print it twice.
            failure = _failureOf(handler, name, arguments)
            if failure is not None:
                MainLogging.ReportException(*failure)
    return count


def RegisterDebugEventHandler():
    """Logs every event when it is queued: only a window ever processes them."""
    global _isDebugging
    _isDebugging = True
