"""Recorder for the application's side: notes what it sees, one JSON line an event, in $RECORD.

Runs inside the launcher, under Python 3.7. What the application does is up to the test: the text
of $RECORDER_ACT is executed in place of a mode, that of $RECORDER_IMPORT_x while x is imported.
"""

import json
import os
import sys

KEYS = (
    "TAVREL_ROOT ZKLOGGING_CONFIG SHOW SHOT GRPC_DNS_RESOLVER PLEXUM_PROFILING_MODE "
    "PLEXUM_PROFILING_RUN PLEXUM_PROFILING_DIR RUNTIME_USE_SYNC TAVREL_TMPDIR TMPDIR "
    "TAVREL_POST_PYTHONPATH ZKPXR_PLUGINPATH TAVREL_INTERNAL_PYTHONHOME "
    "TAVREL_INTERNAL_PYTHON_SITEPACKAGES TAVREL_INTERNAL_PYTHONPATH").split()

ANSWERS = {
    "MachineInfo.Tavrel.GetRenderThreadCount": 3,
    "MachineInfo.Tavrel.GetRenderTileSize": (64, 32),
    "MachineInfo.Tavrel.GetImageMemoryMB": 512,
    "MachineInfo.Tavrel.GetImageDiskMemoryMB": "1024",
    "Nodes2DAPI.GetAllRenderTypes": ("preview", "final"),
    "RenderingAPI.RenderPlugins.GetRendererPluginNames": ["first", "dl"],
}


def note(event, **facts):
    if "RECORD" in os.environ:
        with open(os.environ["RECORD"], "a") as record:
            record.write(json.dumps(dict(facts, event=event), default=repr) + "\n")


def snapshot():
    import ConfigurationAPI_cmodule as Configuration
    note("snapshot", pid=os.getpid(), argv=sys.argv, path=sys.path,
         buildTime=sys.tavrel_BUILD_TIME, verbosity=sys.tavrel_verbosityLevel,
         configuration={key: Configuration.get(key) for key in KEYS if Configuration.has(key)},
         environment=dict(os.environ))


def options():
    def given(name):
        return [a for a in sys.argv[1:] if a.split("=")[0] == "--" + name]

    script = given("script")
    return {"batch": bool(given("batch")),
            "script": script[0].partition("=")[2] if script else None,
            "shell": bool(given("shell"))}, sys.argv[1:]


class Call:
    """Stands for any function or object of a module."""

    def __init__(self, name):
        self._name = name

    def __getattr__(self, name):
        return Call(self._name + "." + name)

    def __call__(self, *args, **kwargs):
        module, _, function = self._name.partition(".")
        if self._name == "MainOptions.GetOptions":
            return options()
        if self._name == "MainEnvironment.Init":
            snapshot()
        if self._name == "NodegraphAPI.SetRootNode":
            note("clean-up")
        if function == "Main":
            note("mode", module=module)
            exec(os.environ.get("RECORDER_ACT", ""), {"note": note})
        return ANSWERS.get(self._name)
