"""What the command line decides: mode, verbosity, crash handling, profiling, the OpenGL check."""

import re
import unittest

from launch import SystemTest
from xserver import start_x_server

NO_DISPLAY = "Failed to initialise OpenGL: Could not connect to X display"
DISABLED = "Crash handling is disabled."
NO_PROMPT = "Crash report prompt is disabled."

# Arguments, ending of the launch line, module of the mode that the application chooses.
MODES = [
    ([], "UI", "MainUI"),
    (["--script="], "script", "MainScript"),
    (["--script=a.py"], "script", "MainScript"),
    (["--shell"], "shell", "MainShell"),
    (["--batch="], "batch", "MainBatch"),
    (["--batch", "--script"], "batch", "MainBatch"),
    (["--shell", "--script"], "script", "MainScript"),
    (["--unknown", "--other=1", "-x", "scene.file"], "UI", "MainUI"),
    # Behind the terminator an option is the application's alone.
    (["--", "--batch"], "UI", "MainBatch"),
]

REFUSED = [
    ["-V", "loud"], ["-V", "2147483648"], ["--verbose"], ["--profiling-dir"], ["--help=1"],
    ["--force-profile=1"], ["--pro"], ["-V1", "--verbose=2"],
]


class ModesTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree()

    def test_launch_line_and_module(self):
        for args, ending, module in MODES:
            with self.subTest(args):
                ended = self.run_launcher(self.tree, *args)
                self.assertRegex(ended.texts[0], rf"^Launching Tavrel \d+\.\d+v\d+ {ending}\.\.\.$")
                self.assertEqual((ended.status, ended.mode), (0, module))
                self.assertEqual(ended.start["configuration"].get("RUNTIME_USE_SYNC"),
                                 None if ending == "UI" else "1")
                # The check is made in UI mode alone, and never fatal.
                self.assertEqual(NO_DISPLAY in ended.texts, ending == "UI")

    def test_help_and_a_usable_display_pass_the_opengl_check(self):
        display = start_x_server(self, "-screen", "0", "640x480x24")
        for args, env in ((["--help"], {}), ([], {"DISPLAY": display})):
            self.assertNotIn("OpenGL", self.run_launcher(self.tree, *args, env=env).err)

    def test_refused_command_lines(self):
        link = self.tree.folder / "linked launcher"
        link.symlink_to(self.tree.bin / "tavrel")
        for args in REFUSED:
            with self.subTest(args):
                ended = self.run_launcher(self.tree, *args, program=link)
                self.assertEqual((ended.status, ended.events), (1, []))
                self.assertRegex(ended.err, rf"\A{re.escape(str(link))}: .+\n\Z")

    def test_verbosity(self):
        for args, level, lines in ((["-V", "-1"], -1, 0), (["-V0"], 0, 0), (["--verbose", "1"], 1, 2),
                                   (["--verb=2"], 2, 11)):
            with self.subTest(args):
                ended = self.run_launcher(self.tree, "--batch", *args)
                self.assertEqual((ended.start["verbosity"], len(ended.texts)), (level, lines))
        ended = self.run_launcher(self.tree, "-V", "0", "--profile")
        self.assertEqual(ended.texts, [NO_DISPLAY, "Running profiling..."])

    def test_lines_of_a_talkative_start_come_in_the_order_of_its_steps(self):
        ended = self.run_launcher(self.tree, "-V", "2", "--profile", env={
            "SHOT": "a_010", "TAVREL_TMPDIR": "mine"})
        self.assertEqual(ended.log[0][2][-6:], " UI...")
        self.assertEqual(ended.log[1:], [
            ("INFO", "MAIN", DISABLED),
            ("ERROR", "MAIN", NO_DISPLAY),
            ("INFO", "MAIN", "Running profiling..."),
            ("INFO", "MAIN", f'Spawning daemonized process "{self.tree.bin}/tavrelCleanup" '
                             "to clean up TAVREL_TMPDIR on shutdown..."),
            ("INFO", "MAIN", "Environment variables:"),
            ("INFO", "MAIN", f'    ZKLOGGING_CONFIG = "{self.tree.bin}/log.conf"'),
            ("INFO", "MAIN", '    SHOW = "default_show"'),
            ("INFO", "MAIN", '    SHOT = "a_010"'),
            ("INFO", "MAIN", '    DEFAULT_RENDERER = ""'),
            ("INFO", "MAIN", '    TAVREL_TMPDIR = "mine"'),
            ("INFO", "MAIN", "Executing Tavrel Python application..."),
            ("INFO", "MAIN", "Tavrel Python application exited."),
        ])

    def test_crash_handling(self):
        reporter, prompt = self.tree.bin / "CrashReporterTavrel", self.tree.folder / "prompt"
        reporter.write_text(f"#!/bin/sh\necho $3 >'{prompt}'\nprintf '\\001' >/proc/$$/fd/$2\n")
        reporter.chmod(0o755)
        # Whether to handle crashes, whether to ask nothing, and the reporter's argument with and
        # without a window; None: there is no reporter.
        for value, quiet, *prompts in (("1", "1", "0", "0"), ("1", None, "1", "0"),
                                       ("0", None, None, None), (None, "1", "0", None),
                                       ("", "0", "1", None), ("yes", "yes", "1", None)):
            for option, wanted in zip(("--help", "--batch"), prompts):
                with self.subTest(value=value, option=option, quiet=quiet):
                    prompt.write_text("")
                    ended = self.run_launcher(self.tree, option, env={
                        "TAVREL_CRASH_HANDLING": value, "TAVREL_NO_CRASH_PROMPT": quiet})
                    self.assertEqual(
                        (prompt.read_text().strip() or None, DISABLED in ended.texts,
                         NO_PROMPT in ended.texts),
                        (wanted, not wanted, bool(wanted) and quiet == "1" and option == "--help"))

    def test_profiling_keys(self):
        for args, *values in (
                (["--profile", "--script"], "1", None, None),
                (["--profile", "--batch"], "1", "1", None), (["--force-profile"], "1", "1", None),
                (["--profiling-dir=p=q"], None, None, "p=q")):
            with self.subTest(args):
                ended = self.run_launcher(self.tree, *args)
                names = [f"PLEXUM_PROFILING_{name}" for name in ("MODE", "RUN", "DIR")]
                self.assertEqual([ended.start["configuration"].get(name) for name in names], values)
                self.assertFalse(set(names) & set(ended.start["environment"]))
                self.assertEqual("Running profiling..." in ended.texts, values[0] == "1")


if __name__ == "__main__":
    unittest.main()
