"""Python's log records and warnings on the standard error stream, in the launcher's own form."""

import logging
import sys


class _LineFormatter(logging.Formatter):
    """ "[INFO Main] text"; a traceback only where there is one."""

    def format(self, record):
        # An exception hook logs with no exception in flight, which would add "NoneType: None".
        if record.exc_info and record.exc_info[0] is None:
            record.exc_info = None
        return logging.Formatter.format(self, record)


def _levelFor(verbosity):
    if verbosity >= 2:
        return logging.DEBUG
    return logging.INFO if verbosity >= 0 else logging.WARNING


def Init():
    """Sets up the root logger by the launcher's verbosity: from 2 on debug lines, too; below 0
    warnings and errors only."""
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(_LineFormatter("[%(levelname)s %(name)s] %(message)s"))
    root = logging.getLogger()
    root.handlers = [handler]
    root.setLevel(_levelFor(sys.tavrel_verbosityLevel))
