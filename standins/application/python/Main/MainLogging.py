"""Python's log records and warnings in the launcher's own log, text that goes to standard error
instead, and the report of an exception."""

import logging
import os
import sys

import LoggingAPI_cmodule as Log


class _LineFormatter(logging.Formatter):
    """ "[INFO Main] text"; a traceback only where there is one."""

    def format(self, record):
        # An exception hook logs with no exception in flight, which would add "NoneType: None".
        if record.exc_info and record.exc_info[0] is None:
            record.exc_info = None
        return logging.Formatter.format(self, record)


def _flushStandardError():
    """What the application has written there itself stays in front."""
    try:
        sys.stderr.flush()
    except Exception:
        # It is full or gone, or whatever a script has put in its place.
        pass


class _LogHandler(logging.Handler):
    """Writes where log.conf sends the native lines, too."""

    def emit(self, record):
        try:
            line = self.format(record)
            if not Log.file():
                _flushStandardError()
            Log.write(line)
        except Exception:
            self.handleError(record)


def PrintToStderr(text):
    """Writes to standard error, for the user who started the run, wherever log.conf sends the log.
    Dropped if that is full or gone: the run and its status matter more than the words."""
    _flushStandardError()
    try:
        # Not by sys.stderr, which keeps what it can't write and raises again with the next line.
        os.write(2, text.encode("utf-8", "backslashreplace"))
    except OSError:
        pass


def ReportException(exceptionType, exception, tb):
    """Hands an exception that nothing has caught to sys.excepthook, while the run goes on. If that
    fails, in text of the exception's own for example, standard error shows both, as the interpreter
    shows them when a run ends. SystemExit of the hook and Ctrl-C pass through."""
    try:
        sys.excepthook(exceptionType, exception, tb)
    except SystemExit:
        raise
    except BaseException as failure:
        PrintToStderr("Error in sys.excepthook:\n")
        # Not by traceback, which an exception's own text can make fail.
        sys.__excepthook__(type(failure), failure, failure.__traceback__.tb_next)
        PrintToStderr("\nOriginal exception was:\n")
        sys.__excepthook__(exceptionType, exception, tb)
        if isinstance(failure, KeyboardInterrupt):
            raise


def Init():
    """Sets up the root logger: the level of log.conf; below verbosity 0 no information either."""
    handler = _LogHandler()
    handler.setFormatter(_LineFormatter("[%(levelname)s %(name)s] %(message)s"))
    root = logging.getLogger()
    root.handlers = [handler]
    least = logging.WARNING if sys.tavrel_verbosityLevel < 0 else logging.DEBUG
    root.setLevel(max(least, Log.level()))
