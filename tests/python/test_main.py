"""Runs the entry script's functions against recorders of the application's modules."""

import _thread
import builtins
import errno
import logging
import os
import sys
import tempfile
import types
import unittest
import warnings

MAIN_PATH = os.path.abspath(sys.argv.pop(1))
with open(MAIN_PATH, "rb") as source:
    CODE = compile(source.read(), "python/Main/Main.py", "exec")

MODES = {"batch": "TAVREL_BATCH_MODE", "script": "TAVREL_SCRIPT_MODE",
         "shell": "TAVREL_SHELL_MODE", "ui": "TAVREL_UI_MODE"}
RECORDED = ("MainEnvironment MainLogging MainOptions MainCommon MainBatch MainScript MainShell "
            "MainUI AnalyzeThat AnalyzeThis NodegraphAPI Nodes2DAPI Nodes3DAPI PyUtilModule "
            "MachineInfo Utils RenderingAPI PluginSystemAPI_cmodule").split()


class Store(types.ModuleType):
    """The configuration, which notes what is set."""

    def __init__(self, values, calls):
        types.ModuleType.__init__(self, "ConfigurationAPI_cmodule")
        self.values, self._calls = dict(values), calls

    def has(self, key):
        return bool(self.values.get(key))

    def get(self, key):
        return self.values.get(key, "")

    def set(self, key, value):
        self._calls.append(("set", key, value))
        self.values[key] = value


class Recorder(types.ModuleType):
    """A module, or a namespace in one, whose every operation is noted and answered from a table."""

    def __init__(self, name, calls, answers):
        types.ModuleType.__init__(self, name)
        self._calls, self._answers = calls, answers

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        full = "%s.%s" % (self.__name__, name)
        if full in ("MachineInfo.Tavrel", "Utils.EventModule", "RenderingAPI.RenderPlugins"):
            return Recorder(full, self._calls, self._answers)

        def operation(*arguments, **keywords):
            self._calls.append((full,) + arguments)
            answer = self._answers.get(full)
            if isinstance(answer, BaseException):
                raise answer
            return answer(*arguments, **keywords) if callable(answer) else answer
        return operation


