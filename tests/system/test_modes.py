"""What the command line decides: mode, verbosity, crash handling, profiling, the OpenGL check."""

import re
import signal
import unittest

import process_table
from launch import SystemTest
from xserver import start_x_server

NO_GL = "Failed to initialise OpenGL: "
NO_DISPLAY = NO_GL + "Could not connect to X display"
DISABLED = "Crash handling is disabled."
NO_PROMPT = "Crash report prompt is disabled."

# Arguments, ending of the launch line, module of the mode.
MODES = [
    ([], "UI", "MainUI"),
    (["--batch"], "batch", "MainBatch"),
    (["--script"], "script", "MainScript"),
    (["--script="], "script", "MainScript"),
    (["--script=a.py"], "script", "MainScript"),
    (["--script", "a.py"], "script", "MainScript"),
    (["--shell"], "shell", "MainShell"),
    (["--batch="], "batch", "MainBatch"),
    (["--batch", "--script"], "batch", "MainBatch"),
    (["--batch", "--shell"], "batch", "MainBatch"),
    (["--shell", "--script"], "script", "MainScript"),
    (["--unknown", "--other=1", "-x", "scene.file"], "UI", "MainUI"),
    (["--", "--unknown"], "UI", "MainUI"),
]
KEYS = {"MainBatch": "TAVREL_BATCH_MODE", "MainScript": "TAVREL_SCRIPT_MODE",
        "MainShell": "TAVREL_SHELL_MODE", "MainUI": "TAVREL_UI_MODE"}

REFUSED = [
    ["-V", "loud"], ["--verbose=loud"], ["-V", "2147483648"], ["--verbose"], ["-V"],
    ["--profiling-dir"], ["--help=1"], ["--batch=1"], ["--shell=1"], ["--profile=1"],
    ["--force-profile=1"], ["--batch", "--batch"], ["--pro"], ["-V1", "--verbose=2"],
]


