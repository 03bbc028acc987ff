"""Runs a user's Python file as the interpreter itself would."""

import os
import sys
import types

import ConfigurationAPI_cmodule as Configuration
import MainLogging

# Whose frames stand between the interpreter and a user's code.
_OWN_MODULES = ("MainPythonFile", "MainShell", "code", "codeop")


def _read(path):
    """Source, as bytes, for it may name its encoding, and the name it goes by. A file that can't be
    read ends the run with one line and 2."""
    if path == "-":
        return sys.stdin.buffer.read(), "<stdin>"
    try:
        with open(path, "rb") as source:
            return source.read(), path
    except (OSError, ValueError) as error:
        reason = getattr(error, "strerror", None) or str(error)
        MainLogging.PrintToStderr('tavrel: can\'t open the Python file "%s": %s\n' % (path, reason))
        sys.exit(2)


def ReportException(exceptionType, exception, tb):
    """Hands an exception of a user's code to sys.excepthook, without the frames of this program.
    Where the log is a file, standard error shows it, too: the user is waiting there.

    To be called when the exception is no longer being handled: the log would print it twice.
    """
    import traceback

    import LoggingAPI_cmodule as Log

    while tb is not None and tb.tb_frame.f_globals.get("__name__") in _OWN_MODULES:
        tb = tb.tb_next
    if Log.file():
        MainLogging.PrintToStderr("".join(traceback.format_exception(exceptionType, exception, tb)))
    if tb is None:
        # The text could not be compiled: all there is to see is in the exception.
        import logging
        text = "".join(traceback.format_exception_only(exceptionType, exception))
        logging.error("%s", text.rstrip())
        return
    MainLogging.ReportException(exceptionType, exception, tb)


def _execute(source, name, namespace):
    modules = dict(sys.modules)
    try:
        exec(compile(source, name, "exec", dont_inherit=True), namespace)
    finally:
        # A script that empties sys.modules would take away what the report and the clean-up import.
        for item in modules.items():
            sys.modules.setdefault(*item)


def _profiled(function, *arguments):
    if not Configuration.has("PLEXUM_PROFILING_RUN"):
        return function(*arguments)
    import MainProfiling
    MainProfiling.Start()
    try:
        return function(*arguments)
    finally:
        MainProfiling.Stop()


def _failureOf(function, *arguments):
    """What sys.exc_info() says of an exception but SystemExit that the call ends in, else None."""
    try:
        function(*arguments)
    except SystemExit:
        raise
    except BaseException:
        return sys.exc_info()
    return None


def Run(arguments, module=None):
    """Runs the file arguments[0] as the module __main__, with the arguments as its sys.argv and its
    folder first on sys.path; "-" reads it from standard input.

    An exception is reported and the run ended with status 255, or 130 for the KeyboardInterrupt of
    Ctrl-C; SystemExit passes through.
    module: the module to run in, which stays __main__; without one a new one, for this file only.
    """
    source, name = _read(arguments[0])
    before = sys.modules["__main__"], sys.argv, sys.path[:]
    if module is None:
        module = types.ModuleType("__main__")
    if name == arguments[0]:
        module.__file__ = name
    folder = os.path.dirname(os.path.realpath(name)) if name == arguments[0] else ""
    sys.modules["__main__"] = module
    sys.argv = list(arguments)
    sys.path.insert(0, folder)
    try:
        failure = _failureOf(_profiled, _execute, source, name, module.__dict__)
        if failure is not None:
            ReportException(*failure)
            sys.exit(130 if issubclass(failure[0], KeyboardInterrupt) else 255)
    finally:
        sys.modules["__main__"], sys.argv, sys.path[:] = before
