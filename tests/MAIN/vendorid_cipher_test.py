"""Checks the cipher passes that VendorIdVectors prints against a cipher written anew here.

Usage: vendorid_cipher_test.py PROGRAM
"""

import subprocess
import sys
import unittest


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
    def setUp(self):
        lines = subprocess.run([PROGRAM], check=True, stdout=subprocess.PIPE).stdout.split(b'\n')
        self.vectors = [[bytes.fromhex(word.decode()) for word in line.split()] for line in lines[:-1]]
        self.assertEqual(len(self.vectors), 201)

    def test_textbook_form_of_this_implementation_is_rc4(self):
        self.assertEqual(run_pass(b'Key', b'Plaintext', doubling=False, carry=False).hex(),
                         'bbf316e8d940af0ad3')

    def test_program_agrees(self):
        for key, before, after in self.vectors:
            self.assertEqual(run_pass(key, before), after, key.hex())

    def test_each_departure_from_rc4_shows(self):
        for doubling, carry in (False, False), (True, False), (False, True):
            same = [key for key, before, after in self.vectors
                    if run_pass(key, before, doubling, carry) == after]
            # A carried index is 0 for one key in 256, and then makes no difference.
            with self.subTest(doubling=doubling, carry=carry):
                self.assertLess(len(same), 8)
                self.assertNotIn(bytes(32), same)


if __name__ == '__main__':
    PROGRAM = sys.argv.pop()
    unittest.main()
