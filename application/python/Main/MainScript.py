"""Script mode: one Python file with arguments of its own."""

import MainPythonFile


def Main(options, args):
    """args: the script's sys.argv."""
    MainPythonFile.Run(args)
