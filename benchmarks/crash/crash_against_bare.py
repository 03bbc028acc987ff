"""Crash capture against Breakpad's client and server with nothing around them.

crash_against_bare.py CRASH_TIMES REPORTER BARE_REPORTER FRAMES [RUNS]: both sides in turn, RUNS times each
(21 unless given, a third of it with many threads); the medians are compared. Arming, then the time
from the signal to the end of the process, out of process and in process, with one thread and with
201; the time from the signal to the whole report, out of process; and the memory of the idle
reporter with all its processes.
"""
import os
import select
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

DEADLINE_SECONDS = 60
ARMING_LIMIT, MEMORY_LIMIT_MIB = "1.6", 8
ENDING_LIMIT = {0: "1.4", 200: "1.1"}  # by further threads, as the next
REPORT_LIMIT_MS = {0: 300, 200: 1500}


def descendants(pid):
    children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [found for child in children for found in (child, *descendants(child))]


def shared_once_mib(pids):
    """Memory of the processes together, shared pages counted once among all who share them."""
    lines = [line for pid in pids for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()]
    return sum(int(line.split()[1]) for line in lines if line.startswith("Pss:")) / 1024


def read_number(process, word):
    """The number in the next line, "WORD NUMBER"."""
    line = process.stdout.readline().split()
    if line[:1] != [word.encode()]:
        sys.exit(f"CrashTimes said {line} instead of {word}")
    return int(line[1])


def settle(dumps, wanted):
    """Waits until the reporter is through with its report, so that it disturbs no other turn."""
    deadline = time.monotonic() + DEADLINE_SECONDS
    while len(list(dumps.glob("*.txt"))) < wanted:
        if time.monotonic() > deadline:
            sys.exit("no report was written")
        time.sleep(0.002)


def measure(folder, side, mode, threads):
    """Milliseconds of arming and of dying; MiB of the idle reporter; milliseconds to the report."""
    with tempfile.TemporaryDirectory(dir=folder) as dumps:
        process = subprocess.Popen([folder / "CrashTimes", side, mode, str(threads)], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   env={**os.environ, "TAVREL_CRASH_DIR": dumps})
        arming = read_number(process, "armed") / 1e6
        reporters = descendants(process.pid)
        memory = shared_once_mib(reporters) if reporters else 0
        ended = os.pidfd_open(process.pid)
        process.stdin.write(b"g")
        process.stdin.flush()
        crashed = read_number(process, "crashed")
        select.select([ended], [], [], DEADLINE_SECONDS)
        dying = time.clock_gettime_ns(time.CLOCK_MONOTONIC) - crashed
        os.close(ended)
        status = process.wait()
        if status != -11 or len(list(Path(dumps).glob("*.dmp"))) != 1:
            sys.exit(f"{side} {mode}: status {status}, in the folder {os.listdir(dumps)}")
        reported = 0
        if side == "ours" and mode == "out":
            settle(Path(dumps), 1)
            reported = time.clock_gettime_ns(time.CLOCK_MONOTONIC) - crashed
            for reporter in reporters:
                wait_for_end(int(reporter))
        elif reporters:
            for reporter in reporters:
                os.kill(int(reporter), 9)
    return arming, dying / 1e6, memory, reported / 1e6


def wait_for_end(pid):
    try:
        ended = os.pidfd_open(pid)
    except ProcessLookupError:
        return
    select.select([ended], [], [], DEADLINE_SECONDS)
    os.close(ended)


def compare(folder, runs, mode, threads):
    sides = {"ours": [], "bare": []}
    for run in range(runs):
        # The first one meets other caches.
        for side in sorted(sides, reverse=run % 2 == 0):
            sides[side].append(measure(folder, side, mode, threads))
    return ([statistics.median(figures) for figures in zip(*sides[side])] for side in ("ours", "bare"))


def row(what, ours, bare, limit):
    print("\t".join((what, f"{ours:.2f} ms", f"{bare:.2f} ms", f"{ours / bare:.2f}", limit)), flush=True)


def main():
    programs, runs = sys.argv[1:5], int(sys.argv[5]) if len(sys.argv) > 5 else 21
    with tempfile.TemporaryDirectory(dir=Path(programs[0]).parent) as scratch:
        folder = Path(scratch)
        for program in programs:
            shutil.copy(program, folder)
        for threads in (0, 200):
            runs = runs if not threads else max(runs // 3, 1)
            with_threads = f", {threads} more threads" if threads else ""
            (arming, dying, memory, reported), floor = compare(folder, runs, "out", threads)
            if not threads:
                row("crash: arming out of process", arming, floor[0], ARMING_LIMIT)
            row(f"crash: signal to end, out of process{with_threads}", dying, floor[1], ENDING_LIMIT[threads])
            print("\t".join((f"crash: idle reporter{with_threads}", f"{memory:.2f} MiB", f"{MEMORY_LIMIT_MIB} MiB",
                             f"{memory / MEMORY_LIMIT_MIB:.2f}", "1.0")), flush=True)
            most = REPORT_LIMIT_MS[threads]
            print("\t".join((f"crash: signal to report{with_threads}", f"{reported:.2f} ms", f"{most} ms",
                             f"{reported / most:.2f}", "1.0")), flush=True)
            (_, dying, _, _), floor = compare(folder, runs, "in", threads)
            row(f"crash: signal to end, in process{with_threads}", dying, floor[1], ENDING_LIMIT[0])


if __name__ == "__main__":
    main()
