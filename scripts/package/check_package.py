"""Checks a folder that a package was unpacked into, or that `cmake --install` filled:

    check_package.py --build FOLDER [--depends LIST] [--build-place PATH]... [--home PATH] FOLDER

Each fault is one line on standard error; the exit status is 1 if there is one. The build folder says
which objects there have to be and how they were compiled. LIST is a Depends field; without it, a
needed library may come from any Debian package. The files of FOLDER must not name a PATH of
--build-place, and those made by this project not the --home of who built it either: the interpreter
was built elsewhere, and its library carries the prefix of that place, unused.
"""

import argparse
import hashlib
import json
import os
import pathlib
import re
import stat
import struct
import subprocess
import sys

INTERPRETER = "bin/python3.7/bin/python3.7"
WORDS = ("man/man1/tavrel.1", "man/man8/tavrelCleanup.8", "man/man8/CrashReporterTavrel.8",
         "man/man8/tavrelFrames.8", "man/man1/tavrelStack.1", "man/man1/tavrelInfo.1",
         "bash-completion/completions/tavrel", "bash-completion/completions/tavrelStack",
         "bash-completion/completions/tavrelInfo",
         "zsh/vendor-completions/_tavrel", "fish/vendor_completions.d/tavrel.fish",
         "doc/tavrel/THIRD-PARTY.md")
# What the text of every compilation of shipped code has to hold.
HARDENING = (pathlib.Path(__file__).resolve().parents[2] / "cmake/hardening.flags").read_text().split()
UNLISTED = ("MANIFEST", "bin/log.conf")  # log.conf is there to be edited
UNCHECKED_HASH = 1  # flags word of byte code that is never compared with its source


class Package:
    """The files of one unpacked package; paths are relative to its folder, those of OBJECTS, as
    (type of the target, path), to the tree."""

    def __init__(self, folder, objects):
        self.folder = folder
        self.tree = "opt/tavrel/" if os.path.isdir(os.path.join(folder, "opt/tavrel")) else ""
        self.share = "usr/share/" if self.tree else "share/"
        self.files, self.links, self.folders = [], [], []
        for parent, folders, files in os.walk(folder):
            for name in folders + files:
                path = os.path.relpath(os.path.join(parent, name), folder)
                kind = (self.links if os.path.islink(self.at(path)) else
                        self.folders if name in folders else self.files)
                kind.append(path)
        elves = [path for path in self.files if self.read(path, 4) == b"\x7fELF"]
        # Object to the names in its dynamic section, as (tag, name).
        self.dynamic = dict(zip(elves, self.readelf("-dW", elves)))
        self.objects = {path: re.findall(r"\((NEEDED|RPATH|RUNPATH)\).*?\[(.*)\]", text)
                        for path, text in self.dynamic.items()}
        self.sections = dict(zip(elves, self.readelf("-SW", elves)))
        self.segments = dict(zip(elves, self.readelf("-lW", elves)))
        self.own = [self.tree + path for _, path in objects]
        self.programs = [self.tree + path for kind, path in objects if kind == "EXECUTABLE"]

    def at(self, path):
        return os.path.join(self.folder, path)

    def read(self, path, size=-1):
        with open(self.at(path), "rb") as file:
            return file.read(size)

    def readelf(self, option, paths):
        """What readelf says of each object."""
        # Of one file alone it does not say the name.
        output = subprocess.run(["readelf", option, os.devnull] + [self.at(path) for path in paths],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False,
                                universal_newlines=True).stdout
        texts = re.split("^File: .*\n", output, flags=re.MULTILINE)[1:]
        if len(texts) != len(paths):
            raise ValueError("readelf can't read every object in " + self.folder)
        return texts

    def holds(self, path):
        """Whether a path, there or not, lies in the application's tree."""
        return (path + "/").startswith(self.tree) and not path.startswith("..")

    def is_interpreters(self, path):
        return path.startswith(self.tree + "bin/python3.7/")


def run_path_entries(package, path):
    for tag, value in package.objects[path]:
        if tag in ("RPATH", "RUNPATH"):
            yield from value.split(":")


