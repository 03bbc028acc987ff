#include "programs/CrashReporterTavrel/ProcessSnapshot.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace Zendrik::Reporter {

namespace {

constexpr size_t kProcFileLimit = size_t{256} * 1024;
constexpr int64_t kNsPerSecond = 1000000000;

int64_t nowNs(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now);  // both clocks used exist on every kernel
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

std::string readLink(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), target, sizeof target);
    return size < 0 ? std::string() : std::string(target, static_cast<size_t>(size));
}

std::vector<std::string> splitAtNulls(const std::string& text) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, '\0');) {
        pieces.push_back(piece);
    }
    return pieces;
}

// The launcher's parser takes unique prefixes of long names, and values behind "=".
bool isOption(const std::string& argument, const std::string& name, size_t shortest) {
    const std::string given = argument.substr(0, argument.find('='));
    return given.size() >= shortest && given.size() <= name.size() &&
           name.compare(0, given.size(), given) == 0;
}

}  // namespace

std::string readText(int folder, const std::string& path, size_t limit, int extraFlags) {
    const ScopedFd file(openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC | extraFlags));
    std::string text(limit, '\0');
    size_t filled = 0;
    while (file.get() >= 0 && filled < limit) {
        const ssize_t got =
            Plexum3::Base::readRetry(file.get(), &text[filled], limit - filled, nullptr);
        if (got <= 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    text.resize(filled);
    return text;
}

int64_t startTicksOf(const std::string& stat) {
    // The command name is the one field that may hold anything; it ends at the last parenthesis.
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) {
        return -1;
    }
    std::istringstream fields(stat.substr(nameEnd + 1));
    constexpr int fieldsBefore = 19;  // from the state, field 3, to field 21
    std::string skipped;
    for (int field = 0; field < fieldsBefore; ++field) {
        fields >> skipped;
    }
    int64_t ticks = -1;
    return fields >> ticks ? ticks : -1;
}

int64_t startTicks(pid_t pid) {
    constexpr size_t limit = 4096;
    return startTicksOf(readText(AT_FDCWD, "/proc/" + std::to_string(pid) + "/stat", limit));
}

int64_t numberBehind(const std::string& text, const std::string& name) {
    const std::string wanted = name + ":";
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
        if (at == 0 || text[at - 1] == '\n') {
            const char* number = text.c_str() + at + wanted.size();
            char* end = nullptr;
            const int64_t value = std::strtoll(number, &end, 10);
            return end == number ? -1 : value;
        }
    }
    return -1;
}

std::string runModeOf(const std::vector<std::string>& arguments) {
    bool batch = false;
    bool script = false;
    bool shell = false;
    for (size_t i = 1; i < arguments.size() && arguments[i] != "--"; ++i) {
        batch = batch || isOption(arguments[i], "--batch", sizeof "--b" - 1);
        script = script || isOption(arguments[i], "--script", sizeof "--sc" - 1);
        shell = shell || isOption(arguments[i], "--shell", sizeof "--sh" - 1);
    }
    return batch ? "batch" : script ? "script" : shell ? "shell" : "UI";
}

ProcessSnapshot takeSnapshot(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid) + "/";
    ProcessSnapshot snapshot;
    snapshot.pid = pid;
    snapshot.executable = readLink(folder + "exe");
    snapshot.runMode =
        runModeOf(splitAtNulls(readText(AT_FDCWD, folder + "cmdline", kProcFileLimit)));
    snapshot.workingDirectory =
        ScopedFd(open((folder + "cwd").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string status = readText(AT_FDCWD, folder + "status", kProcFileLimit);
    snapshot.residentKiB = numberBehind(status, "VmRSS");
    snapshot.peakResidentKiB = numberBehind(status, "VmHWM");
    snapshot.virtualKiB = numberBehind(status, "VmSize");
    snapshot.threads = numberBehind(status, "Threads");
    if (const int64_t ticks = startTicks(pid); ticks >= 0) {
        const int64_t sinceBootNs = ticks * (kNsPerSecond / sysconf(_SC_CLK_TCK));
        const int64_t uptimeNs = std::max<int64_t>(nowNs(CLOCK_BOOTTIME) - sinceBootNs, 0);
        snapshot.uptimeSeconds = static_cast<double>(uptimeNs) / kNsPerSecond;
        snapshot.startedNs = nowNs(CLOCK_REALTIME) - uptimeNs;
    }
    return snapshot;
}

}  // namespace Zendrik::Reporter
