"""A launcher does not outlive the process that controls it."""

import os
import socket
import subprocess
import sys
import time
import unittest

from launch import DEADLINE_SECONDS, THREAD_SANITIZED, SystemTest
from process_table import ALL_BLOCKED, identity, thread_statuses
from test_exit_status import refusing

VARIABLE = "__TAVREL_CONTROLLING_PROCESS"
WAIT = "import sys; sys.stdin.read()"
PUBLISH = f"import os; print('value', os.environ['{VARIABLE}'], flush=True); {WAIT}"


class WatchdogTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree()

    def await_watching_threads(self, process, count):
        """The threads that block all signals, once there are so many: a thread that is just being
        made may look like one for a moment, or not yet."""
        deadline = time.monotonic() + DEADLINE_SECONDS
        while True:
            threads = [status for status in thread_statuses(process.pid)
                       if status["SigBlk"] == ALL_BLOCKED]
            if len(threads) == count + THREAD_SANITIZED:
                return threads
            self.assertLess(time.monotonic(), deadline, threads)
            time.sleep(0.01)

    def start_watching(self, value, **popen):
        process = self.start(self.tree, "--batch", env={VARIABLE: value, "RECORDER_ACT": PUBLISH},
                             **popen)
        return process, self.await_line(process.stdout, "value ").split(" ", 1)[1]

    def test_what_a_value_starts(self):
        own = identity(os.getpid())
        unparsable = ["abc", "", ";", "1234;", "12", "1234;x", "99999999999;1"]
        # Separator and trailing text are not compared.
        accepted = [own, own.replace(";", ":"), own.replace(";", " ; "), own + " and more"]
        for value in [None, *unparsable, *accepted]:
            with self.subTest(value):
                process, published = self.start_watching(value)
                self.assertEqual(published, identity(process.pid))
                for watching in self.await_watching_threads(process, value in accepted):
                    self.assertNotEqual(int(watching["Pid"]), process.pid)
                main, = (s for s in thread_statuses(process.pid) if int(s["Pid"]) == process.pid)
                self.assertEqual(main["SigBlk"], 0)
                ended = self.finish(self.tree, process)
                complaint = ("[BOOTSTRAP] ERROR: Failed to parse value of internal "
                             f'{VARIABLE} environment variable: "{value}"')
                self.assertEqual(ended.status, 0)
                self.assertEqual([line for line in ended.err.splitlines() if "BOOTSTRAP" in line],
                                 [complaint] * (value in unparsable))

    def test_unreadable_process_table_ends_the_watching_alone(self):
        value = identity(os.getpid())
        ended = self.run_launcher(
            self.tree, "--batch", env={VARIABLE: value, **refusing("open_stat")},
            act=f"import os, time\nwhile len(os.listdir('/proc/self/task')) > {1 + THREAD_SANITIZED}: time.sleep(.01)")
        self.assertEqual((ended.status, ended.start["environment"][VARIABLE]), (0, value))
        for line in ("ERROR: Failed to determine existence of parent process with the given PID "
                     f'{os.getpid()}: "Input/output error"',
                     "INFO: The PID of the parent process is defined by the value of the internal "
                     f'{VARIABLE} environment variable: "{value}"',
                     'WARNING: Failed to get process creation time: "Input/output error"'):
            self.assertIn(f"[BOOTSTRAP] {line}\n", ended.err)

    def test_other_creation_time_ends_the_process_silently(self):
        process = self.start(self.tree, "--batch", "-V", "0", env={
            VARIABLE: f"{os.getpid()};5678", "RECORDER_ACT": WAIT})
        self.assertEqual(process.wait(DEADLINE_SECONDS), 1)
        self.assertEqual(process.stderr.read(), b"")

    def test_launcher_ends_once_its_controller_is_a_zombie_or_gone(self):
        for state, end in (("zombie", lambda controller: controller.kill()),
                           ("gone", lambda controller: controller.communicate(b"\n"))):
            with self.subTest(state):
                controller = subprocess.Popen([sys.executable, "-c", "input()"],
                                              stdin=subprocess.PIPE)
                self._running.append(controller)
                pid, value = controller.pid, identity(controller.pid)
                # Each write arrives by itself.
                writes, stderr = socket.socketpair(type=socket.SOCK_SEQPACKET)
                process, _ = self.start_watching(value, stderr=stderr)
                stderr.close()
                end(controller)
                self.assertEqual(process.wait(DEADLINE_SECONDS), 1)
                with writes:
                    lines = [line.decode() for line in iter(lambda: writes.recv(1 << 16), b"")]
                self.assertEqual([line.rstrip("\n") for line in lines[-3:]], [
                    "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the "
                    f'given PID {pid}: "No such process"',
                    "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of "
                    f'the internal {VARIABLE} environment variable: "{value}"',
                    f"[BOOTSTRAP] WARNING: Parent process not found: PID {pid}. "
                    f"Terminating this `tavrel` process (PID {process.pid})..."])
                self.assertEqual(os.path.exists(f"/proc/{pid}"), state == "zombie")

    def test_neither_a_full_pipe_nor_a_lost_folder_keeps_a_launcher_alive(self):
        controller = subprocess.Popen([sys.executable, "-c", "input()"], stdin=subprocess.PIPE)
        self._running.append(controller)
        folder = self.tree.folder / "lost"
        folder.mkdir()
        unread, stderr = os.pipe()
        self.addCleanup(os.close, unread)
        process = self.start(self.tree, "--batch", cwd=folder, stderr=stderr, env={
            VARIABLE: identity(controller.pid),
            "RECORDER_ACT": "import os; print('up', flush=True); os.write(2, bytes(1 << 20))"})
        os.close(stderr)
        self.await_line(process.stdout, "up")
        folder.rmdir()
        controller.kill()
        self.assertEqual(process.wait(DEADLINE_SECONDS), 1)


if __name__ == "__main__":
    unittest.main()
