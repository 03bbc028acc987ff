"""What a support mail should hold: what tavrelInfo finds, and what only this run knows."""

import os
import re
import subprocess
import sys

import ConfigurationAPI_cmodule as Configuration
import LoggingAPI_cmodule as Log
import MainOptionTable


def _temporaryFolder():
    """The folder of the runs' temporary folders; TAVREL_TMPDIR where the user has named that."""
    path = Configuration.get("TAVREL_TMPDIR")
    folder, name = os.path.split(path)
    return folder if name == "tavrel_tmpdir_%d" % os.getpid() else path


def _crashFolder():
    return os.environ.get("TAVREL_CRASH_DIR") or "/var/tmp"


def Value(name):
    """The one value that --print NAME prints."""
    import TavrelVersion

    return {"tree": Configuration.get("TAVREL_ROOT"), "version": TavrelVersion.VERSION_TEXT,
            "tmpdir": _temporaryFolder(), "crash-dir": _crashFolder(),
            "log-file": Log.file() or "stderr"}[name]


def _environmentAtStart():
    """As the user gave it: what the launcher has set since isn't in there."""
    try:
        with open("/proc/self/environ", "rb") as file:
            return dict(entry.split(b"=", 1) for entry in file.read().split(b"\0") if b"=" in entry)
    except OSError:
        return os.environb


def _treeInfo(environment):
    """(text, whether nothing is missing)"""
    program = os.path.join(Configuration.get("TAVREL_ROOT"), "bin", "tavrelInfo")
    try:
        # Signals that the run has blocked or ignored are not for the program.
        ended = subprocess.run([program], env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE)
    except OSError as error:
        return "tavrelInfo: %s\n" % error.strerror, False
    return ended.stdout.decode("utf-8", "backslashreplace"), ended.returncode == 0


def _runInfo(environment):
    """What the application alone knows, as lines of the same form."""
    import TavrelVersion

    levels = {10: "debug", 20: "info", 30: "warning", 40: "error"}
    yield "version", "%s, built %s" % (TavrelVersion.VERSION_TEXT, sys.tavrel_BUILD_TIME)
    yield "OpenGL at start", Configuration.get("TAVREL_OPENGL_PROBE") or "not asked in this run"
    yield "run's temporary", _temporaryFolder()
    yield "log", "%s, level %s, by %s" % (Value("log-file"), levels.get(Log.level(), "off"),
                                          Configuration.get("ZKLOGGING_CONFIG"))
    for name, _ in MainOptionTable.ENVIRONMENT:
        if name.encode() in environment:
            yield name, os.fsdecode(environment[name.encode()])


def _isNew(label, text):
    return "\n  %s " % label not in text


def _withoutHome(text):
    """The home folder, by any of its paths, as "~": the user's name stays out of what is sent."""
    homes = {os.environ.get("HOME", ""), os.path.expanduser("~")}
    homes |= {os.path.realpath(home) for home in homes if home}
    for home in sorted(homes, key=len, reverse=True):
        if len(home) > 1:
            text = re.sub(r"(?<![^\s:=\"'(])%s(?![^/\s:,;\"')])" % re.escape(home.rstrip("/")), "~",
                          text)
    return text


def Report():
    """(text, whether nothing that a run needs is missing)"""
    environment = _environmentAtStart()
    text, isComplete = _treeInfo(environment)
    # Paths come from outside: no control character reaches a terminal, no byte stops the output.
    lines = ["  %-21s %s" % line for line in _runInfo(environment) if _isNew(line[0], text)]
    lines = ["this run"] + [re.sub(r"[\x00-\x1f\x7f]", "?", line) for line in lines]
    own = "\n".join(lines).encode("utf-8", "backslashreplace").decode("utf-8")
    return _withoutHome(text + own + "\n"), isComplete
