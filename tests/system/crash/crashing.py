"""Run by the launcher in script mode: prints process and thread that are to crash, last, then crashes.

crashing.py KIND
"""

import ctypes
import faulthandler
import mmap
import os
import shutil
import signal
import struct
import sys
import tempfile
import threading
import time

LIBC = ctypes.CDLL(None)
GETTID, EXIT, SA_ONSTACK, CLONE_NEWPID = 186, 60, 0x08000000, 0x20000000
PTRACE_CONT, PTRACE_SEIZE, WALL = 7, 0x4206, 0x40000000


def announce():
    print(os.getpid(), LIBC.syscall(GETTID), flush=True)


def read(path):
    with open(path) as file:
        return file.read()


def crash_by_address(strlen=LIBC.strlen):
    strlen(16)


def native():
    announce()  # it may be another thread or process by now
    crash_by_address()


def in_handler(flags=0):
    handler = ctypes.CFUNCTYPE(None, ctypes.c_int)(lambda number: crash_by_address())
    LIBC.sigaction(signal.SIGUSR1, struct.pack("P128xi4xP", ctypes.cast(handler, ctypes.c_void_p).value, flags, 0),
                   None)
    getattr(LIBC, "raise")(signal.SIGUSR1)


def on_another_stack():
    stack = ctypes.create_string_buffer(1 << 18)
    LIBC.sigaltstack(struct.pack("PiP", ctypes.addressof(stack), 0, len(stack)), None)
    in_handler(SA_ONSTACK)


def under_faulthandler():
    faulthandler.enable()
    crash_by_address()


def non_canonical():
    LIBC.strlen.argtypes = [ctypes.c_void_p]
    LIBC.strlen(0x6161616161616161)


def in_thread():
    thread = threading.Thread(target=native)
    thread.start()
    thread.join()


def without_first_thread():
    def crash():
        first = "/proc/self/task/%d/stat" % os.getpid()
        while ") Z" not in read(first):
            time.sleep(0.001)
        native()
    threading.Thread(target=crash).start()
    LIBC.syscall(EXIT, 0)  # the thread alone


def overflow():
    sys.setrecursionlimit(1 << 30)

    def deeper():
        deeper()
    deeper()


def wide_overflow():
    ctypes.CDLL(os.environ["WIDE_FRAMES"]).enterWideFrames(-1)


def deep():
    ctypes.CDLL(os.environ["WIDE_FRAMES"]).enterWideFrames(20)


def abort():
    os.abort()


def bus():
    with tempfile.TemporaryFile() as file:
        file.truncate(mmap.PAGESIZE)
        view = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        file.truncate(0)
        view[0]


def division():
    LIBC.div(1, 0)


def trap():
    os.kill(os.getpid(), signal.SIGTRAP)


def odd_module():
    """Of a name that is no UTF-8, and cut off meanwhile."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(os.fsencode(folder), b"caf\xe9.so")
        shutil.copy(os.environ["WIDE_FRAMES"], path)
        ctypes.CDLL(os.fsdecode(path))
        os.truncate(path, mmap.PAGESIZE)
        crash_by_address()


def beside_log():
    with open("PythonStackLog.txt", "w") as log:
        log.write("C function call\n1 \x1b[2J\n")
    native()


def traced():
    """A debugger, at once: each signal is passed on."""
    ready, done = os.pipe()
    parent = os.getpid()
    if os.fork() == 0:
        LIBC.ptrace(PTRACE_SEIZE, parent, None, None)
        os.write(done, b"1")
        while os.WIFSTOPPED(os.waitpid(parent, WALL)[1]):
            LIBC.ptrace(PTRACE_CONT, parent, None, ctypes.c_long(signal.SIGSEGV))
        os._exit(0)
    os.read(ready, 1)
    crash_by_address()


class CrashesWhenCollected:
    def __del__(self, crash=crash_by_address):
        crash()


def finalising():
    sys.kept_to_the_end = CrashesWhenCollected()


def two_threads():
    barrier = threading.Barrier(2)

    def crash():
        barrier.wait()
        crash_by_address()
    threads = [threading.Thread(target=crash) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def child():
    pid = os.fork()
    if pid == 0:
        native()
    _, status = os.waitpid(pid, 0)
    sys.exit(0 if os.WIFSIGNALED(status) else 1)


def child_in_namespace():
    LIBC.unshare(CLONE_NEWPID)  # root alone may; the child's own numbers then mean others outside
    child()


def await_go():
    os.read(0, 1)


def after_go():
    await_go()
    crash_by_address()


def leave_child():
    await_go()
    if os.fork() == 0:
        announce()
        while os.read(0, 1):
            pass
        os._exit(0)


announce()
globals()[sys.argv[1]]()
