#include <boost/algorithm/string.hpp>
#include <dlfcn.h>
#include <glob.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "programs/tavrelInfo/Child.h"
#include "programs/tavrelInfo/Findings.h"
#include "programs/tavrelInfo/Modules.h"

namespace Info {

namespace {

/// The library's own word; it may be asked before it is initialised.
void addVersion(const std::string& home, Findings& findings) {
    const std::string file = home + "/lib/libpython3.7m.so.1.0";
    const ChildEnd end = inChild([&] {
        void* const library = dlopen(file.c_str(), RTLD_LAZY | RTLD_LOCAL);
        void* const function = library == nullptr ? nullptr : dlsym(library, "Py_GetVersion");
        if (function == nullptr) {
            std::cout << dlerror();
            return 1;
        }
        std::cout << reinterpret_cast<const char* (*)()>(function)();
        return 0;
    });
    const std::string answer = end.output.empty() ? end.text() : end.output;
    if (end.isSuccess() && boost::starts_with(answer, "3.7.")) {
        findings.add("interpreter", "Python " + answer.substr(0, answer.find(' ')) + ", " + home);
    } else {
        findings.wrong("interpreter", "no Python 3.7: " + answer);
    }
}

void addByteCode(const std::string& library, Findings& findings) {
    for (const char* const name : {"/os.pyc", "/__pycache__/os.cpython-37.pyc"}) {
        std::ifstream file(library + name, std::ios::binary);
        std::uint32_t magic = 0;
        if (!file.read(reinterpret_cast<char*>(&magic), sizeof magic)) {
            continue;
        }
        if (magic == byteCodeMagic) {
            findings.add("byte code", "of the entry script's format");
        } else {
            findings.wrong("byte code",
                           library + name + " is of another format than the entry script");
        }
        return;
    }
    findings.unsure("byte code", "not compared: no compiled os module in " + library);
}

void addStandardLibrary(const std::string& home, Findings& findings) {
    const std::string library = home + "/lib/python3.7";
    if (access((library + "/os.py").c_str(), R_OK) != 0 &&
        access((library + "/os.pyc").c_str(), R_OK) != 0) {
        findings.wrong("standard library",
                       "missing in " + library + "; without it no run starts (status 1)");
    } else {
        findings.add("standard library", library);
    }
    glob_t modules = {};
    if (glob((library + "/lib-dynload/*.so").c_str(), 0, nullptr, &modules) == 0) {
        findings.add("lib-dynload", std::to_string(modules.gl_pathc) + " extension modules");
    } else {
        findings.wrong("lib-dynload", "no extension module in " + library + "/lib-dynload");
    }
    globfree(&modules);
    addByteCode(library, findings);
}

bool holds(const std::string& file, const std::string& pattern) {
    return runProgram({"grep", "-qaE", pattern, file}, {{"LC_ALL", "C"}}).isSuccess();
}

enum class Presence { There, Missing, Unsure };

/// Whether a module's file gives a name. Source says where it comes from; byte code and extensions
/// hold it as a word. Names may also come from elsewhere, which only an import would show.
Presence presenceOf(const std::string& name, const std::string& package, const std::string& file) {
    const std::string word = "\\b" + name + "\\b";
    if (!boost::ends_with(file, ".py")) {
        return holds(file, word) ? Presence::There : Presence::Missing;
    }
    if (holds(file, "\\b(def|class)\\s+" + word + "|" + word +
                        R"(\s*(,[A-Za-z0-9_, ]*)?(:[^=]*)?=[^=])")) {
        return Presence::There;
    }
    // Of its own package only what is a file, and that was looked for.
    if (holds(file, "\\bfrom\\s+(\\.|" + package + ")\\s+import\\b.*" + word)) {
        return Presence::Missing;
    }
    const bool isUnsure = holds(file, word + R"(|import\s*\*|\b(__getattr__|globals|setattr)\b)");
    return isUnsure ? Presence::Unsure : Presence::Missing;
}

/// Of "a.b" of a package, a is a module in it, or a name; b is looked for where a was found.
/// @param file the module's; becomes the one that was looked into
Presence presenceOfUse(const std::string& root, const NeededModule& module, const std::string& use,
                       std::string& file) {
    const std::string first = use.substr(0, use.find('.'));
    const std::string inner = findModule(root, module.name + "." + first);
    if (use.size() == first.size()) {
        return inner.empty() ? presenceOf(first, module.name, file) : Presence::There;
    }
    file = inner.empty() ? file : inner;
    const Presence found = presenceOf(use.substr(use.rfind('.') + 1), module.name, file);
    return found == Presence::Missing && inner.empty() && !isExtension(file) ? Presence::Unsure
                                                                             : found;
}

void addNames(const std::string& root, const NeededModule& module, const std::string& file,
              const std::string& from, Findings& findings) {
    std::string unsure;
    bool isWhole = true;
    for (const std::string& use : module.uses) {
        std::string lookedInto = file;
        const Presence found = presenceOfUse(root, module, use, lookedInto);
        if (found == Presence::Missing) {
            findings.wrong(std::string(module.name).append(".").append(use),
                           std::string("not in ").append(lookedInto).append(from));
            isWhole = false;
        } else if (found == Presence::Unsure) {
            unsure += ' ' + use;
        }
    }
    if (!unsure.empty()) {
        findings.unsure(module.name,
                        file + "; without importing it can't be said whether it has" + unsure);
    } else if (isWhole) {
        findings.add(module.name, file);
    }
}

}  // namespace

void lookAtPython(const std::string& root, Findings& findings) {
    findings.section("Python");
    const std::string home = root + "/bin/python3.7";
    addVersion(home, findings);
    addStandardLibrary(home, findings);
    const bool hasArchive = access((home + "/lib/python37.zip").c_str(), F_OK) == 0;
    for (const NeededModule& module : neededModules) {
        const std::string from = module.importedIn.empty()
                                     ? "; every run needs it"
                                     : "; " + module.importedIn + "() of the entry script needs it";
        const std::string file = findModule(root, module.name);
        if (file.empty() && hasArchive) {
            findings.unsure(module.name, "not found, but python37.zip isn't looked into");
        } else if (file.empty()) {
            findings.wrong(module.name, "no such module" + from);
        } else if (!module.isOfLibrary) {
            addNames(root, module, file, from, findings);
        }
    }
}

}  // namespace Info
