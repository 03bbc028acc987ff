"""The real reporter beside a launcher: what it does when a dump can't be made, when it ends, and when
it asks or refuses."""

import os
import re
import select
import shlex
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from crash_case import HERE, LIMIT_SECONDS, CrashTest, put_reporter, put_script  # the ones below are found through it
import process_table
from launch import THREAD_SANITIZED
from scratch_tree import BUILT

CONTEXT_SIZE = 1616  # of Breakpad's CrashContext
WRAPPED = '"$0.real" "$@"\nexit $?'


def filtered(how):
    return f'exec {shlex.quote(sys.executable)} {shlex.quote(str(HERE / "filtered.py"))} {how} -- "$0.real" "$@"'


# A folder for dumps that can't be used, the line that says so when the run starts.
UNUSABLE = [
    ("missing", "missing: No such file or directory; make the folder"),
    ("file", "Not a directory; name a folder itself"),
    ("link/", "; name a folder itself"),
]
WHOLE = r"\nDump:        none: .*\nSignal:      SIGSEGV.* at 0x10\n(.*\n)+Crashed thread {thread}\D.*\n  #0 +libc"
CUT = (r"\nSignal:      SIGSEGV.* at 0x10\n(.*\n)+%sRegisters, crashed thread\n(.*\n)+"
       r"The report ends here: the process that takes dump and report [^;]*; there is no dump[.]\n$")
# What crashing.py does, what stands in the reporter's place, the line, the report if there is one.
UNDUMPABLE = [
    ("native", 'ulimit -f 8; exec "$0.real" "$@"', "File too large; raise the limit", None),
    ("native", 'ulimit -f 40; exec "$0.real" "$@"', "File too large; raise the limit", WHOLE),
    ("native", 'ulimit -n 8; exec "$0.real" "$@"', "Too many open files; raise the limit", None),
    ("native", filtered("deny 101 310"), "may not be looked at (Oper", WHOLE),  # ptrace, process_vm_readv
    # The worker dies while the crashed process waits for it: before its report, and behind it.
    ("native", filtered("kill 101"), "no dump: the process that takes dump and report ended (Bad sys", CUT % ""),
    ("native", filtered("kill 77"), "no dump: the process that takes dump and report ended (Bad sys",  # ftruncate
     CUT % r".* in native\n(.*\n)+"),
    ("native", filtered("hang 77"), "no dump: the process that takes dump and report took too long (Killed",
     CUT % r".* in native\n(.*\n)+"),
    ("native", filtered("deny 56"), "(Operation not permitted)", None),  # clone
    ("traced", None, "no dump: the process is being traced by process ", WHOLE),
]
# What the launcher does last, what stands in the reporter's place.
ENDS = [
    ("await_go", None),
    ("await_go", WRAPPED),
    ("killed", None),
    ("stopped", None),  # the standby
    ("leave_child", None),
    ("leave_child", filtered("deny 434")),  # pidfd_open
]
# What is done to the standby, which the launcher has started, and to the guardian beside it, one
# after the other, before the launcher crashes; "other" is the one that took a killed one's place.
KILL, STOP = signal.SIGKILL, signal.SIGSTOP
LOSSES = [
    [("guardian", KILL)], [("guardian", STOP)], [("standby", KILL)], [("standby", STOP)],
    [("guardian", KILL), ("standby", KILL)], [("standby", KILL), ("guardian", KILL)],
    [("standby", KILL), ("other", STOP), ("guardian", KILL)],
]


def read(file):
    with open(file) as opened:
        return opened.read()


def is_stopped(pid):
    return read(f"/proc/{pid}/stat").rpartition(")")[2].split()[0] == "T"


def has_yet_to_stop(pid):
    return int(next(process_table.thread_statuses(pid))["ShdPnd"], 16) >> (STOP - 1) & 1


