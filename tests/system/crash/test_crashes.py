"""Every way to crash, with the real reporter and without one: the process is dead by its own signal,
and exactly one dump tells which thread it was."""

import os
import re
import signal
import stat
import subprocess
import tempfile
import unittest
from pathlib import Path

from crash_case import CrashTest, no_core, put_script
from launch import THREAD_SANITIZED
from scratch_tree import STAND_INS

GUID = "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{8}-[0-9a-f]{8}"
# What the report on a crash in a thread of crashing.py holds, in this order.
REPORT = [
    r"^Tavrel crash report\n\nProduct:     Tavrel [0-9]+[.][0-9]+v[0-9]+\nTime:        20.* UTC\nSession:     none\n",
    r"Process:     {pid}\nExecutable:  /.*/bin/tavrel\nRun mode:    script\nUptime:      [0-9.]+ s\n",
    r"Memory:      [0-9.]+ MiB resident, [0-9.]+ MiB at its peak, [0-9.]+ MiB virtual; \d+ threads\n",
    r"System:      Linux .*\nDump:        {dump}\nSignal:      SIGSEGV \(SEGV_MAPERR\) at 0x10\n",
    r"\nPython, crashed thread\n.*crashing.py:\d+ in crash_by_address\n",
    # Only unwind rules lead through the interpreter and the C library.
    r"\nCrashed thread {thread}\D", r"  #\d+ +_ctypes.*  PyCFuncPtr_call \+ 0x[0-9a-f]+\n",
    r"  #\d+ +/.*/crashing.py:\d+ in crash_by_address\n", r"  #\d+ +libc.so.6  start_thread \+ 0x",
    r"\nThread {pid}\D", r"  #\d+ +tavrel  main \+ 0x[0-9a-f]+.*\n",
    r"\nModules: .*\n", r"  0x[0-9a-f]+  0x[0-9a-f]+  [0-9a-f]{{40}}  /.*/bin/tavrel\n",
    r"  [0-9a-f]{{40}}  /.*/libc.so.6\n",
]
# What crashing.py does, the signal, whether the thread that it named is the one to blame, what the
# report says of the signal and of the place.
KINDS = [
    ("native", signal.SIGSEGV, True, r"at 0x10\n.* in crash_by_address\n.* in native\n"),
    ("in_thread", signal.SIGSEGV, True, r"at 0x10\n.* in crash_by_address\n.* start_thread "),
    ("in_handler", signal.SIGSEGV, True,
     r"\n  #\d+ [^\n]* in <lambda>\n.* __restore_rt .* raise .*\n  #\d+ [^\n]* in in_handler\n"),
    ("under_faulthandler", signal.SIGSEGV, True,
     r", sent by itself\n.* raise .* PyCFuncPtr_call [^\n]*\n  #\d+ [^\n]* in crash_by_address\n"),
    ("non_canonical", signal.SIGSEGV, True, r" is 0x6161616161616161"),
    ("overflow", signal.SIGSEGV, True, r"\nCrashed thread .* in deeper\n +[(]\d+ more times[)]\n"),
    ("wide_overflow", signal.SIGSEGV, True, r"( enterWideFrames [^\n]*\n[^\n]*){3}"),
    ("abort", signal.SIGABRT, True, r", sent by itself\n.* os_abort [^\n]*\n  #\d+ [^\n]* in abort\n"),
    ("bus", signal.SIGBUS, True, r"[(]BUS_ADRERR[)] at 0x[0-9a-f]+000\n"),
    ("division", signal.SIGFPE, True, r"[(]FPE_INTDIV[)] at 0x[0-9a-f]+\n.*  #0 +libc.so.6  div "),
    ("finalising", signal.SIGSEGV, True, r" in crash_by_address\n[^\n]* in __del__\n"),
    ("two_threads", signal.SIGSEGV, False, r" in crash\n"),
    ("trap", signal.SIGTRAP, True, r", sent by itself\n.* in trap\n"),
    ("deep", signal.SIGILL, True, r"( enterWideFrames [^\n]*\n[^\n]*){3}.* in deep\n"),
    ("on_another_stack", signal.SIGSEGV, True, r" in <lambda>\n.* raise .* in in_handler\n"),
]
# What a launcher that dumps itself can't.
KINDS_FROM_OUTSIDE = [
    ("without_first_thread", signal.SIGSEGV, True, r" in native\n.*\nModules: .*/bin/tavrel\n"),
    ("odd_module", signal.SIGSEGV, True, r" in odd_module\n.*\nModules: .*/caf\\xe9[.]so\n"),
]


def crashed_thread(text):
    """The lines of the crashed thread's stack."""
    return text.partition("\nCrashed thread ")[2].partition("\n\n")[0].splitlines()[1:]


