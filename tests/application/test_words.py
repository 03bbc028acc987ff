"""Help, man pages and completion tell the same, and each works with the program that reads it."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import pexpect

LAUNCHER = os.path.abspath(sys.argv.pop(1))
SHARE = os.path.abspath(sys.argv.pop(1))
COMPLETION = os.path.join(SHARE, "bash-completion/completions/tavrel")
PAGES = {"man1/tavrel.1": "EXIT STATUS,ENVIRONMENT,FILES,EXAMPLES,SEE ALSO",
         "man8/tavrelCleanup.8": "EXIT STATUS,ENVIRONMENT,EXAMPLES,SEE ALSO",
         "man8/CrashReporterTavrel.8": "EXIT STATUS,ENVIRONMENT,FILES,SEE ALSO"}
DEADLINE = 60


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
        for page, titles in PAGES.items():
            with self.subTest(page):
                text, complaints = rendered(page)
                self.assertEqual(complaints, "")
                for title in ["NAME", "SYNOPSIS", "DESCRIPTION", *titles.split(",")]:
                    self.assertTrue(section(text, title).strip(), title)

    def test_man_page_and_completion_have_what_the_help_has(self):
        text, _ = rendered("man1/tavrel.1")
        self.assertGreater(len(self.options), 8)
        self.assertLess(max(map(len, self.help.splitlines())), 80)
        self.assertEqual(set(re.findall(r"^       (?:-\w, )?(--[\w-]+)", text, re.M)), self.options)
        with open(COMPLETION) as completion:
            offered = re.search(r'compgen -W "([^"]*)"', completion.read()).group(1).split()
        self.assertEqual({name for name in offered if name.startswith("--")}, self.options)
        for title, heading in (("ENVIRONMENT", "Environment:"), ("EXIT STATUS", "Exit status:")):
            entries = section(self.help, heading)
            names = re.findall(r"^  (\w+(?:, \w+)*)(?: |$)", entries, re.M)
            self.assertGreater(len(names), 4)
            self.assertEqual(re.findall(r"^       (\w+(?:, \w+)*)(?: |$)", section(text, title),
                                        re.M), names)


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        os.mkdir(os.path.join(self.folder, "shots"))
        for name in ("render me.py", "image.ppm", "shots/a.py"):
            open(os.path.join(self.folder, name), "w").close()
        self.bash = pexpect.spawn(
            "/bin/bash", ["--norc", "--noprofile", "-i"], cwd=self.folder, timeout=DEADLINE,
            encoding="utf-8", dimensions=(24, 500),
            env={"TERM": "dumb", "PATH": os.environ["PATH"], "PS1": "ready$ ", "HOME": self.folder,
                 "HISTFILE": "", "INPUTRC": "/dev/null", "LC_ALL": "C.UTF-8"})
        self.addCleanup(self.bash.close, force=True)
        self.bash.expect_exact("ready$ ")
        # Ctrl-G shows the line as it stands.
        self.bash.sendline("bind 'set enable-bracketed-paste off' 'set bell-style none'; "
                           "bind -x '\"\\C-g\": echo \"<$READLINE_LINE>\"'; source '%s'; echo up"
                           % COMPLETION)
        self.bash.expect_exact("\nup")
        self.bash.expect_exact("ready$ ")

    def completed(self, typed):
        self.bash.send(typed + "\t\x07")
        self.bash.expect(r"<(tavrel[^>]*)>")
        line = self.bash.match.group(1)
        self.bash.send("\x15")
        return line

    def test_in_bash(self):
        script = r"render\ me.py "
        for typed, expected in (
                ("tavrel --ba", "tavrel --batch "),
                ("tavrel --prof", "tavrel --profil"),
                ("tavrel --batch r", "tavrel --batch " + script),
                ("tavrel i", "tavrel i"),
                ("tavrel --profiling-dir s", "tavrel --profiling-dir shots/"),
                ("tavrel --verbose s", "tavrel --verbose s"),
                ("tavrel --script=shots/", "tavrel --script=shots/a.py "),
                ("tavrel --script=r", "tavrel --script=" + script),
                ("tavrel --script a.py i", "tavrel --script a.py image.ppm "),
                ("tavrel --script a.py --ba", "tavrel --script a.py --ba"),
                ("tavrel --script -- a.py i", "tavrel --script -- a.py image.ppm "),
                ("tavrel -- --ba", "tavrel -- --ba")):
            with self.subTest(typed):
                self.assertEqual(self.completed(typed), expected)


if __name__ == "__main__":
    unittest.main()
