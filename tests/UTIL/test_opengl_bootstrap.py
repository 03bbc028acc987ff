"""The OpenGL probe against real X servers, asked by a client process that may die without harm.

Usage: test_opengl_bootstrap.py CLIENT PROBE-FOLDER
"""

import os
import subprocess
import sys
import unittest

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../system"))
from xserver import start_x_server  # noqa: E402

CLIENT, PROBE_FOLDER = map(os.path.abspath, (sys.argv.pop(1), sys.argv.pop(1)))
SCREEN = ("-screen", "0", "640x480x24")
INDIRECT = {"LIBGL_ALWAYS_INDIRECT": "1"}
NO_DISPLAY = "unusable: Could not connect to X display"
NO_VISUAL = "unusable: Could not find suitable X visual"


class OpenGLBootstrap(unittest.TestCase):
    def setUp(self):
        self.companions = set()  # start_x_server notes its server here

    def outcome(self, display=None, *argument, **environment):
        """What the call says, having given back the error handler and its connection."""
        environment = {"LD_LIBRARY_PATH": PROBE_FOLDER,
                       # Faults of the GL library itself are not looked for: it keeps memory to the
                       # end, and reads a text of the server past its end in an indirect context.
                       "ASAN_OPTIONS": "detect_leaks=0:replace_str=0", **environment}
        if display is not None:
            environment["DISPLAY"] = display
        done = subprocess.run([CLIENT, *argument], env=environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, timeout=25)
        return done.stdout.decode().rstrip("\n").replace(", handler back, 0 left", "")

    def test_how_far_a_server_lets_the_client_come(self):
        good, indirect, without_glx = (start_x_server(self, *SCREEN, *options) for options in (
            (), ("+iglx",), ("-extension", "GLX")))
        table = (  # display, what the client's environment has besides, outcome
            (good, {}, "usable: "),
            # The server makes no indirect contexts, and the client must not ask for direct ones.
            (good, INDIRECT, "unusable: glXCreateContext failed"),
            (indirect, INDIRECT, "usable: "),
            (without_glx, {}, NO_VISUAL),
            (None, {}, NO_DISPLAY),
            (":65000", {}, NO_DISPLAY),
        )
        for display, environment, outcome in table:
            with self.subTest(outcome, environment=environment):
                self.assertEqual(self.outcome(display, **environment), outcome)
                if display in (good, indirect):
                    self.assertEqual(self.outcome(display, "null", **environment),
                                     outcome.split(":")[0] + ": left from before")
        # What a sound server doesn't refuse. RGBA, double buffer, the four channels, depth, stencil.
        for call in ("XCreateColormap", "XCreateWindow", "glXMakeCurrent"):
            self.assertEqual(self.outcome(good, call), f"unusable: {call} failed")
        for attribute in "4", "5", "8=8", "9=8", "10=8", "11=8", "12=16", "13=8":
            self.assertEqual(self.outcome(good, attribute), NO_VISUAL, attribute)
        self.assertEqual(self.outcome(good, "XError"),
                         "unusable: X error 3 - BadWindow (invalid Window parameter)")

    def test_library_that_cannot_be_loaded_is_the_reason(self):
        self.assertEqual(self.outcome(LD_LIBRARY_PATH=""), (
            "unusable: libTavrelOpenGLProbe.so: cannot open shared object file: No such file or "
            "directory"))


if __name__ == "__main__":
    unittest.main()
