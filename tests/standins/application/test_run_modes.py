"""The run modes as a user meets them, through the launcher."""

import os
import pstats
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../system"))
from xserver import start_x_server

LAUNCHER = os.path.abspath(sys.argv.pop(1))
TREE = os.path.dirname(os.path.dirname(LAUNCHER))
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../examples")
DEADLINE = 25
ARGV = "import sys\nprint(sys.argv[1:], __name__, sys.path[0])\nsys.exit(0)\n"
# In short naps: a signal that comes when Python is about to wait doesn't end the wait.
WAIT = "import time\nprint('ready', flush=True)\nwhile True: time.sleep(0.1)\n"
RENDER = """import atexit, threading, Nodes2DAPI
def tile(*_): threading.Event().wait(0.01)
render = Nodes2DAPI.StartRender('disk', 10**6, 10**6, tile, None)
atexit.register(lambda: print(render.state, flush=True))
print('ready', flush=True)
while True: render.wait(0.1)
"""
STUBBORN = """import time
word = 'ready'
while True:
    try:
        print(word, flush=True)
        while True: time.sleep(0.1)
    except BaseException:
        word = 'again'
"""
FILES = {
    "script.py": ARGV, "broken.py": "x = (\n",
    "failing.py": "def f():\n    raise ValueError('bad')\nf()\n",
    "leaving.py": "import sys\nsys.exit(7)\n"}
TALK = ("x = 6\nif x < 7:\n  x * 7\nelse:\n  0\nfor i in range(2):\n  i\nNodegraphAPI.__name__\n"
        "import warnings\nwarnings.warn('w')\n1/0\n2\n")
with open(os.path.join(EXAMPLES, "console.py")) as example:
    CONSOLE = example.read()
