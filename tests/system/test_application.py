"""The whole program as it is built: its modes with real work, and the statuses that come back."""

import os
import signal
import unittest

from launch import SystemTest

# Arguments behind the script's name, its text, exit status, standard output.
SCRIPTS = [
    (["one", "--batch", "-x", "grün"], "import sys; print(sys.argv[1:])", 0,
     "['one', '--batch', '-x', 'grün']\n"),
    ([], "print(__name__, __file__)", 0, "__main__ {script}\n"),
    ([], "import sys; print('out'); sys.exit(3)", 3, "out\n"),
    ([], "import sys; sys.exit('not today')", 1, ""),
    ([], "raise ValueError('odd')", 255, ""),
    ([], "import os; os._exit(6)", 6, ""),
    ([], "import os; os.kill(os.getpid(), 9)", -9, ""),
]


class ApplicationTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree(recorder=False)

    def write(self, name, text):
        path = self.tree.folder / name
        path.write_text(text)
        return str(path)

    def check_nothing_left(self):
        self.assertEqual(os.listdir(self.tree.temporary), [])

    def test_scripts_get_their_arguments_and_give_their_status(self):
        for args, text, status, out in SCRIPTS:
            with self.subTest(text):
                script = self.write("script.py", text)
                ended = self.run_launcher(self.tree, "--script", script, *args)
                self.assertEqual((ended.status, ended.out),
                                 (status, out.format(script=script)), ended.err)
                self.check_nothing_left()

    def test_batch_runs_files_in_order_up_to_the_first_that_fails(self):
        files = [self.write(f"{n}.py", f"print({n})\nimport sys\nif {n} == 2: sys.exit(7)")
                 for n in (1, 2, 3)]
        for job, status, out in (([], 0, ""), (files[:1] * 2, 0, "1\n1\n"), (files, 7, "1\n2\n")):
            with self.subTest(job):
                ended = self.run_launcher(self.tree, "--batch", *job)
                self.assertEqual((ended.status, ended.out), (status, out), ended.err)

    def test_shell_reads_a_pipe(self):
        process = self.start(self.tree, "--shell")
        process.stdin.write(b"print(6 * 7)\nimport sys\nsys.exit(5)\n")
        ended = self.finish(self.tree, process)
        self.assertEqual((ended.status, "42" in ended.out), (5, True), ended.err)

    def test_terminated_batch_ends_in_order_with_143(self):
        job = self.write("job.py", "import sys\nprint('up', flush=True)\nsys.stdin.read()\n")
        process = self.start(self.tree, "--batch", job)
        self.await_line(process.stdout, "up")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish(self.tree, process).status, 143)
        self.check_nothing_left()

    def test_help_needs_no_display_and_window_says_that_it_does(self):
        ended = self.run_launcher(self.tree, "--help")
        self.assertEqual(ended.status, 0)
        for option in ("--batch", "--script", "--shell", "--verbose", "--profiling-dir"):
            self.assertIn(option, ended.out)
        ended = self.run_launcher(self.tree, env={"TAVREL_CRASH_HANDLING": "0"})
        self.assertEqual(ended.status, 1)
        self.assertIn("display", ended.err)


if __name__ == "__main__":
    unittest.main()
