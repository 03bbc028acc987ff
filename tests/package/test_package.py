"""Installs the built tree, runs it read-only, and checks it as a package is checked. Each check is
shown one fault of its kind in a copy, so that none of them passes everything."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ["TAVREL_SOURCE"]
sys.path.insert(0, os.path.join(SOURCE, "scripts/package"))
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
                        "--prefix", os.path.join(".", os.path.basename(cls.prefix)),
                        cwd=cls.scratch, preexec_fn=lambda: os.umask(0o077))
        if installed.returncode != 0:
            raise AssertionError(installed.stdout)
        os.chmod(cls.prefix, 0o755)

    @unittest.skipUnless(IS_RELEASE, "only the release build is meant to be packaged")
    def test_nothing_to_object_to(self):
        build = os.environ["TAVREL_BUILD"]
        package = check_package.Package(self.prefix, check_package.built_objects(build))
        self.assertEqual(list(check_package.faults(package, places=[SOURCE, build])), [])
        commands = check_package.compile_commands(build)
        self.assertEqual(list(check_package.unhardened_units(commands)), [])

    @unittest.skipIf(os.environ["TAVREL_SANITIZER"], "the sanitizers' libraries are elsewhere")
    def test_runs_in_every_mode_without_display_for_a_user_who_may_only_read(self):
        script = os.path.join(SOURCE, "scripts/package/try_modes.sh")
        run("chmod", "-R", "a-w", self.prefix)
        try:
            with open(script) as text:
                ended = run("sh", "-s", os.path.join(self.prefix, "bin/tavrel"), input=text.read(),
                            cwd="/", env={"PATH": "/usr/bin:/bin"}, preexec_fn=become_nobody)
        finally:
            run("chmod", "-R", "u+w", self.prefix)
        self.assertEqual(ended.returncode, 0, ended.stdout)


class FaultyPackage(unittest.TestCase):
    def test_a_unit_without_hardening_is_found(self):
        hardened = "cc " + " ".join(check_package.HARDENING)
        units = [{"file": "a.c", "command": hardened + " -o base/a.o"},
                 {"file": "b.c", "command": hardened.replace("2", "0") + " -o base/b.o"},
                 {"file": "c.c", "command": "cc -o tests/c.o"}]
        self.assertEqual(list(check_package.unhardened_units(units)),
                         ["b.c is compiled without -D_FORTIFY_SOURCE=2"])

    @unittest.skipUnless(IS_RELEASE, "other builds' objects have some of the faults")
    def test_each_fault_is_found(self):
        """In a package of two real objects, spoilt by a command."""
        unmet, traces = check_package.unmet_needs, check_package.traces_of_the_build
        compiled = "echo 'int main(void) { return 0; }' | cc -x c - -o bin/"
        pyc = "bin/python/__pycache__/n.cpython-37.pyc"
        cases = (
            (check_package.missing_files, "rm bin/tavrel", ["bin/tavrel is missing"]),
            (check_package.bad_run_paths,
             "patchelf --set-rpath '$ORIGIN:/opt/lib::lib:$ORIGINAL:$ORIGIN/../..' bin/tavrel",
             ["'/opt/lib' is absolute", "an empty entry", "'lib' is relative",
              "'$ORIGINAL' is relative", "'$ORIGIN/../..' leads out of the tree"]),
            (lambda package: unmet(package, None), "rm bin/libZkPlexumSDK.so",
             ["needs libZkPlexumSDK.so: neither in the tree nor in a package"]),
            (lambda package: traces(package, ["/build/here"], "/home/me"),
             "printf '\\0/build/here/a' >bin/a; printf /home/me/x >bin/b;"
             "objcopy --add-section .zdebug_info=/etc/hostname bin/tavrel",
             ["bin/a names /build/here", "bin/b names /home/me", "tavrel carries debug information"]),
            (check_package.bad_modes,
             "touch bin/a; chmod 666 bin/a; chmod 777 bin; chmod 644 bin/tavrel;"
             "ln -s /etc/hosts bin/l; ln -s gone bin/m",
             ["bin/a has mode 0666", "bin has mode 0777", "bin/tavrel is not executable",
              "bin/l is a link to /etc/hosts", "bin/m is a link to gone"]),
            (check_package.uncompiled_modules,
             "mkdir -p bin/python/__pycache__; touch bin/python/m.py bin/python/n.py;"
             "head -c 16 /dev/zero >" + pyc,
             ["bin/python/m.py is not compiled", pyc + " holds a time"]),
            (check_package.unhardened_objects,
             compiled + "soft.so -shared -fPIC -Wl,-z,execstack,-z,lazy;"
             + compiled + "a -no-pie -Wl,-z,norelro",
             ["bin/soft.so: its stack may be executed", "bin/soft.so: its symbols are bound late",
              "bin/a: nothing of it is read-only", "bin/a: loaded at a fixed address"]),
            (check_package.unlisted_files,
             "touch bin/a; rm bin/tavrel; echo >bin/libZkPlexumSDK.so",
             ["bin/a is not in MANIFEST", "bin/tavrel is in MANIFEST alone",
              "bin/libZkPlexumSDK.so is not what MANIFEST says"]),
            (check_package.unlisted_files, "rm MANIFEST", ["MANIFEST is missing"]),
        )
        objects = [("EXECUTABLE", "bin/tavrel"), ("SHARED_LIBRARY", "bin/libZkPlexumSDK.so")]
        for check, spoil, faults in cases:
            with self.subTest(spoil), tempfile.TemporaryDirectory() as folder:
                sound = run("sh", "-ec", """mkdir bin; cp "$1/tavrel" "$1/libZkPlexumSDK.so" bin
                            strip --strip-debug bin/*; sha256sum bin/* >MANIFEST; touch bin/log.conf
                            """, "sh", os.path.join(os.environ["TAVREL_BUILD"], "tree/bin"), cwd=folder)
                before = set(check(check_package.Package(folder, objects)))
                spoilt = run("sh", "-ec", spoil, cwd=folder)
                self.assertEqual((sound.stdout, spoilt.stdout), ("", ""))
                found = "\n".join(set(check(check_package.Package(folder, objects))) - before)
                for fault in faults:
                    self.assertIn(fault, found)


if __name__ == "__main__":
    unittest.main()
