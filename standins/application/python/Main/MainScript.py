"""Script mode: one Python file with arguments of its own."""

import os

import MainEnvironment
import MainPythonFile
import MainSignals


@MainSignals.EndedByInterrupt
def Main(options, args):
    """args: the script's sys.argv. SIGTERM is left to the script and the kernel, but for the first
    process of a container: there the kernel drops a signal that has no handler, so the run ends in
    order, with 143."""
    if os.getpid() == 1:
        MainSignals.StopInOrderOn("SIGTERM")
    MainEnvironment.EndPhase("script mode", isLast=True)
    MainPythonFile.Run(args)
