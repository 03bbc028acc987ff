"""Puts the launcher's own files into a tree that others fill: installLauncher.py FILES TREE

FILES has a line "MODE<TAB>SOURCE<TAB>DESTINATION" for each. MANIFEST.launcher in the tree lists what was
written, in the format of sha256sum. A file in the way that isn't listed there belongs to another owner:
each is named, and nothing is written. Otherwise all files are written beside the old ones, then renamed
into their places, the launcher itself last. Status 1 with what is wrong on standard error.
"""

import fcntl
import hashlib
import os
import signal
import sys

MANIFEST = "MANIFEST.launcher"
LAST = "bin/tavrel"
ENDS = {signal.SIGHUP, signal.SIGINT, signal.SIGTERM}


def beside(path):
    folder, name = os.path.split(path)
    return os.path.join(folder, ".%s.installing" % name)


def files_to_install(lists):
    """Destination to (mode, content)."""
    found = {}
    with open(lists) as lines:
        for mode, source, destination in (line.rstrip("\n").split("\t") for line in lines):
            if not os.path.isfile(source):
                sys.exit("install: %s is not built yet: run scripts/build.sh release" % source)
            with open(source, "rb") as file:
                found[destination] = (int(mode, 8), file.read())
    return found


def listed(tree):
    """Destination to hash, of an earlier installation."""
    try:
        with open(os.path.join(tree, MANIFEST)) as lines:
            pairs = [line.rstrip("\n").split("  ", 1) for line in lines]
    except FileNotFoundError:
        return {}
    if any(len(pair) != 2 or pair[1].startswith("/") or ".." in pair[1].split("/") for pair in pairs):
        sys.exit("install: %s is none of the launcher's: see to it first" % os.path.join(tree, MANIFEST))
    return {name: digest for digest, name in pairs}


def write_beside(path, mode, content):
    if os.path.lexists(beside(path)):
        os.unlink(beside(path))  # of a run that was interrupted
    descriptor = os.open(beside(path), os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
    with os.fdopen(descriptor, "wb") as file:
        file.write(content)
        os.fchmod(descriptor, mode)
        file.flush()
        os.fsync(descriptor)


def write_manifest(tree, hashes):
    path = os.path.join(tree, MANIFEST)
    write_beside(path, 0o644, "".join("%s  %s\n" % (hashes[name], name) for name in sorted(hashes)).encode())
    os.rename(beside(path), path)


def make_folder(tree, name):
    """With every folder above it, up to the tree; the mode is that of a tree, whatever the umask."""
    path = os.path.join(tree, name)
    if not os.path.isdir(path):
        make_folder(tree, os.path.dirname(name))
        os.mkdir(path)
        os.chmod(path, 0o755)


def take_away(tree, name, digest):
    """A file of the earlier installation that this one no longer has, unless it was changed since."""
    path = os.path.join(tree, name)
    if os.path.isfile(path) and not os.path.islink(path):
        with open(path, "rb") as file:
            is_as_written = hashlib.sha256(file.read()).hexdigest() == digest
        if is_as_written:
            os.unlink(path)
        else:
            print("install: left %s, which was changed since" % path, file=sys.stderr)


def install(tree, files):
    old = listed(tree)
    new = {name: hashlib.sha256(content).hexdigest() for name, (_, content) in files.items()}
    in_the_way = [name for name in files if os.path.lexists(os.path.join(tree, name))
                  and (name not in old or os.path.isdir(os.path.join(tree, name)))]
    if in_the_way:
        sys.exit("".join("install: %s is in the way and not listed in %s\n" % (os.path.join(tree, name), MANIFEST)
                         for name in sorted(in_the_way)) + "install: nothing was written")
    try:
        for name, (mode, content) in files.items():
            make_folder(tree, os.path.dirname(name))
            write_beside(os.path.join(tree, name), mode, content)
        signal.pthread_sigmask(signal.SIG_BLOCK, ENDS)
        # Killed from here on, both the old and the new files are known as the launcher's.
        write_manifest(tree, {**old, **new})
        for name in sorted(files, key=lambda name: name == LAST):
            path = os.path.join(tree, name)
            os.rename(beside(path), path)
    except BaseException:
        for name in files:
            if os.path.lexists(beside(os.path.join(tree, name))):
                os.unlink(beside(os.path.join(tree, name)))
        raise
    for name in set(old) - set(new):
        take_away(tree, name, old[name])
    write_manifest(tree, new)


def main():
    files, tree = files_to_install(sys.argv[1]), os.path.abspath(sys.argv[2])
    for number in ENDS:
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    try:
        os.makedirs(tree, exist_ok=True)
        descriptor = os.open(tree, os.O_RDONLY | os.O_DIRECTORY)
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        install(tree, files)
    except OSError as error:
        sys.exit("install: %s: %s" % (error.filename or tree, error.strerror))
    print("install: %d files of the launcher are in %s" % (len(files), tree))


if __name__ == "__main__":
    main()
