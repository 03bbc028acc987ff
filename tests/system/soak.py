#!/usr/bin/env python3
"""soak.py [STARTS [KILLS]]: starts the launcher with endings that are known, crashes among them, and with a
signal at a random moment. Fails if a run ends with a wrong status, or if a file, a folder or a process is left."""

import collections
import concurrent.futures
import itertools
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import process_table
from scratch_tree import BUILT

LIMIT_SECONDS = 25
CRASH = "import ctypes; ctypes.string_at(0)"
# In short naps: Python looks for a signal before it sleeps and not while it begins to.
WAIT = "import time\nwhile True: time.sleep(.1)"
# Arguments ("JOB": the file with the source that follows), source, crash handling, status.
ENDINGS = [
    (["--batch", "JOB"], "print(1)", "", 0),
    (["--script", "JOB"], "import sys; sys.exit(7)", "", 7),
    (["--batch", "JOB"], "import sys; sys.exit(256)", "", 255),
    (["--batch", "JOB"], "raise ValueError()", "", 255),
    (["--batch", "/nowhere.py"], "", "", 2),
    (["--verbose"], "", "", 1),
    (["--batch", "JOB"], "", "1", 0),
    (["--batch", "JOB"], CRASH, "0", -signal.SIGSEGV),
    (["--batch", "JOB"], CRASH, "1", -signal.SIGSEGV),
]
# Signal: the statuses that it may end a run with; 255 only with the entry script's own line.
SIGNALS = {signal.SIGINT: {-signal.SIGINT, 130, 255}, signal.SIGTERM: {-signal.SIGTERM, 143},
           signal.SIGHUP: {-signal.SIGHUP}, signal.SIGKILL: {-signal.SIGKILL}}


class Soak:
    def __init__(self, folder):
        self.folder = folder
        self.temporary = folder / "tmp"
        self.temporary.mkdir()
        self.outcomes = collections.Counter()
        self.wrong = []
        self.number = itertools.count()

    def run(self, arguments, source, capture, allowed, kill=None):
        """One run in a folder of its own. kill: a signal, and the seconds after which it is sent."""
        folder = self.folder / f"run{next(self.number)}"
        folder.mkdir()
        (folder / "job.py").write_text(source)
        process = subprocess.Popen(
            [BUILT / "bin/tavrel", "-V0", *(str(folder / "job.py") if each == "JOB" else each for each in arguments)],
            cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            env=dict(os.environ, TMPDIR=str(self.temporary), HOME=str(folder), TAVREL_CRASH_DIR=str(folder),
                     TAVREL_CRASH_HANDLING=capture))
        if kill:
            time.sleep(kill[1])
            process.send_signal(kill[0])
        try:
            errors = process.communicate(timeout=LIMIT_SECONDS)[1].decode(errors="replace")
        except subprocess.TimeoutExpired:
            process.kill()
            errors = f"still there after {LIMIT_SECONDS} s\n{process.communicate()[1]}"
        self.outcomes[" ".join(arguments), source.split("\n")[-1], kill and kill[0].name, process.returncode] += 1
        names = sorted(file.suffix for file in folder.iterdir())
        expected = [".dmp", ".py", ".txt"] if source == CRASH and capture == "1" else [".py"]
        isLoud = process.returncode != 255 or not kill or "KeyboardInterrupt" in errors
        if process.returncode not in allowed or names != expected or not isLoud:
            self.wrong.append(f"{arguments} {source!r} {kill}: status {process.returncode}, {names}\n{errors}")

    def run_all(self, starts, kills):
        workers = 2 * os.cpu_count()
        start = time.monotonic()
        self.run(["--batch", "JOB"], "", "", {0})
        span = workers * (time.monotonic() - start)
        work = [(*ENDINGS[i % len(ENDINGS)][:3], {ENDINGS[i % len(ENDINGS)][3]}) for i in range(starts)]
        for i in range(kills):
            number = list(SIGNALS)[i % len(SIGNALS)]
            work.append((["--batch", "JOB"], WAIT, random.choice("01"), SIGNALS[number],
                         (number, random.uniform(0, span))))
        random.shuffle(work)
        with concurrent.futures.ThreadPoolExecutor(workers) as pool:
            for first in range(0, len(work), 500):
                list(pool.map(lambda each: self.run(*each), work[first:first + 500]))
                # What the runs have started ends by itself and takes the temporary folders along.
                process_table.reap_adopted(set(), time.monotonic() + LIMIT_SECONDS)
        if left := list(self.temporary.iterdir()):
            self.wrong.append(f"left {left}")


def main():
    # A shell hands them down ignored to what runs in its background.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    starts, kills = ([int(word) for word in sys.argv[1:]] + [10000, 2000][len(sys.argv) - 1:])[:2]
    with tempfile.TemporaryDirectory(prefix="soak_") as folder:
        soak = Soak(Path(folder))
        soak.run_all(starts, kills)
    for kind, count in sorted(soak.outcomes.items(), key=str):
        print(count, *kind)
    sys.exit("\n".join(soak.wrong) or 0)


if __name__ == "__main__":
    main()
