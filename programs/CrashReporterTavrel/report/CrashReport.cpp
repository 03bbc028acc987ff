#include "programs/CrashReporterTavrel/report/CrashReport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <string_view>

#include "base/PrintableText.h"
#include "process/ProcFiles.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"
#include "stacks/StackText.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Reporter {

namespace {

using Zendrik::Base::printableText;

// What the launcher's Python hook writes, in its working directory.
constexpr char pythonStackLog[] = "PythonStackLog.txt";

std::string orUnknown(const std::string& text) {
    return text.empty() ? "unknown" : printableText(text);
}

[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
    va_end(arguments);
    return text;
}

std::string mebibytes(std::int64_t kibibytes) {
    constexpr double kibPerMib = 1024;
    return kibibytes < 0 ? "unknown"
                         : formatted("%.1f MiB", static_cast<double>(kibibytes) / kibPerMib);
}

std::string threadCount(std::int64_t threads) {
    return threads < 0    ? "unknown number of threads"
           : threads == 1 ? "1 thread"
                          : std::to_string(threads) + " threads";
}

std::string processText(const ProcessSnapshot& process) {
    return formatted("Process:     %d\n", static_cast<int>(process.pid)) +
           "Executable:  " + orUnknown(process.executable) +
           "\nRun mode:    " + orUnknown(process.runMode) + "\nUptime:      " +
           (process.uptimeSeconds < 0 ? "unknown" : formatted("%.2f s", process.uptimeSeconds)) +
           "\nMemory:      " + mebibytes(process.residentKiB) + " resident, " +
           mebibytes(process.peakResidentKiB) + " at its peak, " + mebibytes(process.virtualKiB) +
           " virtual; " + threadCount(process.threads) + "\n";
}

std::string systemText() {
    utsname system{};
    const std::string memory = Plexum3::Base::readProcFile(0, "meminfo");
    static_cast<void>(uname(&system));  // fails only for a bad address
    return formatted("System:      %s %s, %ld processors, ", system.sysname, system.release,
                     sysconf(_SC_NPROCESSORS_ONLN)) +
           mebibytes(numberBehind(memory, "MemAvailable")) + " of " +
           mebibytes(numberBehind(memory, "MemTotal")) + " memory available\n";
}

// The launcher appends its own to the environment, without merging.
std::string sessionId() {
    constexpr std::string_view name = "ZK_SESSION_ID=";
    std::string id;
    for (const char* const* entry = environ; *entry != nullptr; ++entry) {
        if (std::string_view(*entry).substr(0, name.size()) == name) {
            id = *entry + name.size();
        }
    }
    return id.empty() ? "none" : printableText(id);
}

std::string factsText(const CrashFacts& facts, const Stacks::StackCapture& capture) {
    char when[32] = "unknown";
    tm utc{};
    if (gmtime_r(&facts.time, &utc) != nullptr) {
        static_cast<void>(std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc));
    }
    return std::string(reportHeading) + "\n\nProduct:     Tavrel " + TAVREL_VERSION_TEXT +
           "\nTime:        " + when + "\nSession:     " + sessionId() + "\n" +
           processText(facts.process) + systemText() + "Dump:        " + printableText(facts.dump) +
           "\nSignal:      " + signalText(capture) + "\n" +
           (facts.note.empty() ? "" : "\n" + printableText(facts.note) + "\n");
}

// Of a list that stands whole further down.
std::string shortened(const std::string& lines) {
    constexpr int most = 24;
    std::size_t end = 0;
    for (int i = 0; i < most; ++i) {
        end = lines.find('\n', end) + 1;
        if (end == 0 || end == lines.size()) {
            return lines;
        }
    }
    return lines.substr(0, end) + "       (all of them stand below)\n";
}

// Where a helper of the user looks first.
std::string crashedPythonText(const Stacks::StackCapture& capture,
                              const Stacks::PythonStacks& python) {
    std::string text;
    for (const Stacks::CapturedThread& thread : capture.threads) {
        if (thread.tid == capture.crashedTid) {
            text = shortened(Stacks::pythonText(python, thread.threadPointer));
        }
    }
    return (text.empty() ? "" : "\nPython, crashed thread\n" + text) +
           (python.note.empty() ? "" : "\nPython: " + printableText(python.note) + "\n");
}

std::string modulesText(const Stacks::StackCapture& capture) {
    std::string text = "\nModules: address, size, build identifier, file\n";
    for (const Stacks::MappedFile& file : capture.files) {
        text +=
            formatted("  0x%012" PRIx64 "  0x%08" PRIx64 "  ", file.start, file.end - file.start) +
            (file.buildId.empty() ? "no build identifier" : printableText(file.buildId)) + "  " +
            printableText(file.path) + "\n";
    }
    return text;
}

// The stack log that the launcher's Python hook leaves in the working directory, when it is there,
// no link, and written since the process started; else empty.
std::string readPythonStackLog(const ProcessSnapshot& process) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    constexpr std::int64_t nsPerSecond = 1000000000;
    constexpr std::size_t limit = std::size_t{256} * 1024;
    struct stat status {};
    const int folder = process.workingDirectory.get();
    const Plexum3::Base::ScopedFd file(folder < 0 ? -1 : openat(folder, pythonStackLog, flags));
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_mtim.tv_sec * nsPerSecond + status.st_mtim.tv_nsec < process.startedNs) {
        return {};
    }
    std::string text(limit, '\0');
    text.resize(
        static_cast<std::size_t>(std::max<ssize_t>(pread(file.get(), text.data(), limit, 0), 0)));
    return text;
}

std::string pythonStackLogText(const ProcessSnapshot& process) {
    std::istringstream log(readPythonStackLog(process));
    std::string text;
    for (std::string line; std::getline(log, line);) {
        text += printableText(line) + "\n";
    }
    return text.empty() ? text
                        : std::string("\n") + pythonStackLog +
                              ", the last Python call that was logged:\n" + text;
}

std::string registersText(const Stacks::StackCapture& capture) {
    std::string text;
    for (const Stacks::CapturedThread& thread : capture.threads) {
        for (std::size_t i = 0; thread.tid == capture.crashedTid && i < thread.registers.size();
             ++i) {
            constexpr std::size_t inLine = 4;
            text += formatted("%s%4s 0x%016" PRIx64, i % inLine == 0 ? "\n" : " ",
                              Stacks::registerTable[i].name, thread.registers[i]);
        }
    }
    return text.empty() ? text : "\nRegisters, crashed thread" + text + "\n";
}

}  // namespace

std::string firstText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                      const Stacks::PythonStacks& python) {
    return factsText(facts, capture) + crashedPythonText(capture, python) + registersText(capture) +
           Stacks::placesText(capture) + Stacks::pythonText(capture, python) + modulesText(capture);
}

std::string wholeText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                      const Stacks::PythonStacks& python, const Stacks::NativeStacks& native) {
    return factsText(facts, capture) + crashedPythonText(capture, python) +
           Stacks::StackText{capture, python, native}.write() + registersText(capture) +
           modulesText(capture) + pythonStackLogText(facts.process);
}

}  // namespace Zendrik::Reporter
