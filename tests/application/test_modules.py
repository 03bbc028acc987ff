"""The application's modules, each by itself, under the tree's own interpreter."""

import os
import sys
import tempfile
import unittest

TREE = os.path.abspath(sys.argv.pop(1))
sys.path[:0] = [os.path.join(TREE, "bin", folder)
                for folder in ("", "python", "python/python_tavrel", "python/Main")]

import ConfigurationAPI_cmodule as Configuration
import MainOptions
import Nodes2DAPI
import NodegraphAPI
import PluginSystemAPI_cmodule as PluginSystem
import RenderingAPI

Configuration.set("TAVREL_ROOT", TREE)


class OptionsTest(unittest.TestCase):
    def test_what_is_accepted(self):
        table = (  # arguments, options, args
            ("--batch a -V 2 b", {"batch": True, "verbose": 2}, "a b"),
            ("--batch -- --shell", {"batch": True}, "--shell"),
            ("-V2 --shell", {"verbose": 2, "shell": True}, ""),
            ("--verb=2 --ba", {"verbose": 2, "batch": True}, ""),
            ("--render-threads 4", {"render-threads": 4}, ""),
            ("--script f --help -V x -- y", {"script": ""}, "f --help -V x -- y"),
            ("--script -V 2 f g", {"script": "", "verbose": 2}, "f g"),
            ("--script=f -- --batch --", {"script": "f"}, "f --batch --"),
            ("--script f -- --batch", {"script": ""}, "f --batch"),
            ("--script -- --f --batch", {"script": ""}, "--f --batch"),
            ("--script --help", {"script": "", "help": True}, ""),
        )
        for arguments, options, args in table:
            with self.subTest(arguments):
                self.assertEqual(MainOptions.Parse(arguments.split()), (options, args.split()))

    def test_what_is_refused(self):
        table = (
            ("--nonsense", "unknown option --nonsense"),
            ("--prof", "--prof may mean --profile or --profiling-dir"),
            ("--batch=1", "--batch takes no value"),
            ("--shell --shell", "--shell is given twice"),
            ("-V much", "--verbose needs a whole number, not 'much'"),
            ("--render-threads 0", "--render-threads needs a whole number from 1, not '0'"),
            ("--script", "--script needs a file, or - for standard input"),
            ("a --script b", '"a" stands in front of --script; arguments of the script stand '
                             'behind its name'),
        )
        for arguments, message in table:
            with self.subTest(arguments), self.assertRaises(MainOptions.OptionError) as caught:
                MainOptions.Parse(arguments.split())
            self.assertEqual(str(caught.exception), message)


class ConfigurationTest(unittest.TestCase):
    def test_values_keep_their_bytes(self):
        for value in ("", "text", "h\u00e9", "\udcff"):
            Configuration.set("key \udce9", value)
            self.assertEqual(Configuration.get("key \udce9"), value)
            self.assertIs(Configuration.has("key \udce9"), value != "")


class PluginTest(unittest.TestCase):
    def test_manifests_are_found_in_the_order_of_their_paths(self):
        root = tempfile.TemporaryDirectory()
        self.addCleanup(root.cleanup)
        self.addCleanup(Configuration.set, "TAVREL_ROOT", TREE)
        Configuration.set("TAVREL_ROOT", root.name)
        for path, text in (("Core/Plugins/z.plugin", "type = renderer\nname=\tz \r\n"),
                           ("B/Plugins/a.plugin", "# name = c\n\nname = b = b\ntype = renderer\n"),
                           ("B/Plugins/other.plugin", "name = o\ntype = other\n"),
                           ("B/Plugins/nameless.plugin", "type = renderer\n"),
                           ("B/a.plugin", "name = x\ntype = renderer\n")):
            file = os.path.join(root.name, "plugins/Resources", path)
            os.makedirs(os.path.dirname(file), exist_ok=True)
            with open(file, "w") as manifest:
                manifest.write(text)
        with self.assertWarnsRegex(RuntimeWarning, "nameless.plugin is left out"):
            found = PluginSystem.FindPlugins("renderer")
        self.assertEqual([plugin["name"] for plugin in found], ["b = b", "z"])


class GraphAndRenderTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.addCleanup(NodegraphAPI.SetRootNode, None)
        self.image = os.path.join(scratch.name, "image.ppm")
        Configuration.set("DEFAULT_RENDERER", "dl")
        self.first, self.second = (NodegraphAPI.CreateNode("node") for _ in range(2))
        self.second.connect(self.first)

    def test_graph(self):
        for upstream in (self.first, self.second):
            self.assertRaises(ValueError, self.first.connect, upstream)
        self.assertRaises(ValueError, NodegraphAPI.CreateNode, "x", "node")
        self.first.setParameter("a", 1)
        self.second.setParameter("b", 2)
        self.assertEqual(self.second.getParameters(), {"a": 1, "b": 2})

    def test_an_image_is_made_tile_by_tile(self):
        names = RenderingAPI.RenderPlugins.GetRendererPluginNames
        self.assertEqual((names(), names(includeViewer=True)), (["dl"], ["dl", "viewer"]))
        Nodes2DAPI.SetTileSize(3, 2)
        self.first.setParameter("color", (1, 0.5, 0))
        self.first.setParameter("checker", 4)
        self.assertTrue(RenderingAPI.RenderToFile(self.second, self.image, 8, 5).wait(60))
        light, dark = b"\xff\x80\x00", b"\x7f\x40\x00"
        with open(self.image, "rb") as image:
            self.assertEqual(image.read(), b"P6\n8 5\n255\n" + (light * 4 + dark * 4) * 4
                             + dark * 4 + light * 4)
        self.assertEqual(os.listdir(os.path.dirname(self.image)), ["image.ppm"])

    def test_a_failed_render_raises_where_it_is_waited_for(self):
        render = RenderingAPI.RenderToFile(self.second, self.image + "/x", 2, 2)
        self.assertRaises(OSError, render.wait, 60)


if __name__ == "__main__":
    unittest.main()
