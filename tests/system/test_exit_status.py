"""How a run ends: the status, the words, and whether the closed library was taken down."""

import fcntl
import os
import unittest

from launch import SystemTest
from scratch_tree import REFUSALS

MINIMALLY, FULLY, UNINITIALIZE = (
    "ZkPlexum3InitializeMinimally", "ZkPlexum3Initialize", "ZkPlexum3Uninitialize")

# What the application does, exit status, what is reported ("": nothing) behind the exit line.
ENDS = [
    ("", 0, ""),
    ("import sys; sys.exit()", 0, ""),
    ("import sys; sys.exit(True)", 1, ""),
    ("raise OSError('gone')", 255, "An OSError occurred in <string>: gone"),
    ("import sys; sys.exit(3)", 3, ""),
    ("import sys; sys.exit(256)", 255, ""),
    ("import sys; sys.exit(257)", 1, ""),
    ("import sys; sys.exit(1 << 64)", 255, "OverflowError"),
    ("import sys; sys.exit('no licence')", 1, "no licence\n"),
    ("class Quit(SystemExit): pass\nraise Quit(9)", 9, ""),
    ("class Quit(SystemExit):\n    code = property(lambda self: 1 / 0)\nraise Quit(3)", 0,
     "ZeroDivisionError"),
    ("class Mute:\n    def __str__(self): return self.gone\nraise SystemExit(Mute())", 1,
     "AttributeError"),
    ("import atexit, sys\natexit.register(print, 'bye', file=sys.stderr)\nsys.exit(8)", 8, "bye\n"),
]


def refusing(call):
    return {"LD_PRELOAD": str(REFUSALS), "TEST_REFUSE": f";{call} 5 1"}  # EIO, from the first on


NO_FOLDER = r"\[ERROR MAIN\] Unable to locate temporary directory \(.*\)\n"
# Arguments, environment, exit status, calls of the closed library and of the mode, standard error.
WAYS_OUT = [
    (["--batch", "-V0"], {}, 0, [MINIMALLY, FULLY, "mode", UNINITIALIZE], ""),
    (["--batch"], {"HARSH_MINIMALLY": "3"}, 1, [MINIMALLY], r"Unable to initialize Plexum3\n"),
    (["--batch", "-V0"], {"HARSH_FULLY": "7"}, 1, [MINIMALLY, FULLY, UNINITIALIZE],
     r"\[ERROR MAIN\] Unable to initialize Plexum3 \(.*\)\n"),
    (["--batch=1"], {}, 1, [MINIMALLY, UNINITIALIZE], r".*\n"),
    (["--batch", "-V0"], {"TMPDIR": None, "TMP": "/nowhere"}, 1, [MINIMALLY, FULLY, UNINITIALIZE],
     NO_FOLDER),
    (["--batch", "-V0"], {"TMPDIR": ""}, 1, [MINIMALLY, FULLY, UNINITIALIZE], NO_FOLDER),
    (["--batch"], refusing("readlink"), 1, [],
     r"ERROR: Unable to retrieve Tavrel's executable path.\n"),
    (["--batch", "-V0"], refusing("waitpid"), 1,
     [MINIMALLY, FULLY, UNINITIALIZE],
     r'\[ERROR MAIN\] Failed to spawn daemonized process "/.*/bin/tavrelCleanup" '
     r"to clean up TAVREL_TMPDIR on shutdown: Input/output error \(.*\)\n"),
]