def folder_of_entry(path, entry):
    """Where an entry that begins with $ORIGIN leads, relative to the package's folder."""
    return os.path.normpath(os.path.dirname(path) + "/" + entry[len("$ORIGIN"):])


def missing_files(package):
    wanted = package.own + [package.tree + INTERPRETER]
    wanted += [package.share + name for name in WORDS]
    for name in wanted:
        if name not in package.files and name + ".gz" not in package.files:
            yield "%s is missing" % name


def bad_run_paths(package):
    for path in package.objects:
        for entry in run_path_entries(package, path):
            if not entry:
                yield "%s: an empty entry in the run path" % path
            elif not re.match(r"\$ORIGIN(/|$)", entry):
                kind = "absolute" if entry.startswith("/") else "relative to the current folder"
                yield "%s: run path entry '%s' is %s" % (path, entry, kind)
            elif not package.holds(folder_of_entry(path, entry)):
                yield "%s: run path entry '%s' leads out of the tree" % (path, entry)


def debian_packages_of(libraries):
    """For each library the names of the installed packages that hold it."""
    found = subprocess.run(["dpkg-query", "--search"] + ["*/" + name for name in libraries],
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                           universal_newlines=True, check=False).stdout
    holders = {name: set() for name in libraries}
    for line in found.splitlines():
        packages, path = line.split(": ", 1)
        if os.path.basename(path) in holders:
            holders[os.path.basename(path)] |= {name.split(":")[0] for name in packages.split(", ")}
    return holders


def unmet_needs(package, depends):
    """A library without a run path is found by that of the program that loads it."""
    programs = package.programs + [package.tree + INTERPRETER]
    shared = {folder_of_entry(path, entry) for path in programs if path in package.objects
              for entry in run_path_entries(package, path) if entry.startswith("$ORIGIN")}
    declared = depends and {re.match(r"[a-z0-9.+-]+", alternative.strip()).group()
                            for alternative in re.split(r"[,|]", depends)}
    needers = {}
    for path, entries in package.objects.items():
        folders = shared | {folder_of_entry(path, entry) for entry in
                            run_path_entries(package, path) if entry.startswith("$ORIGIN")}
        for tag, library in entries:
            if tag == "NEEDED" and not any(
                    os.path.join(folder, library) in package.files for folder in folders):
                needers.setdefault(library, path)
    for library, holders in sorted(debian_packages_of(needers).items()):
        path = needers[library]
        if not holders:
            yield "%s needs %s: neither in the tree nor in a package" % (path, library)
        elif declared is not None and not holders & declared:
            yield "%s needs %s of %s, which is not declared" % (
                path, library, " or ".join(sorted(holders)))


def traces_of_the_build(package, places, home):
    for path in package.files:
        content = package.read(path)
        forbidden = places + ([home] if home and not package.is_interpreters(path) else [])
        for place in forbidden:
            if place.rstrip("/").encode() + b"/" in content:
                yield "%s names %s" % (path, place)
    for path, sections in package.sections.items():
        # Debug information may be compressed: none may be there at all.
        if re.search(r"\.z?debug_", sections):
            yield "%s carries debug information" % path


def bad_modes(package):
    for path in package.files + package.folders:
        mode = stat.S_IMODE(os.stat(package.at(path)).st_mode)
        allowed = (0o755,) if path in package.folders else (0o644, 0o755)
        if mode not in allowed:
            yield "%s has mode %04o" % (path, mode)
    for path in package.programs + [package.tree + INTERPRETER]:
        if path in package.files and not os.access(package.at(path), os.X_OK):
            yield "%s is not executable" % path
    for path in package.links:
        target = os.readlink(package.at(path))
        # The root of a Debian package is the root of the machine.
        is_packaged = package.tree and target.lstrip("/") in package.files
        if target.startswith("/") and not is_packaged or (
                not target.startswith("/") and not os.path.exists(package.at(path))):
            yield "%s is a link to %s, which is not in the package" % (path, target)


