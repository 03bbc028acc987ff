"""The interpreter's search path and arguments, in trees that stand in ordinary and odd places."""

import os
import unittest

from launch import SystemTest


def own_entries(root):
    """The tree's part of sys.path, top to bottom."""
    library = f"{root}/bin/python3.7/lib/python3.7"
    return [f"{root}/bin/python3.7", f"{root}/bin/python3.7/lib/python37.zip", library,
            f"{library}/lib-dynload", f"{library}/site-packages", f"{root}/bin",
            f"{root}/bin/python", f"{root}/bin/python/python_tavrel", f"{root}/bin/python/Main",
            f"{root}/plugins/Resources/Core/Plugins", str(root)]


class SearchPathTest(SystemTest):
    def test_order_and_duplicates(self):
        tree = self.scratch_tree()
        own = own_entries(tree.root)
        usd = f"{tree.root}/plugins/Resources/Usd/lib/python"
        bin_ = str(tree.bin)
        without_bin = [entry for entry in own if entry != bin_]
        pre, post, mid = "TAVREL_DEBUG_PRE_PYTHONPATH", "TAVREL_POST_PYTHONPATH", "PYTHONPATH"
        off = {"TAVREL_USD_PLUGINS_DISABLED": "1"}
        table = [
            (off, own),
            ({pre: f"{bin_}:/q", post: f"{tree.root}:/q:{usd}"}, [bin_, "/q"] + without_bin + [usd]),
            ({pre: f"{bin_}/"}, [f"{bin_}/"] + own + [usd]),
            ({mid: f"/m:{bin_}:/n"}, own + ["/m", "/n", usd]),
            ({post: "/x::/y::"}, own + ["/x", "", "/y", usd]),
            ({**off, post: "::"}, own + [""]),
            ({pre: "/a", mid: "/a:/b", post: "/b:/c"}, ["/a"] + own + ["/b", "/c", usd]),
        ]
        for env, expected in table:
            with self.subTest(env):
                start = self.run_launcher(tree, "--batch", env=env).start
                self.assertEqual(start["path"], expected)
                for place in ("configuration", "environment"):
                    self.assertEqual(start[place]["TAVREL_INTERNAL_PYTHONPATH"], ":".join(expected))

    def test_folders_that_are_not_utf_8_are_searched_but_not_published(self):
        odd = os.fsdecode(b"/b\xff")
        tree = self.scratch_tree()
        own = own_entries(tree.root)
        start = self.run_launcher(tree, "--batch", env={
            "TAVREL_USD_PLUGINS_DISABLED": "1", "TAVREL_DEBUG_PRE_PYTHONPATH": f"{odd}/1:/p",
            "PYTHONPATH": f"{odd}/2", "TAVREL_POST_PYTHONPATH": f"{odd}/3"}).start
        self.assertEqual(start["path"], [f"{odd}/1", "/p", *own, f"{odd}/2", f"{odd}/3"])
        self.assertEqual(start["environment"]["TAVREL_INTERNAL_PYTHONPATH"],
                         ":".join(["/p", *own]))

        tree = self.scratch_tree(os.fsdecode(b"tree\xff"))
        for env in ({}, {"PYTHONPATH": ""}, {"PYTHONPATH": "/\u00fc:/\udcff"}):
            ended = self.run_launcher(tree, "--batch",
                                      env={"TAVREL_USD_PLUGINS_DISABLED": "1", **env})
            self.assertEqual((ended.status, ended.mode), (0, "MainBatch"), ended.err)
            behind = [entry for entry in env.get("PYTHONPATH", "").split(":") if entry]
            self.assertEqual(ended.start["path"], own_entries(tree.root) + behind)


class ObstaclesTest(SystemTest):
    def test_what_keeps_the_interpreter_from_starting_is_named(self):
        tree = self.scratch_tree()
        folder = os.open("/", os.O_RDONLY)
        self.addCleanup(os.close, folder)
        ended = self.run_launcher(tree, "--batch", "-V0", stdin=folder)
        self.assertEqual(ended.status, 1)
        self.assertRegex(ended.err, r"\Atavrel: standard input is a folder.*\nFatal Python error")
        home = (tree.bin / "python3.7").resolve()
        (tree.bin / "python3.7").unlink()
        (tree.bin / "python3.7/lib").mkdir(parents=True)
        for library in (home / "lib").glob("*.so*"):
            (tree.bin / "python3.7/lib" / library.name).symlink_to(library)
        ended = self.run_launcher(tree, "--batch", "-V0")
        self.assertEqual(ended.status, 1)
        self.assertRegex(ended.err, r"\A\[ERROR MAIN\] .*missing.*/python3.7/lib/python3.7\" .*\n\Z")


class ArgumentsTest(SystemTest):
    def test_arrive_whole_and_in_order(self):
        tree = self.scratch_tree()
        args = ["--batch", "-V", "2", "--unknown=1", "", "two words", "grün", b"\xff\xfe.py", "--"]
        ended = self.run_launcher(tree, *args)
        self.assertEqual(ended.status, 0)
        self.assertEqual(ended.start["argv"], [f"{tree.bin}/python/Main/Main.pyc"] +
                         [os.fsdecode(arg) for arg in args])


# The locale of the main thread alone, or none: -1.
LOCALE = "import ctypes; note('locale', own=ctypes.CDLL(None).uselocale(None))"


class PlacesTest(SystemTest):
    def check(self, tree, program=None, **env):
        ended, cleanup = self.run_with_cleanup(tree, "--batch", program=program, act=LOCALE,
                                               env={"TAVREL_USD_PLUGINS_DISABLED": "1", **env})
        self.assertEqual((ended.status, ended.mode), (0, "MainBatch"), ended.err)
        self.assertEqual(ended.start["configuration"]["TAVREL_ROOT"], str(tree.root))
        self.assertEqual(cleanup["argv"][0], f"{tree.bin}/tavrelCleanup")
        self.assertIn({"event": "locale", "own": -1}, ended.events)
        if "LANG" not in env:
            self.assertEqual(ended.start["path"], own_entries(tree.root))
        return ended

    def test_blank_and_accent_in_the_trees_path(self):
        tree = self.scratch_tree("with a blank, grün")
        for env in ({}, {"LANG": "C"}, {"LANG": "POSIX"}):
            with self.subTest(env):
                self.check(tree, **env)

    def test_single_quote_in_the_trees_path_costs_the_variable_and_nothing_else(self):
        tree = self.scratch_tree("the user's")
        ended = self.check(tree)
        self.assertIn(("ERROR", "BOOTSTRAP",
                       "Error setting TAVREL_INTERNAL_PYTHONPATH in `os.environ`."), ended.log)
        self.assertIn("(UTIL/src/TavrelBootstrap:345)", ended.err)
        self.assertEqual(ended.start["configuration"]["TAVREL_INTERNAL_PYTHONPATH"],
                         ":".join(own_entries(tree.root)))
        self.assertNotIn("TAVREL_INTERNAL_PYTHONPATH", ended.start["environment"])

    def test_links_lead_to_the_real_tree(self):
        tree = self.scratch_tree()
        link = tree.folder / "elsewhere"
        link.mkdir()
        (link / "launcher").symlink_to(tree.bin / "tavrel")
        (link / "tree").symlink_to(tree.root)
        for program in (link / "launcher", link / "tree/bin/tavrel"):
            self.check(tree, program=program)


if __name__ == "__main__":
    unittest.main()
