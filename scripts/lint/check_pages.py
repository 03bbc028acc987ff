#!/usr/bin/env python3
"""Holds the pages against the sources: which settings there are, and where links and commands lead."""

import json
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]
PRODUCT = ("base", "crash", "process", "UTIL", "MAIN", "standins", "programs", "python")
# Tables of what the interpreter and the loader read, not this project's code.
FOREIGN_SECTIONS = ("Other people's settings", "The interpreter's own variables")
# sysconf's names, X11's atoms, os-release's names, what makes the loader trace, codes of signals
NO_SETTINGS = re.compile(r"SC_|WM_|PRETTY_|LD_(BIND|TRACE|WARN)|(SEGV|BUS|FPE|ILL|TRAP)_")

NAME = r"(?:__)?[A-Z][A-Z0-9]*(?:_[A-Z0-9]+)*"
IN_PRODUCT = (
    # A name with an underscore, whatever is done with it; a format of one; a name for execve.
    r"[\"']((?:__)?[A-Z][A-Z0-9]*(?:_[A-Z0-9]+)+)=?[\"']",
    r"[\"'](TAVREL_%s_MODE)[\"']",
    # A single word, if it is given to something that reads or writes settings.
    r"(?:getenv|EnvironmentVariable|setDefault|setConfigurationAndEnvironment|setenv)\(\"(" + NAME + ")\"",
    r"Config(?:uration)?(?:\(\))?\.(?:get|has|set)\(\"(" + NAME + ")\"",
    r"environ(?:\.get\(|\.pop\(|\.setdefault\(|\[)[\"'](" + NAME + ")[\"']",
    r"(?:[kK]ey|[vV]ariable)\[\] = \"(" + NAME + ")\"",
    r"[\"'](" + NAME + ")[\"'] in os[.]environ",
)
IN_PAGES_FILE = r"(?<![\w./-])(?:scripts|examples|[.]ci|tests|benchmarks)/[\w./-]*\w"
IN_PAGES_PRESET = r"(?:--preset |scripts/build\.sh |build/(?=[a-z]+/tree))([a-z]+)\b"


def read(path):
    return (TOP / path).read_text(encoding="utf-8")


def names_in_code():
    """Name of each setting -> a file that names it."""
    found = {}
    for path in (path for folder in PRODUCT for path in sorted((TOP / folder).rglob("*"))):
        if path.suffix in (".cpp", ".h", ".py"):
            text = read(path)
            for name in (name for each in IN_PRODUCT for name in re.findall(each, text)):
                for mode in ("BATCH", "SCRIPT", "SHELL", "UI") if "%s" in name else ("",):
                    found.setdefault(name.replace("%s", mode), path.relative_to(TOP))
    return {name: path for name, path in found.items() if not NO_SETTINGS.match(name)}


def words_in_building():
    """Of scripts and CMake files, whose own variables look the same as those of the environment."""
    paths = [*TOP.glob("scripts/**/*.sh"), *TOP.glob("[!.b]*/*.cmake")]
    return {word for path in paths for word in re.findall(NAME, read(path))}


def names_on_page():
    """Section -> names in the first column of its tables."""
    sections, title = {}, ""
    for line in read("docs/environment.md").splitlines():
        if line.startswith("#"):
            title = line.lstrip("# ")
        elif line.startswith("| `"):
            sections.setdefault(title, set()).update(re.findall("`(%s)`" % NAME, line.split("|")[1]))
    return sections


def settings():
    code, page = names_in_code(), names_on_page()
    if "DISPLAY" not in code:
        yield "the expressions of check_pages.py no longer find what they are for"
    for name in sorted(set(code) - set().union(*page.values())):
        yield "no row for %s, which %s names" % (name, code[name])
    for section, names in page.items():
        known = words_in_building() if section == "Building" else set(code)
        for name in sorted(names - known) if section not in FOREIGN_SECTIONS else ():
            yield "%s, in \"%s\", is named nowhere else" % (name, section)
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(TOP / "standins/application/python/Main"))
    import MainOptionTable
    helped = {name for name, _ in MainOptionTable.ENVIRONMENT}
    for name in sorted(helped ^ page["What a user may set"]):
        yield "%s is either in the help or in \"What a user may set\", not in both" % name


def rows(page, section):
    """Of the tables in a section: the cells of each row that begins with a word of code."""
    text = read(page).partition("\n## %s\n" % section)[2].partition("\n## ")[0]
    return [line.strip("| ").split(" | ") for line in text.splitlines() if line.startswith("| `")]


def differences(what, on_page, in_sources):
    for each in sorted(set(on_page) ^ set(in_sources)):
        yield "%s: %s is %s" % (what, each, "not in the sources" if each in on_page else "not on the page")


def application():
    """The contract's tables against headers, entry script and main."""
    page = "docs/application.md"
    headers = "".join(re.sub(r"//.*", "", path.read_text()) for path in TOP.glob("platform/include/*/*.h"))
    declared = [" ".join(each.split()) for each in re.split(r"[;{}]|\bpublic:|#.*", headers)]
    declared = [each for each in declared if re.fullmatch(r"(?!explicit)[\w:&* ]+ \w+\(.*\)( const)?", each)]
    yield from differences("Functions", [row[0].strip("`") for row in rows(page, "Functions of the closed libraries")],
                           declared)
    needs = subprocess.run([sys.executable, "-I", "cmake/entryScriptNeeds.py", "python/Main/Main.py", "/dev/stdout"],
                           stdout=subprocess.PIPE, universal_newlines=True, check=True, cwd=TOP).stdout
    used = re.findall(r'\{"(\w+)", "\w*", false, \{(.*)\}\},', needs)
    yield from differences("Modules", [(row[0].strip("`"), *re.findall("`(.+?)`", row[2]))
                                       for row in rows(page, "Modules of the application")],
                           [(name, *re.findall(r"[\w.]+", words)) for name, words in used])
    main_function = read("MAIN/src/tavrel.cpp").partition("int main(")[2]
    places = [main_function.find(row[0].strip("`") + "(") for row in rows(page, "The order of a start")]
    if not places or -1 in places or places != sorted(places):
        yield "The order of a start: not that of main"
    known = set().union(*names_on_page().values())
    for row in rows(page, "Keys and variables over the border"):
        for name in set(re.findall("`(%s)`" % NAME, row[0])) - known:
            yield "%s isn't in docs/environment.md" % name


def anchors(path):
    titles = re.findall(r"^#+ (.*)$", read(path), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


def leads(page, presets):
    for target in re.findall(r"\]\(([^)\s]+)\)", read(page)):
        name, _, anchor = target.partition("#")
        linked = page.parent / name if name else page
        if not re.match("[a-z]+:", target) and not (
                linked.exists() and (not anchor or anchor in anchors(linked))):
            yield "the link to %s leads nowhere" % target
    for name in re.findall(IN_PAGES_FILE, read(page)):
        if not (TOP / name).exists():
            yield "there is no %s" % name
    for name in set(re.findall(IN_PAGES_PRESET, read(page))) - presets:
        yield "there is no preset %s" % name


def main():
    presets = {preset["name"] for preset in json.loads(read("CMakePresets.json"))["testPresets"]}
    found = ["docs/environment.md: " + text for text in settings()]
    found += ["docs/application.md: " + text for text in application()]
    for page in sorted(TOP.glob("*.md")) + sorted(TOP.glob("docs/*.md")):
        found += ["%s: %s" % (page.relative_to(TOP), text) for text in leads(page, presets)]
    sys.exit("\n".join(found) or 0)


if __name__ == "__main__":
    main()
