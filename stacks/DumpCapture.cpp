#include "stacks/DumpCapture.h"

#include <google_breakpad/processor/minidump.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <utility>

#include "stacks/python/PythonStream.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Stacks {

namespace {

using google_breakpad::Minidump;

// Breakpad writes to these streams what it finds odd in a dump.
class Silence {
  public:
    Silence() : log_(std::clog.rdbuf(nullptr)), error_(std::cerr.rdbuf(nullptr)) {}
    ~Silence() {
        std::clog.rdbuf(log_);
        std::cerr.rdbuf(error_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    std::streambuf* log_;
    std::streambuf* error_;
};

// Of all memory together. A dump of this product is far below; a damaged one may name the same
// bytes of the file a thousand times.
constexpr std::size_t mostMemory = std::size_t{256} * 1024 * 1024;

std::optional<Registers> registersOf(google_breakpad::MinidumpContext* context) {
    const MDRawContextAMD64* const raw = context == nullptr ? nullptr : context->GetContextAMD64();
    if (raw == nullptr) {
        return std::nullopt;
    }
    Registers registers{};
    std::transform(std::begin(registerTable), std::end(registerTable), registers.begin(),
                   [raw](const Register& each) { return raw->*each.inDump; });
    return registers;
}

std::map<std::uint32_t, std::string> threadNames(Minidump& dump) {
    std::map<std::uint32_t, std::string> names;
    google_breakpad::MinidumpThreadNameList* const list = dump.GetThreadNameList();
    for (unsigned i = 0; list != nullptr && i < list->thread_name_count(); ++i) {
        const google_breakpad::MinidumpThreadName* const name = list->GetThreadNameAtIndex(i);
        std::uint32_t tid = 0;
        if (name != nullptr && name->GetThreadID(&tid)) {
            names[tid] = name->GetThreadName();
        }
    }
    return names;
}

void readThreads(Minidump& dump, StackCapture& capture) {
    const std::map<std::uint32_t, std::string> names = threadNames(dump);
    google_breakpad::MinidumpThreadList* const list = dump.GetThreadList();
    for (unsigned i = 0; list != nullptr && i < list->thread_count(); ++i) {
        google_breakpad::MinidumpThread* const thread = list->GetThreadAtIndex(i);
        std::uint32_t tid = 0;
        if (thread == nullptr || !thread->GetThreadID(&tid)) {
            continue;
        }
        const auto name = names.find(tid);
        CapturedThread& captured = capture.threads.emplace_back();
        captured.tid = static_cast<pid_t>(tid);
        captured.name = name == names.end() ? std::string() : name->second;
        captured.registers = registersOf(thread->GetContext()).value_or(Registers{});
    }
}

void readException(Minidump& dump, StackCapture& capture) {
    google_breakpad::MinidumpException* const exception = dump.GetException();
    if (exception == nullptr || exception->exception() == nullptr) {
        return;
    }
    const MDException& record = exception->exception()->exception_record;
    constexpr std::uint32_t requested = 0xffffffff;  // a dump that no signal was the cause of
    if (record.exception_code == requested) {
        return;
    }
    capture.signal.number = static_cast<int>(record.exception_code);
    capture.signal.code = static_cast<int>(record.exception_flags);
    capture.signal.address = record.exception_address;
    // siginfo has the sender where it has the address of other signals.
    capture.signal.sender = static_cast<pid_t>(record.exception_address);
    capture.crashedTid = static_cast<pid_t>(exception->exception()->thread_id);
    // The thread's own registers are those of the handler that waits for the dump.
    const std::optional<Registers> registers = registersOf(exception->GetContext());
    for (CapturedThread& thread : capture.threads) {
        if (registers && thread.tid == capture.crashedTid) {
            thread.registers = *registers;
        }
    }
}

void readMemory(Minidump& dump, StackCapture& capture) {
    google_breakpad::MinidumpMemoryList* const list = dump.GetMemoryList();
    std::size_t total = 0;
    for (unsigned i = 0; list != nullptr && i < list->region_count(); ++i) {
        google_breakpad::MinidumpMemoryRegion* const region = list->GetMemoryRegionAtIndex(i);
        total += region == nullptr ? 0 : region->GetSize();
        const std::uint8_t* const bytes =
            region == nullptr || total > mostMemory ? nullptr : region->GetMemory();
        if (bytes != nullptr) {
            capture.memory.push_back(
                {region->GetBase(), std::string(bytes, bytes + region->GetSize())});
            region->FreeMemory();
        }
    }
    std::sort(capture.memory.begin(), capture.memory.end(),
              [](const MemoryBlock& left, const MemoryBlock& right) {
                  return std::pair(left.address, right.bytes.size()) <
                         std::pair(right.address, left.bytes.size());
              });
    // Of two that overlap, the one that begins earlier stays.
    std::vector<MemoryBlock> apart;
    for (MemoryBlock& block : capture.memory) {
        if (apart.empty() || block.address - apart.back().address >= apart.back().bytes.size()) {
            apart.push_back(std::move(block));
        }
    }
    capture.memory = std::move(apart);
}

void readModules(Minidump& dump, StackCapture& capture) {
    google_breakpad::MinidumpModuleList* const list = dump.GetModuleList();
    for (unsigned i = 0; list != nullptr && i < list->module_count(); ++i) {
        const google_breakpad::MinidumpModule* const module = list->GetModuleAtIndex(i);
        if (module == nullptr) {
            continue;
        }
        MappedFile& file = capture.files.emplace_back();
        file.start = module->base_address();
        file.end = file.start + module->size();
        file.path = module->code_file() == "linux-gate.so" ? "[vdso]" : module->code_file();
        file.buildId = module->code_identifier();
        for (char& c : file.buildId) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
}

std::string streamOf(Minidump& dump, std::uint32_t type) {
    constexpr std::uint32_t longest = 16 * 1024 * 1024;
    std::uint32_t size = 0;
    if (!dump.SeekToStreamType(type, &size) || size > longest) {
        return {};
    }
    std::string bytes(size, '\0');
    return dump.ReadBytes(bytes.data(), bytes.size()) ? bytes : std::string();
}

// The dump's copy of /proc/PID/status.
pid_t processOf(Minidump& dump) {
    const std::string status = streamOf(dump, MD_LINUX_PROC_STATUS);
    constexpr char name[] = "\nTgid:";
    const std::size_t at = status.find(name);
    return at == status.npos ? 0 : std::atoi(status.c_str() + at + sizeof name - 1);
}

}  // namespace

std::optional<DumpContents> readDump(std::istream& stream) {
    const Silence silence;
    Minidump dump(stream);
    if (!dump.Read()) {
        return std::nullopt;
    }
    DumpContents contents;
    StackCapture& capture = contents.capture;
    capture.pid = processOf(dump);
    readThreads(dump, capture);
    readException(dump, capture);
    readMemory(dump, capture);
    readModules(dump, capture);
    contents.python = parsePythonStream(streamOf(dump, pythonStreamType), capture.threads)
                          .value_or(PythonStacks());
    return contents;
}

}  // namespace Zendrik::Stacks
