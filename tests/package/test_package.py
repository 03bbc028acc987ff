"""Installs the built tree, runs it read-only, and checks it as a package is checked. Each check is
shown one fault of its kind in a copy, so that none of them passes everything."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ["TAVREL_SOURCE"]
sys.path.insert(0, os.path.join(SOURCE, "scripts"))
import check_package

IS_RELEASE = os.environ["TAVREL_BUILD_TYPE"] == "Release" and not os.environ["TAVREL_SANITIZER"]
NOBODY = 65534


def run(*words, **options):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          universal_newlines=True, check=False, **options)


def become_nobody():
    if os.getuid() == 0:
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.scratch)
        os.chmod(cls.scratch, 0o755)
        cls.prefix = os.path.join(cls.scratch, "ein Ordner für tavrel")
        installed = run(os.environ["TAVREL_CMAKE"], "--install", os.environ["TAVREL_BUILD"],
                        "--prefix", cls.prefix, preexec_fn=lambda: os.umask(0o077))
        if installed.returncode != 0:
            raise AssertionError(installed.stdout)
        os.chmod(cls.prefix, 0o755)

    @unittest.skipUnless(IS_RELEASE, "only the release build is meant to be packaged")
    def test_nothing_to_object_to(self):
        places = [SOURCE, os.environ["TAVREL_BUILD"]]
        package = check_package.Package(self.prefix)
        self.assertEqual(list(check_package.faults(package, places=places)), [])

    @unittest.skipIf(os.environ["TAVREL_SANITIZER"], "the sanitizers' libraries are elsewhere")
    def test_runs_in_every_mode_without_display_for_a_user_who_may_only_read(self):
        script = os.path.join(SOURCE, "scripts/try_modes.sh")
        run("chmod", "-R", "a-w", self.prefix)
        try:
            with open(script) as text:
                ended = run("sh", "-s", os.path.join(self.prefix, "bin/tavrel"), input=text.read(),
                            cwd="/", env={"PATH": "/usr/bin:/bin"}, preexec_fn=become_nobody)
        finally:
            run("chmod", "-R", "u+w", self.prefix)
        self.assertEqual(ended.returncode, 0, ended.stdout)

    def test_desktop_entry_is_valid(self):
        checked = run("desktop-file-validate", os.path.join(SOURCE, "packaging/tavrel.desktop"))
        self.assertEqual((checked.returncode, checked.stdout), (0, ""))


class FaultyPackage(unittest.TestCase):
    """A package of a few files around one real object."""

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        built = os.path.join(os.environ["TAVREL_BUILD"], "tree/bin")
        os.makedirs(self.at("bin"))
        for name in ("tavrel", "libZkPlexumSDK.so"):
            shutil.copy(os.path.join(built, name), self.at("bin"))
            run("strip", "--strip-debug", self.at("bin/" + name))
        self.depends = None
        self.object = self.at("bin/tavrel")

    def at(self, path):
        return os.path.join(self.folder, path)

    def write(self, path, content, mode=0o644):
        os.makedirs(os.path.dirname(self.at(path)), exist_ok=True)
        with open(self.at(path), "wb") as file:
            file.write(content)
        os.chmod(self.at(path), mode)

    def patch(self, run_path):
        patched = run("patchelf", "--set-rpath", run_path, self.object)
        self.assertEqual(patched.returncode, 0, patched.stdout)

    def add_compressed_debug_section(self):
        added = run("objcopy", "--add-section", ".zdebug_info=/etc/hostname", self.object)
        self.assertEqual(added.returncode, 0, added.stdout)

    def test_each_fault_is_found(self):
        byte_code = "bin/python/__pycache__/m.cpython-37.pyc"
        run_paths, modes = check_package.bad_run_paths, check_package.bad_modes
        depends = "libc6 (>= 2.36), libstdc++6-dev | libgcc-s1"
        cases = (
            (run_paths, lambda: self.patch("$ORIGIN:/opt/lib"), "'/opt/lib' is absolute"),
            (run_paths, lambda: self.patch("$ORIGIN:"), "an empty entry"),
            (run_paths, lambda: self.patch("lib"), "'lib' is relative"),
            (run_paths, lambda: self.patch("$ORIGINAL"), "'$ORIGINAL' is relative"),
            (run_paths, lambda: self.patch("$ORIGIN/../.."), "leads out of the tree"),
            (lambda package: check_package.unmet_needs(package, None),
             lambda: os.unlink(self.at("bin/libZkPlexumSDK.so")),
             "needs libZkPlexumSDK.so: neither in the tree nor in a package"),
            (lambda package: check_package.unmet_needs(package, self.depends),
             lambda: setattr(self, "depends", depends),
             "libstdc++6, which is not declared"),
            (self.traces, lambda: self.write("bin/a", b"\0/build/here/a.cpp\0"),
             "bin/a names /build/here"),
            (self.traces, lambda: self.write("bin/a", b"/home/me/x"), "bin/a names /home/me"),
            (self.traces, self.add_compressed_debug_section, "tavrel carries debug information"),
            (modes, lambda: self.write("bin/a", b"", 0o666), "bin/a has mode 0666"),
            (modes, lambda: os.chmod(self.at("bin"), 0o777), "bin has mode 0777"),
            (modes, lambda: os.chmod(self.object, 0o644), "bin/tavrel is not executable"),
            (modes, lambda: os.symlink("/etc/hosts", self.at("bin/l")),
             "bin/l is a link to /etc/hosts"),
            (modes, lambda: os.symlink("gone", self.at("bin/l")), "bin/l is a link to gone"),
            (check_package.uncompiled_modules, lambda: self.write("bin/python/m.py", b""),
             "bin/python/m.py is not compiled"),
            (check_package.uncompiled_modules,
             lambda: (self.write("bin/python/m.py", b""), self.write(byte_code, bytes(16))),
             byte_code + " holds a time"),
            (check_package.missing_files, lambda: os.unlink(self.object), "bin/tavrel is missing"),
        )
        for check, spoil, fault in cases:
            with self.subTest(fault=fault):
                self.setUp()
                self.assertNotIn(fault, self.found_by(check))
                spoil()
                self.assertIn(fault, self.found_by(check))

    def found_by(self, check):
        return "\n".join(check(check_package.Package(self.folder)))

    def traces(self, package):
        return check_package.traces_of_the_build(package, ["/build/here"], "/home/me")


if __name__ == "__main__":
    unittest.main()
