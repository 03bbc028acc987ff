"""The profiler of a run that was started with --profile or --force-profile."""

import os

import ConfigurationAPI_cmodule as Configuration

_profile = None


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
    path = os.path.join(Configuration.get("PLEXUM_PROFILING_DIR"),
                        "tavrel_profile_%d.pstats" % os.getpid())
    number = 1
    while os.path.exists(path):
        number += 1
        path = "%s_%d.pstats" % (path[:-len(".pstats")].rpartition("_%d" % (number - 1))[0]
                                 or path[:-len(".pstats")], number)
    try:
        profile.dump_stats(path)
    except OSError as error:
        log.error('Can\'t write the profile "%s": %s.', path, error.strerror)
        return None
    log.info('Profile written to "%s".', path)
    return path
