"""The real reporter beside a launcher: what it does when a dump can't be made, when it ends, and when
it asks or refuses."""

import os
import select
import shlex
import signal
import socket
import subprocess
import sys
import time
import unittest

from crash_case import HERE, CrashTest, put_reporter  # the ones below are found through it
import process_table
from launch import DEADLINE_SECONDS
from scratch_tree import BUILT

WRAPPED = '"$0.real" "$@"\nexit $?'


def filtered(how):
    return f'exec {shlex.quote(sys.executable)} {shlex.quote(str(HERE / "filtered.py"))} {how} -- "$0.real" "$@"'


# What stands in the reporter's place, the folder for dumps beside the empty one, the line.
UNDUMPABLE = [
    (None, "missing", "missing: No such file or directory; make the folder"),
    (None, "file", "Not a directory; name a folder itself"),
    (None, "link/", "; name a folder itself"),
    ('ulimit -f 16; exec "$0.real" "$@"', "dumps", "; make room there"),
    (filtered("deny 101 310"), "dumps", "does not let it be traced"),  # ptrace, process_vm_readv
    # The worker dies while the crashed process waits for it.
    (filtered("kill 101"), "dumps", "the worker that made it ended (Bad sys"),
    (filtered("deny 56"), "dumps", "Operation not permitted"),  # clone
]
# What the launcher does last, what stands in the reporter's place.
ENDS = [
    ("await_go", None),
    ("await_go", WRAPPED),
    ("killed", None),
    ("leave_child", None),
    ("leave_child", filtered("deny 434")),  # pidfd_open
]


def reporter_of(process):
    """A descriptor that is readable when the launcher's reporter has ended, and its process id."""
    with open(f"/proc/{process.pid}/task/{process.pid}/children") as children:
        for pid in map(int, children.read().split()):
            with open(f"/proc/{pid}/comm") as name:
                if name.read().startswith("CrashReporter"):
                    return os.pidfd_open(pid), pid
    raise AssertionError("no reporter")


class ReporterTest(CrashTest):
    def start_waiting(self, tree, kind):
        """The launcher, once it has started; its reporter's descriptor and process id."""
        process = self.start_script(tree, kind)
        self.await_line(process.stdout, str(process.pid))
        descriptor, pid = reporter_of(process)
        self.addCleanup(os.close, descriptor)
        return process, descriptor, pid

    def await_end(self, descriptor):
        self.assertTrue(select.select([descriptor], [], [], DEADLINE_SECONDS)[0], "the reporter lives on")

    def test_what_cannot_be_dumped_costs_one_line_and_not_the_process(self):
        for script, folder, line in UNDUMPABLE:
            with self.subTest(line):
                tree = self.scratch_tree(recorder=False)
                (tree.folder / "file").touch()
                (tree.folder / "link").symlink_to("dumps")
                if script:
                    put_reporter(tree, script)
                crashed = self.crash(tree, "native", {"TAVREL_CRASH_DIR": f"{tree.folder}/{folder}"})
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV)
                self.assertEqual((crashed.dumps, crashed.reports, crashed.others), ([], [], []))
                said = [said for said in crashed.ended.err.splitlines() if said.startswith("CrashReporterTavrel: ")]
                self.assertEqual(len(said), 1, said)
                self.assertIn(line, said[0])

    def test_ends_with_its_launcher_and_leaves_nothing(self):
        for kind, script in ENDS:
            with self.subTest(kind, script=script):
                tree = self.scratch_tree(recorder=False)
                if script:
                    put_reporter(tree, script)
                process, reporter, _ = self.start_waiting(tree, "await_go" if kind == "killed" else kind)
                if kind == "killed":
                    process.kill()
                else:
                    process.stdin.write(b"\n")
                self.await_end(reporter)
                crashed = self.crashed(tree, process)  # takes the input's end away from the child
                self.assertEqual((crashed.dumps, crashed.reports, crashed.others), ([], [], []))
                self.assertNotIn("CrashReporterTavrel: ", crashed.ended.err)

    def test_child_that_outlives_launcher_and_reporter_dies_of_its_crash(self):
        tree = self.scratch_tree(recorder=False)
        process, reporter, _ = self.start_waiting(tree, "leave_crashing_child")
        process.stdin.write(b"\n")
        child = int(self.await_line(process.stdout, " ").split()[0])
        self.await_end(reporter)
        process.stdin.close()  # now it crashes, with both ends of the channel in its own hands
        process.stdin = None
        self.assertEqual(process_table.wait_for_end(child, time.monotonic() + DEADLINE_SECONDS), -signal.SIGSEGV)
        self.assertEqual(self.crashed(tree, process).dumps, [])

    def test_outlasts_the_terminals_signals_and_ends_at_sigterm(self):
        terminal = (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTSTP)
        for signals, dumps in (terminal, 1), ((signal.SIGTERM,), 0):
            with self.subTest(signals):
                tree = self.scratch_tree(recorder=False)
                process, reporter, pid = self.start_waiting(tree, "after_go")
                for number in signals:
                    os.kill(pid, number)
                if not dumps:
                    self.await_end(reporter)
                process.stdin.write(b"\n")
                crashed = self.crashed(tree, process)
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV)
                self.assertEqual((len(crashed.dumps), len(crashed.reports)), (dumps, dumps))

    def test_asks_only_with_the_flag_and_a_display(self):
        tree = self.scratch_tree(recorder=False)
        zenity, asked = tree.folder / "programs/zenity", tree.folder / "asked"
        zenity.parent.mkdir()
        zenity.write_text(f"#!/bin/sh\n: >'{asked}'\nexit 0\n")  # it answers "Remove"
        zenity.chmod(0o755)
        put_reporter(tree, 'exec "$0.real" "$1" "$2" "$PROMPT"')
        for flag, display, asks in ("1", ":none", True), ("1", "", False), ("0", ":none", False):
            with self.subTest(flag=flag, display=display):
                crashed = self.crash(tree, "native", {"PROMPT": flag, "DISPLAY": display, "PATH": str(zenity.parent)})
                self.assertEqual(asked.exists(), asks)
                self.assertEqual((len(crashed.dumps), len(crashed.reports)), (0, 0) if asks else (1, 1))
                asked.unlink(missing_ok=True)

    def test_refuses_what_it_cannot_serve(self):
        stream, other_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(stream.close)
        self.addCleanup(other_end.close)
        for server, prompt, status, answer, line in [
                ("9999", "0", 1, b"\0", "descriptor 9999 is not open"),
                ("0", "0", 1, b"\0", "descriptor 0 is no socket"),
                (str(stream.fileno()), "1", 1, b"\0", "is no SOCK_SEQPACKET socket"),
                ("three", "0", 2, b"", "usage: SERVER_FD HANDSHAKE_FD 0|1"),
                ("3", "2", 2, b"", "usage: SERVER_FD HANDSHAKE_FD 0|1")]:
            with self.subTest(server=server, prompt=prompt):
                read_end, handshake = os.pipe()
                ended = subprocess.run([BUILT / "bin/CrashReporterTavrel", server, str(handshake), prompt],
                                       stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
                                       pass_fds=(handshake, stream.fileno()))
                os.close(handshake)
                with open(read_end, "rb") as answers:
                    self.assertEqual((ended.returncode, answers.read()), (status, answer))
                self.assertIn(line, ended.stderr.decode())


if __name__ == "__main__":
    unittest.main()
