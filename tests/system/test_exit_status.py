"""How a run ends: the status, the words, and whether the closed library was taken down."""

import unittest

from launch import SystemTest
from scratch_tree import STAND_INS

MINIMALLY, FULLY, UNINITIALIZE = (
    "ZkPlexum3InitializeMinimally", "ZkPlexum3Initialize", "ZkPlexum3Uninitialize")

# What the application does, exit status, text on standard error (None: don't look).
ENDS = [
    ("", 0, ""),
    ("import sys; sys.exit()", 0, ""),
    ("import sys; sys.exit(None)", 0, ""),
    ("import sys; sys.exit(0)", 0, ""),
    ("import sys; sys.exit(False)", 0, ""),
    ("import sys; sys.exit(3)", 3, ""),
    ("import sys; sys.exit(True)", 1, ""),
    ("import sys; sys.exit(255)", 255, ""),
    ("import sys; sys.exit(256)", 255, ""),
    ("import sys; sys.exit(512)", 255, ""),
    ("import sys; sys.exit(257)", 1, ""),
    ("import sys; sys.exit(-1)", 255, ""),
    ("import sys; sys.exit(-256)", 255, ""),
    ("import sys; sys.exit(1 << 32)", 255, ""),
    ("import sys; sys.exit('no licence')", 1, "no licence\n"),
    ("import sys; sys.exit('')", 1, "\n"),
    ("import sys; sys.exit(2.0)", 1, "2.0\n"),
    ("import sys; sys.exit([1, 'a'])", 1, "[1, 'a']\n"),
    ("raise SystemExit", 0, ""),
    ("raise SystemExit(7)", 7, ""),
    ("class Quit(SystemExit): pass\nraise Quit(9)", 9, ""),
    ("class Level(int): pass\nimport sys\nsys.exit(Level(4))", 4, ""),
    ("import atexit, sys\natexit.register(print, 'bye', file=sys.stderr)\nsys.exit(8)", 8, "bye\n"),
    ("import os; os._exit(6)", 6, ""),
]


class ExitStatusTest(SystemTest):
    def test_follows_from_how_the_application_ends(self):
        tree = self.scratch_tree()
        for act, status, err in ENDS:
            with self.subTest(act):
                ended = self.run_launcher(tree, "--batch", "-V", "0", act=act)
                self.assertEqual((ended.status, ended.err), (status, err))

    def test_trouble_with_the_exit_value_is_reported(self):
        tree = self.scratch_tree()
        for act, status, error in (
                ("import sys; sys.exit(1 << 64)", 255, "OverflowError"),
                ("class Quit(SystemExit):\n"
                 "    code = property(lambda self: 1 / 0)\n"
                 "raise Quit(3)", 0, "ZeroDivisionError"),
                ("class Mute:\n"
                 "    def __str__(self): return self.gone\n"
                 "raise SystemExit(Mute())", 1, "AttributeError")):
            with self.subTest(error):
                ended = self.run_launcher(tree, "--batch", act=act)
                self.assertEqual(ended.status, status)
                self.assertIn(error, ended.err)

    def test_unhandled_exception_gives_255_and_its_report_follows_the_exit_line(self):
        ended = self.run_launcher(self.scratch_tree(), "--batch", "-V", "2",
                                  act="raise OSError('disk gone')")
        self.assertEqual(ended.status, 255)
        _, _, report = ended.err.partition("Tavrel Python application exited.")
        self.assertIn("An OSError occurred in <string>: disk gone", report)

    def test_exit_line_comes_whatever_the_outcome(self):
        tree = self.scratch_tree()
        for act in ("", "import sys; sys.exit(3)", "1 / 0"):
            with self.subTest(act):
                ended = self.run_launcher(tree, "--batch", "-V", "2", act=act)
                self.assertEqual(ended.texts[-2:], ["Executing Tavrel Python application...",
                                                    "Tavrel Python application exited."])

    def test_renders_are_cancelled_on_every_way_out_of_a_mode(self):
        tree = self.scratch_tree()
        for act in ("", "import sys; sys.exit(3)", "1 / 0"):
            with self.subTest(act):
                calls = self.run_launcher(tree, "--batch", act=act).calls
                self.assertEqual(calls[-5:], [("Nodes2DAPI.CancelRender", ["preview", True]),
                                             ("Nodes2DAPI.CancelRender", ["final", True]),
                                             ("Nodes3DAPI.CancelAllRenders", []),
                                             ("Nodes2DAPI.TerminateCancelledRenders", []),
                                             ("NodegraphAPI.SetRootNode", [None])])


