"""Swaps the folders of a tree with something from outside while the cleanup program walks it.

swap_rig.py [--races N] [--swap link|folder] PROGRAM

link: the other side is a symbolic link to a folder outside. folder: it is a real folder that stands
outside, so that folders of the tree are moved out while they are walked, and strangers in. What is
moved in may go; every other file outside has to stay. Exit status 1 if one was lost, which a
program that trusts paths does not escape.
"""
import argparse
import ctypes
import os
import shutil
import subprocess
import sys
import tempfile

FOLDERS = 8
FILES = 4
RENAME_EXCHANGE = 2
AT_FDCWD = -100
LIBC = ctypes.CDLL(None, use_errno=True)


def fill(folder):
    os.makedirs(folder + "/nested")
    for i in range(FILES):
        os.close(os.open(f"{folder}/f{i}", os.O_CREAT))
        os.close(os.open(f"{folder}/nested/f{i}", os.O_CREAT))


def build(swap):
    """Everything that one race needs, but for what an earlier one has left in place."""
    for name in ("tree", "aside"):
        shutil.rmtree(name, ignore_errors=True)
    os.mkdir("aside")
    for i in range(FOLDERS):
        fill(f"tree/d{i}")
        if not os.path.exists(f"outside/p{i}"):
            fill(f"outside/p{i}")
        if swap == "link":
            os.symlink(f"../outside/p{i}", f"aside/d{i}")
        else:
            fill(f"aside/d{i}")
            os.close(os.open(f"aside/bystander{i}", os.O_CREAT))


def count_lost(swap):
    bystanders = [f"outside/p{i}/{n}f{j}" for i in range(FOLDERS) for j in range(FILES) for n in ("", "nested/")]
    if swap == "folder":
        bystanders += [f"aside/bystander{i}" for i in range(FOLDERS)]
    lost = sum(not os.path.exists(name) for name in bystanders)
    if lost:
        shutil.rmtree("outside")
    return lost


def race(program, dead_pid, pairs):
    # What it had to leave is swapped-in strangers, and no news.
    quiet = [(os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)]
    command = [program, str(dead_pid), os.path.abspath("tree")]
    walker = os.posix_spawn(program, command, os.environ, file_actions=quiet)
    swaps = 0
    while os.waitpid(walker, os.WNOHANG) == (0, 0):
        for inside, aside in pairs:
            swaps += LIBC.renameat2(AT_FDCWD, inside, AT_FDCWD, aside, RENAME_EXCHANGE) == 0
    return swaps


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--races", type=int, default=20000)
    parser.add_argument("--swap", choices=["link", "folder"], default="link")
    parser.add_argument("program", type=os.path.abspath)
    options = parser.parse_args()
    base = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    # Not reaped before the end, so that nobody else gets the id.
    with tempfile.TemporaryDirectory(dir=base) as scratch, subprocess.Popen(["true"]) as dead:
        os.waitid(os.P_PID, dead.pid, os.WEXITED | os.WNOWAIT)
        os.chdir(scratch)
        pairs = [(b"tree/d%d" % i, b"aside/d%d" % i) for i in range(FOLDERS)]
        lost = swaps = 0
        for _ in range(options.races):
            build(options.swap)
            swaps += race(options.program, dead.pid, pairs)
            lost += count_lost(options.swap)
        os.chdir("/")
    print(f"{lost} outside files lost in {options.races} races, {swaps} swaps")
    return 1 if lost or swaps < options.races else 0


if __name__ == "__main__":
    sys.exit(main())