RUNS = [  # arguments, standard input, status, output (True: some), standard error (None: any)
    ("--shell --version", "", 0, "tavrel VERSION\n", ""),
    ("--shell --frob", "", 2, "", "tavrel: unknown option --frob; tavrel --help lists all options"),
    ("", "", 1, "", "tavrel: can't open the window: no display name and no $DISPLAY environment "
                    "variable; set DISPLAY to an X server, or use --batch, --script or --shell"),
    ("--batch --system-info", "", 0, True, None),
    ("--batch --print tree", "", 0, TREE + "\n", ""),
    ("--batch --print log-file", "", 0, "stderr\n", ""),
    ("--batch --test-crash segv", "", -signal.SIGSEGV, "", None),
    ("--batch --test-crash python", "", 255, "", None),
    ("--script script.py grün -x --", "", 0, "['grün', '-x', '--'] __main__ HOME\n", ""),
    ("--script=script.py -- --batch", "", 0, "['--batch'] __main__ HOME\n", ""),
    ("--script -", "# coding: latin-1\nprint('ä')\n", 0, "Ã¤\n", ""),
    ("--script none.py", "", 2, "",
     'tavrel: can\'t open the Python file "none.py": No such file or directory'),
    ("--script failing.py", "", 255, "", """\
[ERROR root] A ValueError occurred in "failing.py": bad
Traceback (most recent call last):
  File "failing.py", line 3, in <module>
    f()
  File "failing.py", line 2, in f
    raise ValueError('bad')
ValueError: bad"""),
    ("--batch --profiling-dir none script.py", "", 2, "",
     "tavrel: no profile can be written: 'none' is no folder; tavrel --help lists all options"),
    ("--batch script.py script.py leaving.py script.py", "", 7, "[] __main__ HOME\n" * 2, ""),
    ("--batch broken.py script.py", "", 255, "",
     '[ERROR root]   File "broken.py", line 1\n    x = (\n        ^\n'
     "SyntaxError: unexpected EOF while parsing"),
    ("--shell", TALK, 1, "42\n0\n1\n'NodegraphAPI'\n", """\
[WARNING py.warnings] __main__:1: UserWarning: w

[ERROR root] A ZeroDivisionError occurred in <console>: division by zero
Traceback (most recent call last):
  File "<console>", line 1, in <module>
ZeroDivisionError: division by zero"""),
    ("--shell", "exit(9)\n1", 9, "", ""),
    ("--shell", "1 1\n1\n", 1, "", None),
    ("--shell", "raise KeyboardInterrupt\n1\n", 130, "", None),
    ("--script examples/render.py a.ppm 64 36", "", 0, True, ""),
    ("--batch examples/graph.py examples/frames.py", "", 0, True, ""),
    ("--shell", CONSOLE, 0, True, ""),
]
MUTE = "class Mute(Exception):\n    def __str__(self): return self.gone\nraise Mute\n"
BOTH = r"\AError in sys.excepthook:\n(?s:.+)\n\nOriginal exception was:\nTraceback (?s:.+), in <module>\n"
REPORTS = [  # mode, file, status, standard error
    ("--script", MUTE, 255, BOTH + r"(    raise Mute\n)?__main__.Mute: <.*>\Z"),
    ("--batch", MUTE, 255, BOTH), ("--shell", MUTE, 255, BOTH),
    ("--script", "import sys\nsys.excepthook = lambda *_: {}[1]\n1/0\n", 255, BOTH),
    ("--script", "import sys\ndel sys.excepthook\n1/0\n", 255, BOTH),
    ("--script", "import sys\nsys.modules.clear()\n", 0, r"\A\Z"),
    ("--batch", "import sys\nsys.modules.clear()\n1/0\n", 255, "A ZeroDivisionError occurred"),
    *[(mode, "class Odd(SystemExit): code = property(lambda self: {}[1])\nraise Odd\n", 0,
       "KeyError: 1") for mode in ("--script", "--batch", "--shell")],
    *[(mode, "raise SystemExit(0.0)\n", 1, r"\A0.0\Z") for mode in ("--script", "--batch")],
]
# Drives the window by Tk's own events: each step is awaited, all of it has the test's deadline.
WINDOW = """import sys, time, tkinter, tkinter.messagebox, NodegraphAPI
from Utils import EventModule
root = tkinter._default_root
nodes = [NodegraphAPI.CreateNode('n') for _ in range(10000)]
for upstream, node in zip(nodes, nodes[1:]):
    node.connect(upstream)
nodes[0].setParameter('color', (1, 0.5, 0))

def until(condition):
    while not condition():
        root.update()

def text(name):
    return root.nametowidget(name).cget('text')

def press(name):
    root.nametowidget('side.' + name).invoke()

def look():
    start = time.process_time()
    root.update()
    canvas = root.nametowidget('view.canvas')
    while not any(canvas.type(item) == 'text' for item in canvas.find_all()):  # all are in view
        canvas.event_generate('<Button-4>', x=canvas.winfo_width() // 2, y=0)
    shown = {canvas.itemcget(item, 'text'): [int(place) for place in canvas.coords(item)]
             for item in canvas.find_all() if canvas.type(item) == 'text'}
    def drag(name, other):
        for event, at in (('Button-1', name), ('B1-Motion', other), ('ButtonRelease-1', other)):
            canvas.event_generate('<%s>' % event, x=shown[at][0], y=shown[at][1])
    drag('n', 'n3')
    until(lambda: nodes[0] in nodes[2].getInputs())
    until(lambda: text('status') == '10000 nodes')
    drag('n3', 'n2')
    print(text('status'), text('side.parameters.title'), sep='\\n')
    for field, typed in (('name', 'checker'), ('value', '80')):
        root.nametowidget('side.parameters.nameRow.' + field).insert(0, typed)
    press('parameters.nameRow.set')
    print(nodes[2].getParameters())
    EventModule.RegisterEventHandler(lambda name, arguments: {}[name])
    NodegraphAPI.DeleteNode(nodes[-1])
    until(lambda: text('status') == '9999 nodes')
    root.focus_force()
    root.event_generate('<Control-z>')
    until(lambda: text('status') == '10000 nodes')
    root.event_generate('<Control-Shift-Z>')
    until(lambda: text('status') == '9999 nodes')
    root.update()
    print(time.process_time() - start < 20, flush=True)
    sys.excepthook = None
    root.after_idle(lambda: {}['no hook'])
    root.update()
    tkinter.messagebox.askyesnocancel = lambda *words, **more: print(root.title())
    root.tk.call(root.protocol('WM_DELETE_WINDOW'))
    tkinter.messagebox.askyesnocancel = lambda *words, **more: False
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

    def run_tavrel(self, *arguments, text="", launcher=(LAUNCHER,), stdout=subprocess.PIPE,
                   stderr=subprocess.PIPE, **environment):
        """(status, standard output, lines of standard error but for information and the display)"""
        done = subprocess.run([*launcher, *arguments], input=text, stdout=stdout, stderr=stderr,
                              universal_newlines=True, timeout=DEADLINE, cwd=self.home,
                              env=dict(self.environment, **environment))
        errors = [line for line in (done.stderr or "").splitlines() if not
                  line.startswith(("[INFO ", "[ERROR MAIN] Failed to initialise OpenGL"))]
        return done.returncode, done.stdout, errors

    def test_runs(self):
        os.symlink(EXAMPLES, os.path.join(self.home, "examples"))
        for name, text in FILES.items():
            self.write(name, text)
        for arguments, text, *expected in RUNS:
            with self.subTest(arguments, text=text):
                status, output, errors = self.run_tavrel(*arguments.split(), text=text, FRAMES="2-6x3")
                output = re.sub(r"\d+\.\d+v\d+ \(built [\dT:-]{19}\)", "VERSION", output)
                output = output.replace(self.home, "HOME")
                self.assertEqual([status, output if expected[1] is not True else bool(output),
                                  "\n".join(errors) if expected[2] is not None else None], expected)
                with open("/dev/full", "w") as full:  # takes the words, not the status
                    status, _, _ = self.run_tavrel(
                        *arguments.split(), text=text, stdout=subprocess.DEVNULL, stderr=full,
                        TAVREL_STARTUP_TIME="1", PYTHONUNBUFFERED="1", FRAMES="2-6x3")
                self.assertEqual(status, expected[0])
        self.assertEqual({name for name in os.listdir(self.home)
                          if not name.startswith("tavrel_tmpdir_")},
                         {"a.ppm", "frame_0002.ppm", "frame_0005.ppm", "examples", *FILES})

    def test_answers_that_can_not_be_written(self):
        for option in ("--help", "--version", "--print=tree", "--system-info"):
            with open("/dev/full", "w") as full:
                status, _, errors = self.run_tavrel("--batch", option, stdout=full)
            self.assertEqual((status, errors), (1, [
                "tavrel: standard output could not be written: No space left on device"]), option)

    def test_reports(self):
        for mode, text, status, expected in REPORTS:
            with self.subTest(mode, text=text):
                ended, _, errors = self.run_tavrel("-V0", mode, self.write("user.py", text))
                self.assertEqual(ended, status, errors)
                self.assertRegex("\n".join(errors), expected)

    def test_phases_of_the_start_are_told_where_they_are_asked_for(self):
        script = self.write("empty.py", "")
        self.assertEqual(self.run_tavrel("--script", script, TAVREL_STARTUP_TIME="0"), (0, "", []))
        status, output, errors = self.run_tavrel("--script", script, TAVREL_STARTUP_TIME="1")
        phases = [re.fullmatch(r"tavrel: start: +(\d+\.\d\d) ms  (.*)", line).groups() for line in errors]
        times, names = [float(time) for time, _ in phases], [name for _, name in phases]
        self.assertEqual((status, output, names[0], names[-2:]),
                         (0, "", "loading the program", ["script mode", "in all"]))
        self.assertAlmostEqual(sum(times[:-1]), times[-1], delta=0.1)

    def test_a_profile_is_written_where_it_is_asked_for(self):
        scripts = [self.write("%d.py" % n, "def work%d():\n    pass\nwork%d()\n" % (n, n)) for n in (0, 1)]
        for options, count in ((["--force-profile", "--script"], 1), (["--profile", "--script"], 0),
                               (["--profile", "--batch"], 2)):
            folder = tempfile.mkdtemp(dir=self.home)
            self.assertEqual(self.run_tavrel("--profiling-dir", folder, *options, *scripts)[0], 0)
            profiles = [os.path.join(folder, name) for name in sorted(os.listdir(folder))]
            self.assertEqual(len(profiles), count)
            for number, profile in enumerate(profiles):
                self.assertIn("work%d" % number, [key[2] for key in pstats.Stats(profile).stats])

    def test_signals(self):
        table = (  # mode, file, signals with the line that is awaited behind each, status
            ("--batch", RENDER, [(signal.SIGTERM, "cancelled\n")], 143),
            ("--batch", RENDER, [(signal.SIGINT, "cancelled\n")], 130),
            ("--batch", STUBBORN, [(signal.SIGTERM, "again\n"), (signal.SIGTERM, "")],
             -signal.SIGTERM),
            ("--batch", STUBBORN, [(signal.SIGTERM, "again\n"), (signal.SIGINT, "")], -signal.SIGINT),
            ("--script", WAIT, [(signal.SIGINT, "")], 130),
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
                self.assertEqual(child.wait(DEADLINE), status)

    def test_process_1_ends_by_a_signal_that_the_kernel_would_drop(self):
        nameSpace = ["unshare", "--map-root-user", "--pid", "--fork", "--mount-proc"]
        if subprocess.run([*nameSpace, "true"], stderr=subprocess.DEVNULL).returncode:
            self.skipTest("no name spaces for this user")
        script = self.write("one.py", "import os, signal\nos.kill(1, signal.SIGTERM)\n")
        ended = self.run_tavrel("-V0", "--script", script, launcher=(*nameSpace, LAUNCHER))
        self.assertEqual(ended, (143, "", []))

    def test_the_log_file_has_the_lines_of_both_sides(self):
        conf = self.write("log.conf", "[log]\nmake_folder=yes\ndestination=~/logs/a.log\n")
        script = self.write("fail.py", "import logging\nlogging.debug('d')\n1/0\n")
        status, _, errors = self.run_tavrel("--script", script, ZKLOGGING_CONFIG=conf)
        self.assertEqual((status, errors[-1]), (255, "ZeroDivisionError: division by zero"))
        with open(os.path.join(self.home, "logs/a.log")) as log:
            lines = re.findall(r"^[\d-]+T[\d:.]+[+-]\d\d:\d\d \[\d+\] \[(.*)", log.read(), re.M)
        self.assertRegex(lines[0], r"INFO MAIN\] Launching")
        self.assertEqual(lines[-1], 'ERROR root] A ZeroDivisionError occurred in "fail.py": '
                                    'division by zero')
        self.assertNotIn("DEBUG root] d", lines)

    def test_the_window_with_10000_nodes_does_as_it_is_told(self):
        self.companions = set()  # start_x_server notes its server here
        self.environment["DISPLAY"] = start_x_server(self)
        status, output, errors = self.run_tavrel(self.write("window.py", WINDOW))
        self.assertEqual((status, output.splitlines()), (0, [
            'connecting "n2" to "n3" would close a circle', "n3, of type n",
            "{'checker': 80, 'color': (1, 0.5, 0)}", "True", "untitled (changed) - Tavrel"]), errors)
        raised = [line.split()[-1] for line in errors if line.startswith("[ERROR root] A KeyError")]
        self.assertEqual(raised[raised.index("'disconnected'"):][:2],
                         ["'disconnected'", "'node_deleted'"])
        self.assertEqual(errors.count("KeyError: 'no hook'"), 1, errors)


if __name__ == "__main__":
    unittest.main()
