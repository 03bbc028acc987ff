"""A launcher does not outlive the process that controls it."""

import os
import subprocess
import sys
import time
import unittest

from launch import DEADLINE_SECONDS, SystemTest
from process_table import ALL_BLOCKED, identity, thread_statuses

VARIABLE = "__TAVREL_CONTROLLING_PROCESS"
WAIT = "import sys; sys.stdin.read()"
PUBLISH = f"import os; print('value', os.environ['{VARIABLE}'], flush=True); {WAIT}"
# Each launcher of the chain starts the next one, says its own process id, and waits for good.
CHAIN = """
import os, signal, subprocess
level = int(os.environ["LEVEL"])
if level:
    child = subprocess.Popen([os.environ["PROGRAM"], "--batch"],
                             env=dict(os.environ, LEVEL=str(level - 1)))
os.write(1, b"up %d\\n" % os.getpid())
signal.pause()
"""


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
            if len(threads) == count:
                return threads
            self.assertLess(time.monotonic(), deadline, threads)
            time.sleep(0.01)

    def controlling_process(self):
        """A process that a test can end and leave as a zombie."""
        controller = subprocess.Popen([sys.executable, "-c", "input()"], stdin=subprocess.PIPE)
        self._running.append(controller)
        return controller

    def start_watching(self, value):
        process = self.start(self.tree, "--batch", env={VARIABLE: value, "RECORDER_ACT": PUBLISH})
        published = self.await_line(process.stdout, "value ").split(" ", 1)[1]
        return process, published

    def test_absent_variable_starts_no_thread_and_publishes_the_process(self):
        process, published = self.start_watching(None)
        self.assertEqual(published, identity(process.pid))
        self.await_watching_threads(process, 0)
        self.assertEqual(self.finish(self.tree, process).err.count("[BOOTSTRAP]"), 0)

    def test_watching_thread_blocks_every_signal_and_the_main_thread_none(self):
        process, published = self.start_watching(identity(os.getpid()))
        self.assertEqual(published, identity(process.pid))
        watching, = self.await_watching_threads(process, 1)
        self.assertNotEqual(int(watching["Pid"]), process.pid)
        main = next(s for s in thread_statuses(process.pid) if int(s["Pid"]) == process.pid)
        self.assertEqual(main["SigBlk"], 0)
        self.assertEqual(self.finish(self.tree, process).status, 0)

    def test_unparsable_values_are_reported_and_replaced(self):
        for value in ("abc", "", ";", "1234;", "12", "1234;x", "99999999999;1"):
            with self.subTest(value):
                process, published = self.start_watching(value)
                self.assertEqual(published, identity(process.pid))
                self.await_watching_threads(process, 0)
                ended = self.finish(self.tree, process)
                self.assertEqual(ended.status, 0)
                self.assertTrue(ended.err.startswith(
                    "[BOOTSTRAP] ERROR: Failed to parse value of internal "
                    f'{VARIABLE} environment variable: "{value}"\n'), ended.err)

    def test_separator_and_trailing_text_are_not_compared(self):
        own = identity(os.getpid())
        for value in (own.replace(";", ":"), own.replace(";", " ; "), own + " and more"):
            with self.subTest(value):
                process, _ = self.start_watching(value)
                self.await_watching_threads(process, 1)
                self.assertEqual(self.finish(self.tree, process).status, 0)

    def test_other_creation_time_ends_the_process_silently(self):
        process = self.start(self.tree, "--batch", "-V", "0", env={
            VARIABLE: f"{os.getpid()};5678", "RECORDER_ACT": WAIT})
        self.assertEqual(process.wait(DEADLINE_SECONDS), 1)
        self.assertEqual(process.stderr.read(), b"")

    def check_end(self, controller, end):
        """The launcher ends, with its three lines, once end has been done to its controller."""
        value = identity(controller.pid)
        process, _ = self.start_watching(value)
        end()
        self.assertEqual(process.wait(DEADLINE_SECONDS), 1)
        pid = controller.pid
        self.assertEqual(process.stderr.read().decode().splitlines()[-3:], [
            "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the given PID "
            f'{pid}: "No such process"',
            "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the "
            f'internal {VARIABLE} environment variable: "{value}"',
            f"[BOOTSTRAP] WARNING: Parent process not found: PID {pid}. "
            f"Terminating this `tavrel` process (PID {process.pid})..."])

    def test_zombie_counts_as_gone(self):
        controller = self.controlling_process()
        self.check_end(controller, controller.kill)
        with open(f"/proc/{controller.pid}/stat") as stat:
            self.assertIn(") Z ", stat.read())

    def test_ended_process(self):
        controller = self.controlling_process()
        self.check_end(controller, lambda: controller.communicate(b"\n"))

    def test_chain_of_launchers_follows_its_first_into_death(self):
        first = self.start(self.tree, "--batch", env={
            VARIABLE: identity(os.getpid()), "RECORDER_ACT": CHAIN, "LEVEL": "2",
            "PROGRAM": str(self.tree.bin / "tavrel")})
        pids = {int(self.await_line(first.stdout, "up ").split()[1]) for _ in range(3)}
        second_and_third = pids - {first.pid}
        self.assertEqual(len(second_and_third), 2)
        first.kill()
        first.wait()
        codes = self.reap()
        self.assertEqual({codes[pid] for pid in second_and_third}, {1})


if __name__ == "__main__":
    unittest.main()
