#include "programs/CrashReporterTavrel/CrashReport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstring>
#include <vector>

#include "google_breakpad/processor/call_stack.h"
#include "google_breakpad/processor/code_modules.h"
#include "google_breakpad/processor/minidump_processor.h"
#include "google_breakpad/processor/process_state.h"
#include "google_breakpad/processor/stack_frame.h"
#include "programs/CrashReporterTavrel/DumpFolder.h"
#include "programs/CrashReporterTavrel/ElfSymbolizer.h"

namespace Zendrik::Reporter {

namespace {

using google_breakpad::CallStack;
using google_breakpad::CodeModule;
using google_breakpad::ProcessState;
using google_breakpad::StackFrame;

// What the launcher's Python hook writes, in its working directory.
constexpr char kPythonStackLog[] = "PythonStackLog.txt";

// Paths and names come from the crashed process: no control character of theirs reaches a terminal.
std::string printableLines(std::string text) {
    for (char& c : text) {
        if ((static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7f') {
            c = '?';
        }
    }
    return text;
}

std::string printable(const std::string& text) {
    std::string line = printableLines(text);
    std::replace(line.begin(), line.end(), '\n', '?');
    return line;
}

std::string orUnknown(const std::string& text) {
    return text.empty() ? "unknown" : printable(text);
}

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string mebibytes(int64_t kibibytes) {
    if (kibibytes < 0) {
        return "unknown";
    }
    constexpr double kibPerMib = 1024;
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(kibibytes) / kibPerMib);
    return text;
}

void writeFacts(std::FILE* out, const CrashFacts& facts) {
    const ProcessSnapshot& process = facts.process;
    char when[32] = "unknown";
    tm utc{};
    if (gmtime_r(&facts.time, &utc) != nullptr) {
        (void)std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
    }
    std::fprintf(out, "%s\n\nProduct:     Tavrel %s\nTime:        %s\nSession:     %s\n",
                 kReportHeading, TAVREL_VERSION, when,
                 facts.sessionId.empty() ? "none" : printable(facts.sessionId).c_str());
    std::fprintf(out, "Process:     %d\nExecutable:  %s\nRun mode:    %s\n",
                 static_cast<int>(process.pid), orUnknown(process.executable).c_str(),
                 orUnknown(process.runMode).c_str());
    if (process.uptimeSeconds < 0) {
        std::fprintf(out, "Uptime:      unknown\n");
    } else {
        std::fprintf(out, "Uptime:      %.2f s\n", process.uptimeSeconds);
    }
    std::fprintf(out, "Memory:      %s resident, %s at its peak, %s virtual; %" PRId64 " threads\n",
                 mebibytes(process.residentKiB).c_str(), mebibytes(process.peakResidentKiB).c_str(),
                 mebibytes(process.virtualKiB).c_str(), process.threads);
}

void writeSystem(std::FILE* out) {
    utsname system{};
    constexpr size_t limit = 65536;
    const std::string memory = readText(AT_FDCWD, "/proc/meminfo", limit);
    (void)uname(&system);  // fails only for a bad address
    std::fprintf(out, "System:      %s %s, %ld processors, %s of %s memory available\n",
                 system.sysname, system.release, sysconf(_SC_NPROCESSORS_ONLN),
                 mebibytes(numberBehind(memory, "MemAvailable")).c_str(),
                 mebibytes(numberBehind(memory, "MemTotal")).c_str());
}

void writeFrame(std::FILE* out, size_t number, const StackFrame& frame) {
    std::fprintf(out, "  #%-3zu", number);
    if (frame.module == nullptr) {
        std::fprintf(out, "0x%" PRIx64, frame.instruction);
    } else {
        const std::string module = printable(baseName(frame.module->code_file()));
        if (frame.function_name.empty()) {
            std::fprintf(out, "%s + 0x%" PRIx64, module.c_str(),
                         frame.instruction - frame.module->base_address());
        } else {
            std::fprintf(out, "%s  %s + 0x%" PRIx64, module.c_str(),
                         printable(frame.function_name).c_str(),
                         frame.instruction - frame.function_base);
        }
    }
    // The walker guesses where nothing tells it the way.
    const bool guessed = frame.trust == StackFrame::FRAME_TRUST_SCAN ||
                         frame.trust == StackFrame::FRAME_TRUST_CFI_SCAN;
    std::fputs(guessed ? "  (guess)\n" : "\n", out);
}

void writeThread(std::FILE* out, const ProcessState& state, size_t index, const char* title) {
    const CallStack& stack = *state.threads()->at(index);
    const std::string name =
        index < state.thread_names()->size() ? state.thread_names()->at(index) : std::string();
    std::fprintf(out, "\n%s %u%s%s\n", title, stack.tid(), name.empty() ? "" : ", ",
                 printable(name).c_str());
    for (size_t number = 0; number < stack.frames()->size(); ++number) {
        writeFrame(out, number, *stack.frames()->at(number));
    }
}

void writeThreads(std::FILE* out, const ProcessState& state) {
    const int crashed = state.requesting_thread();
    if (crashed >= 0) {
        writeThread(out, state, static_cast<size_t>(crashed), "Crashed thread");
    }
    for (size_t index = 0; index < state.threads()->size(); ++index) {
        if (static_cast<int>(index) != crashed) {
            writeThread(out, state, index, "Thread");
        }
    }
}

// The dump carries the build identifier in upper case; every other tool prints it in lower case.
std::string buildIdOf(const CodeModule& module) {
    std::string id = module.code_identifier();
    for (char& c : id) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return id.empty() ? "no build identifier" : id;
}

void writeModules(std::FILE* out, const ProcessState& state) {
    std::fprintf(out, "\nModules: address, size, build identifier, file\n");
    for (unsigned i = 0; state.modules() != nullptr && i < state.modules()->module_count(); ++i) {
        const CodeModule* module = state.modules()->GetModuleAtSequence(i);
        std::fprintf(out, "  0x%012" PRIx64 "  0x%08" PRIx64 "  %s  %s\n", module->base_address(),
                     module->size(), buildIdOf(*module).c_str(),
                     printable(module->code_file()).c_str());
    }
}

void writeSignal(std::FILE* out, const ProcessState& state) {
    const google_breakpad::ExceptionRecord& exception = *state.exception_record();
    const auto origin = static_cast<int32_t>(exception.flags());  // siginfo's si_code
    std::fprintf(out, "Signal:      %s", printable(state.crash_reason()).c_str());
    if (origin > 0) {
        std::fprintf(out, " at 0x%" PRIx64 "\n", state.crash_address());
    } else {
        // Sent, not raised by an instruction: where the address would be stands the sender's pid.
        std::fprintf(out, ", sent by process %" PRId32 "\n",
                     static_cast<int32_t>(exception.address()));
    }
}

bool writeDumpsStory(std::FILE* out, const std::string& dumpFile) {
    ElfSymbolizer symbolizer;
    google_breakpad::MinidumpProcessor processor(&symbolizer, /*enable_exploitability=*/false);
    ProcessState state;
    const google_breakpad::ProcessResult result = processor.Process(dumpFile, &state);
    if (result != google_breakpad::PROCESS_OK) {
        std::fprintf(out, "\nThe dump can't be read (result %d of the processor).\n", result);
        return false;
    }
    writeSignal(out, state);
    writeThreads(out, state);
    writeModules(out, state);
    return true;
}

// The stack log that the launcher's Python hook leaves in the working directory, when it is there,
// no link, and written since the process started; else empty.
std::string readPythonStackLog(const ProcessSnapshot& process) {
    struct stat status {};
    const int folder = process.workingDirectory.get();
    if (folder < 0 || fstatat(folder, kPythonStackLog, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(status.st_mode)) {
        return {};
    }
    constexpr int64_t nsPerSecond = 1000000000;
    if (status.st_mtim.tv_sec * nsPerSecond + status.st_mtim.tv_nsec < process.startedNs) {
        return {};
    }
    constexpr size_t limit = size_t{256} * 1024;
    return readText(folder, kPythonStackLog, limit, O_NOFOLLOW | O_NONBLOCK);
}

}  // namespace

std::string sessionIdOf(const char* const* environment) {
    constexpr char name[] = "ZK_SESSION_ID=";
    std::string id;
    for (; *environment != nullptr; ++environment) {
        if (std::strncmp(*environment, name, sizeof name - 1) == 0) {
            id = *environment + sizeof name - 1;
        }
    }
    return id;
}

bool writeReport(std::FILE* out, const CrashFacts& facts, const std::string& dumpFile) {
    writeFacts(out, facts);
    writeSystem(out);
    std::fprintf(out, "Dump:        %s\n", printable(facts.dumpPath).c_str());
    (void)std::fflush(out);  // a failure stays in ferror
    const bool dumpWasRead = writeDumpsStory(out, dumpFile);
    const std::string pythonStack = readPythonStackLog(facts.process);
    if (!pythonStack.empty()) {
        std::fprintf(out, "\n%s, the last Python call that was logged:\n%s", kPythonStackLog,
                     printableLines(pythonStack).c_str());
    }
    return std::fflush(out) == 0 && std::ferror(out) == 0 && dumpWasRead;
}

}  // namespace Zendrik::Reporter