class ExitStatusTest(SystemTest):
    def test_follows_from_how_the_application_ends(self):
        tree = self.scratch_tree()
        for act, status, err in ENDS:
            with self.subTest(act):
                ended = self.run_launcher(tree, "--batch", "-V", "2", act=act)
                report = ended.err.partition("Tavrel Python application exited.")[2].partition("\n")[2]
                self.assertEqual((ended.status, bool(report)), (status, bool(err)), ended.err)
                self.assertIn(err, report)

    def test_lost_output_is_no_success(self):
        tree = self.scratch_tree()
        native = "import ctypes; ctypes.CDLL(None).puts(b'native')"
        lost = "tavrel: standard output could not be written"
        for mode, act, status, err in (
                ("--batch", "", 0, ""), ("--batch", "print(1)", 255, lost),
                ("--script=x", "import atexit; atexit.register(print, 1)", 255, lost),
                ("--batch", "print(1); import io, sys; sys.stdout = io.StringIO()", 255, lost),
                ("--batch", native, 255, lost), ("--batch", "print(1); import sys; sys.exit(3)", 3, lost),
                ("--shell", "print(1)", 0, lost)):
            with self.subTest(mode=mode, act=act), open("/dev/full", "w") as full:
                ended = self.run_launcher(tree, mode, "-V0", act=act, stdout=full)
                self.assertEqual((ended.status, ended.err.count("\n")), (status, bool(err)), ended.err)
                self.assertIn(err, ended.err)

    def test_one_interrupt_ends_the_wait_for_a_reader(self):
        act = """import signal
def interrupt(number, frame):
    if frame is None:  # the last flush
        signal.setitimer(signal.ITIMER_REAL, 0)
        raise KeyboardInterrupt
signal.signal(signal.SIGALRM, interrupt)
signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
print(1)
"""
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        self.addCleanup(os.close, writer)
        os.write(writer, bytes(fcntl.fcntl(writer, fcntl.F_GETPIPE_SZ)))
        ended = self.run_launcher(self.scratch_tree(), "--batch", "-V0", act=act, stdout=writer)
        self.assertEqual((ended.status, ended.err.count("\n")), (255, 1), ended.err)
        self.assertIn("could not be written: Interrupted", ended.err)

    def test_native_lines_are_out_when_they_are_written(self):
        act = ("import ctypes, os; libc = ctypes.CDLL(None); libc.puts(b'out')\n"
               "libc.fputs(b'err\\n', ctypes.c_void_p.in_dll(libc, 'stderr')); os._exit(0)")
        ended = self.run_launcher(self.scratch_tree(), "--batch", "-V0", act=act)
        self.assertEqual((ended.out, ended.err), ("out\n", "err\n"))

    def test_files_do_not_take_the_place_of_closed_streams(self):
        tree = self.scratch_tree()
        (tree.folder / "picture").touch()
        act = ("import os; print(1); os.write(2, b'2'); os.read(0, 0)\n"
               "assert {os.readlink('/proc/self/fd/%%d' %% fd) for fd in %r} == {'/dev/null'}\n"
               "os._exit(os.open('picture', os.O_RDWR))")
        for closed in ((0,), (1,), (2,), (0, 1, 2)):
            with self.subTest(closed):
                ended = self.run_launcher(tree, "--batch", act=act % (closed,),
                                          preexec_fn=lambda: [os.close(fd) for fd in closed])
                self.assertIn(ended.status, range(3, 200), ended.err)

    def test_each_way_out_takes_down_what_it_brought_up(self):
        tree = self.scratch_tree()
        record = tree.put_harsh_library()
        for args, env, status, calls, err in WAYS_OUT:
            with self.subTest(args=args, env=env):
                record.write_text("")
                ended, cleanup = self.run_with_cleanup(
                    tree, *args, act=f"with open({str(record)!r}, 'a') as r: r.write('mode\\n')",
                    env={"HARSH_RECORD": str(record), **env})
                self.assertEqual((ended.status, record.read_text().splitlines()), (status, calls))
                self.assertRegex(ended.err, rf"\A{err}\Z")
                self.assertEqual(bool(ended.events), "mode" in calls)
                # The daemon whose first parent could not be waited for is there all the same.
                self.assertEqual(cleanup is not None, "mode" in calls or "daemonized" in err)


if __name__ == "__main__":
    unittest.main()
