#!/usr/bin/env python3
"""Checks the include rules between folders, as the table in docs/architecture.md gives them, that
includes between the sub-folders of one go one way, and the sizes that CONTRIBUTING.md allows.
Functions of C++ are measured by clang-tidy."""

import ast
import os
import re
import subprocess
import sys

MOST_LINES_OF_A_FILE, MOST_LINES_OF_A_FUNCTION = 300, 60
PLATFORM = "platform/include"  # its headers are included as <ZkConfiguration/...>


def include_rules():
    """Folder: the folders that it may include from, itself among them."""
    allowed = {}
    with open("docs/architecture.md") as page:
        rows = re.findall(r"^\| (`.*/`) \|.*\|([^|]*)\|$", page.read(), re.MULTILINE)
    for folders, uses in rows:
        named = {"all of these": set(allowed)}.get(uses.strip(), set(re.findall("`(.+?)`", uses)))
        for folder in re.findall("`(.+?)/`", folders):
            allowed[folder] = named | {folder}
    return allowed


def folder_of(path, folders):
    return PLATFORM if path.startswith("Zk") else next(
        (folder for folder in folders if path.startswith(folder + "/")), None)


def circle_in(uses):
    """Folders that include from each other in a circle, in its order; None if there is none."""
    done = set()

    def visit(folder, way):
        if folder in way:
            return way[way.index(folder):] + [folder]
        if folder not in done:
            for other in sorted(uses.get(folder, ())):
                if circle := visit(other, way + [folder]):
                    return circle
            done.add(folder)
        return None
    return next(filter(None, (visit(folder, []) for folder in sorted(uses))), None)


def objections(path, text, allowed):
    own = folder_of(path, allowed)
    for included in re.findall(r'^#include ["<]([^">]+)', text, re.MULTILINE):
        target = folder_of(included, allowed)
        if own not in (None, "tests", "benchmarks") and target not in allowed[own] | {None}:
            yield "%s: %s may not use %s: see docs/architecture.md" % (path, own, included)
    lines = sum(1 for line in text.splitlines() if line.strip())
    if own != "tests" and lines > MOST_LINES_OF_A_FILE:
        yield "%s: has %d lines that aren't blank" % (path, lines)
    for node in ast.walk(ast.parse(text)) if path.endswith(".py") else ():
        lines = getattr(node, "end_lineno", 0) - getattr(node, "lineno", 0)
        if isinstance(node, ast.FunctionDef) and lines >= MOST_LINES_OF_A_FUNCTION:
            yield "%s:%d: %s has %d lines" % (path, node.lineno, node.name, lines + 1)


def main():
    os.chdir(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
    allowed, found, uses = include_rules(), [], {}
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard",
                             "--deduplicate", "*.cpp", "*.h", "*.c", "*.py"],
                            stdout=subprocess.PIPE, check=True, universal_newlines=True).stdout
    for path in listed.splitlines():
        with open(path) as source:
            text = source.read()
        found += objections(path, text, allowed)
        own = folder_of(path, allowed)
        for included in re.findall(r'^#include "([^"]+)', text, re.MULTILINE):
            if own == folder_of(included, allowed) and os.path.dirname(path) != os.path.dirname(included):
                uses.setdefault(os.path.dirname(path), set()).add(os.path.dirname(included))
    if circle := circle_in(uses):
        found.append("includes go in a circle: " + ", ".join(circle))
    sys.exit("\n".join(found) or 0)


if __name__ == "__main__":
    main()
