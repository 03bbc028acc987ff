"""The keys and variables that a start leaves behind, in the configuration and the environment."""

import unittest

from launch import SystemTest

USER = "the user's"
# What native code does: nobody was handed the module, but the collector knows it. The digest is as a
# second implementation of the cipher found it, which gave RC4's known answers without the two departures
# from RC4. The value itself stands nowhere.
GET_VENDOR_ID = """import ctypes, gc, hashlib, sys, types
try:
    import vendorid
except SystemError:
    note('refused')
module, = (each for each in gc.get_objects() if isinstance(each, types.ModuleType) and each.__name__ == 'vendorid')
note('module', version=module.__version__, doc=module.__doc__, references=sys.getrefcount(module._C_API))
python = ctypes.PyDLL(None)
python.PyCapsule_GetPointer.restype = ctypes.c_void_p
python.PyCapsule_GetPointer.argtypes = [ctypes.py_object, ctypes.c_char_p]
get = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p), ctypes.POINTER(ctypes.c_int32))(
    python.PyCapsule_GetPointer(module._C_API, None))
for _ in range(2):
    buffer, length = ctypes.c_void_p(1), ctypes.c_int32(0)
    result = get(ctypes.byref(buffer), ctypes.byref(length))
    note('value', isBuffer=result == buffer.value,
         digest=hashlib.sha256(ctypes.string_at(result, length.value)).hexdigest())
"""
VENDOR_ID = {"event": "value", "isBuffer": True,
             "digest": "9da4002412930d7c11ab0d8aeadd65f30c3ac45c7cc8e7fd2af6a248e6cab861"}


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
        for key, value, stays in table:
            with self.subTest(key):
                self.assertEqual(bare["configuration"].get(key), value)
                self.assertEqual(bare["environment"].get(key), value if stays else None)
                self.assertEqual(given["configuration"].get(key), USER if stays else value)
                self.assertEqual(given["environment"].get(key), USER)

    def test_vendor_id_is_found_through_the_capsule(self):
        events = self.run_launcher(self.tree, "--batch", act=GET_VENDOR_ID).events
        start = next(i for i, event in enumerate(events) if event["event"] == "refused")
        # References: the module's, the argument's, and the one that is never given back.
        self.assertEqual(events[start + 1:start + 4], [
            {"event": "module", "version": "1.0.0", "doc": "", "references": 3}, VENDOR_ID, VENDOR_ID])

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
