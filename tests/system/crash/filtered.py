"""Runs a program to which some system calls are fatal, denied, or never come back.

filtered.py kill|deny|hang NUMBER... -- PROGRAM ARGUMENTS...
"""

import ctypes
import os
import struct
import sys

PR_SET_NO_NEW_PRIVS, SECCOMP, SET_MODE_FILTER, NEW_LISTENER = 38, 317, 1, 8
LOAD, JUMP_IF_EQUAL, RETURN = 0x20, 0x15, 0x06
ALLOW, VERDICTS = 0x7fff0000, {"kill": 0x80000000, "deny": 0x00050001, "hang": 0x7fc00000}

split = sys.argv.index("--")
rules = [(LOAD, 0, 0, 0)]
for number in sys.argv[2:split]:
    rules += [(JUMP_IF_EQUAL, 0, 1, int(number)), (RETURN, 0, 0, VERDICTS[sys.argv[1]])]
rules.append((RETURN, 0, 0, ALLOW))
code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *rule) for rule in rules))
program = ctypes.create_string_buffer(struct.pack("HP", len(rules), ctypes.addressof(code)))
libc = ctypes.CDLL(None)
hangs = sys.argv[1] == "hang"
if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) or (
        listener := libc.syscall(SECCOMP, SET_MODE_FILTER, NEW_LISTENER if hangs else 0, program)) < 0:
    sys.exit("no seccomp")
if hangs:
    os.set_inheritable(listener, True)  # it is there, and never answers
os.execv(sys.argv[split + 1], sys.argv[split + 1:])
