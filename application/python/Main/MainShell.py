"""Shell mode: a Python console in the terminal, or fed by a pipe."""

import code
import logging
import os
import sys
import types

import MainPythonFile

_HISTORY_LINES = 2000


class _Console(code.InteractiveConsole):
    """Reports exceptions as the rest of the application does."""

    def interactWithPipe(self):
        """As interact, without prompts; the end of the input also ends an open block."""
        for line in sys.stdin:
            self.push(line.rstrip("\n"))
        if self.buffer:
            self.push("")

    def runcode(self, statement):
        failure = None
        try:
            exec(statement, self.locals)
        except SystemExit:
            raise
        except BaseException:
            failure = sys.exc_info()
        if failure is not None:
            MainPythonFile.ReportException(*failure)

    def showsyntaxerror(self, filename=None):
        import traceback
        exceptionType, exception = sys.exc_info()[:2]
        self.write("".join(traceback.format_exception_only(exceptionType, exception)))


def HistoryFile():
    """Where the console's history is kept. A relative XDG_STATE_HOME counts as unset."""
    base = os.environ.get("XDG_STATE_HOME", "")
    if not os.path.isabs(base):
        base = os.path.expanduser("~/.local/state")
    return os.path.join(base, "tavrel", "shell_history")


def _loadHistory(readline, path):
    """Makes the file if need be, for its owner only, and returns how many lines it brought."""
    os.makedirs(os.path.dirname(path), mode=0o700, exist_ok=True)
    descriptor = os.open(path, os.O_RDWR | os.O_CREAT, 0o600)
    try:
        os.fchmod(descriptor, 0o600)
    finally:
        os.close(descriptor)
    readline.set_history_length(_HISTORY_LINES)
    readline.read_history_file(path)
    return readline.get_current_history_length()


def _warnOfHistory(path, error):
    logging.getLogger("Shell").warning('The history "%s" is not kept: %s.', path, error.strerror)


def _withReadline(interact, namespace):
    """Line editing, completion and history around the console; a terminal only."""
    import readline
    import rlcompleter

    readline.set_completer(rlcompleter.Completer(namespace).complete)
    readline.parse_and_bind("tab: complete")
    path = HistoryFile()
    try:
        linesBefore = _loadHistory(readline, path)
    except OSError as error:
        _warnOfHistory(path, error)
        path = None
    try:
        interact()
    finally:
        readline.set_completer(None)
        if path is not None:
            # Appended, so that two consoles at a time don't lose each other's lines.
            new = readline.get_current_history_length() - linesBefore
            try:
                readline.append_history_file(max(0, new), path)
            except OSError as error:
                _warnOfHistory(path, error)


def _newNamespace():
    import NodegraphAPI
    import Nodes2DAPI
    import Nodes3DAPI
    import RenderingAPI

    module = types.ModuleType("__main__")
    sys.modules["__main__"] = module
    module.__builtins__ = __builtins__
    for api in (NodegraphAPI, Nodes2DAPI, Nodes3DAPI, RenderingAPI):
        setattr(module, api.__name__, api)
    return module


def _banner():
    import TavrelVersion

    return ("Tavrel %s, Python %s\nNodegraphAPI, Nodes2DAPI, Nodes3DAPI and RenderingAPI are loaded; "
            "Ctrl-D ends." % (TavrelVersion.VERSION_TEXT, sys.version.split()[0]))


def Main(options, args):
    """Runs the files, then reads from standard input until its end or exit(). Status 0, or that of
    exit()."""
    entryModule = sys.modules["__main__"]
    module = _newNamespace()
    try:
        for path in args:
            MainPythonFile.Run([path], module)
        console = _Console(module.__dict__, "<console>")
        if sys.stdin.isatty() and sys.stdout.isatty():
            _withReadline(lambda: console.interact(_banner(), exitmsg=""), module.__dict__)
        else:
            console.interactWithPipe()
    finally:
        sys.modules["__main__"] = entryModule
