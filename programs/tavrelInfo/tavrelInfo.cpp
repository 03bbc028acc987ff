// tavrelInfo [TREE] [--json]: looks at a tree without running it: what the launcher needs of the
// application beside it, of the interpreter and of the machine, and what of it is missing.

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>

#include "base/ExecutablePath.h"
#include "base/PrintableText.h"
#include "process/StandardStreams.h"
#include "programs/tavrelInfo/Findings.h"

namespace {

enum ExitStatus { Complete = 0, Incomplete = 1, BadArguments = 2 };

constexpr char helpText[] =
    "Usage: tavrelInfo [--json] [TREE]\n"
    "\n"
    "Looks at TREE, or at the tree that it stands in, without running anything of it: files, "
    "libraries\n"
    "and their symbols, interpreter, Python modules, machine, folders and environment.\n"
    "\n"
    "  --json      one object for a program to read\n"
    "  -h, --help  this text\n"
    "  --version   the version\n"
    "\n"
    "Exit status: 0 nothing that a run needs is missing, 1 something is, 2 bad command line.\n";

ExitStatus complain(const std::string& what, ExitStatus status) {
    std::cerr << "tavrelInfo: " << Zendrik::Base::printableText(what) << '\n';
    return status;
}

ExitStatus print(const std::string& text, ExitStatus status) {
    std::cout << text << std::flush;
    return std::cout ? status : complain("the output could not be written", Incomplete);
}

std::string ownTree() {
    const std::string program = Zendrik::Base::executablePath();
    return program.substr(0, program.rfind('/', program.rfind('/') - 1));
}

ExitStatus look(const std::string& tree, bool isJson) {
    char root[PATH_MAX];
    struct stat status = {};
    if (realpath(tree.c_str(), root) == nullptr || stat(root, &status) != 0 ||
        !S_ISDIR(status.st_mode)) {
        return complain("'" + tree + "' is no folder", BadArguments);
    }
    Info::Findings findings;
    Info::lookAtFiles(root, findings);
    Info::lookAtLibraries(root, findings);
    Info::lookAtPython(root, findings);
    Info::lookAtMachine(root, findings);
    Info::lookAtUser(findings);
    return print(isJson ? findings.json() : findings.text(),
                 findings.areGood() ? Complete : Incomplete);
}

ExitStatus answer(int argc, char** argv) {
    std::string tree;
    bool isJson = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            return print(helpText, Complete);
        }
        if (word == "--version") {
            return print("tavrelInfo " TAVREL_VERSION_TEXT "\n", Complete);
        }
        if (word == "--json") {
            isJson = true;
        } else if (!tree.empty() || word.empty() || word.front() == '-') {
            return complain(
                "can't do anything with '" + word + "'; tavrelInfo --help lists the options",
                BadArguments);
        } else {
            tree = word;
        }
    }
    return look(tree.empty() ? ownTree() : tree, isJson);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return answer(argc, argv);
    } catch (const std::exception& error) {
        return complain(error.what(), Incomplete);
    }
}
