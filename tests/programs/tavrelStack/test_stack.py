"""tavrelStack from outside, on processes of the interpreter that the tree carries."""
import ctypes
import math
import os
import re
import signal
import struct
import subprocess
import tempfile
import time
import unittest

STACK = os.environ["TAVREL_STACK"]
NOBODY = 65534
PTRACE_SEIZE = 0x4206
LIBC = ctypes.CDLL(None)
LIBC.sigqueue.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_void_p]


def look(*arguments, **options):
    """Exit status, standard output, standard error."""
    ended = subprocess.run([STACK, *map(str, arguments)], capture_output=True, text=True, timeout=25,
                           **options)
    return ended.returncode, ended.stdout, ended.stderr


def held_ms(text):
    return float(re.search(r"held for ([\d.]+) ms", text).group(1))


def state_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return re.search(r"State:\s(\S)", file.read()).group(1)


def await_that(holds, what):
    deadline = time.monotonic() + 25
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError(f"after 25 s {what}")
        os.sched_yield()


def await_state(pid, letter):
    await_that(lambda: state_of(pid) == letter, f"process {pid} isn't in state {letter}")


def await_read(pid):
    """Until the first thread waits for standard input."""
    def reads():
        with open(f"/proc/{pid}/syscall") as file:
            return file.read().startswith("0 0x0 ")
    await_that(reads, f"process {pid} doesn't read")


