"""Facts about this run that any module may ask for."""

import ConfigurationAPI_cmodule as Configuration


def GetTemporaryDirectory():
    """The run's own folder for temporary files; it goes when the run has ended."""
    return Configuration.get("TAVREL_TMPDIR")
