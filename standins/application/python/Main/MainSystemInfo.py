"""What a support mail should hold: the tree, the machine and the settings of a run.

Nothing here asks for more than reading, and every question may fail: the answer is then the reason.
"""

import os
import re
import sys

import ConfigurationAPI_cmodule as Configuration
import LoggingAPI_cmodule as Log
import MainOptionTable

_LIBRARIES = (  # file, what needs it, whether a run without a display needs it
    ("libX11.so.6", "the window", False),
    ("libGL.so.1", "the window", False),
    ("libdw.so.1", "the stacks of crash reports", True),
)
# What other programs' settings change here.
_FOREIGN_VARIABLES = ("DISPLAY", "LANG", "LC_ALL", "LD_LIBRARY_PATH", "LD_PRELOAD", "PYTHONHOME",
                      "PYTHONPATH", "VIRTUAL_ENV")
_REPORTS_SHOWN = 3


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


def _firstLine(path, default="unknown"):
    try:
        with open(path, errors="replace") as file:
            return file.readline().strip()
    except OSError as error:
        return "%s (%s)" % (default, error.strerror)


class _Report(object):
    """Lines of "label: text", and what is wrong."""

    def __init__(self):
        self.lines, self.problems = [], []

    def add(self, label, text):
        self.lines.append("%-14s %s" % (label, text))

    def fail(self, label, text):
        self.add(label, text)
        self.problems.append("%s: %s" % (label, text))


def _addTree(report):
    import TavrelVersion

    import MainManifest

    root = Configuration.get("TAVREL_ROOT")
    report.add("version", "%s, built %s" % (TavrelVersion.VERSION_TEXT, sys.tavrel_BUILD_TIME))
    report.add("tree", root)
    count, faults = MainManifest.Check(root)
    if count is None:
        report.add("files", "not checked: no MANIFEST, as in a tree that was not installed")
    elif faults:
        report.fail("files", "%d of %d are not as they were installed" % (len(faults), count))
        report.lines += ["  %s: %s" % fault for fault in faults[:20]]
    else:
        report.add("files", "all %d as they were installed" % count)
    for name in ("tavrelCleanup", "CrashReporterTavrel", "tavrelFrames", "tavrelStack"):
        if not os.access(os.path.join(root, "bin", name), os.X_OK):
            report.fail(name, "missing, or it can't be executed")
    report.add("interpreter", "Python %s, %s" % (sys.version.split()[0], sys.executable or sys.prefix))


def _addMachine(report):
    system = os.uname()
    name = re.search(r'(?m)^PRETTY_NAME="?([^"\n]*)', _wholeFile("/etc/os-release"))
    report.add("system", "%s, %s %s, %s" % (name.group(1) if name else "unknown", system.sysname,
                                            system.release, system.machine))
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") >> 20
    report.add("machine", "%d of %d processors, %d MB of memory"
               % (len(os.sched_getaffinity(0)), os.cpu_count(), memory))


