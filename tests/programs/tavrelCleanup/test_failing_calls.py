"""Each system call of tavrelCleanup fails with each error, at its first time and at its last.

Whatever fails, what has to stay stays, and status 0 means that the folder is gone. strace lets the
calls fail; those of the loader are left alone.
"""
import os
import re
import shutil
import subprocess
import unittest

from test_cleanup import CleanupCase, write

# One of each kind that the program distinguishes.
ERRORS = "EPERM ENOENT ESRCH ENOMEM EACCES EMFILE ENOSYS EBUSY EINTR".split()
NEVER_FAIL = {"exit_group", "getpid", "getuid", "munmap", "brk"}
STRACE = shutil.which("strace")


@unittest.skipIf(os.environ.get("TAVREL_SANITIZER"), "a sanitizer's own calls would fail")
@unittest.skipUnless(STRACE and subprocess.run([STRACE, "-qq", "-o", "/dev/null", "true"]).returncode == 0,
                     "needs strace, and to be allowed to trace")
class FailingCallsTest(CleanupCase):
    def run_traced(self, *strace_options):
        for name in ("/file", "/d" * 33 + "/file"):
            write(self.tree + name)
        os.path.lexists(self.tree + "/link") or os.symlink(self.path("outside"), self.tree + "/link")
        return self.delete(self.tree, prefix=(STRACE, "-qq", *strace_options))

    def test_nothing_else_goes_and_the_status_is_true(self):
        log = self.path("log")
        self.assertEqual(self.run_traced("-o", log), (0, ""))
        with open(log) as file:
            calls = re.findall(r"^(\w+)\(", file.read(), re.MULTILINE)
        own = calls.index("fcntl")  # the first step of the program; before it comes its loader
        for call in sorted(set(calls[own:]) - NEVER_FAIL):
            before, count = calls[:own].count(call), calls[own:].count(call)
            for time in {1, count}:
                for error in ERRORS:
                    fault = f"inject={call}:error={error}:when={before + time}"
                    with self.subTest(fault):
                        status, text = self.run_traced("-o", "/dev/null", "-e", fault)
                        isGone = not os.path.exists(self.tree)
                        # That it is gone may be what the program can't find out.
                        self.assertTrue(isGone == (status == 0) or (isGone and call == "newfstatat"), status)
                        self.assertIn(status, (0, 1, 2))
                        if status and call not in ("poll", "write"):
                            self.assert_one_line(text)


if __name__ == "__main__":
    unittest.main()
