"""Runs the entry script's functions against recorders of the application's modules."""

import _thread
import builtins
import contextlib
import errno
import logging
import operator
import os
import sys
import tempfile
import unittest
import warnings
from unittest import mock

MAIN_PATH = os.path.abspath(sys.argv.pop(1))
with open(MAIN_PATH, "rb") as source:
    CODE = compile(source.read(), "python/Main/Main.py", "exec")

MODES = {"batch": "TAVREL_BATCH_MODE", "script": "TAVREL_SCRIPT_MODE",
         "shell": "TAVREL_SHELL_MODE", "ui": "TAVREL_UI_MODE"}
CONFIGURATION = "ConfigurationAPI_cmodule"
RECORDED = ("MainEnvironment MainLogging MainOptions MainCommon MainBatch MainScript MainShell "
            "MainUI AnalyzeThat AnalyzeThis NodegraphAPI Nodes2DAPI Nodes3DAPI PyUtilModule "
            "MachineInfo Utils RenderingAPI PluginSystemAPI_cmodule").split() + [CONFIGURATION]


class EntryScriptTest(unittest.TestCase):
    def setUp(self):
        self.records, self.missing = [], None
        self.answers = {
            "MainOptions.GetOptions": ({}, []),
            "MachineInfo.Tavrel.GetRenderThreadCount": 3,
            "MachineInfo.Tavrel.GetRenderTileSize": None,
            "MachineInfo.Tavrel.GetImageMemoryMB": "100",
            "MachineInfo.Tavrel.GetImageDiskMemoryMB": 7.9,
            "Nodes2DAPI.GetTileSize": (64, 32),
            "Nodes2DAPI.GetAllRenderTypes": ["a", "b"],
            "RenderingAPI.RenderPlugins.GetRendererPluginNames": ["a", "dl"],
        }
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self.addCleanup(sys.setrecursionlimit, sys.getrecursionlimit())
        for patch in (mock.patch.dict(sys.modules), mock.patch.dict(os.environ),
                      mock.patch.object(sys, "meta_path", list(sys.meta_path)),
                      mock.patch.object(sys, "excepthook", sys.excepthook),
                      mock.patch.object(_thread, "start_new_thread", lambda function, arguments:
                                        self.application.thread(function(*arguments))),
                      warnings.catch_warnings()):
            patch.__enter__()
            self.addCleanup(patch.__exit__, None, None, None)
        self.addCleanup(logging.captureWarnings, False)
        handler = logging.Handler()
        handler.emit = self.records.append
        logging.getLogger().handlers = [handler]
        logging.getLogger().setLevel(logging.DEBUG)
        sys.tavrel_verbosityLevel = 1
        sys.tavrel_checkInterrupt = lambda: self.application.checkInterrupt()

    def load(self, name="Main", **configuration):
        """The script's globals after its body has run under the given module name."""
        values = self.values = dict({"TAVREL_ROOT": "/root of it",
                                     "TAVREL_TMPDIR": self.scratch.name}, **configuration)
        self.application = mock.Mock()
        store = getattr(self.application, CONFIGURATION)
        store.has.side_effect = lambda key: bool(values.get(key))
        store.get.side_effect = lambda key: values.get(key, "")
        store.set.side_effect = values.__setitem__
        for operation, answer in self.answers.items():
            isEffect = callable(answer) or isinstance(answer, BaseException)
            setattr(operator.attrgetter(operation)(self.application),
                    "side_effect" if isEffect else "return_value", answer)
        for module in RECORDED:
            sys.modules[module] = (None if module == self.missing
                                   else getattr(self.application, module))
        namespace = {"__name__": name, "__builtins__": builtins}
        exec(CODE, namespace)
        return namespace

    def assert_run_ends_with(self, error, text, **configuration):
        with self.assertRaisesRegex(error, text):
            self.load("__main__", **configuration)

    def called(self, *names):
        """Calls of the application as (operation, arguments..., (keyword, argument)...); all but
        questions to the configuration if no names are given."""
        return [(name,) + arguments + tuple(keywords.items())
                for name, arguments, keywords in self.application.mock_calls
                if (name in names if names else not name.endswith((".has", ".get")))]

    def messages(self):
        return [(record.levelname, record.getMessage()) for record in self.records]

    CLEAN_UP = [("Nodes2DAPI.GetAllRenderTypes",), ("Nodes2DAPI.CancelRender", "a", True),
                ("Nodes2DAPI.CancelRender", "b", True), ("Nodes3DAPI.CancelAllRenders",),
                ("Nodes2DAPI.TerminateCancelledRenders",), ("NodegraphAPI.SetRootNode", None)]

    def test_each_mode_in_the_order_of_its_steps(self):
        table = (  # options, mode, Qt's path before and after
            ({"batch": True, "shell": True, "script": "x"}, "batch", None, None),
            ({"batch": False, "script": "", "shell": True}, "script", None, "/root of it/bin"),
            ({"shell": True}, "shell", "", ":/root of it/bin"),
            ({"shell": False, "script": None}, "ui", "/a:/b", "/a:/b:/root of it/bin"),
        )
        setter = CONFIGURATION + ".set"
        for options, mode, before, after in table:
            with self.subTest(options=options):
                os.environ.pop("QT_PLUGIN_PATH", None)
                os.environ.update({} if before is None else {"QT_PLUGIN_PATH": before})
                self.answers["MainOptions.GetOptions"] = (options, ["rest"])
                module = "UI" if mode == "ui" else mode.capitalize()
                self.assert_run_ends_with(SystemExit, "^0$")
                others = [(setter, key, "") for other, key in MODES.items() if other != mode]
                calls = self.called()
                self.assertEqual(calls[:8], [
                    ("MainEnvironment.Init",), ("MainLogging.Init",), ("MainOptions.GetOptions",),
                    ("thread", None), (setter, MODES[mode], "1")] + others)
                self.assertEqual(calls[-9:], [
                    ("MainCommon.ProcessOptions", options), ("checkInterrupt",),
                    ("Main%s.Main" % module, options, ["rest"])] + self.CLEAN_UP)
                self.assertEqual(os.environ.get("QT_PLUGIN_PATH"), after)
                self.assertEqual(sys.getrecursionlimit(), 10000)

    def test_clean_up_on_every_end(self):
        table = (  # answers of calls, module that is missing, how the run ends, clean-up made
            ({"MainUI.Main": SystemExit(3)}, None, SystemExit, "^3$", self.CLEAN_UP),
            ({"MainUI.Main": ValueError("x")}, None, ValueError, "^x$", self.CLEAN_UP),
            ({"MainUI.Main": ValueError("x"), "Nodes3DAPI.CancelAllRenders": OSError("gone")},
             None, OSError, "^gone$", self.CLEAN_UP[:4]),
            # Nothing is cleaned up that has not been loaded.
            ({}, "MainCommon", ImportError, "MainCommon", []),
            ({}, "Nodes3DAPI", ImportError, "Nodes3DAPI", self.CLEAN_UP[:3] + self.CLEAN_UP[4:]),
        )
        steps = {step[0] for step in self.CLEAN_UP}
        usual = dict(self.answers)
        for answers, self.missing, error, text, made in table:
            with self.subTest(text, missing=self.missing):
                self.answers = dict(usual, **answers)
                self.assert_run_ends_with(error, text)
                self.assertEqual(self.called(*steps), made)

    def test_exception_hook(self):
        hook = self.load()["excepthook"]
        self.assertIs(sys.excepthook, hook)
        inner, raised = {}, ValueError("v")
        exec(compile("def f(e):\n raise e", "/x/inner.py", "exec"), inner)
        with contextlib.suppress(ValueError):
            inner["f"](raised)
        for exception, expected in (
                (IndexError("100% %s"), "An IndexError occurred: 100% %s"),
                (UnicodeError("u"), "A UnicodeError occurred: u"),
                (type("", (Exception,), {})("n"), "An exception was raised: n"),
                (raised, 'A ValueError occurred in "inner.py": v')):
            del self.records[:]
            hook(type(exception), exception, exception.__traceback__)
            self.assertEqual([(level, text.split("\nTrace")[0]) for level, text in self.messages()],
                             [("ERROR", expected)])

    def test_the_finder_gives_the_running_sys_and_nothing_else(self):
        self.load()
        finder = sys.meta_path[-1]
        self.assertIs(finder.find_module("sys").load_module("any"), sys)
        self.assertIsNone(finder.find_module("sys", ["/x"]) or finder.find_module("os"))

    def test_temporary_directory(self):
        file = os.path.join(self.scratch.name, "file")
        open(file, "w").close()
        made = os.path.join(self.scratch.name, "a", "b")
        table = (  # path, error line or None
            (made, None),
            (self.scratch.name, None),
            (file, 'TAVREL_TMPDIR: Path "%s" exists, but does not point to a directory.' % file),
            (file + "/x", 'TAVREL_TMPDIR: Error creating directory "%s/x": OSError: %s'
             % (file, os.strerror(errno.ENOTDIR))),
            ("\0", 'TAVREL_TMPDIR: Unexpected error creating directory "\0": embedded null byte'),
        )
        for path, error in table:
            with self.subTest(path=path):
                make = self.load(TAVREL_TMPDIR=path)["makeTmpDirectory"]
                if error is None:
                    make()
                    self.assertTrue(os.path.isdir(path))
                else:
                    with self.assertRaisesRegex(SystemExit, "^1$"):
                        make()
                    self.assertEqual(self.messages(), [("ERROR", error)])
                    del self.records[:]

    def test_settings_follow_configuration_and_machine(self):
        debug = ("Nodes2DAPI.SetRenderDebug", 1)
        logFile = ("Nodes2DAPI.SetRenderLogFile", "/log")
        events = ("Utils.EventModule.RegisterDebugEventHandler",)
        tiles = "TAVREL_RENDER_TILE_SIZE defaulting to 64x32."
        cache = "TAVREL_SPEC_CACHE_ENABLED"
        table = (  # verbosity, tile size, configuration, first calls, cache is on, lines
            (0, None, {}, [], True, []),
            (1, (8, 16), {"ARNOLD_RENDER_TERMINATION_SIGNAL": "x"}, [], True,
             ["TAVREL_RENDER_TILE_SIZE set to 8x16.", cache + " defaulting to 1."]),
            (1, None, {"TAVREL_BATCH_MODE": "1"}, [], False, [tiles, cache + " defaulting to 0."]),
            (0, None, {"TAVREL_RENDER_DEBUG": "0", "TAVREL_EVENT_DEBUG": "0"}, [], True, []),
            (0, None, {"TAVREL_RENDER_DEBUG": "false", "TAVREL_EVENT_DEBUG": "1"}, [debug, events],
             True, ["Debugging the rendering process", "Debugging the event queue"]),
            (1, None, {"TAVREL_RENDER_LOGFILE": "/log", cache: "-1"}, [debug, logFile], True,
             ['TAVREL_RENDER_LOGFILE set to "/log".', tiles, cache + " set to 1."]),
            (0, None, {cache: "0"}, [], False, []),
            (0, None, {cache: "yes"}, [], False,
             ["Could not parse TAVREL_SPEC_CACHE_ENABLED. Allow values: 0,1"]),
        )
        for verbosity, tileSize, configuration, calls, isOn, lines in table:
            with self.subTest(configuration=configuration, verbosity=verbosity):
                del self.records[:]
                sys.tavrel_verbosityLevel = verbosity
                self.answers["MachineInfo.Tavrel.GetRenderTileSize"] = tileSize
                self.load(DEFAULT_RENDERER="a", **configuration)["ProcessEnvironmentVariables"]()
                isBatch = "TAVREL_BATCH_MODE" in configuration
                log = logging.getLogger("Main")
                logged = ("customLogger", log if verbosity else None)
                expected = calls + [
                    ("Nodes2DAPI.SetRenderThreads", 3), ("Nodes3DAPI.SetRenderThreads", None),
                    ("MachineInfo.Tavrel.GetRenderTileSize", ("customLogger", log)),
                    *([("Nodes2DAPI.SetTileSize", *tileSize)] if tileSize else []),
                    ("MachineInfo.Tavrel.GetImageMemoryMB", isBatch, logged),
                    ("Nodes2DAPI.SetMaxImageMemory", 100),
                    ("MachineInfo.Tavrel.GetImageDiskMemoryMB", isBatch, logged),
                    ("Nodes2DAPI.SetMaxDiskUsage", 7),
                    ("Nodes2DAPI.SetSpeculativeCacheEnabled", isOn),
                    ("RenderingAPI.RenderPlugins.GetRendererPluginNames", ("includeViewer", False))]
                self.assertEqual(self.called(*{name for name, *_ in expected}, debug[0]), expected)
                self.assertEqual([text for _, text in self.messages()], lines)
                self.assertEqual(self.values["ARNOLD_RENDER_TERMINATION_SIGNAL"],
                                 configuration.get("ARNOLD_RENDER_TERMINATION_SIGNAL", "SIGKILL"))

    def test_default_renderer(self):
        unset = "No Default Renderer name has been set."
        unknown = 'Specified Default Renderer "x" is not the name of a registered renderer plug-in.'
        none = [("WARNING", "There are no valid Renderer plug-ins available.")]
        first = ' Using the first available plug-in found: "b".'
        table = (  # configured, names, result, lines
            ("a", ["a", "dl"], "a", []),
            ("", ["a", "dl"], "dl", [("INFO", unset + ' Using: "dl".')]),
            ("x", ["a", "dl"], "dl", [("WARNING", unknown + ' Using: "dl".')]),
            ("x", ["b", "a"], "b", [("WARNING", unknown + first)]),
            ("x", [], "", none),
            ("", [], "", none),
        )
        for configured, names, result, lines in table:
            with self.subTest(configured=configured, names=names):
                del self.records[:]
                self.answers["RenderingAPI.RenderPlugins.GetRendererPluginNames"] = names
                self.load(DEFAULT_RENDERER=configured)["initDefaultRenderer"]()
                self.assertEqual((self.values["DEFAULT_RENDERER"], self.messages()),
                                 (result, lines))


if __name__ == "__main__":
    unittest.main()
