"""Lists what of others is in the packages, from the texts and versions that come with each part.

    third_party.py notices FILE                          THIRD-PARTY.md
    third_party.py copyright FILE                        the DEB's copyright file
    third_party.py spdx FILE VERSION EPOCH DEPENDS       the bill of materials, SPDX 2.3 in JSON

FILE is written when the text is complete. DEPENDS is a Depends field: what the packages need but don't hold. The
folder .deps/ has to be set up. A text that is not where it is looked for is an error.
"""

import hashlib
import json
import os
import re
import subprocess
import sys
import tarfile
import time
import zipfile
from collections import namedtuple

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DEPS = os.path.join(TOP, ".deps")
STDLIB = os.path.join(DEPS, "python3.7/lib/python3.7")
LIBPYTHON = os.path.join(DEPS, "python3.7/lib/libpython3.7m.so.1.0")
BREAKPAD = "package/deps/breakpad/"
LICENCE = "The licence of tavrel itself is its owner's to name; none is named here."

# licence: an SPDX expression. folder: the tree's folder that it ends up in, code of the project's own
# programs and libraries, or of the interpreter. facts: version, purl and SHA-256, or the name of the
# package of Debian's that it comes from. url: upstream's. cpe: vendor and product, for scanners.
Part = namedtuple("Part", "name licence holders folder what url cpe facts texts")

