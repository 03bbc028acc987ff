"""Runs the entry script's functions against recorders of the application's modules."""

import _thread
import builtins
import errno
import logging
import operator
import os
import sys
import tempfile
import traceback
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
        """Calls of the application as (operation, arguments...); all but questions to the
        configuration if no names are given."""
        return [(name,) + arguments for name, arguments, _ in self.application.mock_calls
                if (name in names if names else not name.endswith((".has", ".get")))]

    def messages(self):
        return [(record.levelname, record.getMessage()) for record in self.records]

    CLEAN_UP = [("Nodes2DAPI.GetAllRenderTypes",), ("Nodes2DAPI.CancelRender", "a", True),
                ("Nodes2DAPI.CancelRender", "b", True), ("Nodes3DAPI.CancelAllRenders",),
                ("Nodes2DAPI.TerminateCancelledRenders",), ("NodegraphAPI.SetRootNode", None)]

    def test_each_mode_in_the_order_of_its_steps(self):
        table = (  # options, mode
            ({"batch": True, "shell": True, "script": "x"}, "batch"),
            ({"batch": False, "script": ""}, "script"),
            ({"script": "x", "shell": True}, "script"),
            ({"shell": True}, "shell"),
            ({"shell": False, "script": None}, "ui"),
        )
        setter = CONFIGURATION + ".set"
        for options, mode in table:
            with self.subTest(options=options):
                os.environ.pop("QT_PLUGIN_PATH", None)
                self.answers["MainOptions.GetOptions"] = (options, ["rest"])
                module = "UI" if mode == "ui" else mode.capitalize()
                self.assert_run_ends_with(SystemExit, "^0$")
                others = [(setter, key, "") for other, key in MODES.items() if other != mode]
                calls = self.called()
                self.assertEqual(calls[:8], [
                    ("MainEnvironment.Init",), ("MainLogging.Init",), ("MainOptions.GetOptions",),
                    ("thread", None), (setter, MODES[mode], "1")] + others)
                self.assertEqual(calls[-8:], [
                    ("MainCommon.ProcessOptions", options),
                    ("Main%s.Main" % module, options, ["rest"])] + self.CLEAN_UP)
                self.assertEqual(os.environ.get("QT_PLUGIN_PATH"),
                                 None if mode == "batch" else "/root of it/bin")
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

    def test_exception_hook_messages(self):
        hook = self.load()["excepthook"]
        self.assertIs(sys.excepthook, hook)
        nameless = type("", (Exception,), {})
        table = (  # exception, file name it is raised in or None, first line
            (ValueError("v"), "/x/y.py", 'A ValueError occurred in "y.py": v'),
            (OSError("o"), "/x/y.py", 'An OSError occurred in "y.py": o'),
            (UnicodeError("u"), "<string>", "A UnicodeError occurred in <string>: u"),
            (IndexError("100% %s"), None, "An IndexError occurred: 100% %s"),
            (nameless("n"), None, "An exception was raised: n"),
        )
        for exception, fileName, expected in table:
            with self.subTest(expected):
                del self.records[:]
                tail = ""
                if fileName is not None:
                    try:
                        exec(compile("raise e", fileName, "exec"), {"e": exception})
                    except Exception:
                        pass
                    tail = "\n" + "".join(traceback.format_exception(
                        type(exception), exception, exception.__traceback__)).strip()
                hook(type(exception), exception, exception.__traceback__)
                (record,) = self.records
                self.assertEqual((record.name, record.levelname, record.getMessage()),
                                 ("root", "ERROR", expected + tail))

    def test_the_finder_gives_the_running_sys_and_nothing_else(self):
        self.load()
        finder = sys.meta_path[-1]
        self.assertIs(finder.find_module("sys").load_module("any"), sys)
        self.assertIsNone(finder.find_module("sys", ["/x"]))
        self.assertIsNone(finder.find_module("os"))

    def test_temporary_directory(self):
        file = os.path.join(self.scratch.name, "file")
        open(file, "w").close()
        made = os.path.join(self.scratch.name, "a", "b")
        table = (  # path, error line or None
            (made, None),
            (made, None),
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
        make = self.load()["makeTmpDirectory"]
        self.values["TAVREL_TMPDIR"] = None
        self.assertIsNone(make())
        self.assertEqual(self.messages(), [])

    def test_specific_warnings_come_before_the_general_filter(self):
        sys.tavrel_verbosityLevel = 0
        self.assert_run_ends_with(SystemExit, "^0$", DEFAULT_RENDERER="a")
        self.assertEqual([(action, message and message.pattern, category)
                          for action, message, category, _, _ in warnings.filters[:4]], [
            ("ignore", "the sets module is deprecated.*", DeprecationWarning),
            ("ignore", "The popen2 module is deprecated.*", DeprecationWarning),
            ("ignore", r"object\.__new__\(\) takes no parameters", DeprecationWarning),
            ("default", None, Warning)])
        warnings.warn("to the log")
        self.assertEqual([record.name for record in self.records], ["py.warnings"])

    def test_settings_follow_configuration_and_machine(self):
        debug = ("Nodes2DAPI.SetRenderDebug", 1)
        logFile = ("Nodes2DAPI.SetRenderLogFile", "/log")
        events = ("Utils.EventModule.RegisterDebugEventHandler",)
        on, off = (("Nodes2DAPI.SetSpeculativeCacheEnabled", state) for state in (True, False))
        tiles = "TAVREL_RENDER_TILE_SIZE defaulting to 64x32."
        table = (  # verbosity, configuration, calls expected, lines expected
            (0, {}, [on], []),
            (1, {}, [on], [tiles, "TAVREL_SPEC_CACHE_ENABLED defaulting to 1."]),
            (1, {"TAVREL_BATCH_MODE": "1"}, [off],
             [tiles, "TAVREL_SPEC_CACHE_ENABLED defaulting to 0."]),
            (0, {"TAVREL_RENDER_DEBUG": "0", "TAVREL_EVENT_DEBUG": "0"}, [on], []),
            (0, {"TAVREL_RENDER_DEBUG": "false", "TAVREL_EVENT_DEBUG": "1"}, [debug, events, on],
             ["Debugging the rendering process", "Debugging the event queue"]),
            (1, {"TAVREL_RENDER_LOGFILE": "/log", "TAVREL_SPEC_CACHE_ENABLED": "-1"},
             [debug, logFile, on], ['TAVREL_RENDER_LOGFILE set to "/log".', tiles,
                                    "TAVREL_SPEC_CACHE_ENABLED set to 1."]),
            (0, {"TAVREL_SPEC_CACHE_ENABLED": "0"}, [off], []),
            (0, {"TAVREL_SPEC_CACHE_ENABLED": "yes"}, [off],
             ["Could not parse TAVREL_SPEC_CACHE_ENABLED. Allow values: 0,1"]),
        )
        for verbosity, configuration, calls, lines in table:
            with self.subTest(configuration=configuration, verbosity=verbosity):
                del self.records[:]
                sys.tavrel_verbosityLevel = verbosity
                self.load(DEFAULT_RENDERER="a", **configuration)["ProcessEnvironmentVariables"]()
                self.assertEqual(self.called(debug[0], events[0], logFile[0], on[0]), calls)
                self.assertEqual([text for _, text in self.messages()], lines)
                self.assertEqual(
                    self.called("Nodes2DAPI.SetRenderThreads", "Nodes3DAPI.SetRenderThreads",
                                "Nodes2DAPI.SetMaxImageMemory", "Nodes2DAPI.SetMaxDiskUsage"),
                    [("Nodes2DAPI.SetRenderThreads", 3), ("Nodes3DAPI.SetRenderThreads", None),
                     ("Nodes2DAPI.SetMaxImageMemory", 100), ("Nodes2DAPI.SetMaxDiskUsage", 7)])
                self.assertEqual(self.values["ARNOLD_RENDER_TERMINATION_SIGNAL"], "SIGKILL")

    def test_what_the_machine_is_asked(self):
        questions = []
        for name in ("GetRenderTileSize", "GetImageMemoryMB", "GetImageDiskMemoryMB"):
            def answer(*isBatch, customLogger, name=name):
                questions.append((name, isBatch, customLogger))
                return (8, 16) if name == "GetRenderTileSize" else 1
            self.answers["MachineInfo.Tavrel." + name] = answer
        for verbosity, lines in ((0, []), (1, ["TAVREL_RENDER_TILE_SIZE set to 8x16."])):
            del questions[:]
            sys.tavrel_verbosityLevel = verbosity
            namespace = self.load(TAVREL_BATCH_MODE=str(verbosity or ""),
                                  ARNOLD_RENDER_TERMINATION_SIGNAL="x")
            namespace["ProcessEnvironmentVariables"]()
            log = namespace["log"]
            limits = (verbosity == 1,), log if verbosity else None
            self.assertEqual(questions, [("GetRenderTileSize", (), log),
                                         ("GetImageMemoryMB", *limits),
                                         ("GetImageDiskMemoryMB", *limits)])
            self.assertEqual(self.called("Nodes2DAPI.SetTileSize"), [("Nodes2DAPI.SetTileSize", 8, 16)])
            self.assertEqual([text for _, text in self.messages() if "TILE" in text], lines)
            self.assertEqual(self.values["ARNOLD_RENDER_TERMINATION_SIGNAL"], "x")

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

    def test_qt_path_goes_behind_the_users_own(self):
        for before, after in (("", ":/root of it/bin"), ("/a:/b", "/a:/b:/root of it/bin")):
            os.environ["QT_PLUGIN_PATH"] = before
            self.load()["initQt"]()
            self.assertEqual(os.environ["QT_PLUGIN_PATH"], after)


if __name__ == "__main__":
    unittest.main()
