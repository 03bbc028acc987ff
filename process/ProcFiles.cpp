#include "process/ProcFiles.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "process/DescriptorIo.h"
#include "process/SystemError.h"

namespace Plexum3::Base {

std::string readToEnd(int fd, boost::system::error_code* errorCode) {
    std::string text;
    std::array<char, 16384> chunk;
    ssize_t got = 0;
    while ((got = readRetry(fd, chunk.data(), chunk.size(), errorCode)) > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return got == 0 ? text : std::string();
}

std::string readSmallFile(const std::string& path, boost::system::error_code* errorCode) {
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        storeError(errorCode, errno, boost::system::system_category());
        return {};
    }
    return readToEnd(file.get(), errorCode);
}

std::string readProcFile(pid_t pid, const std::string& name) {
    return readSmallFile("/proc/" + (pid == 0 ? "" : std::to_string(pid) + "/") + name);
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
