"""Each system call of tavrelCleanup fails with each error, at its first two times and at its last.

Whatever fails, what has to stay stays, and status 0 means that the folder is gone. strace lets the
calls fail; those of the loader are left alone. Nothing here names a folder outside its own scratch
folder.
"""
import concurrent.futures
import contextlib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from test_cleanup import SCRATCH_BASE, await_state, write

# One of each kind that the program tells apart. After the last two it has to come to its end all the same.
ERRORS = "EPERM ENOENT ESRCH ENOMEM EACCES EMFILE ENOSYS EBUSY EINTR".split()
PASSING = {"EBUSY", "EINTR", "ENOMEM"}
NEVER_FAIL = {"exit_group", "getpid", "getuid", "munmap", "brk"}
STRACE = shutil.which("strace")
# Waits for its input to end, then tells whether the folder is still there.
LAUNCHER = ["/bin/sh", "-c", 'echo; read line; test -e "$0/file"']


class Scenario:
    """A folder to delete, in an install tree of its own and beside what has to stay."""

    def __init__(self, base, target="tree", stays=True, launcher_lives=False):
        self.scratch = tempfile.mkdtemp(dir=base)
        self.stays, self.launcher_lives = stays, launcher_lives
        self.target, self.program = self.path(target), self.path("root/bin/tavrelCleanup")
        self.kept = [self.path(name) for name in ("outside/file", "users/me/file", "root/bin/python/file")]
        for name in self.kept:
            write(name)
        # Not a copy: a program that another thread still writes to can't be started.
        os.link(base + "/tavrelCleanup", self.program)

    def path(self, name):
        return os.path.join(self.scratch, name)

    def fill(self):
        for name in ("/file", "/d" * 33 + "/file"):
            write(self.target + name)
        if not os.path.lexists(self.target + "/link"):
            os.symlink(self.path("outside"), self.target + "/link")

    def run(self, *strace_options):
        """Status, standard error, and the status of the launcher that is waited for."""
        # -D: strace is not the parent, so that this process sees what becomes of the program.
        command = [STRACE, "-D", "-qq", *strace_options, self.program]
        if self.launcher_lives:
            shutil.rmtree(self.target, ignore_errors=True)
        else:
            self.fill()
        with subprocess.Popen([*LAUNCHER, self.target], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as launcher:
            launcher.stdout.readline()
            if not self.launcher_lives:
                launcher.stdin.close()
                os.waitid(os.P_PID, launcher.pid, os.WEXITED | os.WNOWAIT)
            cleanup = subprocess.Popen([*command, str(launcher.pid), self.target], cwd="/", text=True,
                                       env={"HOME": self.path("users/me")}, stderr=subprocess.PIPE)
            if self.launcher_lives:
                await_state(cleanup, "S", self.program)
                self.fill()  # as the application does: later than the cleanup is started
                launcher.stdin.close()
            text = cleanup.communicate(timeout=20)[1]
        return cleanup.returncode, text, launcher.returncode

    def problems(self):
        """A line for each run that went wrong, and the number of runs."""
        log = self.path("log")
        found = self.problem("", "", self.run("-o", log))
        with open(log) as file:
            calls = re.findall(r"^(\w+)\(", file.read(), re.MULTILINE)
        own = calls.index("fcntl")  # the first step of the program; before it comes its loader
        faults = [(call, error, f"inject={call}:error={error}:when={time + calls[:own].count(call)}")
                  for call in sorted(set(calls[own:]) - NEVER_FAIL)
                  for time in sorted({*range(1, 1 + calls[own:].count(call))} & {1, 2, calls[own:].count(call)})
                  for error in ERRORS]
        for call, error, fault in faults:
            problem = self.problem(call, error, self.run("-o", "/dev/null", "-e", fault))
            found += [f"{fault}: {each}" for each in problem]
        return len(faults), [f"{self.target}: {problem}" for problem in found]

    def problem(self, call, error, ends):
        status, text, launcher_status = ends
        stands = os.path.exists(self.target + "/file")
        found = [name for name in self.kept if not os.path.exists(name)] + ["ended too soon"] * launcher_status
        gone = not os.path.exists(self.target)
        # That it is gone may be what the program can't find out.
        is_true = gone == (status == 0) or (gone and call == "newfstatat")
        if (self.stays and not stands) or not is_true or status not in (0, 1, 2):
            found.append(f"status {status}")
        if status and not self.stays and error in PASSING and call != "mmap":
            found.append("gave up")
        if status and call not in ("poll", "write") and text.count("\n") != 1:
            found.append(f"said {text!r}")
        return found


@unittest.skipIf(os.environ.get("TAVREL_SANITIZER"), "a sanitizer's own calls would fail")
@unittest.skipUnless(STRACE and subprocess.run([STRACE, "-qq", "-o", "/dev/null", "true"]).returncode == 0,
                     "needs strace, and to be allowed to trace")
class FailingCallsTest(unittest.TestCase):
    def test_nothing_else_goes_and_the_status_is_true(self):
        with tempfile.TemporaryDirectory(dir=SCRATCH_BASE) as base, contextlib.ExitStack() as stack:
            shutil.copy(os.environ["TAVREL_CLEANUP"], base)
            # Another launcher, by all that can be seen of it.
            owner_program = shutil.copy("/bin/cat", base + "/tavrel")
            owner = stack.enter_context(subprocess.Popen([owner_program], stdin=subprocess.PIPE))
            await_state(owner, "S", owner_program)
            scenarios = [Scenario(base, stays=False, launcher_lives=True), Scenario(base, "users"),
                         Scenario(base, "root/bin/python"), Scenario(base, f"tavrel_tmpdir_{owner.pid}")]
            with concurrent.futures.ThreadPoolExecutor() as pool:
                results = list(pool.map(Scenario.problems, scenarios))
        print(f"{sum(count for count, _ in results)} runs in which a call failed", file=sys.stderr)
        self.assertEqual([problem for _, problems in results for problem in problems], [])


if __name__ == "__main__":
    unittest.main()