PARTS = (
    Part("Boost", "BSL-1.0", "the authors of Boost", "bin",
         "Headers and static libraries in every program and library; Boost.Python, built from source.",
         "https://www.boost.org/", "boost:boost", "libboost1.74-dev",
         lambda: [file_text(DEPS + "/boost_python/LICENSE_1_0.txt")]),
    Part("Breakpad", "BSD-3-Clause", "2006 Google LLC", "bin",
         "Client and processor library, in the launcher and the programs for crashes.",
         "git+https://chromium.googlesource.com/breakpad/breakpad", None, lambda: breakpad_facts(),
         lambda: [before(archived("LICENSE"), "License for INSTALL")]),
    Part("musl", "MIT", "2005-2014 Rich Felker, et al.", "bin",
         "Its elf.h comes with Breakpad, in CrashReporterTavrel.",
         "https://musl.libc.org/", "musl-libc:musl",
         lambda: facts("musl", archived("src/third_party/musl/VERSION").strip()),
         lambda: [archived("src/third_party/musl/COPYRIGHT")]),
    Part("linux-syscall-support", "BSD-3-Clause", "2005-2011 Google LLC", "bin",
         "A header that comes with Breakpad, in tavrel and CrashReporterTavrel.",
         "git+https://chromium.googlesource.com/linux-syscall-support", None,
         lambda: facts("linux-syscall-support", lss_revision()),
         lambda: [first_comment(archived("../third_party/lss/linux_syscall_support.h"))]),
    Part("spdlog", "MIT", "2014-2016 Gabi Melman", "bin", "Headers, in libZkLoggingHost.so.",
         "https://github.com/gabime/spdlog", None, "libspdlog-dev",
         lambda: [debian_text("libspdlog-dev")]),
    Part("fmt", "MIT", "2012 Victor Zverovich", "bin", "Headers, in libZkLoggingHost.so.",
         "https://github.com/fmtlib/fmt", None, "libfmt-dev",
         lambda: [between(debian_text("libfmt-dev"), r"License: Expat with embedded exception\n ",
                          r"\n\nLicense: ")]),
    Part("GCC runtime", "GPL-3.0-or-later WITH GCC-exception-3.1", "Free Software Foundation, Inc.", "bin",
         "libstdc++ and libgcc, linked statically into tavrelCleanup and CrashReporterTavrel. The "
         "exception allows that under any terms.",
         "https://gcc.gnu.org/", "gnu:gcc", "libstdc++-12-dev",
         lambda: [between(debian_text("gcc-12-base"), "GCC RUNTIME LIBRARY EXCEPTION", "\n\n\n")]),
    Part("glibc", "LGPL-2.1-or-later", "Free Software Foundation, Inc.", "bin",
         "Linked statically into CrashReporterTavrel, whose objects a distributor of the packages has to "
         "offer, so that it can be linked with another version.",
         "https://www.gnu.org/software/libc/", "gnu:glibc", "libc6-dev",
         lambda: [debian_text("libc6"), file_text("/usr/share/common-licenses/LGPL-2.1")]),
    Part("CPython", "PSF-2.0", "2001-2023 Python Software Foundation", "bin/python3.7",
         "The interpreter and its standard library.",
         "https://www.python.org/", "python:python",
         lambda: dict(facts("cpython", from_python("sys.version.split()[0]")), sha256=sha256_of(LIBPYTHON)),
         lambda: [file_text(STDLIB + "/LICENSE.txt")]),
    Part("incorporated into CPython", "LicenseRef-incorporated-into-CPython", "their authors",
         "bin/python3.7", "Mersenne Twister, sockets, asynchat and others, as Debian lists them.",
         "https://www.python.org/", None,
         lambda: {"version": from_python("sys.version.split()[0]")},
         lambda: [between(debian_text("python3.11"), "Licenses and Acknowledgements for Incorporated Software",
                          "\nFiles: Modules/_ctypes/libffi/")]),
    Part("libffi", "MIT", "1996-2022 Anthony Green, Red Hat, Inc and others", "bin/python3.7",
         "Linked into the module _ctypes.",
         "https://github.com/libffi/libffi", "libffi_project:libffi", "libffi8",
         lambda: [debian_text("libffi8")]),
    Part("expat", "MIT", "1998-2000 Thai Open Source Software Center Ltd, 2001-2022 Expat maintainers",
         "bin/python3.7", "Comes with CPython, in the module pyexpat.",
         "https://github.com/libexpat/libexpat", "libexpat_project:libexpat",
         lambda: facts("expat", from_python("pyexpat.EXPAT_VERSION[6:]")),
         lambda: [between(debian_text("python3.11"), r"Files: Modules/expat/\*", "\nFiles: ")]),
    Part("libmpdec", "BSD-2-Clause", "2008-2016 Stefan Krah", "bin/python3.7",
         "Comes with CPython, in the module _decimal.",
         "https://www.bytereef.org/mpdecimal/", None,
         lambda: facts("libmpdec", from_python("_decimal.__libmpdec_version__")),
         lambda: [between(debian_text("python3.11"), r"Files: Modules/_decimal/libmpdec/\*", "\nFiles: |\\Z")]),
    Part("pip", "MIT", "2008-2021 The pip developers", "bin/python3.7",
         "In ensurepip, for virtual environments; it holds further packages, listed in its "
         "pip/_vendor/vendor.txt.",
         "https://pypi.org/project/pip/", "pypa:pip", lambda: wheel_facts("pip"),
         lambda: [wheel_text("pip", "LICENSE.txt")]),
    Part("setuptools", "MIT", "Python Packaging Authority", "bin/python3.7",
         "In ensurepip, for virtual environments.",
         "https://pypi.org/project/setuptools/", "python:setuptools",
         lambda: wheel_facts("setuptools"),
         lambda: [wheel_text("setuptools", "LICENSE")]),
)


def file_text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def debian_text(package):
    return file_text("/usr/share/doc/%s/copyright" % package)


def between(text, start, end):
    found = re.search("(?s)(%s.*?)(?=%s)" % (start, end), text)
    if not found:
        sys.exit("third_party: no text from '%s' on: look at what Debian's package says now" % start)
    return found.group(1)


def before(text, end):
    return text[:text.index(end)].rstrip("-\n ")


def first_comment(text):
    return re.sub(r"(?m)^ ?\* ?", "", text[text.index("/*") + 2:text.index("*/")])


def breakpad_archive():
    return single_file(DEPS + "/downloads", r"minidump-.*\.tgz")


def archived(name):
    """A file of Breakpad's folder in the archive that it comes in."""
    with tarfile.open(breakpad_archive()) as archive:
        return archive.extractfile(os.path.normpath(BREAKPAD + name)).read().decode()


def wheel(name):
    return single_file(STDLIB + "/ensurepip/_bundled", name + r"-.*\.whl")


def wheel_text(name, file):
    with zipfile.ZipFile(wheel(name)) as archive:
        inside, = [path for path in archive.namelist() if path.endswith(".dist-info/" + file)]
        return archive.read(inside).decode()


