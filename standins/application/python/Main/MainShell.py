"""Shell mode: a Python console in the terminal, or fed by a pipe."""

import code
import errno
import logging
import os
import sys
import types

import MainEnvironment
import MainLogging
import MainPythonFile
import MainSignals
from Utils import StateFolder

_HISTORY_LINES = 2000


class _Console(code.InteractiveConsole):
    """Reports exceptions as the rest of the application does. Where no user sits at the keyboard, the
    first one ends the run with status 1, or 130 for the KeyboardInterrupt of Ctrl-C."""

    def __init__(self, namespace):
        super().__init__(namespace, "<console>")
        self._goesOn = sys.stdin.isatty()

    def _fail(self, status):
        if not self._goesOn:
            sys.exit(status)

    def write(self, data):
        MainLogging.PrintToStderr(data)

    def push(self, text):
        """One line, or the several that a terminal hands over for one paste. True if more input is
        needed."""
        isUnfinished = False
        for line in text.split("\n"):
            if self._endsBlock(line):
                super().push("")
            isUnfinished = super().push(line)
        return isUnfinished

    def _endsBlock(self, line):
        """True for a line that can only stand behind the open block, not in it: the blank line that
        ends a block at a prompt is missing, as in a file."""
        if not self.buffer or not line.strip() or line[0].isspace():
            return False
        block = "\n".join(self.buffer) + "\n"
        try:
            self.compile(block + line, self.filename, "single")
            return False
        except (OverflowError, SyntaxError, ValueError):
            pass
        try:
            return self.compile(block, self.filename, "single") is not None
        except (OverflowError, SyntaxError, ValueError):
            return False

    def interactWithPipe(self):
        """As interact, without prompts; the end of the input also ends an open block, and is an
        error in the middle of a statement."""
        for line in sys.stdin:
            self.push(line.rstrip("\n"))
        if self.buffer and self.push(""):
            try:
                compile("\n".join(self.buffer), self.filename, "exec")
            except SyntaxError:
                self.showsyntaxerror()

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
            self._fail(130 if issubclass(failure[0], KeyboardInterrupt) else 1)

    def showsyntaxerror(self, filename=None):
        import traceback
        exceptionType, exception = sys.exc_info()[:2]
        self.write("".join(traceback.format_exception_only(exceptionType, exception)))
        self._fail(1)


def _loadHistory(readline, path):
    """Makes the file if need be, for its owner only, and returns how many lines it brought."""
    if not os.path.isabs(path):
        raise OSError(errno.ENOENT, "there is no home folder")
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


def _withReadline(interact, namespace, hasHistory):
    """Line editing, completion and history around the console; a terminal only."""
    import readline
    import rlcompleter

    readline.set_completer(rlcompleter.Completer(namespace).complete)
    readline.parse_and_bind("tab: complete")
    path = StateFolder.Path("shell_history") if hasHistory else None
    try:
        linesBefore = _loadHistory(readline, path) if hasHistory else 0
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
    """A new module __main__ with the application's modules in it."""
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


@MainSignals.EndedByInterrupt
def Main(options, args):
    """Runs the files, then reads from standard input until its end or exit(). Status 0, or that of
    exit(); 1 if what a pipe or file brings raises. SIGTERM and the end of the terminal end it in
    order, with 143 and 129."""
    MainSignals.StopInOrderOn("SIGTERM", "SIGHUP")
    before = sys.modules["__main__"], sys.argv
    module = _newNamespace()
    MainEnvironment.EndPhase("shell mode", isLast=True)
    try:
        for path in args:
            MainPythonFile.Run([path], module)
        # A warning names the module's file, or else sys.argv[0], which is this program's own.
        module.__dict__.pop("__file__", None)
        sys.argv = [""]
        console = _Console(module.__dict__)
        if sys.stdin.isatty() and sys.stdout.isatty():
            _withReadline(lambda: console.interact(_banner(), exitmsg=""), module.__dict__,
                          hasHistory="safe" not in options)
        else:
            console.interactWithPipe()
    finally:
        sys.modules["__main__"], sys.argv = before