class WaysOutTest(SystemTest):
    """Which of the closed library's three functions each way out has called."""

    def run_noting(self, *args, env=None):
        tree = self.scratch_tree()
        record = tree.put_refusing_library()
        ended, cleanup = self.run_with_cleanup(
            tree, *args, act=f"with open({str(record)!r}, 'a') as r: r.write('mode\\n')",
            env={"REFUSING_RECORD": str(record), **(env or {})})
        ended.library = record.read_text().splitlines() if record.exists() else []
        ended.cleanup = cleanup
        return ended

    def test_normal_end_takes_the_library_down_last(self):
        ended = self.run_noting("--batch")
        self.assertEqual(ended.status, 0)
        self.assertEqual(ended.library, [MINIMALLY, FULLY, "mode", UNINITIALIZE])

    def test_refused_minimal_initialisation(self):
        ended = self.run_noting("--batch", env={"REFUSING_MINIMALLY": "3"})
        self.assertEqual((ended.status, ended.err), (1, "Unable to initialize Plexum3\n"))
        self.assertEqual(ended.library, [MINIMALLY])

    def test_refused_full_initialisation(self):
        ended = self.run_noting("--batch", "-V", "0", env={"REFUSING_FULLY": "7"})
        self.assertEqual((ended.status, ended.log),
                         (1, [("ERROR", "MAIN", "Unable to initialize Plexum3")]))
        self.assertEqual(ended.library, [MINIMALLY, FULLY, UNINITIALIZE])
        self.assertEqual((ended.events, ended.cleanup), ([], None))

    def test_bad_command_line(self):
        ended = self.run_noting("--batch=1")
        self.assertEqual((ended.status, ended.library), (1, [MINIMALLY, UNINITIALIZE]))
        self.assertEqual(ended.events, [])

    def test_no_temporary_folder(self):
        for env in ({"TMPDIR": None, "TMP": "/nowhere"}, {"TMPDIR": ""}):
            with self.subTest(env):
                ended = self.run_noting("--batch", "-V", "0", env=env)
                self.assertEqual((ended.status, ended.log),
                                 (1, [("ERROR", "MAIN", "Unable to locate temporary directory")]))
                self.assertEqual(ended.library, [MINIMALLY, FULLY, UNINITIALIZE])
                self.assertIsNone(ended.cleanup)

    def test_failed_system_calls(self):
        preload = {"LD_PRELOAD": str(STAND_INS / "libfailingCalls.so"), "TAVREL_KEEP_TMPDIR": "0"}
        ended = self.run_noting("--batch", "-V", "0", env={**preload, "FAILING_CALL": "readlink"})
        self.assertEqual((ended.status, ended.library), (1, []))
        self.assertEqual(ended.err, "ERROR: Unable to retrieve Tavrel's executable path.\n")

        ended = self.run_noting("--batch", "-V", "0", env={**preload, "FAILING_CALL": "waitpid"})
        self.assertEqual((ended.status, ended.events), (1, []))
        self.assertRegex(ended.texts[0],
                         r'^Failed to spawn daemonized process "/.*/bin/tavrelCleanup" '
                         r"to clean up TAVREL_TMPDIR on shutdown: Input/output error$")
        self.assertEqual(ended.library, [MINIMALLY, FULLY, UNINITIALIZE])


if __name__ == "__main__":
    unittest.main()
