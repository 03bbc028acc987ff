#!/usr/bin/env python3
"""Breaks the program in one place at a time and looks which test notices.

    tests/faults/faults.py [WORD...]     all of faults.txt, or the lines that hold one of the words

Works on a copy of the checkout in build/faults, as git lists it; that of .deps is used. Takes half a
minute a fault. Prints a line for each and the share that was noticed; exit status 1 below 94 %, and for a
line that no longer fits the sources.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
COPY = ROOT / "build/faults"
LEAST_SHARE = 0.94
SEPARATOR = " ::: "
LIMIT_SECONDS = "60"  # a test that waits says so well before


def run(*words):
    return subprocess.run(words, cwd=COPY, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, universal_newlines=True, errors="replace")


def copy_checkout():
    """As git lists it. A file that is as before keeps its time, and what was built of it."""
    names = subprocess.check_output(["git", "-C", str(ROOT), "ls-files", "-z"]).decode().split("\0")
    for name in filter(None, names):
        source, target = ROOT / name, COPY / name
        if source.exists() and not (target.exists() and target.read_bytes() == source.read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
    flags = COPY / "cmake/Toolchain.cmake"  # a fault may leave a name unused
    flags.write_text(flags.read_text().replace(" -Werror ", " "))
    if not (COPY / ".deps").exists():
        (COPY / ".deps").symlink_to(ROOT / ".deps")


def failing_test(*selection):
    """The name of a test that fails, of those that are selected."""
    ended = run("ctest", "--preset", "release", "-j", str(os.cpu_count()), "--timeout", LIMIT_SECONDS,
                "--stop-on-failure", *selection)
    name = re.search(r"Test +#\d+: (\S+) \.*.*\*\*\*", ended.stdout)
    return name.group(1) if name else ended.stdout[-300:] if ended.returncode else ""


def result_of(file, text, replacement, tests):
    path = COPY / file
    sound = path.read_text()
    if sound.count(text) != 1:
        return "stale", f"stands there {sound.count(text)} times"
    path.write_text(sound.replace(text, replacement))
    try:
        built = run("scripts/build.sh", "release")
        if built.returncode:
            return "stale", "does not build: " + (re.search(r".*error:.*|\Z", built.stdout).group(0))
        name = failing_test("-R", tests) or failing_test("-E", f"{tests}|^farm|^package")
        return ("noticed", name) if name else ("unnoticed", "")
    finally:
        path.write_text(sound)


def main():
    lines = [line for line in (ROOT / "tests/faults/faults.txt").read_text().splitlines()
             if line and not line.startswith("#")
             and (len(sys.argv) == 1 or any(word in line for word in sys.argv[1:]))]
    copy_checkout()
    sound = run("scripts/build.sh", "release")
    if sound.returncode:
        sys.exit("faults: the sound copy does not build:\n" + sound.stdout[-2000:])
    counts = {"noticed": 0, "unnoticed": 0, "stale": 0}
    for line in lines:
        file, text, replacement, tests, consequence = line.replace("\\n", "\n").split(SEPARATOR)
        replacement = "" if replacement == "(nothing)" else replacement
        result, by = result_of(file, text, replacement, tests)
        counts[result] += 1
        print(f"{result:9} {file}: {consequence} {'by ' if result == 'noticed' else ''}{by}", flush=True)
    print(", ".join(f"{count} {result}" for result, count in counts.items()))
    seen = counts["noticed"] + counts["unnoticed"]
    sys.exit(counts["stale"] > 0 or counts["noticed"] < LEAST_SHARE * seen)


if __name__ == "__main__":
    main()
