"""The launcher in a tree of another vendor, and what is said of each thing that the tree lacks."""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

LAUNCHER_FILES, LIBRARIES, HOME37 = (os.environ["TAVREL_" + name] for name in (
    "LAUNCHER_FILES", "FOREIGN", "PYTHON37_HOME"))
DEADLINE = 25

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


class ForeignTreeTest(unittest.TestCase):
    def setUp(self):
        self.folder = os.path.realpath(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.tree = self.folder + "/tree"
        for folder in ("crash", "tmp", "tree/bin/python"):
            os.makedirs(os.path.join(self.folder, folder))
        for name, source in SOURCES.items():
            self.write("tree/bin/python/%s.py" % name, source)
        for name in os.listdir(LIBRARIES):
            shutil.copy(os.path.join(LIBRARIES, name), self.tree + "/bin")
        os.symlink(HOME37, self.tree + "/bin/python3.7")
        installed = subprocess.run([sys.executable, os.environ["TAVREL_INSTALL"], LAUNCHER_FILES,
                                    self.tree], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(installed.returncode, 0, installed.stdout)

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            file.write(text)
        return path

    def run_program(self, name, *words, **variables):
        return subprocess.run(
            [self.tree + "/bin/" + name, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, universal_newlines=True, timeout=DEADLINE, cwd=self.folder, env={
                "PATH": os.environ["PATH"], "HOME": self.folder, "LANG": "C.UTF-8",
                "TMPDIR": self.folder + "/tmp", "TAVREL_CRASH_DIR": self.folder + "/crash",
                "PYTHONDONTWRITEBYTECODE": "1", **variables})

    def wrong(self):
        """What tavrelInfo finds wrong: label and text of each."""
        ended = self.run_program("tavrelInfo", "--json")
        found = json.loads(ended.stdout)
        wrong = [(each["label"], each["text"]) for each in found["findings"] if each["state"] == "wrong"]
        self.assertEqual((ended.returncode, found["result"]), (1, "wrong") if wrong else (0, "ok"))
        return wrong

    def await_that(self, holds, what):
        deadline = time.monotonic() + DEADLINE
        while not holds():
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.01)

    def test_modes_run_and_leave_nothing(self):
        self.assertEqual(self.wrong(), [])
        script = self.write("script.py", """import ConfigurationAPI_cmodule as C, os, threading
print(os.path.isdir(C.get('TAVREL_TMPDIR')), C.get('TAVREL_ROOT'), len(os.listdir('/proc/self/task')) > 1)
""")
        for mode in ("--batch", "--script", "--shell"):
            ended = self.run_program("tavrel", mode, script)
            self.assertEqual((ended.returncode, ended.stderr, ended.stdout),
                             (0, "", "True %s True\n" % self.tree), mode)
        self.await_that(lambda: not os.listdir(self.folder + "/tmp"), "folders are removed")
        crash = self.write("crash.py", "import ctypes\nctypes.string_at(0)\n")
        ended = self.run_program("tavrel", "--batch", crash, TAVREL_CRASH_HANDLING="1")
        self.assertEqual(ended.returncode, -11)
        self.await_that(lambda: len(os.listdir(self.folder + "/crash")) == 2, "dump and report")
        self.assertEqual({name[-4:] for name in os.listdir(self.folder + "/crash")}, {".dmp", ".txt"})

    def hold_against(self, taken, info, status, error, *mode, **variables):
        """Both programs have to name what was taken; printed for a reader of the test's output."""
        found = self.wrong()
        ended = self.run_program("tavrel", *(mode or ("--batch", "/dev/null")), **variables)
        said = next((line for line in ended.stderr.splitlines() if error in line), ended.stderr)
        print(taken, found[0], ended.returncode, said, sep="\t")
        self.assertTrue(any(info in label + text for label, text in found), (taken, found))
        self.assertEqual(ended.returncode, status, (taken, ended.stderr))
        self.assertIn(error, said, taken)

    def test_each_symbol_and_library(self):
        symbols = re.findall(r"\S*(?:Zk|pystring)\S*", imports(self.tree + "/bin/tavrel"))
        self.assertGreater(len(symbols), 12)
        libraries = sorted(os.listdir(LIBRARIES))
        for symbol in symbols:
            for library in libraries:
                path = os.path.join(self.tree, "bin", library)
                with open(path, "rb") as file:
                    content = file.read()
                changed = content.replace(b"\0%s\0" % symbol.encode(), b"\0X%s\0" % symbol[1:].encode())
                if changed != content and not imports(path, symbol):
                    self.replace(path, changed)
                    self.hold_against(symbol, symbol, 127, symbol)
                    self.replace(path, content)
                    break
            else:
                self.fail("no library exports " + symbol)
        for library in libraries:
            os.rename(self.tree + "/bin/" + library, self.folder + "/aside")
            self.hold_against(library, library, 127, library)
            os.rename(self.folder + "/aside", self.tree + "/bin/" + library)

    def replace(self, path, content):
        with open(path, "wb") as file:
            file.write(content)

    def test_each_module_and_name(self):
        for name, source in SOURCES.items():
            module = re.sub("/__init__$", "", name).replace("/", ".")
            path = self.tree + "/bin/python/%s.py" % name
            os.rename(path, self.folder + "/aside")
            self.hold_against(module, module, 255, module.split(".")[-1], MODES.get(name, "--batch"), "/dev/null",
                              TAVREL_EVENT_DEBUG="1")
            os.rename(self.folder + "/aside", path)
        for module, name in NAMES:
            path = self.tree + "/bin/python/%s.py" % module
            self.write(path, re.sub(r"\b%s\b" % name, "other", SOURCES[module]))
            self.hold_against("%s.%s" % (module, name), name, 255, name)
            self.write(path, SOURCES[module])

    def test_files(self):
        for name, status, error in (("tavrelCleanup", 0, "will stay"), ("tavrelFrames", 0, ""),
                                    ("CrashReporterTavrel", 0, ""), ("tavrelStack", 0, ""),
                                    ("libTavrelOpenGLProbe.so", 0, ""),
                                    ("python3.7", 127, "libpython3.7m.so.1.0")):
            os.rename(self.tree + "/bin/" + name, self.folder + "/aside")
            self.hold_against(name, name, status, error)
            os.rename(self.folder + "/aside", self.tree + "/bin/" + name)


if __name__ == "__main__":
    unittest.main()
