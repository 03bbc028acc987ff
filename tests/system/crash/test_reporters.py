"""Reporters that do not do as they should: the launcher starts all the same, and crashes into a dump
of its own making."""

import signal
import unittest

from crash_case import CrashTest, put_reporter

NOT_UP = "Crash reporting child process failed to return a success message"
REFUSED = "Crash reporter indicated failure to start"
# The script in the reporter's place ($2 is the handshake's descriptor), whether the real reporter
# serves in the end, the line in the log.
REPORTERS = [
    ("exiting", "exit 0", False, NOT_UP),
    ("refusing", r"eval 'printf \\000 >&'$2", False, REFUSED),
    ("the character 1", "eval 'printf 1 >&'$2", False, REFUSED),
    # Ends once the launcher has been reaped.
    ("silent", "exec >/dev/null 2>&1; while kill -0 $PPID; do sleep 0.1; done", False, NOT_UP),
    ("slow", 'sleep 0.5; exec "$0.real" "$@"', True, None),
]


class ReportersTest(CrashTest):
    def test_launcher_starts_and_its_crash_leaves_one_dump(self):
        for name, script, serves, line in REPORTERS:
            with self.subTest(name):
                tree = self.scratch_tree(recorder=False)
                put_reporter(tree, script)
                log = tree.folder / "zendrik.log"
                crashed = self.crash(tree, "native", {"ZENDRIK_LOG_FILE": str(log)})
                self.assertEqual(crashed.ended.status, -signal.SIGSEGV, crashed.ended.err)
                self.assertEqual((len(crashed.dumps), len(crashed.reports)), (1, int(serves)))
                self.assertEqual(self.blamed(crashed.dumps[0]), ("SIGSEGV", crashed.thread))
                logged = log.read_text() if log.exists() else ""
                self.assertEqual(logged.count("Crash report"), int(line is not None), logged)
                self.assertIn(line or "", logged)


if __name__ == "__main__":
    unittest.main()
