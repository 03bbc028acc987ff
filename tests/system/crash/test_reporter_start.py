"""How the launcher starts its reporter, whatever that answers, and what the handler's log says of it."""

import re
import subprocess
import unittest

from crash_case import CrashTest  # the ones below are found through it
from launch import SANITIZED
from scratch_tree import REFUSALS

STAY = "exec tail -s 0.05 --pid=$PPID -f /dev/null >/dev/null 2>&1"
CHANNEL = "M -{87}\nM Created CreateReportChannel\nM \tserver fd = \\d+\nM \tclient fd = \\d+\n"
LAUNCH = CHANNEL + "M Launching crash reporting child process: REPORTER \\d+ \\d+ 0\n"
SPOKE = LAUNCH + "reporter (\\d+) \\+inner\\+ 3 /dev/null 0\n"
IN_PROCESS = "M Breakpad exception handler is In Process\n"
NO_ANSWER = "E Crash reporting child process failed to return a success message\n" + IN_PROCESS
REFUSED = SPOKE + "E Crash reporter indicated failure to start\n" + IN_PROCESS
# The session is appended: one that was inherited stays in front.
SAY = """#!/bin/sh
session=$(tr '\\0' '\\n' </proc/$$/environ | sed -n 's/^ZK_SESSION_ID=/+/p' | tr -d '\\n')
echo reporter $$ $session $# $(readlink /proc/$$/fd/0) $3 >&2
"""
# What the reporter does behind its first line (None: there is none), call of libc that fails, the handler's log,
# pipes that stay open.
CASES = [
    (f"printf '\\001' >/proc/$$/fd/$2 && {STAY}", None, SPOKE +
     "M Crash reporter indicated successful start\nM \\*\\*\\* Breakpad workaround: allowing ptrace in out-of-process\n"
     "tracer \\1\nM Breakpad exception handler is Out of Process\n", 0),
    (f"printf '\\000' >/proc/$$/fd/$2 && {STAY}", None, REFUSED, 0),
    (f"printf 1 >/proc/$$/fd/$2 && {STAY}", None, REFUSED, 0),
    ("exit 3", None, SPOKE + NO_ANSWER, 1),
    (STAY, None, SPOKE + NO_ANSWER, 1),
    (None, None, LAUNCH + "M execv has continued[.]{3} this means it failed to launch the crash reporter: "
     "\\(2: No such file or directory\\)\n" + NO_ANSWER, 1),
    ("", "socketpair 24 1", "M Failed to create file descriptors from CreateReportChannel\n" + IN_PROCESS, 0),
    ("", "pipe 24 1", "M Failed to create interprocess pipe file descriptors, errno = 24\n" + IN_PROCESS, 0),
    ("", "fork 11 1", CHANNEL + "E Forking error: \\(11: Resource temporarily unavailable\\)\n" + IN_PROCESS, 2),
]
# Descriptors from 3 on that are pipes.
PIPES = """import os
links = [os.readlink('/proc/self/fd/' + name) for name in os.listdir('/proc/self/fd') if int(name) > 2 and
         os.path.lexists('/proc/self/fd/' + name)]
note('pipes', count=sum(link.startswith('pipe:') for link in links))
"""


class ReporterStartTest(CrashTest):
    def test_answers_and_failures(self):
        for script, refusal, log, pipes in CASES:
            if SANITIZED and refusal and "pipe" in refusal:
                continue  # with a pipe of its own the sanitizer asks whether an object can be read
            with self.subTest(script, refusal=refusal):
                tree = self.scratch_tree()
                reporter = tree.bin / "CrashReporterTavrel"
                if script is not None:
                    reporter.write_text(SAY + script)
                    reporter.chmod(0o755)
                ended = self.run_launcher(tree, "--batch", "-V0", act=PIPES, env={
                    "TAVREL_CRASH_HANDLING": "1", "ZENDRIK_LOG_LEVEL": "message", "ZENDRIK_LOG_FILE": "",
                    "ZK_SESSION_ID": "inner", "LD_PRELOAD": str(REFUSALS), "TEST_PRINT": "1",
                    "TEST_REFUSE": f";{refusal}"}, stdin=subprocess.DEVNULL)
                text = re.sub(r"\[(E|M)\w+\]\[[\d/:]+\] ", r"\1 ", ended.err)
                wanted = "M Initiating Google Breakpad setup...\n" + log.replace("REPORTER", re.escape(str(reporter)))
                self.assertRegex(text, "(?m)^" + wanted)
                self.assertNotIn("inherited", text)
                self.assertEqual((ended.status, ended.mode), (0, "MainBatch"))
                # Once: a child that went on would be a second launcher.
                self.assertEqual([event["count"] for event in ended.events if event["event"] == "pipes"], [pipes])


if __name__ == "__main__":
    unittest.main()
