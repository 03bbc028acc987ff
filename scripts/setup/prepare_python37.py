"""Makes the interpreter of the install tree from a CPython 3.7 that has a shared library:

    prepare_python37.py FROM TO

FROM is its prefix, TO a folder that is not there yet. TO runs from any place and can build extension
modules there; tests, IDLE and static libraries are left out, and every module is compiled.
"""

import os
import re
import runpy
import shutil
import struct
import subprocess
import sys

STDLIB = "lib/python3.7"
LIBRARY = "lib/libpython3.7m.so.1.0"
PROGRAM = "bin/python3.7"
# The packages that bring pip into a virtual environment stay, in ensurepip.
UNWANTED_FOLDERS = {"__pycache__", "test", "tests", "idlelib", "turtledemo", "site-packages"}
UNWANTED_FILES = re.compile(
    r"(_test|_ctypes_test|_xxtestfuzz|xxlimited).*\.so$|.*\.exe$|.*\.a$|fetch_macholib")


def unwanted(folder, names):
    is_unwanted_config = {name for name in names if name.startswith("config-3.7m")}
    return is_unwanted_config | (UNWANTED_FOLDERS & set(names)) | {
        name for name in names if UNWANTED_FILES.match(name)}


def copy(source, target):
    for folder in ("bin", "lib", "include"):
        os.makedirs(os.path.join(target, folder))
    for name in (PROGRAM, LIBRARY):
        shutil.copy(os.path.join(source, name), os.path.join(target, name))
    os.symlink(os.path.basename(LIBRARY), os.path.join(target, "lib/libpython3.7m.so"))
    shutil.copytree(os.path.join(source, "include/python3.7m"),
                    os.path.join(target, "include/python3.7m"))
    shutil.copytree(os.path.join(source, STDLIB), os.path.join(target, STDLIB), ignore=unwanted)
    os.makedirs(os.path.join(target, STDLIB, "site-packages"))
    subprocess.run(["chmod", "-R", "u+w", target], check=True)


class Places:
    """Rewrites a text that names the places where the interpreter was built and installed."""

    def __init__(self, source, variables):
        self.prefix = variables["prefix"]
        self.build = variables.get("abs_builddir") or os.devnull
        # The interpreter finds its library by itself, and setuptools names the folders to look in.
        flags = "|".join(re.escape(flag % self.prefix)
                         for flag in ("-L%s/lib", "-Wl,-rpath,%s/lib", "-I%s/include"))
        self.flags = re.compile(r" ?(%s)(?![^\s'])" % flags)
        self.names = sorted({self.prefix, source}, key=len, reverse=True)

    def rewritten(self, text, prefix, build):
        text = self.flags.sub("", text)
        for name in self.names:
            text = text.replace(name, prefix)
        return text.replace(self.build, build)


def make_configuration_relocatable(source, target):
    """sysconfig's variables, worked out from where the tree stands, and the Makefile that it names."""
    name, = [name for name in os.listdir(os.path.join(target, STDLIB))
             if re.match(r"_sysconfigdata_.*\.py$", name)]
    module = os.path.join(target, STDLIB, name)
    variables = runpy.run_path(module)["build_time_vars"]
    places = Places(source, variables)
    config = os.path.basename(variables["LIBPL"])
    os.makedirs(os.path.join(target, STDLIB, config))
    with open(os.path.join(source, STDLIB, config, "Makefile")) as file:
        makefile = places.rewritten(file.read(), "$(prefix)", "$(srcdir)")
    makefile = re.sub(r"^prefix=.*$", "prefix=\t\t$(abspath $(dir $(lastword $(MAKEFILE_LIST)))../../..)",
                      makefile, flags=re.MULTILINE)
    with open(os.path.join(target, STDLIB, config, "Makefile"), "w") as file:
        file.write(makefile)
    with open(module, "w") as file:
        file.write("# Worked out from this file's own place: the tree may stand anywhere.\n"
                   "import os.path\n\n"
                   "_prefix = os.path.abspath(__file__ + '/../../..')\n"
                   "build_time_vars = {key: value.replace('$(prefix)', _prefix)\n"
                   "                   if isinstance(value, str) else value for key, value in {\n")
        for key, value in sorted(variables.items()):
            file.write("    %r: %r,\n" % (key, relocatable(value, places, target)))
        file.write("}.items()}\n")


