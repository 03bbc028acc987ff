"""What becomes of an exception that nothing has caught while the run goes on."""

import sys

import MainLogging


def Report(exceptionType, exception, tb):
    """Calls sys.excepthook. If that fails, in text of the exception's own for example, standard
    error shows both, as the interpreter shows them when a run ends. SystemExit of the hook and
    Ctrl-C pass through."""
    try:
        sys.excepthook(exceptionType, exception, tb)
    except SystemExit:
        raise
    except BaseException as failure:
        MainLogging.Tell("Error in sys.excepthook:\n")
        # Not by traceback, which an exception's own text can make fail.
        sys.__excepthook__(type(failure), failure, failure.__traceback__.tb_next)
        MainLogging.Tell("\nOriginal exception was:\n")
        sys.__excepthook__(exceptionType, exception, tb)
        if isinstance(failure, KeyboardInterrupt):
            raise
