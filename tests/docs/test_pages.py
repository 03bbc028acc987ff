"""Pages against sources: which settings there are, and where links and commands lead.

Usage: test_pages.py SOURCE_DIR
"""

import json
import pathlib
import re
import sys
import unittest

TOP = pathlib.Path(sys.argv.pop(1))
PRODUCT = ("base", "crash", "process", "UTIL", "MAIN", "platform", "programs", "application", "python")
# Tables of what the interpreter and the loader read, not this project's code.
FOREIGN_SECTIONS = ("Other people's settings", "The interpreter's own variables")
NO_SETTINGS = re.compile(r"SC_|WM_")  # sysconf's names, X11's atoms

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


def names_in_code():
    """Name of each setting -> a file that names it."""
    found = {}
    for path in (path for folder in PRODUCT for path in sorted((TOP / folder).rglob("*"))):
        if path.suffix not in (".cpp", ".h", ".py"):
            continue
        text = path.read_text(encoding="utf-8")
        for name in (name for each in IN_PRODUCT for name in re.findall(each, text)):
            for mode in ("BATCH", "SCRIPT", "SHELL", "UI") if "%s" in name else ("",):
                found.setdefault(name.replace("%s", mode), str(path.relative_to(TOP)))
    return {name: path for name, path in found.items() if not NO_SETTINGS.match(name)}


def words_in_building():
    """Of scripts and CMake files, whose own variables look the same as those of the environment."""
    paths = sorted(TOP.glob("scripts/*.sh")) + sorted(TOP.glob("[!.b]*/*.cmake"))
    return {word for path in paths for word in re.findall(NAME, path.read_text(encoding="utf-8"))}


def names_on_page():
    """Section -> names in the first column of its tables."""
    sections, title = {}, ""
    for line in (TOP / "docs/environment.md").read_text(encoding="utf-8").splitlines():
        if line.startswith("#"):
            title = line.lstrip("# ")
        elif line.startswith("| `"):
            sections.setdefault(title, set()).update(re.findall("`(%s)`" % NAME, line.split("|")[1]))
    return sections


def pages():
    return [path for path in sorted(TOP.glob("*.md")) + sorted(TOP.glob("docs/*.md"))]


def anchors(path):
    titles = re.findall(r"^#+ (.*)$", path.read_text(encoding="utf-8"), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


class EnvironmentPage(unittest.TestCase):
    def test_names_every_setting_of_the_code(self):
        code, page = names_in_code(), set().union(*names_on_page().values())
        self.assertIn("DISPLAY", code)  # The expressions find what they are for.
        for name in sorted(set(code) - page):
            self.fail("docs/environment.md has no row for %s, which %s names" % (name, code[name]))

    def test_names_nothing_that_the_code_has_not(self):
        code, building = set(names_in_code()), words_in_building()
        for section, names in names_on_page().items():
            if section not in FOREIGN_SECTIONS:
                self.assertLessEqual(names, building if section == "Building" else code, section)

    def test_agrees_with_the_help_on_what_a_user_may_set(self):
        sys.path.insert(0, str(TOP / "application/python/Main"))
        import MainOptionTable
        helped = {name for name, _ in MainOptionTable.ENVIRONMENT}
        self.assertEqual(names_on_page()["What a user may set"], helped)


class Pages(unittest.TestCase):
    def test_links_lead_somewhere(self):
        for page in pages():
            for target in re.findall(r"\]\(([^)\s]+)\)", page.read_text(encoding="utf-8")):
                if re.match(r"[a-z]+:", target):
                    continue
                with self.subTest(page=page.name, target=target):
                    name, _, anchor = target.partition("#")
                    linked = page.parent / name if name else page
                    self.assertTrue(linked.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(linked))

    def test_commands_name_scripts_and_presets_that_are_there(self):
        presets = json.loads((TOP / "CMakePresets.json").read_text(encoding="utf-8"))
        known = {preset["name"] for preset in presets["buildPresets"]}
        for page in pages():
            text = page.read_text(encoding="utf-8")
            for script in re.findall(r"(?<![\w./-])(?:scripts|examples|[.]ci|tests|benchmarks)/[\w./-]*\w", text):
                with self.subTest(page=page.name, file=script):
                    self.assertTrue((TOP / script).exists())
            for preset in re.findall(r"(?:--preset |scripts/build\.sh |build/(?=[a-z]+/tree))([a-z]+)\b", text):
                with self.subTest(page=page.name, preset=preset):
                    self.assertIn(preset, known)


if __name__ == "__main__":
    unittest.main()
