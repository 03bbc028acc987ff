"""Help, man pages and completion agree, and each works with the program that reads it."""

import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import pexpect

LAUNCHER = os.path.abspath(sys.argv.pop(1))
SHARE = os.path.abspath(sys.argv.pop(1))
COMPLETION = os.path.join(SHARE, "bash-completion/completions/tavrel")
ZSH = os.path.join(SHARE, "zsh/vendor-completions")
FISH = os.path.join(SHARE, "fish/vendor_completions.d/tavrel.fish")
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


SCRIPT = r"render\ me.py "
COMPLETIONS = [  # what is typed behind "tavrel ", what stands there then, shells beside bash
    ("--ba", "--batch ", "zsh fish"),
    ("--prof", "--profil", ""),
    ("--batch r", "--batch " + SCRIPT, "zsh"),
    ("i", "i", ""),
    ("--profiling-dir s", "--profiling-dir shots/", "zsh fish"),
    ("--verbose s", "--verbose s", ""),
    ("--print=l", "--print=log-file ", "zsh"),
    ("--print l", "--print log-file ", "fish"),
    ("--script=shots/", "--script=shots/a.py ", ""),
    ("--script=r", "--script=" + SCRIPT, ""),
    ("--script a.py i", "--script a.py image.ppm ", "zsh"),
    ("--script a.py --ba", "--script a.py --ba", "zsh fish"),
    ("--script -- a.py i", "--script -- a.py image.ppm ", ""),
    ("-- --ba", "-- --ba", ""),
]
# Ctrl-G shows the line as it stands, Ctrl-U empties it.
SHELLS = {
    "bash": ("--norc --noprofile -i",
             "bind 'set enable-bracketed-paste off' 'set bell-style none'; "
             "bind -x '\"\\C-g\": echo \"<$READLINE_LINE>\"'; source '%s'" % COMPLETION),
    "zsh": ("-f -i",
            "unsetopt zle_bracketed_paste beep; fpath=('%s' $fpath); autoload -U compinit; "
            "compinit -u -D; show() { print -r -- \"<$BUFFER>\" }; zle -N show; bindkey '^G' show; "
            "bindkey '^U' kill-whole-line" % ZSH),
}


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        os.mkdir(os.path.join(self.folder, "shots"))
        for name in ("render me.py", "image.ppm", "shots/a.py"):
            open(os.path.join(self.folder, name), "w").close()
        self.environment = {"PATH": os.environ["PATH"], "HOME": self.folder, "LC_ALL": "C.UTF-8"}

    def test_at_a_prompt(self):
        for name, (arguments, setup) in SHELLS.items():
            shell = pexpect.spawn(
                "/bin/%s %s" % (name, arguments), cwd=self.folder, timeout=DEADLINE,
                encoding="utf-8", dimensions=(24, 500), env=dict(
                    self.environment, TERM="dumb", PS1="ready$ ", HISTFILE="", INPUTRC="/dev/null"))
            # Not by close alone, which gives a process a tenth of a second to die.
            for giveBack in (shell.close, shell.wait, lambda shell=shell: shell.kill(signal.SIGKILL)):
                self.addCleanup(giveBack)
            shell.expect_exact("ready$ ")
            shell.sendline(setup + "; echo up")
            shell.expect_exact("\nup")
            shell.expect_exact("ready$ ")
            for typed, expected, shells in COMPLETIONS:
                if name in "bash " + shells:
                    with self.subTest(name, typed=typed):
                        shell.send("tavrel " + typed + "\t\x07")
                        shell.expect(r"<tavrel ([^>]*)>")
                        self.assertEqual(shell.match.group(1), expected)
                        shell.send("\x15")

    def test_in_fish(self):
        for typed, expected, shells in COMPLETIONS:
            if "fish" in shells:
                done = subprocess.run(["fish", "--no-config", "-c", "source %s; complete -C 'tavrel %s'"
                                       % (FISH, typed)], cwd=self.folder, timeout=DEADLINE,
                                      env=self.environment, stdout=subprocess.PIPE,
                                      universal_newlines=True)
                # It prints the last word alone, and nothing where there is nothing to complete.
                word = "" if typed == expected else expected.split()[-1]
                self.assertEqual(done.stdout.partition("\t")[0], word, typed)


if __name__ == "__main__":
    unittest.main()