def single_file(folder, pattern):
    name, = [name for name in os.listdir(folder) if re.fullmatch(pattern, name)]
    return os.path.join(folder, name)


def notices():
    yield ("# Third parties\n\nWhat of others is in the packages, under which terms, and where. Made by "
           "`scripts/package/third_party.py`;\nversions and hashes are in `tavrel.spdx.json` of a package. %s\n"
           % LICENCE)
    yield "| part | licence | where |\n|---|---|---|"
    for part in PARTS:
        licence = "below" if part.licence.startswith("LicenseRef") else "`%s`" % part.licence
        yield "| %s | %s | %s |" % (part.name, licence, part.what)
    for part in PARTS:
        yield "\n## %s" % part.name
        for text in part.texts():
            yield "\n```text\n%s\n```" % re.sub(r"[ \t\f]+\n", "\n", text).expandtabs().strip("\n")


def short_name(part):
    return part.name.replace(" ", "-")


def folded(text):
    """As a field of a Debian control file goes on: indented, a dot for an empty line."""
    return "".join(" %s\n" % (line.rstrip() or ".") for line in text.expandtabs().strip("\n").splitlines())


def copyright_file():
    yield ("Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
           "Upstream-Name: tavrel\nComment: %s\n" % LICENCE)
    own = "Files: %s\nCopyright: the owner of tavrel\nLicense: tavrel\n"
    yield own % "*" + " Named by its owner.\n"
    for folder, names in (("bin", "tavrel and "), ("bin/python3.7", "")):
        parts = [part for part in PARTS if part.folder == folder]
        yield "Files: opt/tavrel/%s/*\nCopyright: %s\nLicense: %s\n" % (
            folder, "\n ".join((["the owner of tavrel"] if names else []) + [part.holders for part in parts]),
            names + " and ".join(map(short_name, parts)))
    yield "Files: opt/tavrel/bin/python/* opt/tavrel/bin/log.conf\nCopyright: the owner of tavrel\nLicense: tavrel\n"
    for part in PARTS:
        yield "License: %s\n%s" % (short_name(part), folded("\n\n".join(part.texts())))


def sha256_of(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def output_of(*words):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE, universal_newlines=True).stdout


def debian_facts(packages):
    """Version, purl and SHA-256 of installed packages by name, the hash where apt's lists still have it."""
    hashes = {}
    for entry in output_of("apt-cache", "show", *packages).split("\n\n"):
        fields = dict(re.findall(r"^(Package|Version|SHA256): (\S+)$", entry, re.MULTILINE))
        hashes[fields.get("Package"), fields.get("Version")] = fields.get("SHA256")
    facts = {}
    for line in output_of("dpkg-query", "-W", "-f", "${Package} ${Version} ${Architecture}\n",
                          *packages).splitlines():
        name, version, architecture = line.split()
        if not hashes.get((name, version)):
            sys.stderr.write("third_party: apt has no SHA-256 of %s %s\n" % (name, version))
        encoded = version.replace(":", "%3A").replace("+", "%2B")
        facts[name] = {"version": version, "sha256": hashes.get((name, version)),
                       "purl": "pkg:deb/debian/%s@%s?arch=%s&distro=debian-12" % (name, encoded, architecture)}
    return facts


def facts(name, version):
    return {"version": version, "purl": "pkg:generic/%s@%s" % (name, version)}


def breakpad_facts():
    version = re.search(r"minidump-(.*)\.tgz", breakpad_archive()).group(1)
    return {"version": version, "purl": "pkg:npm/minidump@" + version, "sha256": sha256_of(breakpad_archive()),
            "comment": "The version is that of the archive; upstream names none."}


def lss_revision():
    return re.search(r"third_party/lss.*?@(\w{40})", archived("DEPS"), re.DOTALL).group(1)


def from_python(expression):
    """What the interpreter says of itself."""
    code = "import sys, pyexpat, _decimal; print(%s)" % expression
    return output_of(DEPS + "/python3.7/bin/python3.7", "-I", "-c", code).strip()


def wheel_facts(name):
    version = os.path.basename(wheel(name)).split("-")[1]
    return {"version": version, "purl": "pkg:pypi/%s@%s" % (name, version), "sha256": sha256_of(wheel(name))}


