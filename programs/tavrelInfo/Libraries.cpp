// What the dynamic loader says of the launcher. With LD_TRACE_LOADED_OBJECTS it maps a program's
// libraries and, with LD_BIND_NOW and LD_WARN, looks for every symbol, but runs none of their code.

#include <boost/algorithm/string.hpp>
#include <boost/core/demangle.hpp>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>

#include "programs/tavrelInfo/Child.h"
#include "programs/tavrelInfo/Findings.h"
#include "programs/tavrelInfo/Modules.h"

namespace Info {

namespace {

constexpr char noStart[] = "; without it no run starts (status 127)";

struct Trace {
    std::map<std::string, std::string> libraries;              ///< name to path
    std::vector<std::string> missing;                          ///< libraries
    std::vector<std::pair<std::string, std::string>> symbols;  ///< missing one, file that wants it
    std::vector<std::string> complaints;

    bool isWhole() const { return missing.empty() && symbols.empty() && complaints.empty(); }
};

void takeLine(const std::string& line, Trace& trace) {
    static const std::regex library(R"(\t(\S+) => (?:(not found)|(.*) \(0x[0-9a-f]+\)))");
    static const std::regex symbol(R"(undefined symbol: ([^\s,]+)(?:, version \S+)?\s+\((.*)\))");
    std::smatch match;
    if (std::regex_match(line, match, library)) {
        if (match[2].matched) {
            trace.missing.push_back(match[1]);
        } else {
            trace.libraries[match[1]] = match[3];
        }
    } else if (std::regex_match(line, match, symbol)) {
        trace.symbols.emplace_back(match[1], match[2]);
    } else if (!line.empty() && line.front() != '\t') {
        trace.complaints.push_back(line);
    }
}

Trace traceOf(const std::string& program, const std::string& preloaded = "") {
    Trace trace;
    const ChildEnd end = runProgram({program}, {{"LD_TRACE_LOADED_OBJECTS", "1"},
                                                {"LD_BIND_NOW", "1"},
                                                {"LD_WARN", "1"},
                                                {"LD_PRELOAD", preloaded}});
    std::istringstream lines(end.output);
    for (std::string line; std::getline(lines, line);) {
        takeLine(line, trace);
    }
    if (!end.isSuccess() && trace.complaints.empty()) {
        trace.complaints.push_back(end.text());
    }
    return trace;
}

void addMissing(const Trace& trace, const std::string& consequence, Findings& findings) {
    for (const std::string& name : trace.missing) {
        findings.wrong(name, "missing" + consequence);
    }
    for (const auto& [symbol, file] : trace.symbols) {
        std::string text = "exported by no library: ";
        text.append(boost::core::demangle(symbol.c_str())).append(", which ").append(file);
        findings.wrong(symbol, text.append(" calls").append(consequence));
    }
    for (const std::string& complaint : trace.complaints) {
        findings.wrong("loader", complaint);
    }
}

void addLibraries(const std::string& root, const Trace& trace, Findings& findings) {
    std::size_t ofSystem = 0;
    for (const auto& [name, path] : trace.libraries) {
        const bool isOfTree = boost::contains(TAVREL_CLOSED_LIBRARIES, " " + name + " ") ||
                              boost::starts_with(name, "libpython");
        if (!isOfTree) {
            ++ofSystem;
        } else if (boost::starts_with(path, root + "/bin/")) {
            findings.add(name, path);
        } else {
            findings.wrong(name, path + ", which is outside of the tree");
        }
    }
    findings.add("other libraries", std::to_string(ofSystem) + " found");
}

// A module takes the interpreter's symbols from the launcher, hence not alone.
void addExtension(const std::string& launcher, const std::string& file, Findings& findings) {
    if (file.find_first_of(": ") != std::string::npos) {
        findings.unsure(file, "not looked at: the loader takes no such path here");
        return;
    }
    const Trace trace = traceOf(launcher, file);
    addMissing(trace, "; without it " + file + " can't be imported", findings);
    if (trace.isWhole()) {
        findings.add(file.substr(file.rfind('/') + 1), "finds all libraries and symbols");
    }
}

void addFrameLibrary(const std::string& program, Findings& findings) {
    const Trace trace = traceOf(program);
    addMissing(trace, "; crash reports have neither names nor all frames", findings);
    if (trace.isWhole()) {
        findings.add("tavrelFrames", "finds all libraries and symbols");
    }
}

}  // namespace

void lookAtLibraries(const std::string& root, Findings& findings) {
    findings.section("libraries");
    if (const std::string frames = root + "/bin/tavrelFrames"; access(frames.c_str(), X_OK) == 0) {
        addFrameLibrary(frames, findings);
    }
    const std::string launcher = root + "/bin/tavrel";
    if (access(launcher.c_str(), X_OK) != 0) {
        return;  // is reported with the files
    }
    Trace trace = traceOf(launcher);
    addLibraries(root, trace, findings);
    if (!trace.missing.empty()) {
        trace.symbols.clear();  // one missing library takes many symbols with it
        findings.unsure("symbols", "not looked for without all libraries");
    }
    addMissing(trace, noStart, findings);
    if (!trace.isWhole()) {
        return;
    }
    findings.add("symbols", "the libraries export all that the launcher calls");
    for (const NeededModule& module : neededModules) {
        const std::string file = module.isOfLibrary ? "" : findModule(root, module.name);
        if (isExtension(file)) {
            addExtension(launcher, file, findings);
        }
    }
}

}  // namespace Info
