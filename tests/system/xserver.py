"""An X server of a test's own, on a display number that the server picks."""

import os
import select
import shutil
import subprocess
import tempfile

import process_table


def start_x_server(test, *options):
    """Starts Xvfb and returns its DISPLAY; it ends with the test."""
    if shutil.which("Xvfb") is None:
        test.skipTest("Xvfb is not installed (Debian package xvfb)")
    read_end, write_end = os.pipe()
    logs = tempfile.TemporaryFile()
    server = subprocess.Popen(
        ["Xvfb", "-noreset", "-nolisten", "tcp", "-displayfd", str(write_end), *options],
        pass_fds=[write_end], stdin=subprocess.DEVNULL, stdout=logs, stderr=logs,
        preexec_fn=process_table.end_with_parent)
    test.companions.add(server.pid)
    test.addCleanup(logs.close)
    test.addCleanup(test.companions.discard, server.pid)
    test.addCleanup(server.wait)
    test.addCleanup(server.terminate)
    os.close(write_end)
    with os.fdopen(read_end) as number:
        is_there, _, _ = select.select([number], [], [], 25)
        line = number.readline().strip() if is_there else ""
    if not line:
        logs.seek(0)
        raise AssertionError("Xvfb named no display: " + logs.read().decode(errors="replace"))
    return ":" + line
