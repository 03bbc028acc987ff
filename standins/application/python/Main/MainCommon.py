"""What all run modes share once the subsystems are set up."""

import MainEnvironment
import Nodes2DAPI


def ProcessOptions(options):
    """Applies the options that override what the environment and the machine say."""
    threads = options.get("render-threads")
    if threads is not None:
        Nodes2DAPI.SetRenderThreads(threads)
    MainEnvironment.EndPhase("application and its settings")