def cpe_of(part, version):
    """Debian's revision isn't upstream's."""
    upstream = re.match(r"[0-9]+(\.[0-9]+)*", version).group()
    return "cpe:2.3:a:%s:%s:*:*:*:*:*:*:*" % (part.cpe, upstream)


def spdx_package(name, licence, facts):
    package = {"name": name, "SPDXID": "SPDXRef-" + re.sub("[^A-Za-z0-9.]", "-", name),
               "downloadLocation": facts.get("url", "NOASSERTION"), "filesAnalyzed": False, "licenseConcluded": licence,
               "licenseDeclared": licence, "copyrightText": facts.get("holders", "NOASSERTION"),
               "versionInfo": facts["version"], "comment": facts.get("comment"), "externalRefs": []}
    if facts.get("purl"):
        package["externalRefs"].append({"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                        "referenceLocator": facts["purl"]})
    if facts.get("cpe"):
        package["externalRefs"].append({"referenceCategory": "SECURITY", "referenceType": "cpe23Type",
                                        "referenceLocator": facts["cpe"]})
    if facts.get("sha256"):
        package["checksums"] = [{"algorithm": "SHA256", "checksumValue": facts["sha256"]}]
    return {key: value for key, value in package.items() if value not in (None, [])}


def bill_of_materials(version, epoch, depends):
    own = spdx_package("tavrel", "NOASSERTION", {"version": version, "comment": LICENCE})
    packages, relationships = [own], [("SPDXRef-DOCUMENT", "DESCRIBES", own)]
    needed = re.findall(r"(?:^|, )([a-z0-9.+-]+)", depends)
    debian = debian_facts(needed + [part.facts for part in PARTS if isinstance(part.facts, str)])
    for part in PARTS:
        found = dict(debian[part.facts] if isinstance(part.facts, str) else part.facts(),
                     holders=part.holders, url=part.url)
        if part.cpe:
            found["cpe"] = cpe_of(part, found["version"])
        packages.append(spdx_package(part.name, part.licence, found))
        relationships.append((own["SPDXID"], "CONTAINS", packages[-1]))
    for name in needed:
        packages.append(spdx_package("needed-" + name, "NOASSERTION", debian[name]))
        relationships.append((own["SPDXID"], "DEPENDS_ON", packages[-1]))
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "tavrel-" + version,
        "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(int(epoch))),
                         "creators": ["Tool: third_party.py"]},
        "packages": packages,
        "hasExtractedLicensingInfos": [
            {"licenseId": part.licence, "extractedText": "\n\n".join(part.texts())}
            for part in PARTS if part.licence.startswith("LicenseRef")],
        "relationships": [{"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other["SPDXID"]}
                          for one, kind, other in relationships]}
    digest = hashlib.sha256(json.dumps(document, sort_keys=True).encode()).hexdigest()
    document["documentNamespace"] = "https://spdx.org/spdxdocs/tavrel-%s-%s" % (version, digest[:32])
    check(document)
    return json.dumps(document, indent=1, sort_keys=True)


def check(document):
    """What a reader of the format would object to; Debian and npm have no validator of its schema."""
    licences = set(json.loads(file_text("/usr/share/nodejs/spdx-license-ids/index.json")))
    licences |= {"NOASSERTION"} | {info["licenseId"] for info in document["hasExtractedLicensingInfos"]}
    ids = [package["SPDXID"] for package in document["packages"]] + ["SPDXRef-DOCUMENT"]
    ends = [relationship[end] for relationship in document["relationships"]
            for end in ("spdxElementId", "relatedSpdxElement")]
    faults = [name for name in ids if ids.count(name) > 1 or name not in ends]
    faults += [name for name in ends if name not in ids]
    for package in document["packages"]:
        faults += [package["name"] + ": " + package["licenseDeclared"]
                   for licence in [package["licenseDeclared"].split(" WITH ")[0]] if licence not in licences]
    if faults:
        sys.exit("third_party: bad in the bill of materials: " + ", ".join(faults))


def main():
    makers = {"notices": notices, "copyright": copyright_file, "spdx": lambda *words: [bill_of_materials(*words)]}
    texts = list(makers[sys.argv[1]](*sys.argv[3:]))
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        file.writelines(text + "\n" for text in texts)


if __name__ == "__main__":
    main()
