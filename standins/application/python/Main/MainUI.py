"""UI mode: the window with the node graph."""

import sys
import tkinter

import MainEnvironment
import MainLogging
import MainPythonFile
import MainSignals


def _close(root):
    """Takes the window away, with a dialog that waits for an answer."""
    try:
        root.destroy()
    except tkinter.TclError:
        # It is gone already.
        pass


@MainSignals.EndedByInterrupt
def Main(options, args):
    """Runs the files, then shows the window until it is closed. A file that ends in ".json" is a
    graph: the window opens the last one. Ends the run with one line and
    status 1 if no display can be opened. SIGINT, SIGTERM and SIGHUP end it in order, with 130, 143
    and 129."""
    try:
        root = tkinter.Tk(className="Tavrel")
    except tkinter.TclError as error:
        MainLogging.PrintToStderr("tavrel: can't open the window: %s; set DISPLAY to an X server, or "
                                  "use --batch, --script or --shell\n" % error)
        sys.exit(1)
    MainEnvironment.EndPhase("display")
    MainSignals.StopInOrderOn("SIGINT", "SIGTERM", "SIGHUP", onStop=lambda: _close(root))
    graphs = [path for path in args if path.lower().endswith(".json")]
    try:
        for path in args:
            if path not in graphs:
                MainPythonFile.Run([path])
        if args:
            MainEnvironment.EndPhase("files of the user")
        import GraphWindow
        window = GraphWindow.Window(root, graphs[-1] if graphs else None)
        if "safe" not in options:
            root.after_idle(window.offerAutosave)
        MainEnvironment.EndPhase("window", isLast=True)
        root.mainloop()
    finally:
        _close(root)