class ReporterTest(CrashTest):
    def start_waiting(self, tree, kind):
        """The launcher, once it has started; its reporter's descriptor and process id."""
        process = self.start_script(tree, kind)
        self.await_line(process.stdout, str(process.pid))
        pid, = [pid for pid in map(int, read(f"/proc/{process.pid}/task/{process.pid}/children").split())
                if read(f"/proc/{pid}/comm").startswith("CrashReporter")]
        descriptor = os.pidfd_open(pid)
        self.addCleanup(os.close, descriptor)
        return process, descriptor, pid

    def await_true(self, condition, what):
        """What the condition gives, once that is true."""
        deadline = time.monotonic() + LIMIT_SECONDS
        while not (found := condition()):
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.01)
        return found

    def await_pair(self, tree, without=()):
        """The process ids of the reporter's two processes, once there are two and both run."""
        def pair():
            found = set(process_table.running(tree.bin / "CrashReporterTavrel")).difference(without)
            return len(found) == 2 and not any(map(is_stopped, found)) and found
        return self.await_true(pair, "the reporter isn't two running processes")

    def test_crash_is_served_when_processes_of_the_reporter_are_lost(self):
        for losses in LOSSES:
            with self.subTest(losses):
                tree = self.scratch_tree(recorder=False)
                process, _, standby = self.start_waiting(tree, "after_go")
                guardian, = self.await_pair(tree) - {standby}
                pids, killed = {"standby": standby, "guardian": guardian}, []
                for name, number in losses:
                    os.kill(pids[name], number)
                    killed += [pids[name]] if number == KILL else []
                    # A stop comes only later, and doesn't last long.
                    self.await_true(lambda: number == KILL or not has_yet_to_stop(pids[name]), "it doesn't stop")
                    if (name, number) != ("standby", STOP):  # it is needed only when the guardian is lost
                        pids.update(("other", pid) for pid in self.await_pair(tree, killed)
                                    if pid not in pids.values())
                process.stdin.write(b"\n")
                crashed = self.crashed(tree, process)
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV)
                self.assertEqual((len(crashed.dumps), len(crashed.reports), crashed.others), (1, 1, []))

    def test_worker_that_holds_the_process_goes_with_its_guardian(self):
        tree = self.scratch_tree(recorder=False)
        put_reporter(tree, filtered("hang 77"))  # ftruncate, when the process is held
        process, _, _ = self.start_waiting(tree, "after_go")
        process.stdin.write(b"\n")

        def three():
            parents = {pid: int(next(process_table.thread_statuses(pid), {"PPid": "0"})["PPid"])
                       for pid in process_table.running(tree.bin / "CrashReporterTavrel.real")}
            return len(parents) == 3 and parents
        parents = self.await_true(three, "there is no worker")
        worker, = set(parents) - set(parents.values())
        os.kill(parents[worker], signal.SIGKILL)
        crashed = self.crashed(tree, process)
        # The next guardian serves the same crash, under the same name.
        self.assertEqual((crashed.ended.status, len(crashed.reports), crashed.others), (-signal.SIGSEGV, 1, []))

    def test_process_is_let_go_while_the_guardian_hangs(self):
        tree = self.scratch_tree(recorder=False)
        put_reporter(tree, filtered("hang 293"))  # pipe2, before there is a worker
        process, _, standby = self.start_waiting(tree, "after_go")
        process.stdin.write(b"\n")
        self.assertIn("didn't answer", self.await_line(process.stderr, "CrashReporterTavrel: "))
        guardian, = set(process_table.running(tree.bin / "CrashReporterTavrel.real")) - {standby}
        os.kill(guardian, KILL)  # the next one ends as the launcher has
        self.assertEqual(self.crashed(tree, process).ended.status, -signal.SIGSEGV)

    def test_guardian_and_worker_are_woken_while_they_finish_a_report(self):
        tree = self.scratch_tree(recorder=False)
        # By then the launcher has ended, and with it the channel.
        put_script(tree, "tavrelFrames",
                   "read -r _ _ _ guardian _ </proc/$PPID/stat\nsleep 0.5\nkill -STOP $guardian $PPID")
        self.assertEqual(len(self.crash(tree, "native").reports), 1)  # awaits the end of the reporter

    def test_full_pipe_on_standard_error_holds_no_process(self):
        tree = self.scratch_tree(recorder=False)
        process, _, _ = self.start_waiting(tree, "after_go")
        with open(f"/proc/{process.pid}/fd/2", "wb", buffering=0, opener=lambda path, flags: os.open(
                path, flags | os.O_NONBLOCK)) as error:
            while error.write(b"x"):
                pass
        process.stdin.write(b"\n")
        ended = os.pidfd_open(process.pid)
        self.addCleanup(os.close, ended)
        self.await_end(ended)

    def await_end(self, descriptor):
        self.assertTrue(select.select([descriptor], [], [], LIMIT_SECONDS)[0], "the process lives on")

    def test_unusable_folder_is_named_at_the_start_and_another_one_taken(self):
        for folder, line in UNUSABLE:
            with self.subTest(folder):
                tree = self.scratch_tree(recorder=False)
                (tree.folder / "file").touch()
                (tree.folder / "link").symlink_to("dumps")
                crashed = self.crash(tree, "native", {"TAVREL_CRASH_DIR": f"{tree.folder}/{folder}"})
                first, last = re.findall("^CrashReporterTavrel: (.*)$", crashed.ended.err, re.MULTILINE)
                self.assertRegex(first, f"{line}.*; until then crash reports go to /var/tmp$")
                report = Path(re.search("its report is (/var/tmp/.*[.]txt)$", last).group(1))
                self.addCleanup(report.unlink)
                self.assertIn("in native", report.read_text())
                self.assertEqual(crashed.dumps, [report.with_suffix(".dmp")])

    def test_folder_of_each_host_is_made(self):
        tree = self.scratch_tree(recorder=False)
        crashed = self.crash(tree, "native", {"TAVREL_CRASH_DIR": f"{tree.folder}/dumps/of-%h"})
        self.assertEqual(crashed.others, [tree.folder / f"dumps/of-{os.uname().nodename}"])
        self.assertEqual(len(list(crashed.others[0].iterdir())), 2)

    def test_what_cannot_be_dumped_costs_one_line_and_not_the_process(self):
        for kind, script, line, wanted in UNDUMPABLE:
            if THREAD_SANITIZED and kind == "traced":
                continue
            with self.subTest(line, script=script):
                tree = self.scratch_tree(recorder=False)
                if script:
                    put_reporter(tree, script)
                crashed = self.crash(tree, kind)
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV)
                self.assertEqual((crashed.dumps, len(crashed.reports), crashed.others),
                                 ([], int(wanted is not None), []))
                said = [said for said in crashed.ended.err.splitlines() if said.startswith("CrashReporterTavrel: ")]
                self.assertEqual(len(said), 1, said)
                self.assertIn(line, said[0])
                for report in crashed.reports:
                    self.assertRegex(report.read_text(), wanted.format(thread=crashed.thread))

    def test_report_is_kept_as_far_as_it_came(self):
        tree = self.scratch_tree(recorder=False)
        put_reporter(tree, filtered("kill 319"))  # memfd_create
        crashed = self.crash(tree, "native")
        self.assertEqual((crashed.ended.status, len(crashed.dumps), crashed.others), (-signal.SIGSEGV, 1, []))
        self.assertRegex(crashed.reports[0].read_text(), r"(?s)\nSignal:      SIGSEGV.* in native\n.*"
                         r"\nThe report ends here: the reporter failed \(Bad system call.*\); the dump is whole\.\n$")

    def test_ends_with_its_launcher_and_leaves_nothing(self):
        for kind, script in ENDS:
            with self.subTest(kind, script=script):
                tree = self.scratch_tree(recorder=False)
                if script:
                    put_reporter(tree, script)
                process, reporter, standby = self.start_waiting(
                    tree, "await_go" if kind in ("killed", "stopped") else kind)
                if kind == "stopped":
                    os.kill(standby, STOP)
                if kind == "killed":
                    process.kill()
                else:
                    process.stdin.write(b"\n")
                self.await_end(reporter)
                crashed = self.crashed(tree, process)  # takes the input's end away from the child
                self.assertEqual((crashed.dumps, crashed.reports, crashed.others), ([], [], []))
                self.assertNotIn("CrashReporterTavrel: ", crashed.ended.err)

    def test_outlasts_the_terminals_signals_and_ends_at_sigterm(self):
        terminal = (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTSTP)
        for signals, dumps in (terminal, 1), ((signal.SIGTERM,), 0):
            with self.subTest(signals):
                tree = self.scratch_tree(recorder=False)
                abandoned = tree.folder / "dumps/.00000000-0000-0000-00000000-00000000.dmp.new"
                abandoned.parent.mkdir()
                abandoned.touch()
                os.utime(abandoned, (0, 0))
                process, reporter, pid = self.start_waiting(tree, "after_go")
                self.assertEqual(os.readlink(f"/proc/{pid}/fd/1"), "/dev/null")  # whose end others wait for
                for old in range(21):
                    report = tree.folder / f"dumps/{old:08x}-0000-0000-00000000-00000000.txt"
                    report.write_text("Tavrel crash report\n")
                self.await_true(lambda: not abandoned.exists(), "an old file stays")
                for number in signals:
                    if dumps:
                        # Not only outlasted: a terminal stops both processes of the reporter at once.
                        status = next(process_table.thread_statuses(pid))
                        self.assertTrue(status["SigIgn"] >> (number - 1) & 1, number)
                    os.kill(pid, number)
                if not dumps:
                    self.await_end(reporter)
                process.stdin.write(b"\n")
                crashed = self.crashed(tree, process)
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV)
                self.assertEqual((len(crashed.dumps), len(crashed.reports)), (1, 20) if dumps else (0, 21))

    def test_asks_only_with_the_flag_and_a_display(self):
        tree = self.scratch_tree(recorder=False)
        asked = tree.folder / "asked"
        put_script(tree, "zenity", f": >'{asked}'")  # it answers "Remove"
        put_reporter(tree, 'exec "$0.real" "$1" "$2" "$PROMPT"')
        for flag, display, asks in ("1", ":none", True), ("1", "", False), ("0", ":none", False):
            with self.subTest(flag=flag, display=display):
                crashed = self.crash(tree, "native", {"PROMPT": flag, "DISPLAY": display, "PATH": str(tree.bin)})
                self.assertEqual(asked.exists(), asks)
                self.assertEqual((len(crashed.dumps), len(crashed.reports)), (0, 0) if asks else (1, 1))
                asked.unlink(missing_ok=True)

    def start_reporter(self, server, prompt, *inherited, **environment):
        """The reporter alone, and what it answers."""
        answers, handshake = os.pipe()
        process = subprocess.Popen([BUILT / "bin/CrashReporterTavrel", str(server), str(handshake), prompt],
                                   stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, env=environment,
                                   pass_fds=(handshake, *inherited))
        os.close(handshake)
        with open(answers, "rb") as answer:
            return process, answer.read()

    def test_refuses_what_it_cannot_serve(self):
        stream, other_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        with stream, other_end:
            for server, prompt, status, answer, line in [
                    ("9999", "0", 1, b"\0", "descriptor 9999 is not open"),
                    ("0", "0", 1, b"\0", "descriptor 0 is no socket"),
                    (stream.fileno(), "1", 1, b"\0", "is no SOCK_SEQPACKET socket"),
                    ("three", "0", 2, b"", "usage: SERVER_FD HANDSHAKE_FD 0|1"),
                    ("3", "2", 2, b"", "usage: SERVER_FD HANDSHAKE_FD 0|1")]:
                with self.subTest(server=server, prompt=prompt):
                    process, answered = self.start_reporter(server, prompt, stream.fileno())
                    _, said = process.communicate()
                    self.assertEqual((process.returncode, answered), (status, answer))
                    self.assertIn(line, said.decode())

    def test_serves_a_process_once_and_lets_go_what_is_no_crash(self):
        server, client = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with server, client, tempfile.TemporaryDirectory() as folder:
            process, answered = self.start_reporter(server.fileno(), "0", server.fileno(), TAVREL_CRASH_DIR=folder,
                                                    ZK_SESSION_ID="7")
            self.assertEqual(answered, b"\1")
            crashes = [struct.pack("i", number).ljust(CONTEXT_SIZE, b"\0") for number in (signal.SIGBUS, signal.SIGFPE)]
            for sent in crashes[1][:-1], *crashes:
                released, held = os.pipe()
                client.sendmsg([sent], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, struct.pack("i", held))])
                os.close(held)
                self.await_end(released)  # every copy is closed
                os.close(released)
            process.terminate()
            process.communicate()
            report, = Path(folder).glob("*.txt")
            self.assertRegex(report.read_text(), "(?s)\nSession:     7\n.*\nSignal:      SIGBUS")


if __name__ == "__main__":
    unittest.main()
