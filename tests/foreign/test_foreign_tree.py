"""The launcher in a tree of another vendor, and what is said of each thing that the tree lacks."""

import json
import os
import re
import shutil
import subprocess
import sys
import types
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).parents[1] / "system"))
from launch import SystemTest  # noqa: E402
from scratch_tree import scratch_folder  # noqa: E402

LAUNCHER_FILES, LIBRARIES, HOME37 = (os.environ["TAVREL_" + name] for name in (
    "LAUNCHER_FILES", "FOREIGN", "PYTHON37_HOME"))

# The application: each module that the entry script imports, with the least of what it uses.
STORE = """import ctypes, os
store = ctypes.CDLL('libZkConfiguration.so')
store.foreignGet.restype = ctypes.c_char_p
def get(key): return os.fsdecode(store.foreignGet(os.fsencode(key)))
def has(key): return bool(get(key))
def set(key, value): store.foreignSet(os.fsencode(key), os.fsencode(value))
"""
OPTIONS = """import sys
def GetOptions():
    mode, *args = sys.argv[1:] or ['--ui']
    return {mode.lstrip('-'): args[0] if mode == '--script' else True}, args
"""
MACHINE = """class Tavrel:
    GetRenderThreadCount = GetImageMemoryMB = GetImageDiskMemoryMB = staticmethod(lambda *a, **k: 1)
    GetRenderTileSize = staticmethod(lambda **k: (64, 64))
"""
MODE = "def Main(options, args): exec(open(args[0]).read())\n"
FUNCTIONS = "def f(*words): return []\n%s = f\n"
SOURCES = {
    "AnalyzeThat": "", "AnalyzeThis": "", "PyUtilModule": "", "PluginSystemAPI_cmodule": "",
    "ConfigurationAPI_cmodule": STORE, "MainOptions": OPTIONS, "MachineInfo": MACHINE,
    "MainEnvironment": "def Init(): pass\n", "MainLogging": "def Init(): pass\n",
    "MainCommon": "def ProcessOptions(options): pass\n", "MainBatch": MODE, "MainScript": MODE,
    "MainShell": MODE, "MainUI": MODE, "NodegraphAPI": FUNCTIONS % "SetRootNode",
    "Nodes2DAPI": FUNCTIONS % " = ".join((
        "CancelRender", "GetAllRenderTypes", "SetMaxDiskUsage", "SetMaxImageMemory", "SetRenderDebug",
        "SetRenderLogFile", "SetRenderThreads", "SetSpeculativeCacheEnabled", "SetTileSize",
        "TerminateCancelledRenders")) + "def GetTileSize(): return 64, 64\n",
    "Nodes3DAPI": FUNCTIONS % "CancelAllRenders = SetRenderThreads",
    "RenderingAPI/__init__": "from RenderingAPI import RenderPlugins\n",
    "RenderingAPI/RenderPlugins": "def GetRendererPluginNames(includeViewer): return ['dl']\n",
    "Utils/__init__": "from Utils import EventModule\n",
    "Utils/EventModule": "def RegisterDebugEventHandler(): pass\n",
}
MODES = {"MainScript": "--script", "MainShell": "--shell", "MainUI": "--ui"}
# What only an import would show: it is looked for in a file that may have it from elsewhere.
NAMES = (("MainOptions", "GetOptions"), ("Nodes2DAPI", "SetTileSize"), ("NodegraphAPI", "SetRootNode"),
         ("MainCommon", "ProcessOptions"), ("MainBatch", "Main"), ("MainLogging", "Init"),
         ("RenderingAPI/RenderPlugins", "GetRendererPluginNames"))


def imports(path, symbol=""):
    """The lines of nm(1) that name a symbol which the object takes from others."""
    listed = subprocess.run(["nm", "-D", "-u", "-j", path],
                            stdout=subprocess.PIPE, universal_newlines=True).stdout
    return listed if not symbol else re.findall("^%s$" % re.escape(symbol), listed, re.M)


class ForeignTreeTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.folder = scratch_folder(self)
        self.bin = self.folder / "tree/bin"
        self.tree = types.SimpleNamespace(folder=self.folder, bin=self.bin, temporary=self.folder / "tmp",
                                          record=self.folder / "record", cleanup_record=None)
        for folder in (self.folder / "crash", self.tree.temporary, self.bin / "python"):
            folder.mkdir(parents=True)
        for name, source in SOURCES.items():
            path = self.bin / f"python/{name}.py"
            path.parent.mkdir(exist_ok=True)
            path.write_text(source)
        for name in os.listdir(LIBRARIES):
            shutil.copy(os.path.join(LIBRARIES, name), self.bin)
        (self.bin / "python3.7").symlink_to(HOME37)
        subprocess.run([sys.executable, os.environ["TAVREL_INSTALL"], LAUNCHER_FILES, self.bin.parent],
                       check=True, stdout=subprocess.DEVNULL)

    def run_program(self, name, *words, **variables):
        return self.run_launcher(self.tree, *words, program=self.bin / name, env={
            "TAVREL_CRASH_DIR": str(self.folder / "crash"), "PYTHONDONTWRITEBYTECODE": "1", **variables})

    def wrong(self):
        """What tavrelInfo finds wrong: label and text of each."""
        ended = self.run_program("tavrelInfo", "--json")
        found = json.loads(ended.out)
        wrong = [(each["label"], each["text"]) for each in found["findings"] if each["state"] == "wrong"]
        self.assertEqual((ended.status, found["result"]), (1, "wrong") if wrong else (0, "ok"))
        return wrong

    def test_modes_run_and_leave_nothing(self):
        self.assertEqual(self.wrong(), [])
        script = self.folder / "script.py"
        script.write_text("""import ConfigurationAPI_cmodule as C, os, threading
print(os.path.isdir(C.get('TAVREL_TMPDIR')), C.get('TAVREL_ROOT'), len(os.listdir('/proc/self/task')) > 1)
""")
        for mode in ("--batch", "--script", "--shell"):
            ended = self.run_program("tavrel", mode, script)
            self.assertEqual((ended.status, ended.err, ended.out), (0, "", f"True {self.bin.parent} True\n"))
            self.assertEqual(os.listdir(self.tree.temporary), [], mode)
        script.write_text("import ctypes\nctypes.string_at(0)\n")
        ended = self.run_program("tavrel", "--batch", script, TAVREL_CRASH_HANDLING="1")
        self.assertEqual(ended.status, -11)
        self.assertEqual({name[-4:] for name in os.listdir(self.folder / "crash")}, {".dmp", ".txt"})

    def hold_against(self, taken, info, status, error, *mode, **variables):
        """Both programs have to name what was taken."""
        found = self.wrong()
        ended = self.run_program("tavrel", *(mode or ("--batch", "/dev/null")), **variables)
        self.assertTrue(any(info in label + text for label, text in found), (taken, found))
        self.assertEqual(ended.status, status, (taken, ended.err))
        self.assertIn(error, ended.err, taken)

    def hold_without(self, path, *expected, **variables):
        path.rename(self.folder / "aside")
        self.hold_against(path.name, *expected, **variables)
        (self.folder / "aside").rename(path)

    def test_each_symbol_and_library(self):
        symbols = re.findall(r"\S*(?:Zk|pystring)\S*", imports(self.bin / "tavrel"))
        self.assertGreater(len(symbols), 12)
        libraries = [self.bin / name for name in sorted(os.listdir(LIBRARIES))]
        for symbol in symbols:
            for path in libraries:
                content = path.read_bytes()
                changed = content.replace(b"\0%s\0" % symbol.encode(), b"\0X%s\0" % symbol[1:].encode())
                if changed != content and not imports(path, symbol):
                    path.write_bytes(changed)
                    self.hold_against(symbol, symbol, 127, symbol)
                    path.write_bytes(content)
                    break
            else:
                self.fail("no library exports " + symbol)
        for path in libraries:
            self.hold_without(path, path.name, 127, path.name)

    def test_each_module_and_name(self):
        for name in SOURCES:
            module = re.sub("/__init__$", "", name).replace("/", ".")
            self.hold_without(self.bin / f"python/{name}.py", module, 255, module.split(".")[-1],
                              MODES.get(name, "--batch"), "/dev/null", TAVREL_EVENT_DEBUG="1")
        for module, name in NAMES:
            path = self.bin / f"python/{module}.py"
            path.write_text(re.sub(r"\b%s\b" % name, "other", SOURCES[module]))
            self.hold_against(f"{module}.{name}", name, 255, name)
            path.write_text(SOURCES[module])

    def test_files(self):
        library = "libpython3.7m.so.1.0"
        for name, lost, status, error in (
                ("tavrelCleanup", "temporary folders stay", 0, "will stay"),
                ("tavrelFrames", "neither names", 0, ""), ("tavrelStack", "can't be printed", 0, ""),
                ("CrashReporterTavrel", "no crash is captured", 0, ""),
                ("libTavrelOpenGLProbe.so", "without a look", 0, ""), ("python3.7", library, 127, library)):
            self.hold_without(self.bin / name, lost, status, error)
        (self.bin / "python3.7").unlink()
        (self.bin / "python3.7/lib").mkdir(parents=True)
        (self.bin / "python3.7/lib" / library).symlink_to(Path(HOME37, "lib", library))
        self.hold_against("standard library", "standard library", 1, "its standard library is missing")


if __name__ == "__main__":
    unittest.main()
