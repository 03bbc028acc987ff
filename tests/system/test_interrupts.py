"""Ctrl-C at each stage of the start, in an application that does what real ones do."""

import signal
import subprocess
import unittest

from launch import THREAD_SANITIZED, SystemTest

ACT = "import ctypes\nact = ctypes.CDLL('libZkPlexum3.so').harshAct\n"
INTERRUPT = ACT + "act(b'interrupt', 0)\n"
IN_THREAD = ACT + "act(b'interrupt', 1)\n"
DROPPED = """class Thing: pass
import weakref
thing = Thing()
reference = weakref.ref(thing, lambda _: exec(%r))
del thing
""" % INTERRUPT
SWALLOWED = "try:\n    exec(%r)\nexcept BaseException: pass\n" % INTERRUPT
HANDLER = ACT + "act(b'handler', 0)\n"
INIT, FIRST, LATE = "site", "RECORDER_IMPORT_MainOptions", "RECORDER_IMPORT_Nodes3DAPI"

# What happens where, exit status, what the application notes on its way; None: the process ends at
# once and the closed library isn't taken down.
CASES = [
    ({"HARSH_MINIMALLY": "interrupt"}, -signal.SIGINT, None),
    ({"HARSH_FULLY": "interrupt"}, -signal.SIGINT, None),
    ({INIT: INTERRUPT}, -signal.SIGINT, None),
    ({INIT: IN_THREAD, "HARSH_FULLY": "thread"}, -signal.SIGINT, None),
    ({FIRST: INTERRUPT}, 255, []),
    ({FIRST: IN_THREAD}, 255, []),
    ({LATE: INTERRUPT}, 255, ["snapshot", "clean-up"]),
    ({FIRST: DROPPED}, 255, ["snapshot", "clean-up"]),
    ({LATE: SWALLOWED}, 255, ["snapshot", "clean-up"]),
    # A handler of the application's own stays.
    ({"HARSH_FULLY": "handler", INIT: INTERRUPT, FIRST: INTERRUPT, "RECORDER_ACT": INTERRUPT}, 0,
     ["snapshot", "mode", "clean-up"]),
    ({FIRST: HANDLER, LATE: INTERRUPT, "RECORDER_ACT": IN_THREAD}, 0,
     ["snapshot", "mode", "clean-up"]),
    ({INIT: "import signal; signal.signal(signal.SIGINT, lambda *_: None)", FIRST: INTERRUPT}, 0,
     ["snapshot", "mode", "clean-up"]),
]
AS_PROCESS_1 = ["unshare", "--map-root-user", "--pid", "--fork", "--mount-proc"]


@unittest.skipIf(THREAD_SANITIZED, "it holds a signal back until a later call")
class InterruptsTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree()
        self.record = self.tree.put_harsh_library()

    def run_case(self, case, *args, **start):
        site = self.tree.folder / "sitecustomize.py"
        site.write_text(case.get(INIT, ""))
        self.record.write_text("")
        env = {name: text for name, text in case.items() if name != INIT}
        return self.run_launcher(
            self.tree, *args, "--batch", "-V0", act=env.pop("RECORDER_ACT", ""),
            env={"HARSH_RECORD": str(self.record), "PYTHONPATH": str(self.tree.folder), **env},
            **start)

    def is_taken_down(self):
        return "ZkPlexum3Uninitialize" in self.record.read_text()

    def check(self, ended, status, events):
        self.assertEqual((ended.status, self.is_taken_down()), (status, events is not None), ended.err)
        self.assertEqual([event["event"] for event in ended.events], events or [])
        self.assertEqual("KeyboardInterrupt" in ended.err, status == 255)

    def test_outcome_by_stage(self):
        for case, status, events in CASES:
            with self.subTest(case):
                self.check(self.run_case(case), status, events)

    def test_ignored_stays_ignored(self):
        case = {"HARSH_FULLY": "interrupt", INIT: INTERRUPT, FIRST: INTERRUPT, "RECORDER_ACT": INTERRUPT}
        ended = self.run_case(case, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
        self.check(ended, 0, ["snapshot", "mode", "clean-up"])

    def test_first_process_of_a_container(self):
        if subprocess.run([*AS_PROCESS_1, "true"], stderr=subprocess.DEVNULL).returncode:
            self.skipTest("no name spaces for this user")
        launcher = [*AS_PROCESS_1[1:], str(self.tree.bin / "tavrel")]
        for case, status, events in CASES:
            with self.subTest(case):
                ended = self.run_case(case, *launcher, program=AS_PROCESS_1[0])
                self.check(ended, 130 if status == -signal.SIGINT else status, events)


if __name__ == "__main__":
    unittest.main()
