"""The command line, as the application understands it.

The launcher has read the same arguments for its own options, so those follow its rules here, too:
a unique prefix of a long name will do, a value stands behind "=" or is the next argument, and an
option is given once.
"""

import os
import sys

import MainOptionTable


class OptionError(Exception):
    pass


def _findLong(name):
    """The launcher knows nothing of the application's own options: its prefixes come first."""
    options = MainOptionTable.AllOptions()
    for option in options:
        if option.name == name:
            return option
    for isLaunchers in (True, False):
        matches = [option for option in options
                   if name and option.isLaunchers == isLaunchers and option.name.startswith(name)]
        if len(matches) > 1:
            raise OptionError("--%s may mean %s" % (
                name, " or ".join("--" + option.name for option in matches)))
        if matches:
            return matches[0]
    import difflib
    nearest = difflib.get_close_matches(name, [option.name for option in options], 1)
    raise OptionError("unknown option --%s%s" % (
        name, " (--%s is the nearest)" % nearest[0] if nearest else ""))


def _findShort(argument):
    for option in MainOptionTable.AllOptions():
        if option.short == argument[1]:
            return option
    raise OptionError("unknown option %s" % argument)


def _integer(option, text, least=None):
    try:
        number = int(text)
    except ValueError:
        number = None
    if number is None or (least is not None and number < least):
        raise OptionError("--%s needs a whole number%s, not %r"
                          % (option.name, "" if least is None else " from %d" % least, text))
    return number


def _convert(option, text):
    if option.name == "verbose":
        return _integer(option, text)
    if option.name == "render-threads":
        return _integer(option, text, least=1)
    if option.choices and text not in option.choices:
        raise OptionError("--%s is one of %s, not %r"
                          % (option.name, ", ".join(option.choices), text))
    return text


def _takeOption(argument, remaining):
    """The option that an argument begins and its value, which may be the next argument."""
    if argument.startswith("--"):
        name, _, value = argument[2:].partition("=")
        option = _findLong(name)
    else:
        option, value = _findShort(argument), argument[2:]
    if option.metavar is None:
        if value:
            raise OptionError("--%s takes no value" % option.name)
        return option, True
    if not value and not option.isValueOptional:
        if not remaining:
            raise OptionError("--%s needs a value" % option.name)
        value = remaining.pop(0)
    return option, _convert(option, value)


def _scriptArguments(remaining):
    """What stands behind a script's name. A "--" right behind it only keeps the launcher from
    reading the rest and is not the script's."""
    return remaining[1:] if remaining[:1] == ["--"] else remaining


def Parse(arguments):
    """Arguments without the program's name -> (options, args).

    options: name of each option given -> its value, True for one without. In script mode args are
    the script's own sys.argv. Raises OptionError with a text for the user.
    """
    options, args, remaining = {}, [], list(arguments)
    while remaining:
        argument = remaining.pop(0)
        if argument == "--":
            args += remaining
            break
        if argument == "-" or not argument.startswith("-"):
            args.append(argument)
            if "script" in options:
                return options, args + _scriptArguments(remaining)
            continue
        option, value = _takeOption(argument, remaining)
        if option.name in options:
            raise OptionError("--%s is given twice" % option.name)
        options[option.name] = value
        if option.name == "script":
            if args:
                raise OptionError('"%s" stands in front of --script; arguments of the script '
                                  'stand behind its name' % args[0])
            if value:
                return options, [value] + _scriptArguments(remaining)
    if not args and not any(name in options for name in _ANSWERS):
        if "script" in options:
            raise OptionError("--script needs a file, or - for standard input")
        if "batch" in options:
            raise OptionError("--batch needs a file to run")
    return options, args


def _entry(left, text):
    import textwrap

    indented = "  %-22s " % left
    if len(left) > 21:
        # Less than two blanks would be left: the text begins on a line of its own.
        return "%s\n%s" % (indented.rstrip(), textwrap.fill(
            text, 78, initial_indent=" " * 25, subsequent_indent=" " * 25))
    return textwrap.fill(text, 78, initial_indent=indented, subsequent_indent=" " * 25)


def OptionNames(option):
    """How an option is written, as in "-V, --verbose N"."""
    names = "--" + option.name if option.short is None else "-%s, --%s" % (option.short, option.name)
    if option.metavar is None:
        return names
    return "%s %s" % (names, option.metavar)


