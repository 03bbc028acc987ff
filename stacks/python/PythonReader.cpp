#include "stacks/python/PythonReader.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "stacks/memory/MappedSymbols.h"
#include "stacks/memory/ProcessMemory.h"
#include "stacks/python/PythonLayout.h"
#include "stacks/python/PythonText.h"

namespace Zendrik::Stacks {

namespace {

constexpr std::size_t maxThreads = 4096;
constexpr std::size_t maxFrames = 1000;
constexpr std::uint64_t maxLineTable = std::uint64_t{256} * 1024;

using Record = std::vector<char>;

std::uint64_t pointerAt(const Record& record, std::size_t offset) {
    return fieldAt<std::uint64_t>(record.data(), offset);
}

/// What a function's code object says; the same for each of its calls.
struct Code {
    std::string file;
    std::string function;
    int firstLine = 0;
    /// Pairs of bytes: instructions on from the pair before, lines on from there. Empty, too, if it
    /// can't be read.
    std::string lineTable;
};

/// The line of the instruction at offset `instruction`, as the interpreter's own tracebacks have
/// it.
int lineOf(const Code& code, int instruction) {
    std::int64_t line = code.firstLine;
    std::int64_t offset = 0;
    for (std::size_t at = 0; at + 1 < code.lineTable.size(); at += 2) {
        offset += static_cast<unsigned char>(code.lineTable[at]);
        if (offset > instruction) {
            break;
        }
        line += static_cast<signed char>(code.lineTable[at + 1]);
    }
    return static_cast<int>(line);
}

class Reader {
  public:
    Reader(const MemoryReader& memory, const MappedSymbols& symbols)
        : paged_(memory), memory_([this](std::uint64_t address, void* buffer, std::size_t size) {
              return paged_.read(address, buffer, size);
          }) {
        frameType_ = addressOf(symbols, "PyFrame_Type");
        codeType_ = addressOf(symbols, "PyCode_Type");
    }

    // What reads holds a pointer to it.
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    PythonStacks read(std::uint64_t runtimeAddress);

  private:
    static std::uint64_t addressOf(const MappedSymbols& symbols, std::string_view name) {
        const auto symbol = symbols.find(name);
        return symbol ? symbol->address : 0;
    }

    std::optional<Record> record(std::uint64_t address, std::size_t size) const {
        Record bytes(size);
        return memory_(address, bytes.data(), size) ? std::optional(std::move(bytes))
                                                    : std::nullopt;
    }

    void readThreads(std::uint64_t address, PythonStacks& stacks);
    std::string readFrames(std::uint64_t address, std::vector<PythonFrame>& frames);
    std::optional<PythonFrame> frameOf(const Record& frame);
    const std::optional<Code>& codeAt(std::uint64_t address);
    std::optional<Code> readCode(std::uint64_t address) const;
    std::string readLineTable(std::uint64_t address) const;

