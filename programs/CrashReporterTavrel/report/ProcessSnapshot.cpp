#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "process/DescriptorIo.h"
#include "process/ProcFiles.h"
#include "process/ProcessEnd.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

constexpr std::size_t procFileLimit = std::size_t{256} * 1024;
constexpr std::int64_t nsPerSecond = 1000000000;

std::int64_t nowNs(clockid_t clock) {
    timespec now{};
    static_cast<void>(clock_gettime(clock, &now));  // both clocks used exist on every kernel
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

std::string readLink(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), target, sizeof target);
    return size < 0 ? std::string() : std::string(target, static_cast<std::size_t>(size));
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
bool isOption(const std::string& argument, const std::string& name, std::size_t shortest) {
    const std::string given = argument.substr(0, argument.find('='));
    return given.size() >= shortest && given.size() <= name.size() &&
           name.compare(0, given.size(), given) == 0;
}

}  // namespace

std::string readText(int folder, const std::string& path, std::size_t limit, int extraFlags) {
    const ScopedFd file(openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC | extraFlags));
    std::string text(limit, '\0');
    std::size_t filled = 0;
    while (file.get() >= 0 && filled < limit) {
        const ssize_t got =
            Plexum3::Base::readRetry(file.get(), &text[filled], limit - filled, nullptr);
        if (got <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    text.resize(filled);
    return text;
}

std::int64_t numberBehind(const std::string& text, const std::string& name) {
    const std::string field = Plexum3::Base::statusField(text, name);
    char* end = nullptr;
    const std::int64_t value = std::strtoll(field.c_str(), &end, 10);
    return end == field.c_str() ? -1 : value;
}

std::string runModeOf(const std::vector<std::string>& arguments) {
    bool batch = false;
    bool script = false;
    bool shell = false;
    for (std::size_t i = 1; i < arguments.size() && arguments[i] != "--"; ++i) {
        batch = batch || isOption(arguments[i], "--batch", sizeof "--b" - 1);
        script = script || isOption(arguments[i], "--script", sizeof "--sc" - 1);
        shell = shell || isOption(arguments[i], "--shell", sizeof "--sh" - 1);
    }
    return batch ? "batch" : script ? "script" : shell ? "shell" : "UI";
}

ProcessSnapshot takeSnapshot(pid_t pid, pid_t tid) {
    const std::string folder = "/proc/" + std::to_string(tid) + "/";
    ProcessSnapshot snapshot;
    snapshot.pid = pid;
    snapshot.executable = readLink(folder + "exe");
    snapshot.runMode =
        runModeOf(splitAtNulls(readText(AT_FDCWD, folder + "cmdline", procFileLimit)));
    snapshot.workingDirectory =
        ScopedFd(open((folder + "cwd").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string status = readText(AT_FDCWD, folder + "status", procFileLimit);
    snapshot.residentKiB = numberBehind(status, "VmRSS");
    snapshot.peakResidentKiB = numberBehind(status, "VmHWM");
    snapshot.virtualKiB = numberBehind(status, "VmSize");
    snapshot.threads = numberBehind(status, "Threads");
    if (const std::uint64_t ticks = Plexum3::Base::readProcessLife(pid).startTicks; ticks != 0) {
        const std::int64_t sinceBootNs =
            static_cast<std::int64_t>(ticks) * (nsPerSecond / sysconf(_SC_CLK_TCK));
        const std::int64_t uptimeNs =
            std::max<std::int64_t>(nowNs(CLOCK_BOOTTIME) - sinceBootNs, 0);
        snapshot.uptimeSeconds = static_cast<double>(uptimeNs) / nsPerSecond;
        snapshot.startedNs = nowNs(CLOCK_REALTIME) - uptimeNs;
    }
    return snapshot;
}

}  // namespace Zendrik::Reporter
