#include "process/ProcFiles.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace Plexum3::Base {

std::string readProcFile(pid_t pid, const std::string& name) {
    const std::ifstream file("/proc/" + (pid == 0 ? "" : std::to_string(pid) + "/") + name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string statusField(std::string_view status, std::string_view name) {
    while (!status.empty()) {
        const std::string_view line = status.substr(0, status.find('\n'));
        if (line.substr(0, name.size()) == name && line.substr(name.size(), 1) == ":") {
            const std::string_view value = line.substr(name.size() + 1);
            const std::size_t first = value.find_first_not_of(" \t");
            return std::string(first == std::string_view::npos ? "" : value.substr(first));
        }
        status.remove_prefix(std::min(line.size() + 1, status.size()));
    }
    return {};
}

std::string threadName(pid_t tid) {
    const std::string line = readProcFile(tid, "comm");
    return line.substr(0, line.rfind('\n'));
}

std::vector<pid_t> listThreads(pid_t pid) {
    std::vector<pid_t> threads;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/" + std::to_string(pid) + "/task", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        pid_t tid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), tid).ec == std::errc()) {
            threads.push_back(tid);
        }
    }
    return threads;
}

}  // namespace Plexum3::Base
