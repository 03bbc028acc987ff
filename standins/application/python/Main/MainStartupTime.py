"""What the phases of a start took, the launcher's first. Loaded only on demand."""

import time

import ConfigurationAPI_cmodule as Configuration
import MainLogging


def _launchers():
    """The start, then the end of each phase: (seconds of the monotonic clock, name)."""
    lines = Configuration.get("TAVREL_STARTUP_PHASES").splitlines()
    parts = [line.partition(" ") for line in lines] or [(time.monotonic() * 1e9, "", "")]
    return [(float(end) / 1e9, name) for end, _, name in parts]


_ends = _launchers()


def EndPhase(name):
    _ends.append((time.monotonic(), name))


def Print():
    """One line a phase on standard error, and nothing at a second call."""
    phases = [(end - begin, name) for (begin, _), (end, name) in zip(_ends, _ends[1:])]
    if phases:
        phases.append((_ends[-1][0] - _ends[0][0], "in all"))
    MainLogging.PrintToStderr("".join("tavrel: start: %8.2f ms  %s\n" % (seconds * 1e3, name)
                             for seconds, name in phases))
    del _ends[1:]
