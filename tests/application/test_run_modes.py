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
WAIT = "import threading\nprint('ready', flush=True)\nthreading.Event().wait()\n"
RENDER = """import atexit, threading, Nodes2DAPI
def tile(*_): threading.Event().wait(0.01)
render = Nodes2DAPI.StartRender('disk', 10**6, 10**6, tile, None)
atexit.register(lambda: print(render.state, flush=True))
print('ready', flush=True)
render.wait()
"""
STUBBORN = """import threading
word = 'ready'
while True:
    try:
        print(word, flush=True)
        threading.Event().wait()
    except BaseException:
        word = 'again'
"""
# No byte code runs between the word and the end.
NATIVE = """import os
from itertools import chain, repeat
sum(map(os.write, repeat(1), chain([b'ready\\n'], repeat(b''))))
"""
LOOK = """import tkinter, NodegraphAPI
NodegraphAPI.CreateNode('b').connect(NodegraphAPI.CreateNode('a'))
NodegraphAPI.GetNode('b').setParameter('checker', 16)
root = tkinter._default_root
def look():
    root.update()
    canvas, = (w for w in root.winfo_children() if isinstance(w, tkinter.Canvas))
    texts = {canvas.itemcget(i, 'text'): canvas.coords(i) for i in canvas.find_all()
             if canvas.type(i) == 'text'}
    x, y = map(int, texts['b'])
    canvas.event_generate('<Button-1>', x=x, y=y)
    labels = [w.cget('text') for w in root.winfo_children() if isinstance(w, tkinter.Label)]
    print(root.title(), sorted(texts), labels, flush=True)
    root.tk.call(root.protocol('WM_DELETE_WINDOW'))
root.after(1, look)
"""