class ModesTest(SystemTest):
    def test_launch_line_and_module(self):
        tree = self.scratch_tree()
        for args, ending, module in MODES:
            with self.subTest(args):
                ended = self.run_launcher(tree, *args)
                self.assertRegex(ended.texts[0], rf"^Launching Tavrel \d+\.\d+v\d+ {ending}\.\.\.$")
                self.assertEqual((ended.status, ended.mode), (0, module))
                self.assertEqual(ended.start["argv"],
                                 [str(tree.bin / "python/Main/Main.pyc"), *args])
                configuration = ended.in_mode["configuration"]
                self.assertEqual([key for key in KEYS.values() if key in configuration],
                                 [KEYS[module]])
                self.assertEqual(configuration.get("RUNTIME_USE_SYNC"),
                                 None if ending == "UI" else "1")

    def test_mode_option_behind_the_terminator_is_the_applications_alone(self):
        ended = self.run_launcher(self.scratch_tree(), "--", "--batch")
        self.assertTrue(ended.texts[0].endswith(" UI..."), ended.texts[0])
        self.assertEqual(ended.start["argv"][1:], ["--", "--batch"])

    def test_refused_command_lines(self):
        tree = self.scratch_tree()
        link = tree.folder / "linked launcher"
        link.symlink_to(tree.bin / "tavrel")
        for args in REFUSED:
            with self.subTest(args):
                ended = self.run_launcher(tree, *args, program=link)
                self.assertEqual((ended.status, ended.events), (1, []))
                self.assertRegex(ended.err, rf"\A{re.escape(str(link))}: .+\n\Z")

    def test_verbosity_in_all_its_spellings(self):
        tree = self.scratch_tree()
        for args in (["-V", "2"], ["-V2"], ["--verbose", "2"], ["--verbose=2"], ["--verb", "2"],
                     ["--verb=2"]):
            with self.subTest(args):
                ended = self.run_launcher(tree, "--batch", *args)
                self.assertEqual(ended.start["verbosity"], 2)
                self.assertIn("Executing Tavrel Python application...", ended.texts)

    def test_verbosity_guards(self):
        tree = self.scratch_tree()
        for level, logged in (("-1", []), ("0", []), ("1", ["Launching", "Crash"])):
            with self.subTest(level):
                ended = self.run_launcher(tree, "--batch", "-V", level)
                self.assertEqual([text.split()[0] for text in ended.texts], logged)
                self.assertEqual(ended.start["verbosity"], int(level))
        ended = self.run_launcher(tree, "-V", "0", "--profile")
        self.assertEqual(ended.texts, [NO_DISPLAY, "Running profiling..."])

    def test_lines_of_a_talkative_start_come_in_the_order_of_its_steps(self):
        tree = self.scratch_tree()
        ended = self.run_launcher(tree, "-V", "2", "--profile", env={"SHOT": "a_010"})
        tmpdir = ended.start["environment"]["TAVREL_TMPDIR"]
        self.assertEqual(ended.log[0][2][-6:], " UI...")
        self.assertEqual(ended.log[1:], [
            ("INFO", "MAIN", DISABLED),
            ("ERROR", "MAIN", NO_DISPLAY),
            ("INFO", "MAIN", "Running profiling..."),
            ("INFO", "MAIN", f'Spawning daemonized process "{tree.bin}/tavrelCleanup" '
                             "to clean up TAVREL_TMPDIR on shutdown..."),
            ("INFO", "MAIN", "Environment variables:"),
            ("INFO", "MAIN", f'    ZKLOGGING_CONFIG = "{tree.bin}/log.conf"'),
            ("INFO", "MAIN", '    SHOW = "default_show"'),
            ("INFO", "MAIN", '    SHOT = "a_010"'),
            ("INFO", "MAIN", '    DEFAULT_RENDERER = ""'),
            ("INFO", "MAIN", f'    TAVREL_TMPDIR = "{tmpdir}"'),
            ("INFO", "MAIN", "Executing Tavrel Python application..."),
            ("INFO", "MAIN", "Tavrel Python application exited."),
        ])

    def test_crash_handling(self):
        tree = self.scratch_tree()
        crash = 1 << (signal.SIGSEGV - 1)
        for value, ui_armed, batch_armed in (
                ("1", True, True), ("0", False, False), (None, True, False), ("", True, False),
                ("yes", True, False)):
            for args, armed in ((["--help"], ui_armed), (["--batch"], batch_armed)):
                with self.subTest(value=value, args=args):
                    ended = self.run_launcher(tree, *args, env={
                        "TAVREL_CRASH_HANDLING": value, "TAVREL_NO_CRASH_PROMPT": "1"})
                    status = process_table.parse_status(ended.start["status"])
                    self.assertEqual((bool(status["SigCgt"] & crash), DISABLED in ended.texts),
                                     (armed, not armed))
                    self.assertEqual(NO_PROMPT in ended.texts, armed and args == ["--help"])

    def test_profiling_keys(self):
        tree = self.scratch_tree()
        for args, mode, run, folder in (
                ([], None, None, None), (["--profile"], "1", None, None),
                (["--profile", "--script"], "1", None, None),
                (["--profile", "--shell"], "1", None, None),
                (["--profile", "--batch"], "1", "1", None), (["--force-profile"], "1", "1", None),
                (["--profiling-dir", "p"], None, None, "p"),
                (["--profiling-dir=p=q"], None, None, "p=q")):
            with self.subTest(args):
                ended = self.run_launcher(tree, *args)
                names = [f"PLEXUM_PROFILING_{name}" for name in ("MODE", "RUN", "DIR")]
                self.assertEqual([ended.start["configuration"].get(name) for name in names],
                                 [mode, run, folder])
                self.assertFalse(set(names) & set(ended.start["environment"]))
                self.assertEqual("Running profiling..." in ended.texts, mode == "1")


class OpenGLCheckTest(SystemTest):
    def failures(self, *args, **env):
        ended = self.run_launcher(self.scratch_tree(), *args, env=env)
        self.assertEqual((ended.status, bool(ended.mode)), (0, True))
        return [text for text in ended.texts if text.startswith(NO_GL)]

    def test_made_in_ui_mode_alone_and_never_fatal(self):
        self.assertEqual(self.failures(), [NO_DISPLAY])
        for args in (["--help"], ["--batch"], ["--script"], ["--shell"]):
            with self.subTest(args):
                self.assertEqual(self.failures(*args), [])

    def test_usable_display_passes(self):
        display = start_x_server(self, "-screen", "0", "640x480x24")
        self.assertEqual(self.failures(DISPLAY=display), [])

    def test_display_without_glx_is_named(self):
        display = start_x_server(self, "-screen", "0", "640x480x24", "-extension", "GLX")
        self.assertEqual(self.failures(DISPLAY=display),
                         [NO_GL + "Could not find suitable X visual"])


if __name__ == "__main__":
    unittest.main()