def relocatable(value, places, target):
    """A variable with $(prefix) in it; empty if it names a place that is not in TARGET."""
    if not isinstance(value, str):
        return value
    value = places.rewritten(value, "$(prefix)", os.devnull)
    is_gone = re.match(r"\$\(prefix\)\S*$", value) and not os.path.exists(
        value.replace("$(prefix)", target))
    return "" if is_gone or os.devnull in value else value


def drop_interpreter_lines(target):
    """Modules of the library are no programs, and the interpreters that they name are others."""
    for folder, _, names in os.walk(os.path.join(target, STDLIB)):
        for path in (os.path.join(folder, name) for name in names if name.endswith(".py")):
            with open(path, "rb") as file:
                content = file.read()
            if content.startswith(b"#!"):
                with open(path, "wb") as file:
                    file.write(b"#" + content[content.index(b"\n"):])


def set_run_paths(target, modules):
    """Of the program as DT_RPATH, so that a user's LD_LIBRARY_PATH does not come first for it either."""
    subprocess.run(["patchelf", "--force-rpath", "--set-rpath", "$ORIGIN/../lib",
                    os.path.join(target, PROGRAM)], check=True)
    for path in [os.path.join(target, LIBRARY)] + modules:
        # patchelf leaves a removed run path's text behind: it is overwritten first.
        subprocess.run(["patchelf", "--set-rpath", "$ORIGIN", path], check=True)
        subprocess.run(["patchelf", "--remove-rpath", path], check=True)


def bind_now(path):
    """Has the loader bind every symbol at once, which no option of patchelf asks for: the linker
    leaves room for further entries at the end of the dynamic section."""
    entry, null, flags, bind = struct.Struct("<qQ"), 0, 30, 8  # <elf.h>: DT_NULL, DT_FLAGS, DF_BIND_NOW
    with open(path, "r+b") as file:
        data = file.read()
        table, = struct.unpack_from("<Q", data, 32)
        size, count = struct.unpack_from("<HH", data, 54)
        headers = [struct.unpack_from("<IIQQQQ", data, table + size * index) for index in range(count)]
        offset, length = [(header[2], header[5]) for header in headers if header[0] == 2][0]
        tags = [entry.unpack_from(data, offset + entry.size * index)[0]
                for index in range(length // entry.size)]
        place = tags.index(flags if flags in tags else null)
        if tags[place:] == [null]:
            sys.exit("setup: %s has no room to ask for early binding; link it with -z now" % path)
        value = entry.unpack_from(data, offset + entry.size * place)[1] if flags in tags else 0
        file.seek(offset + entry.size * place)
        file.write(entry.pack(flags, value | bind))


def compile_all(target):
    """Byte code that is never compared with its source stays valid when a copy or a package changes
    times. -B: what the compiler itself imports would be left behind as byte code that holds one. The
    fixed hash seed makes the same bytes every time."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    environment["PYTHONHASHSEED"] = "0"
    subprocess.run([os.path.join(target, PROGRAM), "-B", "-s", "-S", "-m", "compileall", "-q", "-f", "-j",
                    "0", "--invalidation-mode", "unchecked-hash", "-d", "python3.7",
                    os.path.join(target, STDLIB)], check=True, env=environment)


def main():
    source, target = (os.path.abspath(path) for path in sys.argv[1:])
    copy(source, target)
    make_configuration_relocatable(source, target)
    drop_interpreter_lines(target)
    modules = os.path.join(target, STDLIB, "lib-dynload")
    modules = [os.path.join(modules, name) for name in sorted(os.listdir(modules))]
    objects = [os.path.join(target, PROGRAM), os.path.join(target, LIBRARY)] + modules
    set_run_paths(target, modules)
    subprocess.run(["strip", "--strip-debug"] + objects, check=True)
    for path in objects:
        bind_now(path)
    compile_all(target)
    checked = subprocess.run([os.path.join(target, PROGRAM), "-I", "-c",
                              "import ctypes, hashlib, ssl, sqlite3, zlib"])
    if checked.returncode != 0:
        sys.exit("setup: the Python 3.7 found lacks standard modules (ctypes, hashlib, ssl, sqlite3, zlib)")


if __name__ == "__main__":
    main()
