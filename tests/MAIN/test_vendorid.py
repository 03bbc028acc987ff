"""The built-in module, and its cipher against one written anew here. Run by VendorIdInterpreter."""

import ctypes
import gc
import random
import sys
import types
import unittest

PROGRAM = ctypes.PyDLL(None)
PROGRAM.PyCapsule_GetPointer.restype = ctypes.c_void_p
PROGRAM.PyCapsule_GetPointer.argtypes = [ctypes.py_object, ctypes.c_char_p]
PROGRAM.PyMem_Free.argtypes = [ctypes.c_void_p]
FUNCTION = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.POINTER(ctypes.c_void_p),
                             ctypes.POINTER(ctypes.c_int32))


def call(function):
    """(result, buffer, length) of GetVendorId or a function of its form."""
    buffer, length = ctypes.c_void_p(1), ctypes.c_int32(0)
    result = function(ctypes.byref(buffer), ctypes.byref(length))
    return result, buffer.value, length.value


class Module(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with unittest.TestCase().assertRaises(SystemError):
            import vendorid  # noqa: F401
        # Nobody was handed the module, but the collector knows it.
        cls.module, = (found for found in gc.get_objects()
                       if isinstance(found, types.ModuleType) and found.__name__ == "vendorid")

    def test_is_built_in_and_cannot_be_had_by_import(self):
        self.assertIn("vendorid", sys.builtin_module_names)
        self.assertNotIn("vendorid", sys.modules)
        self.assertEqual((self.module.__version__, self.module.__doc__), ("1.0.0", ""))

    def test_capsule_leads_to_a_value_made_anew_at_each_call(self):
        get = FUNCTION(PROGRAM.PyCapsule_GetPointer(self.module._C_API, None))
        calls = [call(get) for _ in range(2)]
        self.assertNotEqual(calls[0][1], calls[1][1])
        values = set()
        for result, buffer, length in calls:
            self.assertEqual((result, length), (buffer, 32))
            values.add(ctypes.string_at(buffer, length))
            PROGRAM.PyMem_Free(buffer)
        self.assertEqual(len(values), 1)

    def test_without_memory_the_pointers_are_null_and_the_length_is_not(self):
        refused = FUNCTION(("getVendorIdWithoutMemory", PROGRAM))
        self.assertEqual(call(refused), (None, None, 32))


def keystream(key, length, doubling, carry):
    """RC4's keystream; with `doubling` and `carry` the vendor's cipher, which departs from it in
    the key schedule and in the index that the keystream starts with."""
    table = list(range(256))
    j = 0
    for n in range(256):
        j = (j * (2 if doubling else 1) + table[n] + key[n % len(key)]) & 255
        table[n], table[j] = table[j], table[n]
    j = j if carry else 0
    for i in range(1, length + 1):
        j = (j + table[i]) & 255
        table[i], table[j] = table[j], table[i]
        yield table[(table[i] + table[j]) & 255]


def run_pass(key, block, doubling=True, carry=True):
    return bytes(a ^ b for a, b in zip(block, keystream(key, len(block), doubling, carry)))


class CipherPass(unittest.TestCase):
    def test_agrees_with_this_implementation_and_differs_from_rc4_in_both_ways(self):
        self.assertEqual(run_pass(b"Key", b"Plaintext", doubling=False, carry=False).hex(),
                         "bbf316e8d940af0ad3")
        numbers = random.Random(3307)
        keys = [bytes(32)] + [bytes(numbers.choices(range(256), k=32)) for _ in range(200)]
        same = {(False, False): 0, (True, False): 0, (False, True): 0}
        for key in keys:
            before = bytes(32) if key == keys[0] else key[::-1]
            block = ctypes.create_string_buffer(before, 32)
            PROGRAM.runCipherPass(block, key)
            self.assertEqual(block.raw, run_pass(key, before), key.hex())
            for departures in same:
                isSame = run_pass(key, before, *departures) == block.raw
                self.assertFalse(isSame and key == keys[0], departures)
                same[departures] += isSame
        # A carried index is 0 for one key in 256, and then makes no difference.
        self.assertLess(max(same.values()), 8)


if __name__ == "__main__":
    unittest.main()
