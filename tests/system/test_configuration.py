"""The keys and variables that a start leaves behind, in the configuration and the environment."""

import unittest

from launch import SystemTest

USER = "the user's"


class ConfigurationTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree()
        self.usd = f"{self.tree.root}/plugins/Resources/Usd"

    def test_each_key_from_an_empty_environment_and_from_the_users(self):
        root = str(self.tree.root)
        home = f"{root}/bin/python3.7"
        # Key, value without the user's, whether it is exported, whether the user's value stays.
        table = [
            ("TAVREL_ROOT", root, False, False),
            ("ZKLOGGING_CONFIG", f"{root}/bin/log.conf", True, True),
            ("SHOW", "default_show", True, True),
            ("SHOT", "default_shot", True, True),
            ("GRPC_DNS_RESOLVER", "native", False, False),
            ("RUNTIME_USE_SYNC", "1", False, False),
            ("TAVREL_INTERNAL_PYTHONHOME", home, False, False),
            ("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", f"{home}/lib/python3.7/site-packages", False,
             False),
        ]
        bare = self.run_launcher(self.tree, "--batch").start
        for key, value, exported, _ in table:
            with self.subTest(key):
                self.assertEqual(bare["configuration"].get(key), value)
                self.assertEqual(bare["environment"].get(key), value if exported else None)
        given = self.run_launcher(self.tree, "--batch", env={row[0]: USER for row in table}).start
        for key, value, _, stays in table:
            with self.subTest(key, given=True):
                self.assertEqual(given["configuration"].get(key), USER if stays else value)
                self.assertEqual(given["environment"].get(key), USER)

    def test_an_empty_variable_counts_as_unset(self):
        start = self.run_launcher(self.tree, "--batch", env={"SHOW": ""}).start
        self.assertEqual((start["configuration"]["SHOW"], start["environment"]["SHOW"]),
                         ("default_show", "default_show"))

    def test_usd_search_lists(self):
        for given, kept in ((None, ""), ("", ""), ("a:b", "a:b:"), ("a::b", "a::b:"), ("a:", "a:")):
            with self.subTest(given):
                configuration = self.run_launcher(self.tree, "--batch", env={
                    "TAVREL_POST_PYTHONPATH": given, "ZKPXR_PLUGINPATH": given,
                    "TAVREL_USD_PLUGINS_DISABLED": "0"}).start["configuration"]
                self.assertEqual(configuration["TAVREL_POST_PYTHONPATH"],
                                 f"{kept}{self.usd}/lib/python")
                self.assertEqual(configuration["ZKPXR_PLUGINPATH"],
                                 f"{kept}{self.usd}/lib/resources")

    def test_usd_search_lists_are_left_alone_when_disabled(self):
        start = self.run_launcher(self.tree, "--batch", env={
            "ZKPXR_PLUGINPATH": "a:", "TAVREL_USD_PLUGINS_DISABLED": "1"}).start
        self.assertEqual(start["configuration"]["ZKPXR_PLUGINPATH"], "a:")
        self.assertNotIn("TAVREL_POST_PYTHONPATH", start["configuration"])

    def test_interpreter_facts(self):
        start = self.run_launcher(self.tree, "--batch").start
        self.assertRegex(start["buildTime"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
        self.assertTrue(start["vendorid"])
        self.assertEqual(start["executable"], f"{self.tree.root}/bin/python3.7/bin/python3.7")

    def test_settings_reach_the_applications_modules_in_order(self):
        ended = self.run_launcher(self.tree, "--script", "-V", "0", env={
            "TAVREL_RENDER_DEBUG": "false", "TAVREL_RENDER_LOGFILE": "r.log",
            "TAVREL_SPEC_CACHE_ENABLED": "2", "QT_PLUGIN_PATH": "", "DEFAULT_RENDERER": "none"})
        self.assertEqual([call for call in ended.calls if ".Set" in call[0]], [
            ("Nodes2DAPI.SetRenderDebug", [1]),
            ("Nodes2DAPI.SetRenderDebug", [1]),
            ("Nodes2DAPI.SetRenderLogFile", ["r.log"]),
            ("Nodes2DAPI.SetRenderThreads", [3]),
            ("Nodes3DAPI.SetRenderThreads", [None]),
            ("Nodes2DAPI.SetTileSize", [64, 32]),
            ("Nodes2DAPI.SetMaxImageMemory", [512]),
            ("Nodes2DAPI.SetMaxDiskUsage", [1024]),
            ("Nodes2DAPI.SetSpeculativeCacheEnabled", [True]),
            ("NodegraphAPI.SetRootNode", [None]),
        ])
        mode = ended.in_mode
        self.assertEqual(mode["configuration"]["DEFAULT_RENDERER"], "dl")
        self.assertEqual(mode["configuration"]["ARNOLD_RENDER_TERMINATION_SIGNAL"], "SIGKILL")
        self.assertEqual(mode["environment"]["QT_PLUGIN_PATH"], f":{self.tree.root}/bin")
        self.assertEqual(mode["recursion"], 10000)


if __name__ == "__main__":
    unittest.main()