def HelpText():
    lines = ["Usage: tavrel [OPTION...] [FILE...]",
             "  or:  tavrel [OPTION...] --batch [FILE...]",
             "  or:  tavrel [OPTION...] --script FILE [ARGUMENT...]",
             "  or:  tavrel [OPTION...] --shell [FILE...]",
             "",
             "Python files FILE are run in order; those for the window and the shell are run",
             "before it opens. A script's option that has the name of one of tavrel's needs a",
             "-- in front of the script, or one behind it, which the script doesn't see:",
             "tavrel --script -- FILE --batch, tavrel --script FILE -- --batch"]
    for title, options in MainOptionTable.GROUPS:
        lines += ["", title + ":"]
        lines += [_entry(OptionNames(option), option.text) for option in options]
    lines += ["", "Environment:"]
    lines += [_entry(name, text) for name, text in MainOptionTable.ENVIRONMENT]
    lines += ["", "Exit status:"]
    lines += [_entry(status, text) for status, text in MainOptionTable.EXIT_STATUSES]
    return "\n".join(lines) + "\n"


def VersionText():
    import TavrelVersion

    return "tavrel %s (built %s)\n" % (TavrelVersion.VERSION_TEXT, sys.tavrel_BUILD_TIME)


def _printAndEnd(text, status=0):
    try:
        sys.stdout.write(text)
        sys.stdout.flush()
    except BrokenPipeError:
        # The reader has seen enough. The interpreter would complain at its end, so it gets a
        # standard output that takes everything.
        sys.stdout = None
    except OSError as error:
        import MainLogging
        # Else what is left would be tried, and complained of, once more at the end.
        sys.stdout = sys.__stdout__ = None
        MainLogging.PrintToStderr("tavrel: standard output could not be written: %s\n" % error.strerror)
        status = 1
    sys.exit(status)


def _printSystemInfo(options):
    import MainSystemInfo

    text, isComplete = MainSystemInfo.Report()
    _printAndEnd(text, 0 if isComplete else 1)


def _printValue(options):
    import MainSystemInfo

    _printAndEnd(MainSystemInfo.Value(options["print"]) + "\n")


def _crash(options):
    import MainTestCrash

    isUi = not any(mode in options for mode in ("batch", "script", "shell"))
    MainTestCrash.Run(options["test-crash"], isUi)


# What ends the run instead of a mode; the first that is given does.
_ANSWERS = {
    "help": lambda options: _printAndEnd(HelpText()),
    "version": lambda options: _printAndEnd(VersionText()),
    "system-info": _printSystemInfo,
    "print": _printValue,
    "test-crash": _crash,
}


def _checkProfilingFolder(options):
    """A profile is written at the end: what was recorded should not be lost for want of a folder."""
    if not any(name in options for name in ("profile", "force-profile", "profiling-dir")):
        return
    folder = options.get("profiling-dir", os.curdir)
    if not os.path.isdir(folder):
        raise OptionError("no profile can be written: %r is no folder" % folder)
    if not os.access(folder, os.W_OK | os.X_OK):
        raise OptionError("no profile can be written to the folder %r" % folder)


def _leaveOutUserSettings():
    import ConfigurationAPI_cmodule as Configuration

    for name in ("DEFAULT_RENDERER", "TAVREL_RENDER_TILE_SIZE", "TAVREL_SPEC_CACHE_ENABLED",
                 "TAVREL_RENDER_DEBUG", "TAVREL_RENDER_LOGFILE", "TAVREL_EVENT_DEBUG",
                 "ARNOLD_RENDER_TERMINATION_SIGNAL", "QT_PLUGIN_PATH"):
        os.environ.pop(name, None)
        Configuration.set(name, "")
    root = os.path.join(Configuration.get("TAVREL_ROOT"), "")

    def ofTree(entries):
        return [entry for entry in entries if os.path.abspath(entry).startswith(root)]
    sys.path[:] = ofTree(sys.path)
    plugins = Configuration.get("ZKPXR_PLUGINPATH").split(os.pathsep)
    Configuration.set("ZKPXR_PLUGINPATH", os.pathsep.join(ofTree(plugins)))


def GetOptions():
    """(options, args) of this run. Answers the options of _ANSWERS itself and ends the run; ends it
    with 2 and one line for a bad command line."""
    try:
        options, args = Parse(sys.argv[1:])
        for name, answer in _ANSWERS.items():
            if name in options:
                answer(options)
        _checkProfilingFolder(options)
        if "safe" in options:
            _leaveOutUserSettings()
    except OptionError as error:
        import MainLogging
        MainLogging.PrintToStderr("tavrel: %s; tavrel --help lists all options\n" % error)
        sys.exit(2)
    # Not for those who only want the words of this module.
    import MainEnvironment
    MainEnvironment.EndPhase("imports and options")
    return options, args