class StackCase(unittest.TestCase):
    def start(self, *command):
        """The process, once it has written its first line."""
        process = subprocess.Popen(command, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        process.first_line = process.stdout.readline()
        return process

    def run_script(self, script):
        return self.start(os.environ["PYTHON37"], "-u", "-c", script)

    def stacks(self, *arguments, longest_hold_ms=None):
        """What is shown of a process that can be stopped, once a busy machine lets it be in time."""
        while True:
            status, output, errors = look(*arguments)
            self.assertEqual((status, errors), (0, ""))
            if "can't be stopped" not in output and held_ms(output) < (longest_hold_ms or math.inf):
                return output


class RunningProcess(StackCase):
    def test_shows_every_thread_native_and_python(self):
        process = self.run_script("""
import threading
ready, end = threading.Barrier(51), threading.Event()
def work(depth):
    if depth:
        return work(depth - 1)
    ready.wait()
    end.wait()
for i in range(50):
    threading.Thread(target=work, args=(10,), daemon=True).start()
ready.wait()
print('ready')
input()
""")
        await_read(process.pid)
        output = self.stacks(process.pid, longest_hold_ms=1000)
        threads = output.split("\nThread ")[1:]
        self.assertEqual(len(threads), 51)
        # Ten calls each, of which a recursion's like lines are counted from the third on.
        self.assertEqual((output.count("<string>:6 in work"), output.count("(7 more times)")), (150, 50))
        self.assertRegex(threads[0], r"(?s)libc.so.6 .*<string>:1[23] in <module>.*_start")
        self.assertGreater(self.stacks("--all-frames", process.pid).count("_PyEval_EvalFrameDefault"), 500)

    def test_loses_no_signal(self):
        # Of those that queue, the C handler notes each in the pipe.
        process = self.run_script("""
import os, signal, threading
read_end, write_end = os.pipe()
os.set_blocking(write_end, False)
signal.signal(signal.SIGRTMIN, lambda *_: None)
signal.set_wakeup_fd(write_end)
for i in range(199):
    threading.Thread(target=threading.Event().wait, daemon=True).start()
print('ready')
wanted = int(input())
while wanted:
    wanted -= len(os.read(read_end, wanted))
print('all')
""")
        looks = "for i in 1 2 3 4 5 6 7 8 9 10; do \"$@\" || exit; done"
        looking = subprocess.Popen(["sh", "-c", looks, "-", STACK, str(process.pid)], stdout=subprocess.DEVNULL)
        sent = 0
        while looking.poll() is None and sent < 60000:  # the pipe holds as many
            # Not kill(), which drops without a word what finds as many waiting as can.
            if LIBC.sigqueue(process.pid, signal.SIGRTMIN, None) == 0:
                sent += 1
            else:
                os.sched_yield()
        self.assertEqual(looking.wait(), 0)
        self.assertEqual(process.communicate(f"{sent}\n", timeout=25), ("all\n", None))

    def test_leaves_a_stopped_process_stopped(self):
        process = self.run_script("print('ready')\nimport time\ntime.sleep(100)")
        process.send_signal(signal.SIGSTOP)
        await_state(process.pid, "T")
        self.assertIn("in <module>", self.stacks(process.pid))
        await_state(process.pid, "T")  # it gets there by itself, once it has a processor

    def test_shows_a_forked_child_and_a_process_without_python(self):
        process = self.run_script("""
import os, threading
threading.Thread(target=lambda: os.read(0, 1), daemon=True).start()
def forked():
    print(os.getpid())
    os.read(0, 1)
if os.fork() == 0:
    forked()
os.read(0, 1)
""")
        child = self.stacks(int(process.first_line))
        self.assertIn(" in forked\n", child)
        self.assertEqual(child.count("Thread "), 1)
        other = subprocess.Popen(["cat"], stdin=subprocess.PIPE)
        self.addCleanup(other.communicate)
        await_read(other.pid)
        self.assertRegex(self.stacks(other.pid), r"(?s)libc.so.6  read .*__libc_start_main")


class Refusal(StackCase):
    def short_dump(self):
        """The header of a minidump with one stream, which isn't there."""
        with tempfile.NamedTemporaryFile(delete=False) as file:
            file.write(struct.pack("<4sIIIIIQ", b"MDMP", 0xA793, 1, 32, 0, 0, 0) + bytes(12))
        self.dump = file.name
        self.addCleanup(os.unlink, self.dump)
        return self.dump

    def test_says_in_one_line_why_not(self):
        zombie = subprocess.Popen(["true"])
        self.addCleanup(zombie.wait)
        await_state(zombie.pid, "Z")
        traced = self.run_script("print('ready')\ninput()")
        ptrace = LIBC.ptrace
        ptrace.argtypes = [ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p]
        self.assertEqual(ptrace(PTRACE_SEIZE, traced.pid, None, None), 0)
        cases = [((), 2, "wants one argument, a process id or the file of a dump"),
                 (("1", "2"), 2, "wants one argument, a process id or the file of a dump"),
                 (("--bogus", "1"), 2, "unrecognised option '--bogus'"),
                 (("0",), 2, "'0' is not the id of a process"),
                 (("9" * 30,), 2, f"'{'9' * 30}' is not the id of a process"),
                 ((2 ** 22 + 1,), 1, f"process {2 ** 22 + 1} doesn't exist"),
                 ((zombie.pid,), 1, f"process {zombie.pid} has ended"),
                 ((traced.pid,), 1, f"process {traced.pid} is being traced by process {os.getpid()}"),
                 (("/nowhere/a.dmp",), 1, "'/nowhere/a.dmp' can't be opened: No such file or directory"),
                 ((__file__,), 1, f"'{__file__}' is no minidump"),
                 (("/",), 1, "'/' is no minidump"),
                 ((self.short_dump(),), 1, f"'{self.dump}' holds no thread: it is not whole")]
        if os.getuid() == 0:
            cases.append((("1",), 1, "process 1 belongs to another user: "
                          "only that user and root may look at it", {"user": NOBODY}))
        for arguments, status, line, *options in cases:
            with self.subTest(arguments):
                ended = look(*arguments, **(options[0] if options else {}))
                hint = "; tavrelStack --help lists the options" if status == 2 else ""
                self.assertEqual(ended, (status, "", f"tavrelStack: {line}{hint}\n"))

    def test_answers_for_itself(self):
        self.assertEqual(look("--help")[0], 0)
        self.assertRegex(look("--version")[1], r"^tavrelStack \d+\.\d+v\d+\n$")
        with open("/dev/full", "w") as full:
            ended = subprocess.run([STACK, str(os.getpid())], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual((ended.returncode, ended.stderr),
                         (1, b"tavrelStack: the output could not be written\n"))


if __name__ == "__main__":
    unittest.main()
