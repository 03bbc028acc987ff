"""A facility's environment: files under the tree's own names in every place where a loader or an
interpreter may look, and values of the interpreter's variables."""

import json
import unittest

from launch import SystemTest
from test_python_layout import own_entries

# What stands in each place. Each module notes that it was loaded; no library is one.
LIBRARIES = ["libpython3.7m.so.1.0", "libZkPlexum3.so", "libZkConfiguration.so",
             "libTavrelOpenGLProbe.so"]
MODULES = ("encodings/__init__ codecs io abc site os threading logging/__init__ json/__init__ "
           "xml/__init__ MainOptions MainScript Nodes2DAPI ConfigurationAPI_cmodule "
           "RenderingAPI/__init__ TavrelVersion sitecustomize usercustomize").split()
NOTE = """import posix
note = posix.open({mark!r}, posix.O_WRONLY | posix.O_APPEND | posix.O_CREAT, 0o600)
posix.write(note, __name__.encode() + b"\\n")
posix.close(note)
"""
PROBE = """import sys, json, subprocess, RenderingAPI, TavrelVersion
with open("/proc/self/maps", errors="surrogateescape") as maps:
    mapped = sorted({line.split(None, 5)[5].rstrip() for line in maps if "/" in line})
child = subprocess.check_output([sys.executable, "-I", "-c", "import sys; print(sys.prefix)"])
environment = subprocess.check_output(["/usr/bin/env", "-0"]).decode(errors="surrogateescape")
print(json.dumps({"path": sys.path, "mapped": mapped, "child": child.decode().strip(),
                  "environment": dict(v.split("=", 1) for v in environment.split("\\0") if v)}))
"""
CUSTOMIZATION = {"sitecustomize", "usercustomize"}


class HostileEnvironmentTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.tree = self.scratch_tree(recorder=False)
        self.hostile = self.tree.folder / "hostile"
        self.mark = self.tree.folder / "mark"
        self.probe = self.tree.folder / "clean" / "probe.py"
        self.probe.parent.mkdir()
        self.probe.write_text(PROBE)

    def place(self, folder):
        for name in LIBRARIES + [f"{module}.py" for module in MODULES]:
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            (folder / name).write_text(NOTE.format(mark=str(self.mark)))  # not a library, either

    def places(self):
        """Name, folder of the files, environment, current folder, entries behind the tree's own,
        modules that run all the same."""
        hostile = str(self.hostile)
        site = "lib/python3.7/site-packages"
        clean = self.tree.folder
        (self.hostile / "bin").mkdir(parents=True)
        (self.hostile / "bin/tavrel").write_text("#!/bin/sh\n")
        (self.hostile / "bin/tavrel").chmod(0o755)
        (self.hostile / "pyvenv.cfg").write_text("include-system-site-packages = false\n")
        pythonpath = f"{hostile}::rel:/\udcff"
        return [
            ("LD_LIBRARY_PATH", "", {"LD_LIBRARY_PATH": f"{hostile}:"}, clean, [], set()),
            ("PYTHONHOME", "lib/python3.7", {"PYTHONHOME": hostile}, clean, [], set()),
            ("PYTHONPATH", "", {"PYTHONPATH": pythonpath}, clean,
             [hostile, str(clean), f"{clean}/rel", "/\udcff"], CUSTOMIZATION),
            ("current folder", "", {}, self.hostile, [], set()),
            ("user site folder", f".local/{site}", {"HOME": hostile}, clean,
             [f"{hostile}/.local/{site}"], CUSTOMIZATION),
            ("virtual environment", site, {"PATH": f"{hostile}/bin:/usr/bin:/bin"}, clean,
             [f"{hostile}/{site}"], {"sitecustomize"}),
        ]

    def test_nothing_stands_in_for_a_file_of_the_tree(self):
        for place, folder, env, cwd, entries, expected in self.places():
            self.place(self.hostile / folder)
            self.mark.write_text("")
            ended = self.run_launcher(self.tree, "--script", str(self.probe), env=env, cwd=cwd)
            with self.subTest(place):
                self.assertEqual(ended.status, 0, ended.err)
                self.assertEqual(set(self.mark.read_text().split()), expected)
                seen = json.loads(ended.out)
                self.assertFalse([path for path in seen["mapped"]
                                  if path.startswith(str(self.hostile))])
                self.assertLess({"libpython3.7m.so.1.0", "libZkPlexum3.so"},
                                {path.rpartition("/")[2] for path in seen["mapped"]})
                own = [str(self.probe.parent), *own_entries(self.tree.root)]
                usd = f"{self.tree.root}/plugins/Resources/Usd/lib/python"
                self.assertEqual(seen["path"], own + entries + [usd])
                self.assertEqual(seen["child"], f"{self.tree.bin}/python3.7")
                for name in ("LD_LIBRARY_PATH", "PYTHONHOME", "PYTHONPATH"):
                    self.assertEqual(seen["environment"].get(name), env.get(name))

    def test_site_code_and_its_programs_have_the_users_own_value(self):
        self.hostile.mkdir()
        (self.hostile / "sitecustomize.py").write_text("""if __import__("sys").prefix.endswith("3.7"):
    import os, subprocess
    os.environ["SEEN"] = subprocess.check_output("echo $PYTHONPATH", shell=True).decode()
    os.environ["PYTHONPATH"] += ":/changed"
""")
        self.probe.write_text("import os; print(os.environ['SEEN'], os.environ['PYTHONPATH'])")
        ended = self.run_launcher(self.tree, "--script", str(self.probe),
                                  env={"PYTHONPATH": str(self.hostile), "PYTHONMALLOC": "debug",
                                       "PYTHONINSPECT": "1"})
        self.assertEqual(ended.out.split(), [str(self.hostile), f"{self.hostile}:/changed"],
                         ended.err)


if __name__ == "__main__":
    unittest.main()
