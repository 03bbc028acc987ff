"""The launcher in a tree that others fill: what stands in the way, an upgrade, and an end at any moment."""

import hashlib
import os
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

sys.path.insert(0, os.path.join(os.environ["TAVREL_SOURCE"], "cmake"))
import installLauncher

MANIFEST = installLauncher.MANIFEST


class LauncherInTree(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="launcher in tree ")
        self.addCleanup(scratch.cleanup)
        self.tree = Path(scratch.name)

    def install(self, **files):
        """Files by name in bin; the message if it was refused."""
        try:
            installLauncher.install(str(self.tree), {"bin/" + name: (0o755, content.encode())
                                                     for name, content in files.items()})
        except SystemExit as refused:
            return refused.code
        return None

    def content(self):
        return {path.name: path.read_text() for path in self.tree.rglob("*")
                if path.is_file() and path.name != MANIFEST}

    def listed(self):
        """The manifest's files, which are there as it says."""
        lines = [line.split("  ") for line in (self.tree / MANIFEST).read_text().splitlines()]
        return {name for digest, name in lines
                if hashlib.sha256((self.tree / name).read_bytes()).hexdigest() == digest}

    def test_a_file_of_others_is_named_and_nothing_written(self):
        for foreign in ("bin/tavrel", MANIFEST):
            with self.subTest(foreign):
                (self.tree / foreign).parent.mkdir(exist_ok=True)
                (self.tree / foreign).write_text("theirs")
                self.assertIn(foreign, self.install(helper="one", tavrel="one"))
                self.assertEqual([path.name for path in self.tree.rglob("*") if path.is_file()],
                                 [Path(foreign).name])
                (self.tree / foreign).unlink()

    def test_an_upgrade_replaces_adds_and_takes_away_but_not_what_was_changed(self):
        self.install(tavrel="one", gone="one", changed="one")
        (self.tree / "bin/changed").write_text("edited")
        (self.tree / "bin/theirs").write_text("theirs")
        self.assertIsNone(self.install(tavrel="two", added="two"))
        self.assertEqual(self.content(), {"tavrel": "two", "added": "two", "changed": "edited",
                                          "theirs": "theirs"})
        self.assertEqual(self.listed(), {"bin/tavrel", "bin/added"})

    def test_an_end_at_any_step_leaves_whole_files_and_the_next_run_repairs(self):
        self.install(tavrel="one", helper="one", gone="one")
        step, two = 0, {"tavrel": "two", "helper": "two", "added": "two"}
        while self.ended_at(step, **two):
            found = {name: text for name, text in self.content().items() if not name.startswith(".")}
            self.assertLessEqual({"tavrel", "helper"}, set(found), step)
            self.assertLessEqual(set(found.values()), {"one", "two"}, step)
            if found["tavrel"] == "two":
                self.assertEqual(found["helper"], "two", step)
            self.assertIsNone(self.install(**two), step)
            self.assertEqual(self.content(), two, step)
            self.install(tavrel="one", helper="one", gone="one")
            step += 1
        self.assertGreater(step, 10)

    def ended_at(self, step, **files):
        """Whether a process that installs was ended at its STEPth call that changes the tree."""
        child = os.fork()
        if child == 0:
            calls = iter(range(step + 1))

            def counted(call):
                return lambda *words: call(*words) if next(calls) < step else os._exit(9)
            with mock.patch.multiple(os, **{name: counted(getattr(os, name)) for name in
                                            ("open", "fsync", "rename", "unlink")}):
                self.install(**files)
            os._exit(0)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 9


if __name__ == "__main__":
    unittest.main()