class CrashesTest(CrashTest):
    def check(self, tree, kinds, reports):
        for kind, number, named, story in kinds:
            if THREAD_SANITIZED and kind in ("in_handler", "under_faulthandler", "on_another_stack"):
                continue
            with self.subTest(kind):
                crashed = self.crash(tree, kind, {"WIDE_FRAMES": str(STAND_INS / "libwide_frames.so")})
                self.assertEqual(crashed.ended.status, -number, crashed.ended.err)
                self.assertEqual((len(crashed.dumps), len(crashed.reports), crashed.others), (1, reports, []))
                self.assertRegex(crashed.dumps[0].name, f"^{GUID}[.]dmp$")
                for file in crashed.dumps + crashed.reports:
                    self.assertEqual(file.stat().st_mode, stat.S_IFREG | 0o600)
                reason, thread = self.blamed(crashed.dumps[0])
                self.assertEqual(reason, number.name)
                if named:
                    self.assertEqual(thread, crashed.thread)
                for report in crashed.reports:
                    self.assertEqual(crashed.dumps[0].read_bytes()[6:8], b"VT")  # the mark of the product
                    text = report.read_text()
                    self.assertIn(f"\nCrashed thread {thread}", text)
                    self.assertRegex(text, f"(?s)\nRun mode:    script\n.*\nSignal:      {number.name}.*{story}")
                    again = subprocess.run([tree.bin / "tavrelStack", crashed.dumps[0]], stdout=subprocess.PIPE,
                                           check=True)
                    self.assertEqual(crashed_thread(again.stdout.decode()), crashed_thread(text))
                    self.assertIn(f"CrashReporterTavrel: process {crashed.pid} has crashed; its dump is "
                                  f"{crashed.dumps[0]}, its report is {report}\n", crashed.ended.err)
                for dump in crashed.dumps:
                    dump.unlink()

    def test_out_of_process(self):
        self.check(self.scratch_tree(recorder=False), KINDS + KINDS_FROM_OUTSIDE, reports=1)

    def test_in_process(self):
        tree = self.scratch_tree(recorder=False)
        (tree.bin / "CrashReporterTavrel").unlink()
        self.check(tree, KINDS, reports=0)

    def test_report_tells_what_was_running_and_where_it_stood(self):
        crashed = self.crash(self.scratch_tree(recorder=False), "in_thread", {"ZK_SESSION_ID": "outer"})
        rest = crashed.reports[0].read_text()
        self.assertNotIn("--script", rest)  # arguments may hold what is nobody's affair
        for lines in REPORT:
            wanted = lines.format(pid=crashed.pid, thread=crashed.thread, dump=re.escape(str(crashed.dumps[0])))
            found = re.search(wanted, rest)
            self.assertTrue(found, f"no {wanted} in {rest}")
            rest = rest[found.end():]

    def test_report_without_the_program_that_tells_the_frames(self):
        tree = self.scratch_tree(recorder=False)
        frames = tree.bin / "tavrelFrames"
        for script, line in (("exit 127", "the library libdw.so.1 is missing; install libdw1"),
                             ("kill -9 $$", "The stacks could not all be found."), (None, "tavrelFrames is missing")):
            with self.subTest(script):
                put_script(tree, frames.name, script)
                frames.chmod(0o755 if script else 0o644)
                report = self.crash(tree, "native").reports[0].read_text()
                self.assertRegex(report, f"(?s)\nCrashed thread .*\n  #0 +libc.so.6 \\+ 0x.*{line}.*\nModules: ")

    def test_closed_streams_of_the_launcher(self):
        # The report channel then gets their numbers.
        tree = self.scratch_tree(recorder=False)
        crashed = self.crash(tree, "native", preexec_fn=lambda: (no_core(), os.closerange(0, 2)))
        self.assertEqual((crashed.ended.status, len(crashed.dumps), len(crashed.reports)), (-signal.SIGSEGV, 1, 1))

    def test_forked_child_yields_a_dump_of_its_own(self):
        for kind in "child", "child_in_namespace":
            with self.subTest(kind):
                crashed = self.crash(self.scratch_tree(recorder=False), kind)
                self.assertEqual((crashed.ended.status, len(crashed.dumps), len(crashed.reports)), (0, 1, 1))
                self.assertRegex(crashed.reports[0].read_text(), r"\n  #\d+ .* in native\n")
                if kind == "child":
                    self.assertEqual(self.blamed(crashed.dumps[0]), ("SIGSEGV", crashed.thread))
                    self.assertIn(f"\nProcess:     {crashed.pid}\n", crashed.reports[0].read_text())

    @unittest.skipUnless(os.path.isdir("/dev/shm"), "no tmpfs: a disk writes the log out at each call")
    def test_python_stack_stands_in_the_report(self):
        # The variable, what the script does, a file that is there before, what the report shows of the log.
        for value, kind, old, shown in (
                ("1", "native", None, r", .*\nPython function call\n\d+ \d+ \d+ crash_by_address "),
                ("yes", "beside_log", None, r", .*\nC function call\n1 [?]\[2J\n"),
                ("yes", "beside_log", "other", None), ("yes", "native", "PythonStackLog.txt", None)):
            with self.subTest(value=value, kind=kind, old=old), tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
                if old:
                    Path(folder, old).write_text("C function call\n")
                    os.utime(Path(folder, old), (0, 0))
                if old == "other":
                    Path(folder, "PythonStackLog.txt").symlink_to(old)
                crashed = self.crash(self.scratch_tree(recorder=False), kind, {"TAVREL_PYTHON_STACK_LOG": value},
                                     cwd=folder)
                found = re.search(rf"\nPythonStackLog[.]txt{shown or ''}", crashed.reports[0].read_text())
                self.assertEqual(bool(found), bool(shown))


if __name__ == "__main__":
    unittest.main()
