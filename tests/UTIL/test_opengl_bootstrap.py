"""The OpenGL probe against real X servers, asked by a client process that may die without harm.

Usage: test_opengl_bootstrap.py CLIENT PROBE-FOLDER
"""

import os
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system"))
from xserver import start_x_server  # noqa: E402

CLIENT, PROBE_FOLDER = map(os.path.abspath, (sys.argv.pop(1), sys.argv.pop(1)))
SCREEN = ("-screen", "0", "640x480x24")
INDIRECT = {"LIBGL_ALWAYS_INDIRECT": "1"}
NO_DISPLAY = "unusable: Could not connect to X display"
NO_VISUAL = "unusable: Could not find suitable X visual"


def write_authority(path, cookie):
    """One entry: the address family that stands for any, then fields behind their lengths."""
    with open(path, "wb") as file:
        file.write(b"\xff\xff")
        for field in (b"", b"", b"MIT-MAGIC-COOKIE-1", cookie):
            file.write(struct.pack(">H", len(field)) + field)


class OpenGLBootstrap(unittest.TestCase):
    def setUp(self):
        self.companions = set()  # start_x_server notes its server here
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.right, self.wrong, self.folder = (
            os.path.join(scratch.name, name) for name in ("right", "wrong", ""))
        write_authority(self.right, b"0123456789abcdef")
        write_authority(self.wrong, b"0123456789abcde!")

    def outcome(self, display=None, *argument, **environment):
        """What the call says, having given back the error handler and its connection."""
        environment = {"LD_LIBRARY_PATH": PROBE_FOLDER, "XAUTHORITY": self.right,
                       # Faults of the GL library itself are not looked for: it keeps memory to the
                       # end, and reads a text of the server past its end in an indirect context.
                       "ASAN_OPTIONS": "detect_leaks=0:replace_str=0", **environment}
        if display is not None:
            environment["DISPLAY"] = display
        done = subprocess.run([CLIENT, *argument], env=environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, timeout=60)
        return done.stdout.decode().rstrip("\n").replace(", handler back, 0 left", "")

    def server(self, *options):
        return start_x_server(self, "-auth", self.right, *options)

    def test_how_far_a_server_lets_the_client_come(self):
        good, indirect = self.server(*SCREEN), self.server(*SCREEN, "+iglx")
        without_glx = self.server(*SCREEN, "-extension", "GLX")
        without_alpha = self.server("-screen", "0", "640x480x16", "-extension", "COMPOSITE")
        table = (  # display, what the client's environment has besides, outcome
            (good, {}, "usable: "),
            # The server makes no indirect contexts, and the client must not ask for direct ones.
            (good, INDIRECT, "unusable: glXCreateContext failed"),
            (indirect, INDIRECT, "usable: "),
            (good, {"XAUTHORITY": self.wrong}, NO_DISPLAY),
            (without_glx, {}, NO_VISUAL),
            (without_alpha, {}, NO_VISUAL),
            (None, {}, NO_DISPLAY),
            (":65000", {}, NO_DISPLAY),
        )
        for display, environment, outcome in table:
            with self.subTest(outcome, environment=environment):
                self.assertEqual(self.outcome(display, **environment), outcome)
                if display in (good, indirect):
                    self.assertEqual(self.outcome(display, "null", **environment),
                                     outcome.split(":")[0] + ": left from before")
        # What a sound server doesn't refuse.
        for call in ("XCreateColormap", "XCreateWindow", "glXMakeCurrent"):
            self.assertEqual(self.outcome(good, call), f"unusable: {call} failed")
        self.assertEqual(self.outcome(good, "XError"),
                         "unusable: X error 3 - BadWindow (invalid Window parameter)")

    def test_library_that_cannot_be_loaded_is_the_reason(self):
        self.assertEqual(self.outcome(LD_LIBRARY_PATH=""), (
            "unusable: libTavrelOpenGLProbe.so: cannot open shared object file: No such file or "
            "directory"))
        broken = self.folder + "libGL.so.1"
        open(broken, "w").close()
        self.assertEqual(self.outcome(LD_LIBRARY_PATH=self.folder + ":" + PROBE_FOLDER),
                         "unusable: %s: file too short" % broken)


if __name__ == "__main__":
    unittest.main()
