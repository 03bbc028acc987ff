#!/usr/bin/env python3
"""Starts the launcher of a built tree with endings that are known, crashes among them, and with a signal
at a random moment. Fails if a run ends with a wrong status, or if a file, a folder or a process is left."""

import argparse
import collections
import concurrent.futures
import ctypes
import itertools
import os
import random
import signal
import subprocess
import sys
import tempfile
import time

BUILT_TREE = os.path.join(os.path.dirname(__file__), "../../build/release/tree")
DEADLINE_SECONDS = 120
PR_SET_CHILD_SUBREAPER = 36
CRASH = "import ctypes; ctypes.string_at(0)"
# In short naps: Python looks for a signal before it sleeps and not while it begins to.
WAIT = "import time\nwhile True: time.sleep(.1)"

# Name, arguments ("JOB": the file with the source that follows), source, environment, status.
ENDINGS = [
    ("end", ["--batch", "JOB"], "print(1)", {}, 0),
    ("status", ["--script", "JOB"], "import sys; sys.exit(7)", {}, 7),
    ("status that is lost", ["--batch", "JOB"], "import sys; sys.exit(256)", {}, 255),
    ("exception", ["--batch", "JOB"], "raise ValueError()", {}, 255),
    ("unreadable job", ["--batch", "/nowhere.py"], "", {}, 2),
    ("wrong option", ["--verbose"], "", {}, 1),
    ("capture without a crash", ["--batch", "JOB"], "", {"TAVREL_CRASH_HANDLING": "1"}, 0),
    ("crash", ["--batch", "JOB"], CRASH, {"TAVREL_CRASH_HANDLING": "0"}, -signal.SIGSEGV),
    ("reported crash", ["--batch", "JOB"], CRASH, {"TAVREL_CRASH_HANDLING": "1"}, -signal.SIGSEGV),
]
# Signal: the statuses that it may end a run with; 255 only with the entry script's own line.
SIGNALS = {
    signal.SIGINT: {-signal.SIGINT, 130, 255},
    signal.SIGTERM: {-signal.SIGTERM, 143},
    signal.SIGHUP: {-signal.SIGHUP},
    signal.SIGKILL: {-signal.SIGKILL},
}