    PagedMemory paged_;
    const MemoryReader memory_;
    std::uint64_t frameType_ = 0;
    std::uint64_t codeType_ = 0;
    std::uint64_t lockHolder_ = 0;
    /// Interpreters and threads that were visited.
    std::set<std::uint64_t> visited_;
    std::map<std::uint64_t, std::optional<Code>> codes_;
};

/// The thread that has the interpreter's lock; 0 for none. For a few instructions on either side of
/// a change of threads there is no current one, though the lock is taken.
std::uint64_t lockHolder(const Record& runtime) {
    const auto& layout = pythonLayout.runtime;
    if (fieldAt<int>(runtime.data(), layout.lockIsTaken) != 1) {
        return 0;
    }
    const std::uint64_t current = pointerAt(runtime, layout.currentThread);
    return current != 0 ? current : pointerAt(runtime, layout.lastLockHolder);
}

PythonStacks Reader::read(std::uint64_t runtimeAddress) {
    PythonStacks stacks;
    const auto runtime = record(runtimeAddress, pythonLayout.runtime.size);
    if (!runtime) {
        stacks.note = "the interpreter's state can't be read";
        return stacks;
    }
    lockHolder_ = lockHolder(*runtime);
    std::uint64_t address = pointerAt(*runtime, pythonLayout.runtime.interpreters);
    while (address != 0 && stacks.note.empty()) {
        const auto interpreter = record(address, pythonLayout.interpreter.size);
        if (!interpreter || !visited_.insert(address).second) {
            stacks.note = "the list of interpreters is damaged";
            return stacks;
        }
        readThreads(pointerAt(*interpreter, pythonLayout.interpreter.threads), stacks);
        address = pointerAt(*interpreter, pythonLayout.interpreter.next);
    }
    return stacks;
}

void Reader::readThreads(std::uint64_t address, PythonStacks& stacks) {
    while (address != 0) {
        const auto state = record(address, pythonLayout.thread.size);
        if (!state || !visited_.insert(address).second) {
            stacks.note = "the list of Python's threads is damaged";
            return;
        }
        if (stacks.threads.size() == maxThreads || paged_.isSpent()) {
            stacks.note = "there are more Python threads than are read";
            return;
        }
        PythonThread& thread = stacks.threads.emplace_back();
        thread.threadPointer = pointerAt(*state, pythonLayout.thread.threadPointer);
        thread.holdsLock = address == lockHolder_;
        thread.cutShort = readFrames(pointerAt(*state, pythonLayout.thread.frame), thread.frames);
        address = pointerAt(*state, pythonLayout.thread.next);
    }
}

/// @return why it ended early, if it did
std::string Reader::readFrames(std::uint64_t address, std::vector<PythonFrame>& frames) {
    std::set<std::uint64_t> visited;
    while (address != 0) {
        if (frames.size() == maxFrames || paged_.isSpent()) {
            return "more calls are under way than are read";
        }
        if (!visited.insert(address).second) {
            return "the calls form a ring";
        }
        const auto frame = record(address, pythonLayout.frame.size);
        auto readable = frame ? frameOf(*frame) : std::nullopt;
        if (!readable) {
            return "the next frame can't be read";
        }
        frames.push_back(std::move(*readable));
        address = pointerAt(*frame, pythonLayout.frame.back);
    }
    return {};
}

std::optional<PythonFrame> Reader::frameOf(const Record& frame) {
    const auto& layout = pythonLayout.frame;
    if (frameType_ != 0 && pointerAt(frame, layout.type) != frameType_) {
        return std::nullopt;
    }
    const std::optional<Code>& code = codeAt(pointerAt(frame, layout.code));
    if (!code) {
        return std::nullopt;
    }
    // While a function is traced the interpreter keeps its line at hand.
    const bool isTraced = pointerAt(frame, layout.trace) != 0;
    const int line = isTraced ? fieldAt<int>(frame.data(), layout.line)
                              : lineOf(*code, fieldAt<int>(frame.data(), layout.lastInstruction));
    paged_.charge(code->file.size() + code->function.size());
    return PythonFrame{code->file, code->function, line};
}

const std::optional<Code>& Reader::codeAt(std::uint64_t address) {
    const auto known = codes_.find(address);
    return known != codes_.end() ? known->second
                                 : codes_.emplace(address, readCode(address)).first->second;
}

std::optional<Code> Reader::readCode(std::uint64_t address) const {
    const auto& layout = pythonLayout.code;
    const auto object = record(address, layout.size);
    if (!object || (codeType_ != 0 && pointerAt(*object, layout.type) != codeType_)) {
        return std::nullopt;
    }
    auto file = readPythonText(memory_, pointerAt(*object, layout.file));
    auto function = readPythonText(memory_, pointerAt(*object, layout.name));
    if (!file || !function) {
        return std::nullopt;
    }
    return Code{std::move(*file), std::move(*function),
                fieldAt<int>(object->data(), layout.firstLine),
                readLineTable(pointerAt(*object, layout.lineTable))};
}

std::string Reader::readLineTable(std::uint64_t address) const {
    const auto length = readValue<std::uint64_t>(memory_, address + pythonLayout.bytes.length);
    if (!length || *length > maxLineTable) {
        return {};
    }
    std::string table(*length, '\0');
    return memory_(address + pythonLayout.bytes.content, table.data(), table.size())
               ? table
               : std::string();
}

/// Of this very name, with " (deleted)" behind it if the file was replaced.
bool isInterpreter(const MappedFile& file) {
    constexpr std::string_view name = "/libpython3.7m.so.1.0";
    const std::string_view path(file.path);
    const std::size_t at = path.rfind(name);
    return at != std::string_view::npos &&
           (path.substr(at + name.size()).empty() || path.substr(at + name.size()) == " (deleted)");
}

PythonStacks nothing(const char* why) {
    return {{}, why};
}

}  // namespace

PythonStacks readPythonStacks(const std::vector<MappedFile>& files, const MemoryReader& memory) {
    const auto library = std::find_if(files.begin(), files.end(), isInterpreter);
    if (library == files.end()) {
        return {};
    }
    const auto symbols = MappedSymbols::of(library->start, memory);
    const auto runtime = symbols ? symbols->find("_PyRuntime") : std::nullopt;
    if (!runtime) {
        return nothing("the mapped interpreter's symbols can't be read");
    }
    if (runtime->size != pythonLayout.runtime.size) {
        return nothing("the interpreter is of another build than this program knows");
    }
    return Reader(memory, *symbols).read(runtime->address);
}

}  // namespace Zendrik::Stacks
