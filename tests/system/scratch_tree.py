"""Scratch copies of the built tree: links where a link does, so that one costs milliseconds."""

import os
import shutil
import tempfile
from pathlib import Path

# CTest names the build that it tests; by hand it is the release build.
RELEASE = Path(__file__).resolve().parents[2] / "build/release"
BUILT = Path(os.environ.get("TAVREL_TREE", RELEASE / "tree"))
STAND_INS = Path(os.environ.get("TAVREL_STAND_INS", RELEASE / "tests/system/stand_ins"))
REFUSALS = os.environ.get("TAVREL_REFUSALS", RELEASE / "tests/preload/libtests_refusals.so")
RECORDER = Path(__file__).parent / "recorder"

RECORDED_MODULES = (
    "AnalyzeThat AnalyzeThis MainEnvironment MainLogging MainOptions MainCommon MainBatch "
    "MainScript MainShell MainUI NodegraphAPI Nodes2DAPI Nodes3DAPI PyUtilModule MachineInfo Utils "
    "RenderingAPI").split()


def scratch_folder(test):
    """Beside the built tree, since a hard link can't leave its file system."""
    folder = Path(tempfile.mkdtemp(prefix="scratch_", dir=BUILT.parent))
    test.addCleanup(shutil.rmtree, folder)
    return folder


class ScratchTree:
    """A tree of its own in a folder of its own, removed when the test ends.

    root: the install root; folder: the scratch folder around it, for whatever else a test needs.
    With recorder (the default), the application's modules and tavrelCleanup are recorders and the
    crash reporter is left out; otherwise the tree is what was built.
    """

    def __init__(self, test, name="tree", recorder=True):
        self.folder = scratch_folder(test)
        self.root = self.folder / name
        self.bin = self.root / "bin"
        self.temporary = self.folder / "tmp"
        self.record = self.folder / "record"
        self.cleanup_record = self.folder / "cleanup_record"
        self.temporary.mkdir()
        self.bin.mkdir(parents=True)
        left_out = {"python", "tavrelCleanup", "CrashReporterTavrel"} if recorder else set()
        for entry in BUILT.iterdir():
            if entry.name != "bin":
                (self.root / entry.name).symlink_to(entry)
        for entry in (BUILT / "bin").iterdir():
            if entry.name not in left_out:
                self.put(entry, entry.name)
        if recorder:
            self._put_recorder()

    def put(self, source, name):
        """Puts a file under bin. Programs find their tree by their own path, hence no symbolic
        link for them."""
        target = self.bin / name
        target.unlink(missing_ok=True)
        if source.is_file() and os.access(source, os.X_OK) and ".so" not in source.name:
            os.link(source, target)
        else:
            target.symlink_to(source)

    def put_harsh_library(self):
        """Puts the library that notes its calls, and fails on demand, in front of the closed one;
        returns its record."""
        (self.bin / "closed").mkdir()
        (self.bin / "closed/libZkPlexum3.so").symlink_to(BUILT / "bin/libZkPlexum3.so")
        self.put(STAND_INS / "libharsh_ZkPlexum3.so", "libZkPlexum3.so")
        return self.folder / "harsh_record"

    def _put_recorder(self):
        self.put(STAND_INS / "recorder_tavrelCleanup", "tavrelCleanup")
        modules = self.bin / "python/Main"
        modules.mkdir(parents=True)
        (modules / "recording.py").symlink_to(RECORDER / "recording.py")
        for name in RECORDED_MODULES:
            (modules / f"{name}.py").symlink_to(RECORDER / "recorder_module.py")
