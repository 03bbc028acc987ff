"""Facts about this run that any module may ask for."""

import ConfigurationAPI_cmodule as Configuration


def GetRootPath():
    """The install tree."""
    return Configuration.get("TAVREL_ROOT")


def GetTemporaryDirectory():
    """The run's own folder for temporary files; it goes when the run has ended."""
    return Configuration.get("TAVREL_TMPDIR")


def GetRunMode():
    """ "batch", "script", "shell" or "ui"; None before a mode is chosen."""
    for mode in ("batch", "script", "shell", "ui"):
        if Configuration.has("TAVREL_%s_MODE" % mode.upper()):
            return mode
    return None