def _wholeFile(path):
    try:
        with open(path, errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def _loadedFrom(name):
    """Path of a library that this process has loaded or can load. OSError with the loader's text."""
    import ctypes

    ctypes.CDLL(name)
    found = re.search(r"(/\S*/%s[-.]\S*)$" % re.escape(name.split(".so")[0]),
                      _wholeFile("/proc/self/maps"), re.M)
    return found.group(1) if found else "loaded"


def _addLibraries(report):
    hasDisplay = bool(os.environ.get("DISPLAY"))
    report.add("display", os.environ.get("DISPLAY") or "none: DISPLAY is not set")
    report.add("OpenGL", Configuration.get("TAVREL_OPENGL_PROBE") or "not asked in this run")
    for name, purpose, isAlwaysNeeded in _LIBRARIES:
        try:
            report.add(name, _loadedFrom(name))
        except OSError as error:
            missing = report.fail if isAlwaysNeeded or hasDisplay else report.add
            missing(name, "missing, needed for %s: %s" % (purpose, error))


def _addFolders(report):
    folder = _temporaryFolder()
    # The run's own folder has been made by now.
    status = os.statvfs(Configuration.get("TAVREL_TMPDIR"))
    report.add("temporary", "%s, %d MB free" % (folder, status.f_bavail * status.f_frsize >> 20))
    folder = _crashFolder()
    if os.path.isdir(folder) and not os.path.islink(folder) and os.access(folder, os.W_OK | os.X_OK):
        report.add("crash reports", folder)
    else:
        report.fail("crash reports", "%s is no folder that can be written" % folder)
    report.lines += _lastReports(folder)
    levels = {10: "debug", 20: "info", 30: "warning", 40: "error"}
    report.add("log", "%s, level %s, by %s" % (Value("log-file"), levels.get(Log.level(), "off"),
                                               Configuration.get("ZKLOGGING_CONFIG")))


def _lastReports(folder):
    """One line for each of the newest crash reports of this user, the newest first."""
    own = []
    try:
        for entry in os.scandir(folder):
            if re.match(r"[0-9a-f]{8}(-[0-9a-f]+){4}\.txt$", entry.name) and entry.is_file():
                status = entry.stat()
                if status.st_uid == os.getuid():
                    own.append((status.st_mtime, entry.path))
    except OSError:
        return []
    lines = []
    for _, path in sorted(own, reverse=True)[:_REPORTS_SHOWN]:
        text = _wholeFile(path)[:4096]
        facts = re.findall(r"^(?:Time|Signal):\s*(.*)$", text, re.M)
        if text.startswith("Tavrel crash report"):
            lines.append("  %s: %s" % (os.path.basename(path), ", ".join(facts)))
    return lines


def _addLimits(report):
    import resource

    def shown(number):
        return "unlimited" if number == resource.RLIM_INFINITY else str(number)

    for name, limit in (("open files", "NOFILE"), ("processes", "NPROC"), ("memory", "AS"),
                        ("stack", "STACK"), ("core file", "CORE")):
        soft, hard = resource.getrlimit(getattr(resource, "RLIMIT_" + limit))
        report.add(name, shown(soft) if soft == hard else "%s of %s" % (shown(soft), shown(hard)))


def _hasSystemCall(number, *arguments):
    """Whether the kernel, and what filters its calls, knows one; arguments that do nothing."""
    import ctypes
    import errno

    library = ctypes.CDLL(None, use_errno=True)
    library.syscall.restype = ctypes.c_long
    result = library.syscall(ctypes.c_long(number), *map(ctypes.c_long, arguments))
    if result > 2:
        os.close(result)
    return result >= 0 or ctypes.get_errno() not in (errno.ENOSYS, errno.EPERM)


def _addKernel(report):
    # Numbers of x86-64. openat2 gets a structure that is too small: EINVAL from a kernel that has it.
    calls = (("pidfd_open", 434, os.getpid(), 0), ("close_range", 436, 2 ** 31 - 1, 2 ** 31 - 1, 0),
             ("openat2", 437, -100, 0, 0, 0))
    report.add("kernel has", ", ".join(
        "%s %s" % (name, "yes" if _hasSystemCall(*call) else "no") for name, *call in calls))
    scope = _firstLine("/proc/sys/kernel/yama/ptrace_scope", "none")
    report.add("ptrace_scope", scope)


def _addEnvironment(report):
    report.lines.append("environment")
    names = [name for name, _ in MainOptionTable.ENVIRONMENT] + list(_FOREIGN_VARIABLES)
    report.lines += ["  %s=%s" % (name, os.environ[name]) for name in names if name in os.environ]


def _withoutHome(text):
    """The home folder, by any of its paths, as "~": who it is that asks is nobody's business."""
    homes = {os.environ.get("HOME", ""), os.path.expanduser("~")}
    homes |= {os.path.realpath(home) for home in homes if home}
    for home in sorted(homes, key=len, reverse=True):
        if len(home) > 1:
            text = re.sub(r"(?<![^\s:=\"'(])%s(?![^/\s:,;\"')])" % re.escape(home.rstrip("/")), "~",
                          text)
    return text


def Report():
    """(text, whether nothing that a run needs is missing)"""
    report = _Report()
    for part in (_addTree, _addMachine, _addLibraries, _addFolders, _addLimits, _addKernel,
                 _addEnvironment):
        part(report)
    if report.problems:
        report.lines += ["wrong"] + ["  " + problem for problem in report.problems]
    # Paths come from outside: no control character reaches a terminal, no byte stops the output.
    lines = [re.sub(r"[\x00-\x1f\x7f]", "?", line) for line in report.lines]
    text = "\n".join(lines).encode("utf-8", "backslashreplace").decode("utf-8")
    return _withoutHome(text) + "\n", not report.problems
