"""tavrelCleanup against `rm -rf`: 100,000 small files in three shapes, on a tmpfs.

cleanup_against_rm.py PROGRAM [RUNS]: both delete the same tree in turn, RUNS times each (7 unless
given); the medians are compared. SCRATCH names a folder on a tmpfs to work in, /dev/shm unless set.
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SHAPES = {"flat": (1, 100000), "100 x 1,000": (100, 1000), "10,000 x 10": (10000, 10)}


def build(tree, folders, files):
    os.mkdir(tree)
    for i in range(folders):
        folder = tree if folders == 1 else f"{tree}/folder{i}"
        if folders > 1:
            os.mkdir(folder)
        here = os.open(folder, os.O_RDONLY)
        for j in range(files):
            file = os.open(f"file{j}", os.O_CREAT | os.O_WRONLY, dir_fd=here)
            os.write(file, b"small")
            os.close(file)
        os.close(here)


def measure(command, tree, shape):
    """Milliseconds from the start of the command to its end, and those of processor time in it."""
    build(tree, *shape)
    start = time.perf_counter()
    child = os.posix_spawn(command[0], command, os.environ)
    _, status, usage = os.wait4(child, 0)
    elapsed = time.perf_counter() - start
    if status != 0 or os.path.exists(tree):
        sys.exit(f"{command[0]} has not deleted {tree}: wait status {status}")
    return elapsed * 1000, (usage.ru_utime + usage.ru_stime) * 1000


def file_system(path):
    return subprocess.run(["stat", "-f", "-c", "%T", path], check=True, stdout=subprocess.PIPE).stdout.decode().strip()


def main():
    program = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 7
    base = os.environ.get("SCRATCH", "/dev/shm")
    if not os.path.isdir(base) or file_system(base) != "tmpfs":
        sys.exit(f"{base} is no tmpfs: name one in SCRATCH")
    rm = shutil.which("rm")
    # Not reaped before the end, so that no other process gets the id.
    with tempfile.TemporaryDirectory(dir=base) as scratch, subprocess.Popen(["true"]) as dead:
        os.waitid(os.P_PID, dead.pid, os.WEXITED | os.WNOWAIT)
        tree = scratch + "/tree"
        commands = ([program, str(dead.pid), tree], [rm, "-rf", tree])
        for name, shape in SHAPES.items():
            times = ([], [])
            for run in range(runs):
                # The first one meets other caches.
                for side in ((0, 1) if run % 2 == 0 else (1, 0)):
                    times[side].append(measure(commands[side], tree, shape))
            (ours, our_work), (floor, floor_work) = ([statistics.median(f) for f in zip(*side)] for side in times)
            row = f"cleanup of 100,000 files, {name}", f"{ours:.1f} ms", f"{floor:.1f} ms", f"{ours / floor:.2f}", "1.0"
            print("\t".join(row), flush=True)
            print(f"  {name}, processor time: {our_work:.1f} ms against {floor_work:.1f} ms", flush=True)


if __name__ == "__main__":
    main()
