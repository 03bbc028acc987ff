#include <boost/algorithm/string.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <vector>

#include "process/Subprocess.h"
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
std::string whyUnusable(const std::string& folder) {
    std::error_code error;
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        return std::strerror(errno);
    }
    return std::filesystem::is_directory(folder, error) ? "" : "no folder";
}

void addTemporaryFolder(Findings& findings) {
    if (const std::string own = firstSet({"TAVREL_TMPDIR"}, ""); !own.empty()) {
        findings.add("temporary", own + ", which each run deletes at its end");
        return;
    }
    const std::string folder = firstSet({"TMPDIR", "TMP", "TEMP", "TEMPDIR"}, "/tmp");
    const std::string reason = whyUnusable(folder);
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(folder, error);
    if (reason == std::strerror(ENOENT)) {
        findings.add("temporary", folder + ", which a run makes");
    } else if (!reason.empty()) {
        findings.wrong("temporary",
                       folder + ": " + reason + "; without it no run starts (status 1)");
    } else if (!error) {
        findings.add("temporary",
                     folder + ", " + std::to_string(space.available >> 20U) + " MB free");
    }
}

struct Report {
    std::filesystem::file_time_type time;
    std::string path;
};

// This user's, the newest first.
std::vector<Report> reportsIn(const std::string& folder) {
    static const std::regex name(R"([0-9a-f]{8}(-[0-9a-f]+){4}\.txt)");
    std::vector<Report> reports;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        struct stat status = {};
        const std::string path = entry->path();
        if (std::regex_match(entry->path().filename().string(), name) &&
            lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_uid == getuid()) {
            std::error_code unread;
            reports.push_back({entry->last_write_time(unread), path});
        }
    }
    std::sort(reports.begin(), reports.end(),
              [](const Report& left, const Report& right) { return left.time > right.time; });
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
    // The reporter takes no symbolic link for it.
    std::error_code error;
    const bool isLink = std::filesystem::is_symlink(folder, error);
    const std::string reason = isLink ? "no folder" : whyUnusable(folder);
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
    for (const auto& [name, value] : Plexum3::Base::currentEnvironment()) {
        if (std::regex_match(name, ours)) {
            findings.add(name, value);
        }
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
