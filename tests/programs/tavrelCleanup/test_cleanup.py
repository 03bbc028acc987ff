"""tavrelCleanup from outside. Nothing here names a folder outside the test's own scratch folder."""
import concurrent.futures
import contextlib
import ctypes
import itertools
import os
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import unittest.mock

SYS_NAME_TO_HANDLE_AT, SYS_PIDFD_OPEN, SYS_OPENAT2 = 303, 434, 437
HOOKED = {"LD_PRELOAD": os.environ["TAVREL_PRELOAD"], "ASAN_OPTIONS": "verify_asan_link_order=0"}
NOBODY = 65534
TESTER = os.getuid() or NOBODY  # without the rights of root
# In memory where possible: a disk takes a minute for the deepest tree.
SCRATCH_BASE = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
LIBC = ctypes.CDLL(None, use_errno=True)


def forbid_calls(error, *more):
    """Lets the newer system calls fail in this process, as on an old kernel (ENOSYS) or in a sandbox."""
    def step(code, jump_true, jump_false, k):
        return struct.pack("=HBBI", code, jump_true, jump_false, k)
    calls = (SYS_PIDFD_OPEN, SYS_OPENAT2, *more)
    matches = [step(0x15, len(calls) - i, 0, call) for i, call in enumerate(calls)]
    program = b"".join([step(0x20, 0, 0, 0), *matches, step(0x06, 0, 0, 0x7FFF0000),
                        step(0x06, 0, 0, 0x00050000 | error)])
    text = ctypes.create_string_buffer(program, len(program))
    header = struct.pack("@HP", len(program) // 8, ctypes.addressof(text))
    no_new_privileges, seccomp, filter_mode = 38, 22, 2
    assert LIBC.prctl(no_new_privileges, 1, 0, 0, 0) == 0
    assert LIBC.prctl(seccomp, filter_mode, header, 0, 0) == 0


KERNELS = {"current": None, "ENOSYS": lambda: forbid_calls(38),
           "EPERM": lambda: forbid_calls(1, SYS_NAME_TO_HANDLE_AT)}


def write(path):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write("kept")


def drop_privileges():
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)


CAN_MOUNT = subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL).returncode == 0


def await_state(process, letter, executable):
    """Until the process runs its program and is in the state, as /proc/PID/stat gives it."""
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline and process.poll() is None:
        with open(f"/proc/{process.pid}/stat") as file:
            state = file.read().rsplit(")", 1)[1].split()[0]
        if state == letter and os.path.samefile(f"/proc/{process.pid}/exe", executable):
            return
        os.sched_yield()
    raise AssertionError(f"process {process.pid} is not in state {letter}")


class CleanupCase(unittest.TestCase):
    scratch_base = SCRATCH_BASE

    def setUp(self):
        self.scratch = os.path.realpath(tempfile.mkdtemp(dir=self.scratch_base))
        # A tree may be deeper than what Python's own removal can walk.
        self.addCleanup(subprocess.run, ["rm", "-rf", self.scratch], check=True)
        os.chmod(self.scratch, 0o755)
        # A copy stands in an install tree that may be put at risk, and where other users reach it.
        self.program = self.path("root/bin/tavrelCleanup")
        os.makedirs(self.path("root/bin"))
        shutil.copy(os.environ["TAVREL_CLEANUP"], self.program)
        self.tree = self.path("tree")
        write(self.path("outside/file"))
        # Dead, but not reaped before the end, so that nobody else gets its id.
        dead = subprocess.Popen(["true"])
        self.addCleanup(dead.wait)
        os.waitid(os.P_PID, dead.pid, os.WEXITED | os.WNOWAIT)
        self.dead_pid = str(dead.pid)

    def path(self, name):
        return os.path.join(self.scratch, name)

    def delete(self, path, home=None, prefix=(), **options):
        """Status and standard error of a run whose process to wait for has ended."""
        environment = dict(os.environ, HOME=home or self.path("home"))
        result = subprocess.run([*prefix, self.program, self.dead_pid, path], env=environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=20, **options)
        self.assertTrue(os.path.exists(self.path("outside/file")))
        return result.returncode, result.stderr.decode(errors="replace")

    def assert_one_line(self, text, *parts):
        self.assertRegex(text, r"\AtavrelCleanup: [^\n]*\n\Z")
        for part in parts:
            self.assertIn(part, text)


