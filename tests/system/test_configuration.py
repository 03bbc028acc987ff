"""The keys and variables that a start leaves behind, in the configuration and the environment."""

import unittest

from launch import SystemTest

USER = "the user's"


class ConfigurationTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree()

    def start_of(self, **env):
        return self.run_launcher(self.tree, "--batch", env=env).start

    def test_each_key_from_an_empty_environment_and_from_the_users(self):
        root = str(self.tree.root)
        home = f"{root}/bin/python3.7"
        # Key, value without the user's, whether it is exported and the user's value stays.
        table = [
            ("TAVREL_ROOT", root, False),
            ("ZKLOGGING_CONFIG", f"{root}/bin/log.conf", True),
            ("SHOW", "default_show", True),
            ("SHOT", "default_shot", True),
            ("GRPC_DNS_RESOLVER", "native", False),
            ("RUNTIME_USE_SYNC", "1", False),
            ("TAVREL_INTERNAL_PYTHONHOME", home, False),
            ("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", f"{home}/lib/python3.7/site-packages", False),
        ]
        bare, given = self.start_of(SHOT=""), self.start_of(**{row[0]: USER for row in table})
        self.assertTrue(bare["vendorid"])
        for key, value, stays in table:
            with self.subTest(key):
                self.assertEqual(bare["configuration"].get(key), value)
                self.assertEqual(bare["environment"].get(key), value if stays else None)
                self.assertEqual(given["configuration"].get(key), USER if stays else value)
                self.assertEqual(given["environment"].get(key), USER)

    def test_usd_search_lists(self):
        usd = f"{self.tree.root}/plugins/Resources/Usd/lib"
        lists = ("TAVREL_POST_PYTHONPATH", "ZKPXR_PLUGINPATH")
        own = (f"{usd}/python", f"{usd}/resources")
        for given, kept, disabled in ((None, "", "0"), ("", "", "0"), ("a:b", "a:b:", "0"),
                                      ("a::b", "a::b:", "0"), ("a:", "a:", "0"),
                                      ("a:", "a:", "1"), (None, None, "1")):
            with self.subTest(given=given, disabled=disabled):
                configuration = self.start_of(TAVREL_USD_PLUGINS_DISABLED=disabled,
                                              **dict.fromkeys(lists, given))["configuration"]
                self.assertEqual(
                    [configuration.get(key) for key in lists],
                    [kept + added if disabled == "0" else kept for added in own])


if __name__ == "__main__":
    unittest.main()