def unhardened_objects(package):
    """What the linker and the compiler were to see to, as far as an object shows it."""
    for path, segments in package.segments.items():
        if not re.search(r"GNU_STACK .* RW +0x", segments):
            yield "%s: its stack may be executed" % path
        if "GNU_RELRO" not in segments:
            yield "%s: nothing of it is read-only after relocation" % path
        if not re.search(r"BIND_NOW|Flags:.*NOW", package.dynamic[path]):
            yield "%s: its symbols are bound late" % path
        if "TEXTREL" in package.dynamic[path]:
            yield "%s: its code is written to by the loader" % path
        if not re.search(r"Elf file type is DYN", segments):
            yield "%s: loaded at a fixed address" % path


def unhardened_units(commands):
    """COMMANDS: what compile_commands.json holds. Tests and benchmarks are not shipped."""
    for command in commands:
        if not re.search(r" -o (tests|benchmarks)/", command["command"]):
            for flag in HARDENING:
                if flag not in command["command"].split():
                    yield "%s is compiled without %s" % (command["file"], flag)


def unlisted_files(package):
    """MANIFEST names every file of the tree with its hash, and nothing else."""
    if package.tree + "MANIFEST" not in package.files:
        yield "%sMANIFEST is missing" % package.tree
        return
    listed = {}
    for line in package.read(package.tree + "MANIFEST").decode().splitlines():
        listed[package.tree + line[66:]] = line[:64]
    there = {path for path in package.files + package.links
             if path.startswith(package.tree) and not path.startswith("share/")}
    for path in sorted(there ^ set(listed) ^ {package.tree + name for name in UNLISTED}):
        yield "%s is %s" % (path, "in MANIFEST alone" if path in listed else "not in MANIFEST")
    for path in sorted(there & set(listed)):
        if hashlib.sha256(package.read(path)).hexdigest() != listed[path]:
            yield "%s is not what MANIFEST says" % path


def uncompiled_modules(package):
    """A tree that its user can't write to would compile them at each start."""
    files = set(package.files)
    for path in package.files:
        folder, name = os.path.split(path)
        if not name.endswith(".py") or not folder.startswith((package.tree + "bin/", package.tree + "plugins/")):
            continue
        byte_code = "%s/__pycache__/%s.cpython-37.pyc" % (folder, name[:-3])
        if byte_code not in files:
            yield "%s is not compiled" % path
        elif struct.unpack_from("<I", package.read(byte_code), 4)[0] != UNCHECKED_HASH:
            yield "%s holds a time: a copy of the tree would not use it" % byte_code


def faults(package, depends=None, places=(), home=None):
    yield from missing_files(package)
    yield from bad_run_paths(package)
    yield from unmet_needs(package, depends)
    yield from traces_of_the_build(package, list(places), home)
    yield from bad_modes(package)
    yield from uncompiled_modules(package)
    yield from unhardened_objects(package)
    yield from unlisted_files(package)


def built_objects(build):
    with open(os.path.join(build, "tree-objects")) as lines:
        return [tuple(line.split()) for line in lines]


def compile_commands(build):
    with open(os.path.join(build, "compile_commands.json")) as file:
        return json.load(file)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--depends")
    parser.add_argument("--build-place", action="append", default=[])
    parser.add_argument("--home")
    parser.add_argument("folder")
    arguments = parser.parse_args()
    package = Package(arguments.folder, built_objects(arguments.build))
    found = list(faults(package, arguments.depends, arguments.build_place, arguments.home))
    found += unhardened_units(compile_commands(arguments.build))
    for fault in found:
        print("package: " + fault, file=sys.stderr)
    found_ready = [path for path in package.objects if package.is_interpreters(path)]
    soft = [path for path, symbols in zip(found_ready, package.readelf("-sW", found_ready))
            if "__stack_chk_fail" not in symbols]
    print("package: taken as found, without stack protector: %d objects of the interpreter (docs/security.md)"
          % len(soft))
    if not found:
        print("package: %d files, %d of them objects: nothing to object to"
              % (len(package.files), len(package.objects)))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
