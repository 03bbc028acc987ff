"""The one table of all options. The parser, the help text, the man page and the shell completion
are made from it.

An option without a metavar takes no value; one with choices takes one of those. The launcher reads
the options marked so before the interpreter starts, accepts any unique prefix of their names, and
refuses bad values of them itself.
"""


class Option(object):
    __slots__ = ("name", "short", "metavar", "isValueOptional", "isLaunchers", "choices", "text")

    def __init__(self, name, text, short=None, metavar=None, isValueOptional=False,
                 isLaunchers=False, choices=()):
        self.name = name
        self.short = short
        self.metavar = metavar
        self.isValueOptional = isValueOptional
        self.isLaunchers = isLaunchers
        self.choices = choices
        self.text = text


GROUPS = (
    ("Run modes (without any of these the window opens)", (
        Option("batch", "run the Python files FILE... in order, without a display",
               isLaunchers=True),
        Option("script", "run one Python file, - for standard input; everything behind it is the "
               "script's", metavar="FILE", isValueOptional=True, isLaunchers=True),
        Option("shell", "open an interactive Python console in the terminal", isLaunchers=True),
    )),
    ("General", (
        Option("help", "print this text and end", short="h", isLaunchers=True),
        Option("version", "print the version and end"),
        Option("verbose", "how much to say: -1 warnings only, 0 little, 1 as usual, 2 everything",
               short="V", metavar="N", isLaunchers=True),
        Option("safe", "without the user's settings: variables of the application, module and plug-in "
               "folders outside of the tree, history, graphs of a crash"),
        Option("render-threads", "render on N threads instead of one for each processor",
               metavar="N"),
    )),
    ("Diagnosis", (
        Option("system-info", "print what a support mail should hold, and end: with 1 if something "
               "needed is missing"),
        Option("print", "print one value for scripts, and end: tree, version, tmpdir (the folder of "
               "temporary folders), crash-dir or log-file", metavar="NAME",
               choices=("tree", "version", "tmpdir", "crash-dir", "log-file")),
        Option("test-crash", "end as a fault would: segv, abort, throw (C++) or python; or hang",
               metavar="KIND", choices=("segv", "abort", "throw", "python", "hang")),
    )),
    ("Profiling", (
        Option("profile", "make the profiler available to scripts; with --batch, profile the run",
               isLaunchers=True),
        Option("force-profile", "profile the run in script mode, too", isLaunchers=True),
        Option("profiling-dir", "folder for profiles (the current one if not given)",
               metavar="DIR", isLaunchers=True),
    )),
)

# Variables that a user may set: name, effect.
ENVIRONMENT = (
    ("TAVREL_TMPDIR", "folder for the run's temporary files; it is DELETED when the run ends"),
    ("TMPDIR", "folder in which the run makes one for its temporary files"),
    ("TAVREL_KEEP_TMPDIR", "1: keep the run's temporary files"),
    ("TAVREL_CRASH_HANDLING", "1: write crash reports in every mode; 0: in none"),
    ("TAVREL_NO_CRASH_PROMPT", "1: never ask about a crash report"),
    ("TAVREL_CRASH_DIR", "folder for crash reports (/var/tmp)"),
    ("TAVREL_PYTHON_STACK_LOG", "1: keep track of the Python call stack for crash reports"),
    ("TAVREL_STARTUP_TIME", "1: print at the end of the start what its phases took"),
    ("DEFAULT_RENDERER", "name of the renderer plug-in to use"),
    ("TAVREL_RENDER_TILE_SIZE", "size of a tile in pixels, as in 64x64"),
    ("TAVREL_SPEC_CACHE_ENABLED", "0 or 1: keep finished previews for later (1; 0 in batch)"),
    ("TAVREL_RENDER_DEBUG", "1: log what renders do"),
    ("TAVREL_RENDER_LOGFILE", "the same, into this file"),
    ("TAVREL_EVENT_DEBUG", "1: log every event"),
    ("ARNOLD_RENDER_TERMINATION_SIGNAL", "signal that ends external renders (SIGKILL)"),
    ("ZKLOGGING_CONFIG", "log configuration to use instead of bin/log.conf"),
    ("ZENDRIK_LOG_LEVEL", "level of the file log"),
    ("ZENDRIK_LOG_FILE", "path of the file log"),
    ("SHOW", "name of the show that is worked on"),
    ("SHOT", "name of the shot that is worked on"),
    ("TAVREL_DEBUG_PRE_PYTHONPATH", "folders to search for Python modules before all others"),
    ("TAVREL_POST_PYTHONPATH", "folders to search for Python modules after all others"),
    ("TAVREL_USD_PLUGINS_DISABLED", "1: leave the tree's USD plug-ins out"),
    ("ZKPXR_PLUGINPATH", "folders to search for USD plug-in resources"),
    ("QT_PLUGIN_PATH", "folders to search for Qt plug-ins"),
    ("XDG_STATE_HOME", "folder that holds tavrel/shell_history and tavrel/autosave (~/.local/state)"),
)

EXIT_STATUSES = (
    ("0", "the run ended well"),
    ("1", "the start failed, as by --verbose x, the display could not be opened or was lost, or code "
     "piped to the shell raised"),
    ("2", "an option or a file name was wrong"),
    ("129, 130, 143", "the run was ended in order: the window and the shell by the loss of their "
     "terminal, batch and window by SIGINT, a script by Ctrl-C, all but a script by SIGTERM"),
    ("255", "an exception ended the run"),
    ("other", "what the script gave to sys.exit"),
)


def AllOptions():
    return [option for _, options in GROUPS for option in options]
