"""Makes the words about tavrel's options from the one table of them.

    optionWords.py MODULES --help                       what help2man(1) makes the man page from
    optionWords.py MODULES completion TEMPLATE OUTPUT   the bash completion

MODULES: the folder of MainOptions.py and MainOptionTable.py.
"""

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


def completionText(template):
    options = MainOptionTable.AllOptions()

    def taking(metavar):
        return "|".join(_names(option for option in options
                               if option.metavar == metavar and not option.isValueOptional))

    for key, text in (("options", " ".join(_names(options))), ("taking_folder", taking("DIR")),
                      ("taking_number", taking("N"))):
        template = template.replace("@%s@" % key, text)
    return template


if sys.argv[2] == "completion":
    with open(sys.argv[3]) as template, open(sys.argv[4], "w") as output:
        output.write(completionText(template.read()))
else:
    sys.stdout.write(help2manText())
