"""Every way to crash, with the real reporter and without one: the process is dead by its own signal,
and exactly one dump tells which thread it was."""

import os
import signal
import tempfile
import unittest

from crash_case import CrashTest

# What crashing.py does, the signal, whether the thread that it named is the one to blame.
KINDS = [
    ("native", signal.SIGSEGV, True),
    ("in_thread", signal.SIGSEGV, True),
    ("overflow", signal.SIGSEGV, True),
    ("abort", signal.SIGABRT, True),
    ("bus", signal.SIGBUS, True),
    ("division", signal.SIGFPE, True),
    ("in_python", signal.SIGSEGV, True),
    ("finalising", signal.SIGSEGV, True),
    ("two_threads", signal.SIGSEGV, False),
]


class CrashesTest(CrashTest):
    def check(self, tree, reports):
        for kind, number, named in KINDS:
            with self.subTest(kind):
                crashed = self.crash(tree, kind)
                self.assertEqual(crashed.ended.status, -number, crashed.ended.err)
                self.assertEqual((len(crashed.dumps), len(crashed.reports), crashed.others), (1, reports, []))
                reason, thread = self.blamed(crashed.dumps[0])
                self.assertEqual(reason, number.name)
                if named:
                    self.assertEqual(thread, crashed.thread)
                for report in crashed.reports:
                    text = report.read_text()
                    self.assertIn("\nRun mode:    script\nUptime:", text)
                    self.assertIn(f"\nCrashed thread {thread}", text)
                    self.assertIn(f"its report is {report}\n", crashed.ended.err)
                for dump in crashed.dumps:
                    dump.unlink()

    def test_out_of_process(self):
        self.check(self.scratch_tree(recorder=False), reports=1)

    def test_in_process(self):
        tree = self.scratch_tree(recorder=False)
        (tree.bin / "CrashReporterTavrel").unlink()
        self.check(tree, reports=0)

    def test_forked_child_yields_a_dump_of_its_own(self):
        crashed = self.crash(self.scratch_tree(recorder=False), "child")
        self.assertEqual((crashed.ended.status, len(crashed.dumps), len(crashed.reports)), (0, 1, 1))
        self.assertEqual(self.blamed(crashed.dumps[0]), ("SIGSEGV", crashed.thread))
        self.assertIn(f"\nProcess:     {crashed.pid}\n", crashed.reports[0].read_text())

    @unittest.skipUnless(os.path.isdir("/dev/shm"), "no tmpfs: a disk writes the log out at each call")
    def test_python_stack_stands_in_the_report(self):
        with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
            crashed = self.crash(self.scratch_tree(recorder=False), "native", {"TAVREL_PYTHON_STACK_LOG": "1"},
                                 cwd=folder)
            report = crashed.reports[0].read_text()
        self.assertRegex(report, r"\nPythonStackLog\.txt, .*\nPython function call\n\d+ \d+ \d+ crash_by_address ")


if __name__ == "__main__":
    unittest.main()
