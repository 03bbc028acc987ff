"""The application's modules, each by itself, under the tree's own interpreter."""

import os
import stat
import sys
import tempfile
import unittest
from unittest import mock

TREE = os.path.abspath(sys.argv.pop(1))
sys.path[:0] = [os.path.join(TREE, "bin", folder)
                for folder in ("", "python", "python/python_tavrel", "python/Main")]

import ConfigurationAPI_cmodule as Configuration
import MachineInfo
import MainBatch
import MainOptions
import MainPythonFile
import MainScript
import MainShell
import MainSignals
import NodegraphAPI
import NodegraphFile
from Utils import WholeFile

Configuration.set("TAVREL_ROOT", TREE)
sys.tavrel_BUILD_TIME = "now"


OPTIONS = [  # arguments, what they mean or what is wrong with them
    ("--batch a -V 2 b", {"batch": True, "verbose": 2}, "a b"),
    ("--batch -- --shell", {"batch": True}, "--shell"),
    ("--script f --help -V x -- y", {"script": ""}, "f --help -V x -- y"),
    ("--script=f -- --batch --", {"script": "f"}, "f --batch --"),
    ("--bacth", "unknown option --bacth (--batch is the nearest)"),
    ("-V0 --batch", "--batch needs a file to run"),
    ("--prof", "--prof may mean --profile or --profiling-dir"),
    ("--batch=1", "--batch takes no value"),
    ("--render-threads 0", "--render-threads needs a whole number from 1, not '0'"),
    ("--script", "--script needs a file, or - for standard input"),
    ("a --script b",
     '"a" stands in front of --script; arguments of the script stand behind its name'),
]


class ModulesTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.addCleanup(NodegraphAPI.SetRootNode, None)
        for key, value in (("TAVREL_ROOT", TREE), ("TAVREL_TMPDIR", "")):
            self.addCleanup(Configuration.set, key, value)
        self.folder = scratch.name
        self.first, self.second = (NodegraphAPI.CreateNode("node") for _ in range(2))
        self.second.connect(self.first)

    def put(self, path, content):
        path = os.path.join(self.folder, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content.encode("utf-8", "surrogateescape"))
        return path

    def content(self, path):
        with open(path, "rb") as file:
            return file.read()

    def test_options(self):
        for arguments, *expected in OPTIONS:
            try:
                options, args = MainOptions.Parse(arguments.split())
                found = [options, " ".join(args)]
            except MainOptions.OptionError as error:
                found = [str(error)]
            self.assertEqual(found, expected, arguments)

    def test_configuration_keeps_bytes(self):
        for value in ("", "text", "h\u00e9", "\udcff"):
            Configuration.set("key \udce9", value)
            self.assertEqual(Configuration.get("key \udce9"), value)
            self.assertIs(Configuration.has("key \udce9"), value != "")
        for bad in ("a\0", 3):
            self.assertRaises((TypeError, ValueError), Configuration.get, bad)

    def test_settings(self):
        for text, size in (("64X32", (64, 32)), ("64x0", None), ("64", None), ("", None)):
            Configuration.set("TAVREL_RENDER_TILE_SIZE", text)
            self.assertEqual(MachineInfo.Tavrel.GetRenderTileSize(), size)
        for mode in (MainBatch, MainScript, MainShell):
            with mock.patch.object(MainSignals, "StopInOrderOn", side_effect=KeyboardInterrupt), \
                    mock.patch.object(os, "getpid", return_value=1):
                self.assertRaisesRegex(SystemExit, "^130$", mode.Main, {}, ["file"])

    def test_files_are_run_and_written_without_a_trace(self):
        path = self.put("file", "import sys\nsys.argv = sys.path[:] = ['x']\n")
        before = sys.modules["__main__"], sys.argv, sys.path[:]
        MainPythonFile.Run([path])
        self.assertEqual((sys.modules["__main__"], sys.argv, sys.path), before)
        os.chmod(path, 0o640)
        WholeFile.Write(path, [b"text"])
        self.assertRaises(TypeError, WholeFile.Write, path, [b"other", 1])
        self.assertEqual((self.content(path), stat.S_IMODE(os.stat(path).st_mode),
                          os.listdir(self.folder)), (b"text", 0o640, ["file"]))

    def test_a_file_brings_the_graph_back_or_changes_nothing(self):
        self.second.setParameter("color", [1, 0.5, 0])
        NodegraphAPI.SetRootNode(self.second)
        path = self.folder + "/graph.json"
        NodegraphFile.Save(path)
        text = self.content(path).decode()
        NodegraphAPI.CreateNode("another")
        self.assertRaisesRegex(NodegraphFile.UnknownTypeError, 'the node "node" is of the unknown type "node"',
                               NodegraphFile.Open, path)
        NodegraphFile.Open(path, anyType=True)
        second = NodegraphAPI.FindRootNode()
        self.assertEqual(repr(NodegraphAPI.GetAllNodes() + second.getInputs()),
                         "[<node node 'node'>, <node node 'node2'>, <node node 'node'>]")
        self.assertEqual(second.getParameters(), {"color": [1, 0.5, 0]})
        second.setParameter("a", {1})
        self.assertRaises(NodegraphFile.GraphFileError, NodegraphFile.Save, path)
        self.assertEqual(self.content(path).decode(), text)
        for bad, message in (
                (text[:200], "Expecting|Unterminated"), ("[" * 10 ** 5, "not as it"),
                (text.replace("[]", '["node2"]'), "would close a circle"), ("3", "not as it"),
                (text.replace("graph 1", "graph 2"), "its format is"),
                (text.replace("[]", '["x"]'), '"x", an input of "node", is missing'),
                (text.replace("node2", "node"), 'two nodes "node"'),
                (text.replace("0.5", "1.5"), 'node "node2": the parameter "color" takes three numbers')):
            self.assertRaisesRegex(NodegraphFile.GraphFileError, message, NodegraphFile.Open,
                                   self.put("graph.json", bad), anyType=True)
            self.assertIs(NodegraphAPI.FindRootNode(), second)

    def test_edits_of_a_run_that_crashed_are_found(self):
        from GraphWindow import Autosave
        os.environ["XDG_STATE_HOME"] = self.folder
        self.addCleanup(os.environ.pop, "XDG_STATE_HOME")
        kept = Autosave.Autosave()
        self.assertIsNone(Autosave.Find())
        kept.save("graph")
        self.assertIsNone(Autosave.Find())  # its run goes on
        child = os.fork()
        if child == 0:
            Autosave.Autosave().save("left")
            os._exit(0)
        os.waitpid(child, 0)
        path = Autosave.Find()
        self.assertEqual(self.content(path + ".json"), b"left")
        Autosave.Remove(path)
        kept.forget()
        self.assertEqual(os.listdir(os.path.join(self.folder, "tavrel/autosave")), [])


if __name__ == "__main__":
    unittest.main()
