"""Starts launchers of a scratch tree in a clean environment and says how they ended."""

import json
import os
import re
import select
import shutil
import subprocess
import time
import unittest

import process_table
from scratch_tree import ScratchTree

SANITIZED = bool(os.environ.get("TAVREL_SANITIZER"))
# It has a thread of its own in each process, and handlers of its own in front of all others.
THREAD_SANITIZED = os.environ.get("TAVREL_SANITIZER") == "thread"
# Far beyond what a start takes on a busy machine; only a hang gets here.
DEADLINE_SECONDS = 25

LOG_LINE = re.compile(r"\[(\w+) (MAIN|BOOTSTRAP)\] (.*) \([\w/]+:\d+\)")


class Ended:
    """status, out and err (text), log: the native log lines as (level, logger, text), events: what
    the recorder noted; start: what the entry script found when it started, mode: the module of the
    run mode, both None if that was not reached."""

    def __init__(self, status, out, err, record):
        self.status = status
        self.out, self.err = ((text or b"").decode(errors="surrogateescape") for text in (out, err))
        matches = map(LOG_LINE.fullmatch, self.err.splitlines())
        self.log = [match.groups() for match in matches if match]
        self.texts = [text for _, _, text in self.log]
        lines = record.read_text().splitlines() if record.exists() else []
        self.events = [json.loads(line) for line in lines]
        first = {event["event"]: event for event in reversed(self.events)}
        self.start, self.mode = first.get("snapshot"), first.get("mode", {}).get("module")


class SystemTest(unittest.TestCase):
    """Checks after each test that its launchers left no process behind."""

    maxDiff = None

    def setUp(self):
        self._running = []
        self.companions = set()  # process ids of servers that a test runs beside its launchers
        self.addCleanup(self._leave_nothing_running)

    def _leave_nothing_running(self):
        for process in self._running:
            if process.poll() is None:
                process.kill()
            process.communicate()
        self._running.clear()
        self.reap()

    def scratch_tree(self, *args, **kwargs):
        tree = ScratchTree(self, *args, **kwargs)
        # Runs before the tree is removed: what still runs there may still write there.
        self.addCleanup(self._leave_nothing_running)
        return tree

    def reap(self, deadline=None):
        """Waits for everything that ended launchers left; exit codes by process id."""
        own = {process.pid for process in self._running} | self.companions
        return process_table.reap_adopted(own, deadline or time.monotonic() + DEADLINE_SECONDS)

    def environment(self, tree, changes):
        values = {
            "PATH": "/usr/local/bin:/usr/bin:/bin",
            "HOME": str(tree.folder),
            "LANG": "C.UTF-8",
            "TMPDIR": str(tree.temporary),
            "TAVREL_CRASH_HANDLING": "0",
            "RECORD": str(tree.record),
            "CLEANUP_RECORD": str(tree.cleanup_record),
        }
        if SANITIZED:
            # The interpreter leaks by design; Breakpad and the tests want the signals themselves.
            options = "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0"
            values["ASAN_OPTIONS"] = options + ":detect_leaks=0:verify_asan_link_order=0"
            values["TSAN_OPTIONS"] = options
        values.update(changes)
        return {key: value for key, value in values.items() if value is not None}

    def start(self, tree, *args, env=None, program=None, **popen):
        """Starts a launcher with pipes on its streams; None in env takes a variable out."""
        process = subprocess.Popen([program or tree.bin / "tavrel", *args],
                                   env=self.environment(tree, env or {}), bufsize=0,
                                   **{"cwd": tree.folder, "stdin": subprocess.PIPE,
                                      "stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
                                      **popen})
        self._running.append(process)
        return process

    def finish(self, tree, process):
        """Closes the launcher's input, waits for its end and for everything that it left."""
        deadline = time.monotonic() + DEADLINE_SECONDS
        try:
            out, err = process.communicate(timeout=DEADLINE_SECONDS)
        except subprocess.TimeoutExpired as late:
            process.kill()
            raise AssertionError(f"{process.args} had not ended; errors: {late.stderr}") from None
        finally:
            self._running.remove(process)
        self.reap(deadline)
        return Ended(process.returncode, out, err, tree.record)

    def run_launcher(self, tree, *args, act="", **start):
        """One launcher from start to end. act: what the recorder executes as the run mode."""
        tree.record.unlink(missing_ok=True)
        env = {"RECORDER_ACT": act, **(start.pop("env", None) or {})}
        return self.finish(tree, self.start(tree, *args, env=env, **start))

    def await_line(self, stream, wanted):
        """Reads lines until one holds the wanted text; returns it."""
        deadline = time.monotonic() + DEADLINE_SECONDS
        while True:
            ready, _, _ = select.select([stream], [], [], max(0, deadline - time.monotonic()))
            line = stream.readline().decode(errors="surrogateescape") if ready else ""
            if not line:
                raise AssertionError(f"the launcher never wrote {wanted!r}")
            if wanted in line:
                return line.rstrip("\n")

    def run_with_cleanup(self, tree, *args, **start):
        """run_launcher, and what the recorder in tavrelCleanup's place found in that very run, None
        if it was never started."""
        shutil.rmtree(tree.cleanup_record, ignore_errors=True)
        ended = self.run_launcher(tree, *args, **start)
        if not tree.cleanup_record.exists():
            return ended, None
        found = {file.name: file.read_text(errors="surrogateescape")
                 for file in tree.cleanup_record.iterdir()}
        return ended, {
            "argv": found["cmdline"].split("\0")[:-1],
            "cwd": found["cwd"],
            "descriptors": dict(line.split(" ", 1) for line in found["descriptors"].splitlines()),
            "stat": found["stat"].rpartition(") ")[2].split(),
            "status": process_table.parse_status(found["status"]),
        }
