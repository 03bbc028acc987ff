// What the dynamic loader says of the launcher. With LD_TRACE_LOADED_OBJECTS it maps a program's
// libraries and, with LD_BIND_NOW and LD_WARN, looks for every symbol, but runs none of their code.

#include <boost/algorithm/string.hpp>
#include <boost/core/demangle.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "programs/tavrelInfo/Child.h"
#include "programs/tavrelInfo/Findings.h"
#include "programs/tavrelInfo/Modules.h"

namespace Info {

namespace {

constexpr char noStart[] = "; without it no run starts (status 127)";

struct Trace {
    std::map<std::string, std::string> libraries;              ///< name to path, empty for none
    std::vector<std::pair<std::string, std::string>> symbols;  ///< missing one, file that wants it
    std::vector<std::string> complaints;
    ChildEnd end;
};

std::string demangled(const std::string& symbol) {
    return boost::replace_all_copy(
        boost::core::demangle(symbol.c_str()),
        "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
        "std::string");
}

void takeLine(const std::string& line, Trace& trace) {
    static const std::regex library(R"(\t(\S+) => (?:(not found)|(.*) \(0x[0-9a-f]+\)))");
    static const std::regex symbol(R"(undefined symbol: ([^\s,]+)(?:, version \S+)?\s+\((.*)\))");
    std::smatch match;
    if (std::regex_match(line, match, library)) {
        trace.libraries[match[1]] = match[3];
    } else if (std::regex_match(line, match, symbol)) {
        trace.symbols.emplace_back(match[1], match[2]);
    } else if (!line.empty() && line.front() != '\t') {
        trace.complaints.push_back(line);
    }
}

Trace traceOf(const std::string& program, const std::string& preloaded) {
    Trace trace;
    trace.end = runProgram({program}, {{"LD_TRACE_LOADED_OBJECTS", "1"},
                                       {"LD_BIND_NOW", "1"},
                                       {"LD_WARN", "1"},
                                       {"LD_PRELOAD", preloaded}});
    std::istringstream lines(trace.end.output);
    for (std::string line; std::getline(lines, line);) {
        takeLine(line, trace);
    }
    return trace;
}

void addLibraries(const std::string& root, const Trace& trace, Findings& findings) {
    std::vector<std::string> closed;
    boost::split(closed, TAVREL_CLOSED_LIBRARIES, boost::is_any_of(" "));
    const std::set<std::string> ofTree(closed.begin(), closed.end());
    std::size_t ofSystem = 0;
    for (const auto& [name, path] : trace.libraries) {
        const bool isOfTree = ofTree.count(name) != 0 || boost::starts_with(name, "libpython");
        if (path.empty()) {
            findings.wrong(name, "missing" + std::string(noStart));
        } else if (isOfTree && !boost::starts_with(path, root + "/bin/")) {
            findings.wrong(name, path + ", which is outside of the tree");
        } else if (isOfTree) {
            findings.add(name, path);
        } else {
            ++ofSystem;
        }
    }
    findings.add("other libraries", std::to_string(ofSystem) + " found");
}

bool isAnyMissing(const Trace& trace) {
    for (const auto& [name, path] : trace.libraries) {
        if (path.empty()) {
            return true;
        }
    }
    return false;
}

void addSymbols(const Trace& trace, const std::string& consequence, Findings& findings) {
    for (const auto& [symbol, file] : trace.symbols) {
        std::string text = "exported by no library: ";
        text.append(demangled(symbol)).append(", which ").append(file).append(" calls");
        findings.wrong(symbol, text.append(consequence));
    }
    for (const std::string& complaint : trace.complaints) {
        findings.wrong("loader", complaint);
    }
    if (!trace.end.isSuccess() && trace.complaints.empty()) {
        findings.wrong("loader", trace.end.text());
    }
}

// A module takes the interpreter's symbols from the launcher, hence not alone.
void addExtension(const std::string& launcher, const std::string& file, Findings& findings) {
    if (file.find_first_of(": ") != std::string::npos) {
        findings.unsure(file, "not looked at: the loader takes no such path here");
        return;
    }
    const Trace trace = traceOf(launcher, file);
    for (const auto& [name, path] : trace.libraries) {
        if (path.empty()) {
            findings.wrong(name, "missing; " + file + " needs it");
        }
    }
    addSymbols(trace, "; without it the module can't be imported", findings);
    if (trace.end.isSuccess() && trace.symbols.empty()) {
        findings.add(file.substr(file.rfind('/') + 1), "finds all libraries and symbols");
    }
}

}  // namespace

void lookAtLibraries(const std::string& root, Findings& findings) {
    findings.section("libraries");
    const std::string launcher = root + "/bin/tavrel";
    if (access(launcher.c_str(), X_OK) != 0) {
        return;  // is reported with the files
    }
    const Trace trace = traceOf(launcher, "");
    addLibraries(root, trace, findings);
    if (isAnyMissing(trace)) {
        findings.unsure("symbols", "not looked for without all libraries");
        return;
    }
    addSymbols(trace, noStart, findings);
    if (!trace.end.isSuccess() || !trace.symbols.empty()) {
        return;
    }
    findings.add("symbols", "the libraries export all that the launcher calls");
    for (const NeededModule& module : neededModules()) {
        const std::string file = module.isOfLibrary ? "" : findModule(root, module.name);
        if (isExtension(file)) {
            addExtension(launcher, file, findings);
        }
    }
}

}  // namespace Info
