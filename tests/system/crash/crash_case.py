"""Launchers that crash, and the dumps that they leave."""

import os
import re
import resource
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))

from launch import SystemTest  # noqa: E402  (found only with the line above)

BREAKPAD = Path(os.environ["TAVREL_BREAKPAD_BIN"])
LIMIT_SECONDS = 25  # of a wait; only a hang takes so long
IN_PROCESS_FOLDER = Path("/var/tmp")


def own_dumps_in_process(tree):
    """Of this scratch tree's launchers: a dump names the modules of its process, in UTF-16."""
    mark = str(tree.bin / "tavrel").encode("utf-16-le")
    found = []
    for dump in IN_PROCESS_FOLDER.glob("*-*-*-*-*.dmp"):
        try:
            if dump.stat().st_uid == os.geteuid() and mark in dump.read_bytes():
                found.append(dump)
        except FileNotFoundError:
            pass  # another test's, removed meanwhile
    return found


def no_core():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Crashed:
    """ended: how the launcher ended; pid, thread: what the script said; dumps, reports: paths."""

    def __init__(self, ended, folder, tree):
        self.ended = ended
        said = re.findall(r"^(\d+) (\d+)$", ended.out, re.MULTILINE)
        self.pid, self.thread = map(int, said[-1]) if said else (None, None)
        self.dumps = sorted(folder.glob("*.dmp")) + own_dumps_in_process(tree)
        self.reports = sorted(folder.glob("*.txt"))
        self.others = [file for file in folder.iterdir() if file not in self.dumps + self.reports]


def put_script(tree, name, script):
    program = tree.bin / name
    if program.exists():
        program.unlink()  # a link to the built one
    program.write_text(f"#!/bin/sh\n{script}\n")
    program.chmod(0o755)


def put_reporter(tree, script):
    """Puts a shell script in the reporter's place, which becomes $0.real."""
    (tree.bin / "CrashReporterTavrel").rename(tree.bin / "CrashReporterTavrel.real")
    put_script(tree, "CrashReporterTavrel", script)


class CrashTest(SystemTest):
    def start_script(self, tree, kind, env=None, **start):
        """Starts crashing.py with a folder for its dumps that holds no file."""
        folder = tree.folder / "dumps"
        folder.mkdir(exist_ok=True)
        for old in folder.iterdir():
            if not old.is_dir():
                old.unlink()
        self.addCleanup(lambda: [dump.unlink() for dump in own_dumps_in_process(tree)])
        return self.start(tree, "--script", str(HERE / "crashing.py"), kind, **{"preexec_fn": no_core, **start},
                          env={"TAVREL_CRASH_HANDLING": "1", "TAVREL_CRASH_DIR": str(folder), **(env or {})})

    def crashed(self, tree, process):
        return Crashed(self.finish(tree, process), tree.folder / "dumps", tree)

    def crash(self, tree, kind, env=None, **start):
        return self.crashed(tree, self.start_script(tree, kind, env, **start))

    def blamed(self, dump):
        """(crash reason, thread) as Breakpad's own tools read them from a dump."""
        walk, fields = (subprocess.run([BREAKPAD / tool, dump], stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL, check=False).stdout.decode(errors="replace")
                        for tool in ("minidump_stackwalk", "minidump_dump"))
        reason = re.search(r"^Crash reason:\s+(\S+)", walk, re.MULTILINE)
        thread = re.search(r"^MDException\n\s+thread_id\s+= (\w+)$", fields, re.MULTILINE)
        self.assertRegex(walk, r"\nThread \d+ \(crashed\)\n 0  ")
        return reason.group(1), int(thread.group(1), 16)