class RunModesTest(unittest.TestCase):
    def setUp(self):
        self.home = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.home)
        self.environment = {
            "HOME": self.home, "PATH": os.environ["PATH"], "TERM": "dumb", "LANG": "C.UTF-8",
            "TMPDIR": self.home, "TAVREL_KEEP_TMPDIR": "1", "TAVREL_CRASH_HANDLING": "0"}
        self.environment.update((name, os.environ[name]) for name in os.environ if "SAN_OPT" in name)

    def write(self, name, text):
        path = os.path.join(self.home, name)
        with open(path, "w") as file:
            file.write(text)
        return path

    def run_tavrel(self, *arguments, text="", **environment):
        """(status, standard output, lines of standard error that are no information)"""
        done = subprocess.run([LAUNCHER, *arguments], input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, universal_newlines=True, timeout=DEADLINE,
                              cwd=self.home, env=dict(self.environment, **environment))
        errors = [line for line in done.stderr.splitlines() if not line.startswith("[INFO ")]
        return done.returncode, done.stdout, errors

    def test_words(self):
        status, text, _ = self.run_tavrel("--shell", "--version")
        self.assertEqual(status, 0)
        self.assertRegex(text, r"^tavrel \d+\.\d+v\d+ \(built \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\)\n$")
        self.assertEqual(self.run_tavrel("--shell", "--frob"), (
            2, "", ["tavrel: unknown option --frob; tavrel --help lists all options"]))
        status, _, errors = self.run_tavrel()
        self.assertEqual((status, "display" in errors[-1]), (1, True), errors)

    def test_scripts_and_batch(self):
        script = self.write("script.py", ARGV)
        failing = self.write("failing.py", "def f():\n    raise ValueError('bad')\nf()\n")
        broken = self.write("broken.py", "x = (\n")
        leaving = self.write("leaving.py", "import sys\nsys.exit(7)\n")
        shown = "%s __main__ %s\n"
        alone = shown % ([], self.home)
        table = (  # arguments, standard input, status, output, errors
            (["--script", script, "grün", "-x", "--"], "", 0,
             shown % (["grün", "-x", "--"], self.home), []),
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
            (["--batch"], "", 0, "", []),
            (["--batch", script, script, leaving, script], "", 7, alone * 2, []),
            (["--batch", broken, script], "", 255, "",
             ['[ERROR root]   File "%s", line 1' % broken, "    x = (",
              "        ^", "SyntaxError: unexpected EOF while parsing"]),
        )
        for arguments, text, *expected in table:
            with self.subTest(arguments=arguments):
                self.assertEqual(list(self.run_tavrel(*arguments, text=text)), expected)

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

    def test_signals(self):
        table = (  # mode, file, signals with the line that is awaited behind each, status
            ("--batch", RENDER, [(signal.SIGTERM, "cancelled\n")], 143),
            ("--batch", RENDER, [(signal.SIGINT, "cancelled\n")], 130),
            ("--batch", STUBBORN, [(signal.SIGTERM, "again\n"), (signal.SIGTERM, "")],
             -signal.SIGTERM),
            ("--script", WAIT, [(signal.SIGINT, "")], 130),
            ("--batch", NATIVE, [], -signal.SIGTERM),
        )
        for mode, text, signals, status in table:
            with self.subTest(text, signals=signals):
                child = subprocess.Popen(
                    [LAUNCHER, "-V0", mode, self.write("long.py", text)], env=self.environment,
                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, universal_newlines=True)
                for giveBack in (child.stdout.close, child.wait, child.kill):
                    self.addCleanup(giveBack)
                self.assertEqual(child.stdout.readline(), "ready\n")
                for number, line in signals:
                    child.send_signal(number)
                    self.assertEqual(child.stdout.readline(), line)
                # A second signal may melt into the first while that is pending still.
                for _ in range(0 if signals else DEADLINE * 100):
                    child.send_signal(signal.SIGTERM)
                    try:
                        child.wait(0.01)
                        break
                    except subprocess.TimeoutExpired:
                        pass
                self.assertEqual(child.wait(DEADLINE), status)

    def test_a_shell_fed_by_a_pipe(self):
        status, output, errors = self.run_tavrel(
            "--shell", text="x = 6\nx * 7\nfor i in range(2):\n  i\n\n1/0\nNodegraphAPI.__name__\n")
        self.assertEqual((status, output), (0, "42\n0\n1\n'NodegraphAPI'\n"))
        self.assertEqual(errors, [
            "[ERROR root] A ZeroDivisionError occurred in <console>: division by zero",
            "Traceback (most recent call last):", '  File "<console>", line 1, in <module>',
            "ZeroDivisionError: division by zero"])
        unfinished = "for i in range(2):\n  i"
        self.assertEqual(self.run_tavrel("--shell", text=unfinished)[:2], (0, "0\n1\n"))
        self.assertEqual(self.run_tavrel("--shell", text="exit(9)\n")[0], 9)

    def test_a_shell_on_a_terminal(self):
        self.environment["XDG_STATE_HOME"] = os.path.join(self.home, "state")
        prompt, interrupted = ">>> ", "KeyboardInterrupt"
        talk = [  # what is typed, what is awaited in turn
            ("", ["Ctrl-D ends.", prompt]),
            ("abs(-4141)\r", ["4141\r\n>>> "]),
            ("Nodeg\t.__doc__[:5]\r", ["'The n'\r\n>>> "]),
            ("abs(-99", ["abs(-99"]), ("\x03", [interrupted, prompt]),
            ("if 1:\r", ["... "]), ("\x03", [interrupted, prompt]),
            ("while True: pass\r\r", ["... "]), ("\x03", [interrupted, prompt]),
            ("abs(-4141)\r", ["4141\r\n>>> "]),
            ("\x04", [pexpect.EOF]),
        ]
        # The second run finds the last line of the first.
        for conversation in (talk, [talk[0], ("\x1b[A", ["abs(-4141)"]), ("\r", ["4141\r\n>>> "]),
                                    talk[-1]]):
            child = pexpect.spawn(LAUNCHER, ["-V0", "--shell"], env=self.environment,
                                  timeout=DEADLINE, encoding="utf-8")
            self.addCleanup(child.close, force=True)
            for typed, awaited in conversation:
                child.send(typed)
                for text in awaited:
                    child.expect_exact(text)
            child.wait()
            self.assertEqual(child.exitstatus, 0)
        history = os.path.join(self.home, "state", "tavrel", "shell_history")
        self.assertEqual(stat.S_IMODE(os.stat(history).st_mode), 0o600)

    def test_the_window_shows_the_graph_and_ends_well(self):
        self.companions = set()  # start_x_server notes its server here
        status, output, _ = self.run_tavrel(self.write("graph.py", LOOK),
                                            DISPLAY=start_x_server(self))
        self.assertEqual((status, output), (0, (
            "Tavrel ['a', 'b'] ['2 nodes', 'b\\nb node\\n\\nInputs: a\\nchecker: 16']\n")))


if __name__ == "__main__":
    unittest.main()
