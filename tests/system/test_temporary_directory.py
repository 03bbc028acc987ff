"""The temporary directory of a run: where it is, who knows of it, and who removes it."""

import os
import signal
import unittest

from launch import SANITIZED, SystemTest

FOLDER_THERE = "import os; note('folder', there=os.path.isdir(os.environ['TAVREL_TMPDIR']))"


class ChoiceTest(SystemTest):
    def test_path_in_configuration_environment_and_cleanup_command(self):
        tree = self.scratch_tree()
        tmp, cwd = str(tree.temporary), str(tree.folder)
        own = f"{tmp}/tavrel_tmpdir_{{pid}}"
        # Variables; TAVREL_TMPDIR in configuration and cleanup command, and in the environment;
        # TMPDIR in configuration, and in the environment.
        table = [
            ({}, own, own, tmp, tmp),
            ({"TMPDIR": f"{tmp}/"}, own, own, f"{tmp}/", f"{tmp}/"),
            ({"TMPDIR": None, "TMP": tmp}, own, own, tmp, None),
            ({"TMPDIR": "tmp"}, own[len(cwd) + 1:], own[len(cwd) + 1:], "tmp", "tmp"),
            ({"TAVREL_TMPDIR": f"{tmp}/mine"}, f"{tmp}/mine", f"{tmp}/mine", tmp, tmp),
            ({"TAVREL_TMPDIR": "mine/deep"}, f"{cwd}/mine/deep", "mine/deep", tmp, tmp),
            ({"TAVREL_TMPDIR": ""}, own, own, tmp, tmp),
        ]
        for env, chosen, exported, base, base_exported in table:
            with self.subTest(env):
                ended, cleanup = self.run_with_cleanup(tree, "--batch", env=env, act=FOLDER_THERE)
                pid = ended.start["pid"]
                chosen = chosen.format(pid=pid)
                for place, values in (("configuration", (chosen, base)),
                                      ("environment", (exported.format(pid=pid), base_exported))):
                    self.assertEqual((ended.start[place]["TAVREL_TMPDIR"],
                                      ended.start[place].get("TMPDIR")), values)
                self.assertEqual(cleanup["argv"], [f"{tree.bin}/tavrelCleanup", str(pid), chosen])
                self.assertTrue(next(e["there"] for e in ended.events if e["event"] == "folder"))

    def test_keep_variable(self):
        tree = self.scratch_tree()
        for value, kept in ((None, False), ("0", False), ("", True), ("00", True)):
            with self.subTest(value):
                ended, cleanup = self.run_with_cleanup(tree, "--batch", "-V", "2",
                                                       env={"TAVREL_KEEP_TMPDIR": value})
                self.assertEqual((ended.status, cleanup is None, "Spawning" in ended.err),
                                 (0, kept, not kept))


class CleanupProcessTest(SystemTest):
    def test_starts_with_nothing_of_its_launcher(self):
        tree = self.scratch_tree()
        inherited = os.open(os.devnull, os.O_RDONLY)
        far = os.dup2(inherited, 200)
        for descriptor in (inherited, far):
            self.addCleanup(os.close, descriptor)

        def untidy():
            signal.signal(signal.SIGUSR1, signal.SIG_IGN)
            signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR2, signal.SIGTERM})
            os.umask(0o077)

        ended, cleanup = self.run_with_cleanup(tree, "--batch", preexec_fn=untidy,
                                               pass_fds=[inherited, far])
        self.assertEqual(ended.status, 0)
        status, stat = cleanup["status"], cleanup["stat"]
        self.assertEqual(cleanup["cwd"], "/")
        self.assertEqual(cleanup["descriptors"], dict.fromkeys("012", "/dev/null"))
        self.assertEqual(status["Umask"], "0000")
        self.assertEqual((status["SigBlk"], status["SigIgn"]), (0, 0))
        if not SANITIZED:
            self.assertEqual(status["SigCgt"], 0)
        pid, session, terminal = int(status["Pid"]), int(stat[3]), int(stat[4])
        self.assertNotIn(session, (pid, ended.start["pid"], os.getsid(0)))
        self.assertEqual(terminal, 0)

    def test_unusable_program_is_said_and_ends_no_run(self):
        tree = self.scratch_tree()
        program = tree.bin / "tavrelCleanup"
        program.unlink()
        for reason, make in (("No such file or directory", lambda: None),
                             ("Permission denied", program.touch),
                             ("Permission denied", lambda: (program.unlink(), program.mkdir()))):
            make()
            ended = self.run_launcher(tree, "--batch", "-V0")
            self.assertEqual((ended.status, ended.mode), (0, "MainBatch"))
            self.assertEqual(len(ended.texts), 1)
            self.assertRegex(ended.texts[0], f'The temporary directory ".*" will stay: "{program}": {reason}')


if __name__ == "__main__":
    unittest.main()
