"""Help, man pages and completion agree, and the pages are sound."""

import glob
import os
import re
import subprocess
import sys
import unittest

LAUNCHER = os.path.abspath(sys.argv.pop(1))
SHARE = os.path.abspath(sys.argv.pop(1))
COMPLETION = os.path.join(SHARE, "bash-completion/completions/tavrel")
DEADLINE = 25


def rendered(page):
    """A man page as plain text, and what the formatter complains of."""
    done = subprocess.run(["man", "--warnings", "-l", os.path.join(SHARE, "man", page)],
                          env={"PATH": os.environ["PATH"], "MANWIDTH": "200", "LC_ALL": "C.UTF-8",
                               "MANPAGER": "cat", "MAN_KEEP_FORMATTING": ""},
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE)
    return re.sub(".\b", "", done.stdout.decode()), done.stderr.decode()


def section(text, title):
    return re.search(r"^%s\n(.*?)(?=^\S|\Z)" % title, text, re.S | re.M).group(1)


class WordsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        environment = {"PATH": os.environ["PATH"], "TAVREL_CRASH_HANDLING": "0"}
        environment.update((name, os.environ[name]) for name in os.environ if "SAN_OPT" in name)
        cls.help = subprocess.run([LAUNCHER, "--help"], env=environment, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, check=True, timeout=DEADLINE,
                                  universal_newlines=True).stdout
        cls.options = set(re.findall(r"^  (?:-\w, )?(--[\w-]+)", cls.help, re.M))

    def test_pages_are_sound_and_whole(self):
        pages = glob.glob(SHARE + "/man/man*/*")
        self.assertGreater(len(pages), 4)
        for page in pages:
            text, complaints = rendered(page)
            self.assertEqual(complaints, "")
            for title in "NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "SEE ALSO":
                self.assertTrue(section(text, title).strip(), (page, title))

    def test_man_page_and_completion_have_what_the_help_has(self):
        text, _ = rendered("man1/tavrel.1")
        self.assertGreater(len(self.options), 8)
        self.assertLess(max(map(len, self.help.splitlines())), 80)
        self.assertEqual(set(re.findall(r"^       (?:-\w, )?(--[\w-]+)", text, re.M)), self.options)
        with open(COMPLETION) as completion:
            offered = re.search(r'compgen -W "(-[^"]*)"', completion.read()).group(1).split()
        self.assertEqual({name for name in offered if name.startswith("--")}, self.options)
        for title, heading in (("ENVIRONMENT", "Environment:"), ("EXIT STATUS", "Exit status:")):
            entries = section(self.help, heading)
            names = re.findall(r"^  (\w+(?:, \w+)*)(?: |$)", entries, re.M)
            self.assertGreater(len(names), 4)
            self.assertEqual(re.findall(r"^       (\w+(?:, \w+)*)(?: |$)", section(text, title),
                                        re.M), names)


if __name__ == "__main__":
    unittest.main()
