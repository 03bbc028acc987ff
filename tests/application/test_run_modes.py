"""The run modes as a user meets them, through the launcher."""

import os
import pstats
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

import pexpect

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system"))
from xserver import start_x_server

LAUNCHER = os.path.abspath(sys.argv.pop(1))
DEADLINE = 60
ARGV = "import sys\nprint(sys.argv[1:], __name__, sys.path[0])\n"


class RunModesTest(unittest.TestCase):
    def setUp(self):
        self.home = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.home)
        self.environment = {
            "HOME": self.home, "PATH": os.environ["PATH"], "TERM": "dumb", "LANG": "C.UTF-8",
            "TMPDIR": self.home, "TAVREL_KEEP_TMPDIR": "1", "TAVREL_CRASH_HANDLING": "0"}
        for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
            if name in os.environ:
                self.environment[name] = os.environ[name]

    def write(self, name, text):
        path = os.path.join(self.home, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def run_tavrel(self, *arguments, text="", **environment):
        """(status, standard output, lines of standard error that are no information)"""
        done = subprocess.run([LAUNCHER] + list(arguments), input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, universal_newlines=True, timeout=DEADLINE,
                              cwd=self.home, env=dict(self.environment, **environment))
        errors = [line for line in done.stderr.splitlines() if not line.startswith("[INFO ")]
        return done.returncode, done.stdout, errors

    def test_words(self):
        status, text, errors = self.run_tavrel("--help")
        self.assertEqual((status, errors), (0, []))
        for word in ("--script FILE", "-V, --verbose N", "TAVREL_TMPDIR", "143"):
            self.assertIn(word, text)
        self.assertLess(max(map(len, text.splitlines())), 80)
        status, text, _ = self.run_tavrel("--shell", "--version")
        self.assertEqual(status, 0)
        self.assertRegex(text, r"^tavrel \d+\.\d+v\d+ \(built \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\)\n$")
        self.assertEqual(self.run_tavrel("--shell", "--frob"), (
            2, "", ["tavrel: unknown option --frob; tavrel --help lists all options"]))

    def test_scripts(self):
        script = self.write("script.py", ARGV)
        failing = self.write("failing.py", "def f():\n    raise ValueError('bad')\nf()\n")
        broken = self.write("broken.py", "x = (\n")
        shown = "%s __main__ %s\n"
        table = (  # arguments, standard input, status, output, errors
            (["--script", script, "a", "-x", "--"], "", 0,
             shown % (["a", "-x", "--"], self.home), []),
            (["--script=" + script, "--", "--batch"], "", 0, shown % (["--batch"], self.home), []),
            (["--script", "-", "a"], ARGV, 0, shown % (["a"], ""), []),
            (["--script", "none.py"], "", 2, "", [
                'tavrel: can\'t open the Python file "none.py": No such file or directory']),
            (["--script", failing], "", 255, "", [
                '[ERROR root] A ValueError occurred in "failing.py": bad',
                "Traceback (most recent call last):",
                '  File "%s", line 3, in <module>' % failing, "    f()",
                '  File "%s", line 2, in f' % failing, "    raise ValueError('bad')",
                "ValueError: bad"]),
            (["--batch", script, failing, script], "", 255, shown % ([], self.home), None),
            (["--batch", broken], "", 255, "",
             ['[ERROR root]   File "%s", line 1' % broken, "    x = (",
              "        ^", "SyntaxError: unexpected EOF while parsing"]),
        )
        for arguments, text, status, output, errors in table:
            with self.subTest(arguments=arguments):
                result = self.run_tavrel(*arguments, text=text)
                self.assertEqual(result[:2], (status, output))
                if errors is not None:
                    self.assertEqual(result[2], errors)

    def test_a_profile_is_written_where_it_is_asked_for(self):
        script = self.write("script.py", "def work():\n    pass\nwork()\n")
        for options, count in ((["--force-profile", "--script"], 1), (["--profile", "--script"], 0),
                               (["--profile", "--batch"], 1)):
            folder = tempfile.mkdtemp(dir=self.home)
            self.assertEqual(self.run_tavrel("--profiling-dir", folder, *options, script)[0], 0)
            profiles = [os.path.join(folder, name) for name in os.listdir(folder)]
            self.assertEqual(len(profiles), count)
            for profile in profiles:
                self.assertIn("work", [key[2] for key in pstats.Stats(profile).stats])

    def _start(self, mode, text):
        """A run of a file that has said "ready"."""
        script = self.write("long.py", text)
        child = subprocess.Popen([LAUNCHER, "-V0", mode, script], env=self.environment,
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                 universal_newlines=True)
        self.addCleanup(child.stdout.close)
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        self.assertEqual(child.stdout.readline(), "ready\n")
        return child

    def test_a_signal_ends_a_batch_run_in_order(self):
        rendering = ("import sys, threading, Nodes2DAPI\n"
                     "def tile(*_): threading.Event().wait(0.01)\n"
                     "render = Nodes2DAPI.StartRender('disk', 10**6, 10**6, tile, None)\n"
                     "import atexit\natexit.register(lambda: print(render.state, flush=True))\n"
                     "print('ready', flush=True)\nrender.wait()\n")
        for number in (signal.SIGTERM, signal.SIGINT):
            child = self._start("--batch", rendering)
            child.send_signal(number)
            self.assertEqual(child.stdout.readline(), "cancelled\n")
            self.assertEqual(child.wait(DEADLINE), 128 + number)

    def test_a_second_signal_ends_a_batch_run_at_once(self):
        child = self._start("--batch", "import threading\nword = 'ready'\nwhile True:\n"
                            "    try:\n"
                            "        print(word, flush=True)\n"
                            "        threading.Event().wait()\n"
                            "    except BaseException:\n"
                            "        word = 'again'\n")
        child.send_signal(signal.SIGTERM)
        self.assertEqual(child.stdout.readline(), "again\n")
        child.send_signal(signal.SIGTERM)
        self.assertEqual(child.wait(DEADLINE), -signal.SIGTERM)

    def test_native_code_does_not_keep_a_second_signal_away(self):
        # No byte code runs between the word and the end.
        child = self._start("--batch", "import os\nfrom itertools import chain, repeat\n"
                            "sum(map(os.write, repeat(1), chain([b'ready\\n'], repeat(b''))))\n")
        # The first may be pending still, so that another one melts into it.
        for _ in range(DEADLINE * 100):
            child.send_signal(signal.SIGTERM)
            try:
                self.assertEqual(child.wait(0.01), -signal.SIGTERM)
                return
            except subprocess.TimeoutExpired:
                pass
        self.fail("still running")

    def test_ctrl_c_ends_a_script(self):
        child = self._start("--script", "import threading\nprint('ready', flush=True)\n"
                            "threading.Event().wait()\n")
        child.send_signal(signal.SIGINT)
        self.assertEqual(child.wait(DEADLINE), 130)

    def test_a_shell_fed_by_a_pipe(self):
        status, output, errors = self.run_tavrel(
            "--shell", text="x = 6\nx * 7\nfor i in range(2):\n  i\n\n1/0\nNodegraphAPI.__name__\n")
        self.assertEqual((status, output), (0, "42\n0\n1\n'NodegraphAPI'\n"))
        self.assertEqual(errors[0], "[ERROR root] A ZeroDivisionError occurred in <console>: "
                                    "division by zero")
        self.assertEqual(errors[1:], [
            "Traceback (most recent call last):", '  File "<console>", line 1, in <module>',
            "ZeroDivisionError: division by zero"])
        unfinished = "for i in range(2):\n  i"
        self.assertEqual(self.run_tavrel("--shell", text=unfinished)[:2], (0, "0\n1\n"))
        self.assertEqual(self.run_tavrel("--shell", text="exit(9)\n")[0], 9)

    def test_a_shell_on_a_terminal(self):
        self.environment["XDG_STATE_HOME"] = os.path.join(self.home, "state")
        for hasHistory in (False, True):
            child = pexpect.spawn(LAUNCHER, ["-V0", "--shell"], env=self.environment,
                                  timeout=DEADLINE, encoding="utf-8")
            self.addCleanup(child.close, force=True)
            child.expect_exact("Ctrl-D ends.")
            child.expect_exact(">>> ")
            if hasHistory:
                child.send("\x1b[A")  # the line before this one, from the first run
                child.expect_exact("abs(-4141)")
                child.send("\x15")
            child.send("abs(-4141)\r")
            child.expect_exact("4141\r\n>>> ")
            child.send("Nodeg\t.__doc__[:5]\r")
            child.expect_exact("'The n'\r\n>>> ")
            for typed in ("abs(-99", "if 1:\r"):  # a half line, a half block
                child.send(typed)
                child.expect_exact("... " if "\r" in typed else typed)
                child.send("\x03")
                child.expect_exact("KeyboardInterrupt")
                child.expect_exact(">>> ")
            child.send("while True: pass\r\r")
            child.expect_exact("... ")
            child.send("\x03")
            child.expect_exact("KeyboardInterrupt")
            child.expect_exact(">>> ")
            child.send("abs(-4141)\r")
            child.expect_exact("4141\r\n>>> ")
            child.send("\x04")
            child.expect(pexpect.EOF)
            child.wait()
            self.assertEqual(child.exitstatus, 0)
        history = os.path.join(self.home, "state", "tavrel", "shell_history")
        self.assertEqual(stat.S_IMODE(os.stat(history).st_mode), 0o600)
        with open(history) as lines:
            # Readline leaves out a line that equals the one before.
            self.assertEqual(lines.read().split("\n").count("abs(-4141)"), 3)

    def test_the_window_shows_the_graph_and_ends_well(self):
        self.companions = set()  # start_x_server notes its server here
        display = start_x_server(self)
        file = self.write("graph.py", (
            "import tkinter, NodegraphAPI\n"
            "NodegraphAPI.CreateNode('b').connect(NodegraphAPI.CreateNode('a'))\n"
            "NodegraphAPI.GetNode('b').setParameter('checker', 16)\n"
            "root = tkinter._default_root\n"
            "def look():\n"
            "    root.update()\n"
            "    canvas, = (w for w in root.winfo_children() if isinstance(w, tkinter.Canvas))\n"
            "    texts = {canvas.itemcget(i, 'text'): canvas.coords(i) for i in canvas.find_all()\n"
            "             if canvas.type(i) == 'text'}\n"
            "    x, y = map(int, texts['b'])\n"
            "    canvas.event_generate('<Button-1>', x=x, y=y)\n"
            "    labels = [w.cget('text') for w in root.winfo_children()\n"
            "              if isinstance(w, tkinter.Label)]\n"
            "    print(root.title(), sorted(texts), labels, flush=True)\n"
            "    root.tk.call(root.protocol('WM_DELETE_WINDOW'))\n"
            "root.after(1, look)\n"))
        status, output, _ = self.run_tavrel(file, DISPLAY=display)
        self.assertEqual((status, output), (0, (
            "Tavrel ['a', 'b'] ['2 nodes', 'b\\nb node\\n\\nInputs: a\\nchecker: 16']\n")))


if __name__ == "__main__":
    unittest.main()
