"""The built-in module as native code finds it. Run by VendorIdInterpreter."""

import ctypes
import gc
import hashlib
import sys
import types
import unittest

PROGRAM = ctypes.PyDLL(None)
PROGRAM.PyCapsule_GetPointer.restype = ctypes.c_void_p
PROGRAM.PyCapsule_GetPointer.argtypes = [ctypes.py_object, ctypes.c_char_p]
PROGRAM.PyMem_Free.argtypes = [ctypes.c_void_p]
FUNCTION = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p),
                             ctypes.POINTER(ctypes.c_int32))
# As a second implementation of the cipher found it, which gave RC4's known answers without the two
# departures from RC4. The value itself stands nowhere.
SHA256_OF_VALUE = "9da4002412930d7c11ab0d8aeadd65f30c3ac45c7cc8e7fd2af6a248e6cab861"


def call(function):
    """(result, buffer, length) of GetVendorId or a function of its form."""
    buffer, length = ctypes.c_void_p(1), ctypes.c_int32(0)
    result = function(ctypes.byref(buffer), ctypes.byref(length))
    return result, buffer.value, length.value


class Module(unittest.TestCase):
    def test_is_built_in_and_its_capsule_leads_to_a_value_made_anew_at_each_call(self):
        self.assertIn("vendorid", sys.builtin_module_names)
        with self.assertRaises(SystemError):
            import vendorid  # noqa: F401
        self.assertNotIn("vendorid", sys.modules)
        # Nobody was handed the module, but the collector knows it.
        module, = (found for found in gc.get_objects()
                   if isinstance(found, types.ModuleType) and found.__name__ == "vendorid")
        self.assertEqual((module.__version__, module.__doc__), ("1.0.0", ""))
        # The module's reference, the argument's, and the one that is never given back.
        self.assertEqual(sys.getrefcount(module._C_API), 3)
        get = FUNCTION(PROGRAM.PyCapsule_GetPointer(module._C_API, None))
        calls = [call(get) for _ in range(2)]
        self.assertNotEqual(calls[0][1], calls[1][1])
        for result, buffer, length in calls:
            self.assertEqual((result, length), (buffer, 32))
            self.assertEqual(hashlib.sha256(ctypes.string_at(buffer, length)).hexdigest(),
                             SHA256_OF_VALUE)
            PROGRAM.PyMem_Free(buffer)

    def test_without_memory_the_pointers_are_null_and_the_length_is_not(self):
        refused = FUNCTION(("getVendorIdWithoutMemory", PROGRAM))
        self.assertEqual(call(refused), (None, None, 32))


if __name__ == "__main__":
    unittest.main()
