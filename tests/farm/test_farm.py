"""Batch runs under Slurm, by the job scripts of examples/slurm: test_farm.py linuxproc|cgroup

With linuxproc, the administrator's scripts of the same folder are in use as well; with cgroup, the
jobs are on their own in a cluster that kills whatever a job leaves.
"""

import collections
import contextlib
import os
import re
import select
import signal
import sys
import time
import unittest
from pathlib import Path

from one_node_slurm import EXAMPLES, OneNodeSlurm, await_condition, what_is_missing

TRACKING = sys.argv.pop(1) if len(sys.argv) > 1 else "linuxproc"
LAUNCHER = os.environ.get("TAVREL", EXAMPLES.parents[1] / "build/release/tree/bin/tavrel")
# Far beyond what a job takes on a busy machine. Slurm looks at time limits twice a minute.
DEADLINE_SECONDS = 100
SKIPPED = 77
UNFINISHED = ("PENDING", "RUNNING", "COMPLETING", "CONFIGURING")

# A run reports by a pipe what it does: its job's name, the event and its temporary folder.
RUN = """\
import os, signal, sys, threading
folder = os.environ["TAVREL_TMPDIR"]

def report(event):
    with open({pipe!r}, "w") as pipe:
        pipe.write("%s %s %s\\n" % (os.environ["SLURM_JOB_NAME"], event, folder))

def waitForEnd():
    open(folder + "/content", "w").close()
    report("waits")
    try:
        threading.Event().wait()
    finally:
        report("ends")

{act}
"""


Job = collections.namedtuple("Job", "number name tmp")


class FarmTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.slurm = OneNodeSlurm(TRACKING, epilog=TRACKING == "linuxproc")
        cls.addClassCleanup(cls.slurm.stop)
        cls.folder = cls.slurm.folder
        os.mkfifo(cls.folder / "events")
        cls.pipe = os.open(cls.folder / "events", os.O_RDWR)
        cls.addClassCleanup(os.close, cls.pipe)
        cls.events = {}
        cls.submitters = cls.folder / "submitters"
        cls.submitters.mkdir()
        # These take up to half a minute, in which the others run.
        wait = "waitForEnd()"
        limit = cls.submit("limit", wait, options=["--signal=CONT@1"])
        warned = [("warned", "batch.sbatch", "TERM@55")]
        if TRACKING == "linuxproc":
            warned.append(("warned_by_exec", "site-folder.sbatch", "B:TERM@55"))
        cls.limited = [(limit, "TIMEOUT")] + [
            (cls.submit(name, wait, script, ["--time=1", f"--signal={early}"]), "FAILED")
            for name, script, early in warned]
        cls.await_event("limit", "waits")
        cls.slurm.run("scontrol", "update", f"jobid={limit.number}", "EndTime=now")

    @classmethod
    def submit(cls, name, act, script="batch.sbatch", options=(), environment=()):
        """A job that runs the Python code `act`, with an empty TMPDIR of its own."""
        (cls.folder / f"{name}.py").write_text(
            RUN.format(pipe=str(cls.folder / "events"), act=act))
        return cls.submit_file(name, cls.folder / f"{name}.py", script,
                               ["--output=log", *options], environment)

    @classmethod
    def submit_file(cls, name, file, script, options=(), environment=()):
        work = cls.folder / name
        (work / "tmp").mkdir(parents=True)
        # As if a program that the application has started were submitting it.
        variables = {"TAVREL": LAUNCHER, "TMPDIR": work / "tmp", "TAVREL_TMPDIR": cls.submitters,
                     "__TAVREL_CONTROLLING_PROCESS": "1;1", **dict(environment)}
        number = cls.slurm.run(
            "env", *(f"{key}={value}" for key, value in variables.items()), "sbatch", "--parsable",
            f"--job-name={name}", f"--chdir={work}", *options, EXAMPLES / script, file)
        return Job(number, name, work / "tmp")

    @classmethod
    def await_event(cls, name, event):
        """The temporary folder of the job's run, once it has reported the event."""
        deadline = time.monotonic() + DEADLINE_SECONDS
        while (name, event) not in cls.events:
            ready, _, _ = select.select([cls.pipe], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise AssertionError(f"{name} never reported that it {event}: {cls.log(name)}")
            # One write of less than PIPE_BUF comes in one piece.
            for line in os.read(cls.pipe, 1 << 16).decode().splitlines():
                job, what, folder = line.split(" ", 2)
                cls.events[job, what] = Path(folder)
        return cls.events[name, event]

    @classmethod
    def log(cls, name):
        log = cls.folder / name / "log"
        return log.read_text(errors="replace") if log.exists() else "no log"

    def ends_of(self, job):
        """(state, exit status) of each task."""
        text = self.slurm.run("scontrol", "show", "job", "-o", job.number)
        return re.findall(r"JobState=(\S+) .*? ExitCode=(\S+)", text)

    def has_process(self, job):
        wanted = {f"SLURM_CONF={self.folder}/slurm.conf".encode(),
                  f"SLURM_JOB_ID={job.number}".encode()}
        for environment in Path("/proc").glob("[0-9]*/environ"):
            with contextlib.suppress(OSError):  # it has ended, or is another user's
                if wanted <= set(environment.read_bytes().split(b"\0")):
                    return True
        return False

    def assert_end(self, job, *ends):
        # Slurm has no event for the end of a job; its own sbatch --wait asks every ten seconds.
        await_condition(f"end of job {job.name}",
                        lambda: not any(state in UNFINISHED for state, _ in self.ends_of(job)),
                        DEADLINE_SECONDS, pause=0.2)
        self.assertEqual(self.ends_of(job), list(ends), self.log(job.name))
        await_condition(f"end of the processes that {job.name} left",
                        lambda: not self.has_process(job), DEADLINE_SECONDS, pause=0.2)
        self.assertEqual(os.listdir(job.tmp), [], job.name)
        self.assertFalse((self.folder / "jobs" / job.number).exists(), job.name)
        self.assertTrue(self.submitters.exists(), f"{job.name} removed its submitter's folder")

    def test_the_status_of_a_run_is_that_of_its_job(self):
        reports = self.folder / "reports"
        reports.mkdir()
        capture = {"TAVREL_CRASH_HANDLING": "1", "TAVREL_CRASH_DIR": reports}
        ends = {"well": ("", "COMPLETED", "0:0"),
                "three": ("sys.exit(3)", "FAILED", "3:0"),
                "raises": ("raise ValueError", "FAILED", "255:0"),
                "crashes": ("os.kill(os.getpid(), signal.SIGSEGV)", "FAILED", "139:0")}
        jobs = [self.submit(name, act, environment=capture) for name, (act, *_) in ends.items()]
        for job in jobs:
            with self.subTest(job.name):
                self.assert_end(job, ends[job.name][1:])
        # The report may fall to a cluster that kills what a job leaves; the dump may not.
        self.assertEqual(len(list(reports.glob("*.dmp"))), 1, self.log("crashes"))

    def test_a_cancelled_job_ends_in_order_and_leaves_its_neighbour_alone(self):
        first, second = (self.submit(name, "waitForEnd()") for name in ("first", "second"))
        folders = [self.await_event(job.name, "waits") for job in (first, second)]
        self.assertNotEqual(*folders)
        for job, folder in zip((first, second), folders):
            self.assertTrue((folder / "content").exists(), f"before {job.name} is cancelled")
            self.slurm.run("scancel", job.number)
            self.assert_end(job, ("CANCELLED", "143:0"))
            self.await_event(job.name, "ends")
            self.assertFalse(folder.exists())

    def test_time_limit_and_early_warning_end_a_job_in_order(self):
        for job, state in self.limited:
            with self.subTest(job.name):
                self.await_event(job.name, "ends")
                self.assert_end(job, (state, "143:0"))

    def test_an_array_renders_all_its_frames(self):
        job = self.submit_file("array", EXAMPLES.parent / "frames.py", "array.sbatch")
        self.assert_end(job, *[("COMPLETED", "0:0")] * 20)
        sizes = {path.name: path.stat().st_size for path in (self.folder / "array").glob("*.ppm")}
        whole = len(b"P6\n320 180\n255\n") + 320 * 180 * 3
        self.assertEqual(sizes, {f"frame_{frame:04}.ppm": whole for frame in range(1, 21)})

    @unittest.skipIf(TRACKING == "cgroup", "no epilog, and what a job detaches dies with it")
    def test_what_a_killed_run_leaves_is_removed_by_epilog_or_cleanup(self):
        detached = self.folder / "detached.sbatch"
        detached.write_text("#!/bin/bash\n"
                            "unset __TAVREL_CONTROLLING_PROCESS TAVREL_TMPDIR\n"
                            "export TAVREL_KEEP_TMPDIR=0 TMPDIR=$PWD/tmp\n"
                            'exec "$TAVREL" --batch "$@"\n')
        act = 'report("dies")\nos.kill(os.getpid(), signal.{})'
        for name, script, base, number in (
                ("by_epilog", "site-folder.sbatch", self.folder / "jobs", "SIGSEGV"),
                ("by_cleanup", detached, self.folder / "by_cleanup/tmp", "SIGKILL")):
            with self.subTest(name):
                job = self.submit(name, act.format(number), script)
                self.assertIn(base, self.await_event(name, "dies").parents)
                self.assert_end(job, ("FAILED", f"0:{int(signal.Signals[number])}"))


if __name__ == "__main__":
    if missing := what_is_missing(TRACKING):
        print(f"skipped: {missing}")
        sys.exit(SKIPPED)
    unittest.main()
