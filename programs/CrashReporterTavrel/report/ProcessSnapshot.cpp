#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "process/ProcFiles.h"
#include "process/ProcessEnd.h"

namespace Zendrik::Reporter {

namespace {

constexpr std::int64_t nsPerSecond = 1000000000;

std::int64_t nowNs(clockid_t clock) {
    timespec now{};
    static_cast<void>(clock_gettime(clock, &now));  // both clocks used exist on every kernel
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

// The launcher's parser takes unique prefixes of long names, and values behind "=".
bool isOption(const std::string& argument, const std::string& name, std::size_t shortest) {
    const std::string given = argument.substr(0, argument.find('='));
    return given.size() >= shortest && given.size() <= name.size() &&
           name.compare(0, given.size(), given) == 0;
}

}  // namespace

std::int64_t numberBehind(const std::string& text, const std::string& name) {
    const std::string field = Plexum3::Base::statusField(text, name);
    char* end = nullptr;
    const std::int64_t value = std::strtoll(field.c_str(), &end, 10);
    return end == field.c_str() ? -1 : value;
}

std::string runModeOf(const std::string& commandLine) {
    bool batch = false;
    bool script = false;
    bool shell = false;
    std::istringstream arguments(commandLine);
    std::string argument;
    std::getline(arguments, argument, '\0');  // the program's own name
    while (std::getline(arguments, argument, '\0') && argument != "--") {
        batch = batch || isOption(argument, "--batch", sizeof "--b" - 1);
        script = script || isOption(argument, "--script", sizeof "--sc" - 1);
        shell = shell || isOption(argument, "--shell", sizeof "--sh" - 1);
    }
    return batch ? "batch" : script ? "script" : shell ? "shell" : "UI";
}

ProcessSnapshot takeSnapshot(pid_t pid, pid_t tid) {
    const std::string folder = "/proc/" + std::to_string(tid) + "/";
    ProcessSnapshot snapshot;
    snapshot.pid = pid;
    std::error_code unreadable;
    snapshot.executable = std::filesystem::read_symlink(folder + "exe", unreadable);
    snapshot.runMode = runModeOf(Plexum3::Base::readProcFile(tid, "cmdline"));
    snapshot.workingDirectory.reset(
        open((folder + "cwd").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string status = Plexum3::Base::readProcFile(tid, "status");
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
