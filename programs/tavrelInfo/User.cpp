#include <boost/algorithm/string.hpp>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <vector>

#include "programs/tavrelInfo/Findings.h"

namespace Info {

namespace {

constexpr std::size_t reportsShown = 3;

std::string firstSet(std::initializer_list<const char*> variables, const char* otherwise) {
    for (const char* const variable : variables) {
        const char* const value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            return value;
        }
    }
    return otherwise;
}

/// Why nothing can be written there; empty if it can.
std::string whyUnusable(const std::string& folder, bool isLinkAllowed) {
    struct stat status = {};
    if ((isLinkAllowed ? stat : lstat)(folder.c_str(), &status) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return "no folder";
    }
    return access(folder.c_str(), W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

void addTemporaryFolder(Findings& findings) {
    const char* const own = std::getenv("TAVREL_TMPDIR");
    if (own != nullptr && *own != '\0') {
        findings.add("temporary", std::string(own) + ", which each run deletes at its end");
        return;
    }
    const std::string folder = firstSet({"TMPDIR", "TMP", "TEMP", "TEMPDIR"}, "/tmp");
    const std::string reason = whyUnusable(folder, /*isLinkAllowed=*/true);
    struct statvfs status = {};
    if (!reason.empty() && reason != std::strerror(ENOENT)) {
        findings.wrong("temporary",
                       folder + ": " + reason + "; without it no run starts (status 1)");
    } else if (!reason.empty()) {
        findings.add("temporary", folder + ", which a run makes");
    } else if (statvfs(folder.c_str(), &status) == 0) {
        findings.add(
            "temporary",
            folder + ", " + std::to_string(status.f_bavail * status.f_frsize >> 20U) + " MB free");
    }
}

struct Report {
    timespec time;
    std::string path;
};

std::vector<Report> reportsIn(const std::string& folder) {
    static const std::regex name(R"([0-9a-f]{8}(-[0-9a-f]+){4}\.txt)");
    std::vector<Report> reports;
    const auto close = [](DIR* directory) { closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> open(opendir(folder.c_str()), close);
    for (const dirent* entry = nullptr; open && (entry = readdir(open.get())) != nullptr;) {
        struct stat status = {};
        const std::string path = folder + '/' + entry->d_name;
        if (std::regex_match(entry->d_name, name) && lstat(path.c_str(), &status) == 0 &&
            S_ISREG(status.st_mode) && status.st_uid == getuid()) {
            reports.push_back({status.st_mtim, path});
        }
    }
    std::sort(reports.begin(), reports.end(), [](const Report& left, const Report& right) {
        return std::pair(left.time.tv_sec, left.time.tv_nsec) >
               std::pair(right.time.tv_sec, right.time.tv_nsec);
    });
    return reports;
}

std::string factsOf(const std::string& path) {
    constexpr int headLines = 40;
    std::ifstream file(path);
    std::string line;
    std::string facts;
    for (int i = 0; i < headLines && std::getline(file, line); ++i) {
        if (boost::starts_with(line, "Time:") || boost::starts_with(line, "Signal:")) {
            facts +=
                (facts.empty() ? "" : ", ") + boost::trim_copy(line.substr(line.find(':') + 1));
        }
    }
    return facts;
}

void addCrashFolder(Findings& findings) {
    const std::string folder = firstSet({"TAVREL_CRASH_DIR"}, "/var/tmp");
    const std::string reason = whyUnusable(folder, /*isLinkAllowed=*/false);
    if (!reason.empty()) {
        findings.wrong("crash reports", folder + ": " + reason + "; crashes leave no report");
        return;
    }
    const std::vector<Report> reports = reportsIn(folder);
    findings.add("crash reports", folder + ", " + std::to_string(reports.size()) + " of this user");
    for (std::size_t i = 0; i < std::min(reports.size(), reportsShown); ++i) {
        const std::string& path = reports[i].path;
        findings.add(path.substr(path.rfind('/') + 1), factsOf(path));
    }
}

// Those of the launcher, the loader and the interpreter, as they were handed to this program.
void addVariables(Findings& findings) {
    static const std::regex ours(
        "(TAVREL|ZENDRIK|ZKLOGGING|ZKPXR|LD|LC|PYTHON)\\w*|SHOW|SHOT|TMPDIR|TMP|TEMP|TEMPDIR|LANG|"
        "VIRTUAL_ENV");
    std::vector<std::string> found;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (std::regex_match(text.substr(0, text.find('=')), ours)) {
            found.push_back(text);
        }
    }
    std::sort(found.begin(), found.end());
    for (const std::string& text : found) {
        const std::size_t equals = text.find('=');
        findings.add(text.substr(0, equals), text.substr(equals + 1));
    }
}

}  // namespace

void lookAtUser(Findings& findings) {
    findings.section("folders");
    addTemporaryFolder(findings);
    addCrashFolder(findings);
    findings.section("environment");
    addVariables(findings);
}

}  // namespace Info