class Soak:
    def __init__(self, tree, folder):
        self.program = os.path.join(os.path.abspath(tree), "bin/tavrel")
        self.folder = folder
        self.temporary = os.path.join(folder, "tmp")
        os.mkdir(self.temporary)
        self.outcomes = collections.Counter()
        self.wrong = []
        self.number = itertools.count()

    def start(self, arguments, source, **environment):
        """A run with a folder of its own, and that folder."""
        folder = os.path.join(self.folder, "run%d" % next(self.number))
        os.mkdir(folder)
        job = os.path.join(folder, "job.py")
        with open(job, "w") as file:
            file.write(source)
        return folder, subprocess.Popen(
            [self.program, "-V0"] + [job if each == "JOB" else each for each in arguments],
            cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            env=dict(os.environ, TMPDIR=self.temporary, HOME=folder, TAVREL_CRASH_DIR=folder,
                     **environment))

    def finish(self, kind, process, allowed):
        """Reads to the end what the run and its reporter write; a run that hangs is ended."""
        try:
            errors = process.communicate(timeout=DEADLINE_SECONDS)[1].decode(errors="replace")
        except subprocess.TimeoutExpired:
            process.kill()
            errors = "still there after %d s\n" % DEADLINE_SECONDS + process.communicate()[1].decode(
                errors="replace")
        self.outcomes[kind, process.returncode] += 1
        if process.returncode not in allowed:
            self.wrong.append("%s: status %d\n%s" % (kind, process.returncode, errors))
        return errors

    def end(self, ending):
        name, arguments, source, environment, status = ending
        folder, process = self.start(arguments, source, **environment)
        self.finish(name, process, {status})
        expected = {"job.py"}
        if name == "reported crash":
            self.await_report(folder)
            expected |= {file for file in os.listdir(folder) if file.endswith((".dmp", ".txt"))}
            if len(expected) != 3:
                self.wrong.append("%s: not one dump and one report: %s" % (name, expected))
        self.remove(name, folder, expected)

    def await_report(self, folder):
        deadline = time.monotonic() + DEADLINE_SECONDS
        while time.monotonic() < deadline:
            if any(file.endswith(".txt") for file in os.listdir(folder)):
                return
            time.sleep(0.05)

    def kill(self, number, delay, capture):
        folder, process = self.start(["--batch", "JOB"], WAIT, TAVREL_CRASH_HANDLING=capture)
        time.sleep(delay)
        process.send_signal(number)
        errors = self.finish(number.name, process, SIGNALS[number])
        if process.returncode == 255 and "KeyboardInterrupt" not in errors:
            self.wrong.append("%s: status 255\n%s" % (number.name, errors))
        self.remove(number.name, folder, {"job.py"})

    def remove(self, name, folder, expected):
        """The folder of a run that is over; what isn't expected in it stays and counts."""
        for file in expected:
            os.remove(os.path.join(folder, file))
        try:
            os.rmdir(folder)
        except OSError:
            self.wrong.append("%s: left %s" % (name, os.listdir(folder)))

    def typical_seconds(self):
        start = time.monotonic()
        for _ in range(3):
            self.end(ENDINGS[0])
        return (time.monotonic() - start) / 3

    def run(self, starts, kills):
        workers = 2 * os.cpu_count()
        span = workers * self.typical_seconds()
        work = [(self.end, ENDINGS[i % len(ENDINGS)]) for i in range(starts)]
        work += [(self.kill, list(SIGNALS)[i % len(SIGNALS)], random.uniform(0, span),
                  random.choice("01")) for i in range(kills)]
        random.shuffle(work)
        with concurrent.futures.ThreadPoolExecutor(workers) as pool:
            jobs = [pool.submit(*each) for each in work]
            while not all(job.done() for job in jobs):
                reap_adopted()
                time.sleep(0.1)
        for job in jobs:
            job.result()
        self.await_nothing()

    def await_nothing(self):
        """What the runs have started ends by itself and takes the temporary folders along."""
        deadline = time.monotonic() + DEADLINE_SECONDS
        while reap_adopted() and time.monotonic() < deadline:
            time.sleep(0.1)
        for pid in reap_adopted():
            with open("/proc/%d/cmdline" % pid) as cmdline:
                self.wrong.append("left the process %s" % cmdline.read().replace("\0", " "))
            os.kill(pid, signal.SIGKILL)
        if os.listdir(self.temporary):
            self.wrong.append("left %s" % os.listdir(self.temporary))


def reap_adopted():
    """Buries what has ended of the orphans that this process adopted; those that have not. The runs
    themselves are children of other threads than the main one."""
    with open("/proc/self/task/%d/children" % os.getpid()) as children:
        return [pid for pid in map(int, children.read().split())
                if os.waitpid(pid, os.WNOHANG)[0] == 0]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tree", default=BUILT_TREE, help="that of the release build unless named")
    parser.add_argument("starts", nargs="?", type=int, default=10000)
    parser.add_argument("kills", nargs="?", type=int, default=2000)
    words = parser.parse_args()
    if not os.access(os.path.join(words.tree, "bin/tavrel"), os.X_OK):
        sys.exit("soak: no launcher in %s: run scripts/build.sh" % words.tree)
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    # A shell hands them down ignored to what runs in its background.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    with tempfile.TemporaryDirectory(prefix="soak_") as folder:
        soak = Soak(words.tree, folder)
        soak.run(words.starts, words.kills)
    for (kind, status), count in sorted(soak.outcomes.items(), key=str):
        print("%-24s status %4d: %d" % (kind, status, count))
    sys.exit("\n".join(soak.wrong) or 0)


if __name__ == "__main__":
    main()
