"""Makes the words about tavrel's options from the one table of them.

    optionWords.py MODULES --help                       what help2man(1) makes the man page from
    optionWords.py MODULES completion TEMPLATE OUTPUT   a shell's completion

MODULES: the folder of MainOptions.py and MainOptionTable.py.
"""

import re
import sys

sys.path.insert(0, sys.argv[1])

import MainOptionTable  # noqa: E402
import MainOptions  # noqa: E402


def help2manText():
    # The notation for a section that help2man has no name for.
    return MainOptions.HelpText().replace("\nExit status:\n", "\n*Exit status*\n\n")


def _names(options):
    names = []
    for option in options:
        names += ["-" + option.short] if option.short else []
        names.append("--" + option.name)
    return names


def _taking(metavar):
    return "|".join(_names(option for option in MainOptionTable.AllOptions()
                           if option.metavar == metavar and not option.isValueOptional))


def _bashChoices(option):
    return ('            %s)\n                mapfile -t COMPREPLY < <(compgen -W "%s" -- "$current")\n'
            '                return ;;' % ("|".join(_names([option])), " ".join(option.choices)))


def _zshOption(option):
    """One argument of _arguments. What follows --script is the script's."""
    text = re.sub(r"[\[\]:\\]", r"\\\g<0>", option.text).replace("'", "'\\''")
    value = ""
    if option.choices:
        value = ":%s:(%s)" % (option.metavar, " ".join(option.choices))
    elif option.isValueOptional:
        value = ":*:%s:_files" % option.metavar
    elif option.metavar:
        value = ":%s:%s" % (option.metavar, "_files -/" if option.metavar == "DIR" else " ")
    sign = "=" if option.metavar and not option.isValueOptional else ""
    names = "'--%s%s" % (option.name, sign)
    if option.short:
        names = "'(-%s --%s)'{-%s%s,--%s%s}'" % (option.short, option.name, option.short,
                                                 "+" if sign else "", option.name, sign)
    return "    %s[%s]%s'" % (names, text, value)


def _fishOption(option):
    words = ["complete -c tavrel -n 'not __fish_contains_opt script' -l %s" % option.name]
    if option.short:
        words.append("-s %s" % option.short)
    if option.choices:
        words.append("-x -a '%s'" % " ".join(option.choices))
    elif option.metavar and not option.isValueOptional:
        words.append("-x -a '(__fish_complete_directories)'" if option.metavar == "DIR" else "-x")
    text = option.text.replace("\\", "\\\\").replace("'", "\\'")
    return "%s -d '%s'" % (" ".join(words), text)


def completionText(template):
    options = MainOptionTable.AllOptions()
    for key, text in (
            ("options", " ".join(_names(options))),
            ("taking_folder", _taking("DIR")),
            ("taking_number", _taking("N")),
            ("taking_word", "|".join(_names(option for option in options if option.choices))),
            ("bash_choices", "\n".join(_bashChoices(option) for option in options if option.choices)),
            ("zsh_options", " \\\n".join(map(_zshOption, options))),
            ("fish_options", "\n".join(map(_fishOption, options)))):
        template = template.replace("@%s@" % key, text)
    return template


if sys.argv[2] == "completion":
    with open(sys.argv[3]) as template, open(sys.argv[4], "w") as output:
        output.write(completionText(template.read()))
else:
    sys.stdout.write(help2manText())
