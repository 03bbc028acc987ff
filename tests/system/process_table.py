"""What the process table says of a process, and the processes that end up with this one.

A test process adopts what its launchers leave behind, so that it can wait for a daemon's end
instead of sleeping.
"""

import ctypes
import os
import select
import signal
import time

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
LIBC = ctypes.CDLL(None)
# What blocking everything comes to: SIGKILL and SIGSTOP can't be blocked, and glibc keeps 32 and 33
# for itself (but blocks them, too, in a thread that is just being made).
ALL_BLOCKED = (1 << 64) - 1 & ~sum(1 << (n - 1) for n in (signal.SIGKILL, signal.SIGSTOP, 32, 33))

LIBC.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def end_with_parent():
    """In a child, before its exec: a test that is killed takes the child with it."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)


def parse_status(text):
    """The lines of a status file as a mapping; signal sets as integers."""
    fields = dict(line.split(":", 1) for line in text.splitlines())
    return {name: int(value, 16) if name.startswith("Sig") and name != "SigQ" else value.strip()
            for name, value in fields.items()}


def thread_statuses(pid):
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/status", errors="surrogateescape") as status:
                yield parse_status(status.read())
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread ended meanwhile, before the file was opened or before it was read


def identity(pid):
    """The value of the controlling-process variable that names this process."""
    with open(f"/proc/{pid}/stat", "rb") as stat:
        ticks = int(stat.read().rpartition(b") ")[2].split()[19])
    return f"{pid};{ticks * 1_000_000 // os.sysconf('SC_CLK_TCK')}"


def children():
    with open(f"/proc/self/task/{os.getpid()}/children") as pids:
        return {int(pid) for pid in pids.read().split()}


def running(program):
    """The processes that run this program file, zombies left out."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/exe") == str(program):
                yield int(pid)
        except OSError:
            pass  # a zombie, another user's, ended meanwhile


def wait_for_end(pid, deadline):
    """Wait status of an adopted or own child; kills it and fails if it outlives the deadline."""
    descriptor = os.pidfd_open(pid)
    try:
        ended, _, _ = select.select([descriptor], [], [], max(0, deadline - time.monotonic()))
        if not ended:
            with open(f"/proc/{pid}/cmdline") as cmdline:
                name = cmdline.read().replace("\0", " ")
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            raise AssertionError(f"process {pid} was still there: {name}")
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    finally:
        os.close(descriptor)


def reap_adopted(own, deadline):
    """Waits until nothing is left of what this process adopted; exit codes by process id.

    own: process ids that another part of this process waits for.
    """
    codes = {}
    while adopted := children() - own:
        for pid in adopted:
            codes[pid] = wait_for_end(pid, deadline)
    return codes
