"""The profiler of a run that was started with --profile or --force-profile."""

import itertools
import os

import ConfigurationAPI_cmodule as Configuration

_profile = None


def _freePath():
    """A path for one more profile of this process; a batch run makes one for each of its files."""
    folder = Configuration.get("PLEXUM_PROFILING_DIR")
    for number in itertools.count(1):
        path = os.path.join(folder, "tavrel_profile_%d_%d.pstats" % (os.getpid(), number))
        if not os.path.exists(path):
            return path


def Start():
    """Starts recording; does nothing if it has been started. RuntimeError without --profile."""
    global _profile
    if not Configuration.has("PLEXUM_PROFILING_MODE"):
        raise RuntimeError("no profiling in this run: start tavrel with --profile")
    if _profile is None:
        import cProfile
        _profile = cProfile.Profile()
        _profile.enable()


def Stop():
    """Ends the recording and writes it for the standard module pstats. Returns the path, or None
    if nothing was recorded or the file can't be written, which is logged."""
    global _profile
    if _profile is None:
        return None
    import logging
    log = logging.getLogger("Profiling")
    profile, _profile = _profile, None
    profile.disable()
    path = _freePath()
    try:
        profile.dump_stats(path)
    except OSError as error:
        log.error('Can\'t write the profile "%s": %s.', path, error.strerror)
        return None
    log.info('Profile written to "%s".', path)
    return path
