#include <boost/algorithm/string.hpp>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "programs/tavrelInfo/Child.h"
#include "programs/tavrelInfo/Findings.h"

namespace Info {

namespace {

// As long as a tree on a slow server takes to be read.
constexpr unsigned secondsForManifest = 600;

struct OwnFile {
    const char* name;
    const char* without;  ///< what is lost without it
};
constexpr OwnFile ownFiles[] = {
    {"tavrel", "nothing runs"},
    {"tavrelCleanup", "temporary folders stay"},
    {"CrashReporterTavrel", "no crash is captured"},
    {"tavrelFrames", "crash reports have neither names nor all frames"},
    {"tavrelStack", "stacks of a running process can't be printed"},
    {"libTavrelOpenGLProbe.so", "the window starts without a look at OpenGL"},
};

void addOwnFile(const std::string& folder, const OwnFile& file, Findings& findings) {
    const std::string path = folder + file.name;
    std::error_code error;
    std::string reason;
    if (access(path.c_str(), X_OK) != 0) {
        reason = std::strerror(errno);
    } else if (!std::filesystem::is_regular_file(path, error)) {
        reason = "no file";
    }
    if (reason.empty()) {
        findings.add(file.name, path);
    } else {
        findings.wrong(file.name, path + ": " + reason + "; " + file.without);
    }
}

void addManifest(const std::string& root, const std::string& name, Findings& findings) {
    if (access((root + '/' + name).c_str(), F_OK) != 0) {
        return;
    }
    const ChildEnd end = runProgram(
        {"env", "-C", root, "LC_ALL=C", "sha256sum", "--check", "--quiet", "--strict", name}, {},
        secondsForManifest);
    if (end.isSuccess()) {
        findings.add(name, "all files as they were installed");
        return;
    }
    findings.wrong(name, "sha256sum " + end.text());
    std::istringstream lines(end.output);
    for (std::string line; std::getline(lines, line);) {
        if (!boost::starts_with(line, "sha256sum: WARNING")) {
            findings.wrong(name, line);
        }
    }
}

}  // namespace

void lookAtFiles(const std::string& root, Findings& findings) {
    findings.section("tree");
    findings.add("tree", root);
    findings.add("tavrelInfo", TAVREL_VERSION_TEXT);
    for (const OwnFile& file : ownFiles) {
        addOwnFile(root + "/bin/", file, findings);
    }
    for (const char* const name : {"MANIFEST", "MANIFEST.launcher"}) {
        addManifest(root, name, findings);
    }
}

}  // namespace Info