class CleanupTest(CleanupCase):
    def fill_with_oddities(self):
        tree = os.fsencode(self.tree)
        for folder in (b"plain/a/b", b"closed/in", b"unreadable/in", b"unsearchable/in", b"sealed/in", b"/d" * 40):
            os.makedirs(tree + b"/" + folder)
            write(tree + b"/" + folder + b"/file")
        for name in (b"\xff\xfe", b"\n\t\x01", b"-rf *", b"n" * 255, b" ", b"..."):
            write(tree + b"/names" + name[:3] + b"/" + name)
        os.mkfifo(tree + b"/fifo")
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(tree + b"/socket")
        os.symlink(self.path("outside"), tree + b"/link to a folder")
        os.symlink(self.path("outside/file"), tree + b"/link to a file")
        os.symlink("nowhere", tree + b"/plain/dangling")
        if os.getuid() == 0:
            for folder, folders, files in os.walk(tree):
                for name in [folder] + [os.path.join(folder, n) for n in folders + files]:
                    os.chown(name, NOBODY, NOBODY, follow_symlinks=False)
            os.chown(self.scratch, NOBODY, NOBODY)
        # Deep enough to be moved up, which needs the right to write in each of the folders involved.
        for depth in range(40, 28, -1):
            os.chmod(tree + b"/d" * depth, 0)
        for name, mode in ((b"/closed", 0), (b"/unreadable", 0o300), (b"/unsearchable", 0o400),
                           (b"/sealed/in", 0o500), (b"/sealed", 0o500), (b"", 0)):
            os.chmod(tree + name, mode)

    def test_everything_in_a_tree_goes_and_nothing_else(self):
        for kernel, prepare in [*KERNELS.items(), ("no types", None)]:
            changes = dict(HOOKED, NO_TYPES="1") if kernel == "no types" else {}
            with self.subTest(kernel=kernel), unittest.mock.patch.dict(os.environ, changes):
                self.fill_with_oddities()
                status = self.delete(self.tree, preexec_fn=lambda: (drop_privileges(), prepare and prepare()))
                self.assertEqual(status, (0, ""))
                self.assertFalse(os.path.lexists(self.tree))

    def test_what_stands_there_is_gone_already_or_no_folder(self):
        os.symlink("outside", self.path("link"))
        os.symlink("nowhere", self.path("dangling"))
        os.mkfifo(self.path("fifo"))
        for name in ("nowhere", "nowhere/deeper", "outside/file/deeper"):
            with self.subTest(name):
                self.assertEqual(self.delete(self.path(name)), (0, ""))
        for name in ("link", "link/", "dangling", "fifo", "outside/file"):
            with self.subTest(name):
                status, text = self.delete(self.path(name))
                self.assertEqual(status, 1)
                self.assert_one_line(text, name, "it is not a folder")
                self.assertTrue(os.path.lexists(self.path(name.rstrip("/"))))

    def test_home_and_install_tree_are_refused(self):
        home = self.path("users/me")
        write(home + "/.profile")
        scratch_name = os.path.basename(self.scratch)
        os.symlink("users/me", self.path("home link"))
        os.symlink("users", self.path("users link"))
        for target, home_variable in (("users/me", home), ("users/me/", home), ("users", home),
                                      ("users link/me", home), ("users/me", self.path("home link")),
                                      ("users", home + "/gone/since"), ("users/../users/me", home),
                                      ("root", home), ("root/bin", home), ("root/../../" + scratch_name, home),
                                      ("root/bin/python/Main", home), ("root/plugins", home),
                                      ("root/plugins/Resources", home)):
            with self.subTest(target=target, home=home_variable):
                os.makedirs(self.path(target), exist_ok=True)
                status, text = self.delete(self.path(target), home_variable)
                self.assertEqual(status, 2)
                self.assert_one_line(text, "refuses")
                self.assertTrue(os.path.exists(home + "/.profile") and os.path.exists(self.program))
        # Nor does another one in the environment take the protection from the one of the data base.
        for target in ("users/me", "users"):
            with unittest.mock.patch.dict(os.environ, dict(HOOKED, DATABASE_HOME=home)):
                self.assertEqual(self.delete(self.path(target), self.path("outside"))[0], 2)
        # Nor does a home that can't be left upward hide what holds it.
        subprocess.run(["chown", "-R", str(TESTER), self.path("users")], check=True)
        os.chmod(home, 0)
        self.assertEqual(self.delete(self.path("users"), home, preexec_fn=drop_privileges)[0], 2)
        os.chmod(home, 0o700)
        # Only what holds them is protected: neither what they hold, nor what begins with their name.
        for target in ("users/me/tmp", "users/mean", "root/tmp"):
            write(self.path(target + "/file"))
            self.assertEqual(self.delete(self.path(target), home), (0, ""), target)

    def test_deletes_only_after_the_process_has_ended(self):
        rename_itself = "open('/proc/self/comm','w').write('a) Z 1 (b');print(flush=True);open(0).read()"
        for kernel, prepare in KERNELS.items():
            for relative in (False, True):
                with self.subTest(kernel=kernel, relative=relative):
                    write(self.tree + "/file")
                    launcher = subprocess.Popen([sys.executable, "-Sc", rename_itself], cwd=self.scratch,
                                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                    launcher.stdout.readline()
                    argument = "root/../tree" if relative else self.tree
                    cleanup = subprocess.Popen([self.program, str(launcher.pid), argument], cwd="/",
                                               env={"HOME": self.path("home")}, preexec_fn=prepare)
                    await_state(cleanup, "S", self.program)
                    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
                        cleanup.send_signal(number)
                    await_state(cleanup, "S", self.program)
                    self.assertTrue(os.path.exists(self.tree + "/file"))
                    launcher.stdin.close()
                    # Not reaped yet: a zombie has ended.
                    self.assertEqual(cleanup.wait(20), 0)
                    self.assertFalse(os.path.exists(self.tree))
                    launcher.stdout.close()
                    launcher.wait()

    def test_folder_of_another_living_launcher_is_left_to_its_own_cleanup(self):
        launcher, other = self.path("root/bin/tavrel"), self.path("root/bin/other")
        for program in (launcher, other):
            shutil.copy("/bin/cat", program)
            with subprocess.Popen([program], stdin=subprocess.PIPE) as owner:
                await_state(owner, "S", program)
                tree = self.path(f"tavrel_tmpdir_{owner.pid}")
                for _ in range(2):
                    write(tree + "/file")
                    status, text = self.delete(tree)
                    self.assertEqual((status, os.path.exists(tree)), (1, True) if program == launcher else (0, False))
                    if status:
                        self.assert_one_line(text, f"belongs to process {owner.pid}, which is still running")
                    os.unlink(program)  # as an upgrade does
                    shutil.copy("/bin/cat", program)
        self.dead_pid, dead_owner = str(2**31 - 1), self.dead_pid
        write(self.path(f"tavrel_tmpdir_{dead_owner}/file"))
        self.assertEqual(self.delete(self.path(f"tavrel_tmpdir_{dead_owner}")), (0, ""))

    def test_bad_arguments_are_refused_in_one_line(self):
        table = [[], ["1"], ["1", "/a", "b"]]
        table += [[pid, "/a"] for pid in ("", "0", "-1", "+1", " 1", "1 ", "1x", "0x1", "2147483648", "9" * 20)]
        table += [["1", path] for path in ("", "/", "///", ".", "..", "/.", "/a/.", "a/../", "/a/..//")]
        for words in table:
            with self.subTest(words=words):
                result = subprocess.run([self.program, *words], stderr=subprocess.PIPE, timeout=20)
                self.assertEqual(result.returncode, 2)
                self.assert_one_line(result.stderr.decode())

    @unittest.skipIf(os.environ.get("TAVREL_SANITIZER"), "a sanitizer takes more memory and descriptors")
    def test_depth_and_width_cost_neither_memory_nor_descriptors(self):
        def build_deep(levels):
            here = os.open(self.tree, os.O_RDONLY)
            for _ in range(levels):
                os.close(os.open("file", os.O_CREAT, dir_fd=here))
                os.mkdir("deeper", dir_fd=here)
                above, here = here, os.open("deeper", os.O_RDONLY, dir_fd=here)
                os.close(above)
            os.close(here)

        def build_wide(folders, files):
            for i in range(folders * files):
                write(f"{self.tree}/{i % folders}/some file number {i}")

        for limit, build, sizes in ((64, build_deep, (25000,)), (10, build_deep, (300,)), (64, build_wide, (1, 5000)),
                                    (64, build_wide, (1000, 2))):
            with self.subTest(limit=limit, build=build.__name__, sizes=sizes):
                os.makedirs(self.tree)
                build(*sizes)

                def set_limits():
                    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
                    resource.setrlimit(resource.RLIMIT_DATA, (2 << 20, 2 << 20))
                self.assertEqual(self.delete(self.tree, preexec_fn=set_limits), (0, ""))
                self.assertFalse(os.path.exists(self.tree))

    def test_ends_although_others_go_on_writing(self):
        os.makedirs(self.tree)
        stop = threading.Event()

        def keep_writing():
            for number in itertools.takewhile(lambda _: not stop.is_set(), itertools.count()):
                folder = f"{self.tree}/{number % 50}"
                with contextlib.suppress(OSError):
                    os.mkdir(folder)
                    os.close(os.open(f"{folder}/{number}", os.O_CREAT))

        with concurrent.futures.ThreadPoolExecutor() as writers:
            for _ in range(2):
                writers.submit(keep_writing)
            try:
                status, text = self.delete(self.tree)
            finally:
                stop.set()
        self.assertEqual(status, 1 if os.path.exists(self.tree) else 0, text)

    def test_swap_before_a_folder_is_opened_leads_nowhere(self):
        # What is swapped just before tree/a/b is opened. What is moved in may go, and nothing beside it.
        swaps = (("tree/a/b", "link"), ("tree/a", "link"), ("tree/a", "strangers/a"))
        for (kernel, prepare), (inside, outside) in itertools.product(KERNELS.items(), swaps):
            with self.subTest(kernel=kernel, inside=inside, outside=outside):
                for name in ("tree/a/b/file", "strangers/a/b/file", "strangers/bystander"):
                    write(self.path(name))
                if not os.path.islink(self.path("link")):
                    shutil.rmtree(self.path("link"), ignore_errors=True)
                    os.symlink(self.path("outside"), self.path("link"))
                with unittest.mock.patch.dict(os.environ, dict(
                        HOOKED, SWAP_AT="b", SWAP_IN=self.path(inside), SWAP_OUT=self.path(outside))):
                    self.assertEqual(self.delete(self.tree, preexec_fn=prepare), (0, ""))
                self.assertFalse(os.path.lexists(self.tree))
                self.assertEqual(os.path.islink(self.path("link")), outside != "link")
                self.assertTrue(os.path.exists(self.path("strangers/bystander")))

    @unittest.skipUnless(os.getuid() == 0, "needs files of two users")
    def test_files_of_others_stay_and_are_reported_in_one_line(self):
        for i in range(40):
            write(f"{self.tree}/mine/{i}")
        for i in range(3):
            write(f"{self.tree}/mine/theirs\n/{i}")
        for folder in (self.scratch, self.tree, self.tree + "/mine"):
            os.chown(folder, NOBODY, NOBODY)
        status, text = self.delete(self.tree, preexec_fn=drop_privileges)
        self.assertEqual(status, 1)
        self.assert_one_line(text, "tree/mine/theirs?/", "Permission denied", "3 left in all")
        self.assertEqual(os.listdir(self.tree + "/mine"), ["theirs\n"])


class CleanupMountTest(CleanupCase):
    scratch_base = None  # /dev is covered here

    @unittest.skipUnless(CAN_MOUNT, "needs a mount namespace of its own")
    def test_mount_points_stay_and_the_system_log_says_so(self):
        for name in ("tree/tmpfs", "tree/bind", "dev"):
            os.makedirs(self.path(name))
        write(self.tree + "/more/file")
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.scratch)
        # Under the name of the system's log stands that of the test, for this one run.
        script = ('mount -t tmpfs none tree/tmpfs && mount --bind outside tree/bind && echo >tree/tmpfs/file && '
                  'mount --bind dev /dev && "$@"; status=$?; [ -e tree/tmpfs/file ] || status=9; exit $status')
        for (kernel, prepare), kind in zip(KERNELS.items(), (socket.SOCK_DGRAM, socket.SOCK_STREAM, socket.SOCK_DGRAM)):
            with self.subTest(kernel=kernel), contextlib.ExitStack() as stack:
                is_stream = kind == socket.SOCK_STREAM
                log = stack.enter_context(socket.socket(socket.AF_UNIX, kind))
                log.settimeout(20)
                log.bind("dev/log")
                if is_stream:
                    log.listen()
                status, text = self.delete(self.tree, prefix=("unshare", "--mount", "sh", "-c", script, "sh"),
                                           preexec_fn=prepare)
                os.unlink("dev/log")
                self.assertEqual(status, 1, text)
                self.assert_one_line(text, "It is on another file system", "2 left in all")
                taker = stack.enter_context(log.accept()[0]) if is_stream else log
                told = text[len("tavrelCleanup: "):-1] + "\0" * is_stream
                self.assertTrue(taker.recv(9000).decode().endswith(told))
        self.assertEqual(sorted(os.listdir(self.tree)), ["bind", "tmpfs"])


if __name__ == "__main__":
    unittest.main()