class EntryScriptTest(unittest.TestCase):
    def setUp(self):
        self.calls, self.records = [], []
        self.answers = {
            "MainOptions.GetOptions": ({}, []),
            "MachineInfo.Tavrel.GetRenderThreadCount": 3,
            "MachineInfo.Tavrel.GetImageMemoryMB": "100",
            "MachineInfo.Tavrel.GetImageDiskMemoryMB": 7.9,
            "Nodes2DAPI.GetTileSize": (64, 32),
            "Nodes2DAPI.GetAllRenderTypes": ["a", "b"],
            "RenderingAPI.RenderPlugins.GetRendererPluginNames": ["a", "dl"],
        }
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self._restoreAfterwards()
        handler = logging.Handler()
        handler.emit = self.records.append
        logging.getLogger().handlers = [handler]
        logging.getLogger().setLevel(logging.DEBUG)
        sys.tavrel_verbosityLevel = 1
        _thread.start_new_thread = lambda function, arguments: self.calls.append(
            ("thread", function(*arguments)))

    def _restoreAfterwards(self):
        self.addCleanup(logging.captureWarnings, False)
        self.addCleanup(sys.setrecursionlimit, sys.getrecursionlimit())
        for owner, name in ((sys, "excepthook"), (warnings, "filters"),
                            (_thread, "start_new_thread")):
            self.addCleanup(setattr, owner, name, getattr(owner, name))
        modules, environment, finders = dict(sys.modules), dict(os.environ), list(sys.meta_path)

        def restore():
            for current, before in ((sys.modules, modules), (os.environ, environment)):
                current.clear()
                current.update(before)
            sys.meta_path[:] = finders
        self.addCleanup(restore)

    def load(self, name="Main", **configuration):
        """The script's globals after its body has run under the given module name."""
        configuration.setdefault("TAVREL_ROOT", "/root of it")
        configuration.setdefault("TAVREL_TMPDIR", self.scratch.name)
        self.store = sys.modules["ConfigurationAPI_cmodule"] = Store(configuration, self.calls)
        for module in RECORDED:
            sys.modules[module] = Recorder(module, self.calls, self.answers)
        namespace = {"__name__": name, "__builtins__": builtins}
        try:
            exec(CODE, namespace)
        finally:
            self.namespace = namespace
        return namespace

    def run_main(self, **configuration):
        """The code that the run asks to end with."""
        with self.assertRaises(SystemExit) as caught:
            self.load("__main__", **configuration)
        return caught.exception.code

    def called(self, *names):
        return [call for call in self.calls if call[0] in names]

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
        for options, mode in table:
            with self.subTest(options=options):
                del self.calls[:]
                os.environ.pop("QT_PLUGIN_PATH", None)
                self.answers["MainOptions.GetOptions"] = (options, ["rest"])
                module = "UI" if mode == "ui" else mode.capitalize()
                self.assertEqual(self.run_main(), 0)
                others = [(("set", key, "")) for other, key in MODES.items() if other != mode]
                self.assertEqual(self.calls[:8], [
                    ("MainEnvironment.Init",), ("MainLogging.Init",), ("MainOptions.GetOptions",),
                    ("thread", None), ("set", MODES[mode], "1")] + others)
                self.assertEqual(self.calls[-8:], [
                    ("MainCommon.ProcessOptions", options),
                    ("Main%s.Main" % module, options, ["rest"])] + self.CLEAN_UP)
                self.assertEqual(os.environ.get("QT_PLUGIN_PATH"),
                                 None if mode == "batch" else "/root of it/bin")
                self.assertEqual(sys.getrecursionlimit(), 10000)

    def test_every_end_of_a_mode_passes_through_the_clean_up(self):
        self.answers["MainOptions.GetOptions"] = ({"batch": True}, [])
        for end in (SystemExit(3), ValueError("x"), KeyboardInterrupt()):
            with self.subTest(end=end):
                del self.calls[:]
                self.answers["MainBatch.Main"] = end
                with self.assertRaises(type(end)) as caught:
                    self.load("__main__")
                self.assertIs(caught.exception, end)
                self.assertEqual(self.calls[-6:], self.CLEAN_UP)

    def test_a_failing_clean_up_step_skips_the_later_ones(self):
        self.answers["Nodes3DAPI.CancelAllRenders"] = OSError("gone")
        with self.assertRaises(OSError):
            self.load("__main__")
        self.assertEqual(self.calls[-1], ("Nodes3DAPI.CancelAllRenders",))

    def test_a_failure_before_the_subsystems_are_there_leaves_them_alone(self):
        class Refuser(object):
            def find_spec(self, name, path=None, target=None):
                if name == "MainCommon":
                    raise ImportError("no MainCommon")
        sys.meta_path.insert(0, Refuser())
        RECORDED.remove("MainCommon")
        self.addCleanup(RECORDED.append, "MainCommon")
        with self.assertRaisesRegex(ImportError, "no MainCommon"):
            self.load("__main__")
        self.assertEqual(self.called(*(call[0] for call in self.CLEAN_UP)), [])

    def test_exception_hook_messages(self):
        namespace = self.load()
        self.assertIs(sys.excepthook, namespace["excepthook"])
        nameless = type("", (Exception,), {})
        table = (  # exception, file name it is raised in or None, first line
            (ValueError("v"), "/x/y.py", 'A ValueError occurred in "y.py": v'),
            (OSError("o"), "/x/y.py", 'An OSError occurred in "y.py": o'),
            (UnicodeError("u"), "<string>", "A UnicodeError occurred in <string>: u"),
            (IndexError("100% %s"), None, "An IndexError occurred: 100% %s"),
            (nameless("n"), "/y.py", 'An exception was raised in "y.py": n'),
            (nameless("n"), None, "An exception was raised: n"),
        )
        for exception, fileName, expected in table:
            with self.subTest(expected):
                del self.records[:]
                if fileName is not None:
                    try:
                        exec(compile("raise e", fileName, "exec"), {"e": exception})
                    except Exception:
                        pass
                namespace["excepthook"](type(exception), exception, exception.__traceback__)
                (record,) = self.records
                lines = record.getMessage().split("\n")
                self.assertEqual((record.name, record.levelname, lines[0]),
                                 ("root", "ERROR", expected))
                if fileName is None:
                    self.assertEqual(len(lines), 1)
                else:
                    self.assertEqual(lines[1], "Traceback (most recent call last):")
                    self.assertIn('File "%s", line 1' % fileName, record.getMessage())

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
                del self.records[:]
                make = self.load(TAVREL_TMPDIR=path)["makeTmpDirectory"]
                if error is None:
                    make()
                    self.assertTrue(os.path.isdir(path))
                    self.assertEqual(self.messages(), [])
                else:
                    with self.assertRaises(SystemExit) as caught:
                        make()
                    self.assertEqual(caught.exception.code, 1)
                    self.assertEqual(self.messages(), [("ERROR", error)])
        namespace = self.load()
        self.store.values["TAVREL_TMPDIR"] = None
        self.assertIsNone(namespace["makeTmpDirectory"]())

    def test_specific_warnings_come_before_the_general_filter(self):
        sys.tavrel_verbosityLevel = 0
        self.run_main(DEFAULT_RENDERER="a")
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
        events = ("Utils.EventModule.RegisterDebugEventHandler",)
        logFile = ("Nodes2DAPI.SetRenderLogFile", "/log")
        speculative = "Nodes2DAPI.SetSpeculativeCacheEnabled"
        table = (  # configuration, verbosity, calls expected, info and error lines expected
            ({}, 0, [(speculative, True)], []),
            ({}, 1, [(speculative, True)], ["TAVREL_RENDER_TILE_SIZE defaulting to 64x32.",
                                            "TAVREL_SPEC_CACHE_ENABLED defaulting to 1."]),
            ({"TAVREL_BATCH_MODE": "1"}, 1, [(speculative, False)],
             ["TAVREL_RENDER_TILE_SIZE defaulting to 64x32.",
              "TAVREL_SPEC_CACHE_ENABLED defaulting to 0."]),
            ({"TAVREL_RENDER_DEBUG": "0", "TAVREL_EVENT_DEBUG": "0"}, 0, [(speculative, True)], []),
            ({"TAVREL_RENDER_DEBUG": "false", "TAVREL_EVENT_DEBUG": "1"}, 0,
             [debug, events, (speculative, True)],
             ["Debugging the rendering process", "Debugging the event queue"]),
            ({"TAVREL_RENDER_LOGFILE": "/log", "TAVREL_SPEC_CACHE_ENABLED": "-1"}, 1,
             [debug, logFile, (speculative, True)],
             ['TAVREL_RENDER_LOGFILE set to "/log".', "TAVREL_RENDER_TILE_SIZE defaulting to 64x32.",
              "TAVREL_SPEC_CACHE_ENABLED set to 1."]),
            ({"TAVREL_SPEC_CACHE_ENABLED": "0"}, 0, [(speculative, False)], []),
            ({"TAVREL_SPEC_CACHE_ENABLED": "yes"}, 0, [(speculative, False)],
             ["Could not parse TAVREL_SPEC_CACHE_ENABLED. Allow values: 0,1"]),
        )
        for configuration, verbosity, calls, lines in table:
            with self.subTest(configuration=configuration, verbosity=verbosity):
                del self.calls[:], self.records[:]
                sys.tavrel_verbosityLevel = verbosity
                self.load(DEFAULT_RENDERER="a", **configuration)["ProcessEnvironmentVariables"]()
                self.assertEqual(self.called(debug[0], events[0], logFile[0], speculative), calls)
                self.assertEqual([text for _, text in self.messages()], lines)
                self.assertEqual(
                    self.called("Nodes2DAPI.SetRenderThreads", "Nodes3DAPI.SetRenderThreads",
                                "Nodes2DAPI.SetMaxImageMemory", "Nodes2DAPI.SetMaxDiskUsage"),
                    [("Nodes2DAPI.SetRenderThreads", 3), ("Nodes3DAPI.SetRenderThreads", None),
                     ("Nodes2DAPI.SetMaxImageMemory", 100), ("Nodes2DAPI.SetMaxDiskUsage", 7)])
                self.assertEqual(self.store.get("ARNOLD_RENDER_TERMINATION_SIGNAL"), "SIGKILL")
                self.assertEqual(self.called("MachineInfo.Tavrel.GetImageMemoryMB")[0][1],
                                 "TAVREL_BATCH_MODE" in configuration)

    def test_tile_size_and_loggers(self):
        given = {}
        for name in ("GetImageMemoryMB", "GetImageDiskMemoryMB", "GetRenderTileSize"):
            def answer(*arguments, customLogger, name=name):
                given[name] = customLogger
                return (8, 16) if name == "GetRenderTileSize" else 1
            self.answers["MachineInfo.Tavrel." + name] = answer
        for verbosity in (0, 1):
            sys.tavrel_verbosityLevel = verbosity
            namespace = self.load(ARNOLD_RENDER_TERMINATION_SIGNAL="x")
            namespace["ProcessEnvironmentVariables"]()
            machineLogger = namespace["log"] if verbosity else None
            self.assertEqual(given, {"GetRenderTileSize": namespace["log"],
                                     "GetImageMemoryMB": machineLogger,
                                     "GetImageDiskMemoryMB": machineLogger})
            self.assertEqual(self.store.get("ARNOLD_RENDER_TERMINATION_SIGNAL"), "x")
        self.assertEqual(self.called("Nodes2DAPI.SetTileSize"), [("Nodes2DAPI.SetTileSize", 8, 16)] * 2)
        self.assertEqual([text for _, text in self.messages() if "TILE" in text],
                         ["TAVREL_RENDER_TILE_SIZE set to 8x16."])

    def test_default_renderer(self):
        unset = "No Default Renderer name has been set."
        unknown = ('Specified Default Renderer "x" is not the name of a registered renderer '
                   'plug-in.')
        none = ("WARNING", "There are no valid Renderer plug-ins available.")
        table = (  # configured, names, result, lines
            ("a", ["a", "dl"], "a", []),
            ("", ["a", "dl"], "dl", [("INFO", unset + ' Using: "dl".')]),
            ("x", ["a", "dl"], "dl", [("WARNING", unknown + ' Using: "dl".')]),
            ("x", ["b", "a"], "b", [
                ("WARNING", unknown + ' Using the first available plug-in found: "b".')]),
            ("x", [], "", [none]),
            ("", [], "", [none]),
        )
        for configured, names, result, lines in table:
            with self.subTest(configured=configured, names=names):
                del self.records[:]
                self.answers["RenderingAPI.RenderPlugins.GetRendererPluginNames"] = names
                self.load(DEFAULT_RENDERER=configured)["initDefaultRenderer"]()
                self.assertEqual(self.store.get("DEFAULT_RENDERER"), result)
                self.assertEqual(self.messages(), lines)

    def test_qt_path_goes_behind_the_users_own(self):
        for before, after in (("", ":/root of it/bin"), ("/a:/b", "/a:/b:/root of it/bin")):
            os.environ["QT_PLUGIN_PATH"] = before
            self.load()["initQt"]()
            self.assertEqual(os.environ["QT_PLUGIN_PATH"], after)


if __name__ == "__main__":
    unittest.main()
