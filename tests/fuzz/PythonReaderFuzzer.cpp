// Damaged interpreters: the memory that the reader looks at in a real one, with places overwritten.
#include <Python.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <vector>

#include "stacks/memory/MappedFiles.h"
#include "stacks/python/PythonReader.h"
#include "stacks/python/PythonStream.h"

namespace {

using namespace Zendrik::Stacks;

constexpr std::size_t pageSize = 4096;
using Page = std::array<unsigned char, pageSize>;

std::map<std::uint64_t, Page> pages;
std::vector<MappedFile> files;

/// Keeps every page that is read.
PyObject* record(PyObject*, PyObject*) {
    const MemoryReader memory = processMemory(getpid());
    files = findMappedFiles(readMappings(getpid()), memory);
    readPythonStacks(files, [&](std::uint64_t address, void* buffer, std::size_t size) {
        for (std::uint64_t page = address / pageSize; page <= (address + size) / pageSize; ++page) {
            memory(page * pageSize, pages[page].data(), pageSize);
        }
        return memory(address, buffer, size);
    });
    Py_RETURN_NONE;
}

bool readKept(std::uint64_t address, void* buffer, std::size_t size) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const auto page = pages.find(address / pageSize);
        if (page == pages.end()) {
            return false;
        }
        const std::size_t offset = address % pageSize;
        const std::size_t piece = std::min(size, pageSize - offset);
        std::memcpy(bytes, page->second.data() + offset, piece);
        bytes += piece;
        address += piece;
        size -= piece;
    }
    return true;
}

/// A piece of the input: where, what kind of thing, and the thing.
struct Damage {
    std::uint32_t page;
    std::uint32_t offsetAndKind;
    std::uint64_t value;
};

void overwrite(const Damage& damage, std::map<std::uint64_t, Page>& undo) {
    const auto pageAt = [](std::size_t number) {
        return std::next(pages.begin(), static_cast<std::ptrdiff_t>(number % pages.size()));
    };
    const auto target = pageAt(damage.page);
    undo.insert(*target);
    const bool isPointer = (damage.offsetAndKind & 1) != 0;
    // A pointer leads to somewhere that can be read.
    const std::uint64_t value =
        isPointer ? pageAt(damage.value >> 16)->first * pageSize + damage.value % pageSize
                  : damage.value;
    const std::size_t offset = damage.offsetAndKind / 2 * 8 % pageSize;
    std::memcpy(target->second.data() + offset, &value, sizeof value);
}

}  // namespace

/// The interpreter keeps memory for the whole process on purpose.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static PyMethodDef method = {"record", record, METH_NOARGS, nullptr};
    Py_SetPythonHome(Py_DecodeLocale(TEST_PYTHON_HOME, nullptr));
    Py_Initialize();
    PyObject* const globals = PyModule_GetDict(PyImport_AddModule("__main__"));
    PyDict_SetItemString(globals, "record", PyCFunction_New(&method, nullptr));
    PyRun_SimpleString(
        "import threading\n"
        "ready, end = threading.Barrier(3), threading.Event()\n"
        "def größe(n):\n"
        "  return größe(n - 1) if n else (ready.wait(), end.wait())\n"
        "for n in range(2): threading.Thread(target=größe, args=(n,), daemon=True).start()\n"
        "ready.wait()\n"
        "exec(compile('def имя():\\n  record()\\nимя()', '𐌰.py', 'exec'))\n");
    return pages.empty() ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::map<std::uint64_t, Page> undo;
    for (std::size_t at = 0; at + sizeof(Damage) <= size; at += sizeof(Damage)) {
        overwrite(fieldAt<Damage>(data, at), undo);
    }
    const PythonStacks stacks = readPythonStacks(files, readKept);
    constexpr std::size_t maxThreads = 4096;
    if ((size == 0 && stacks.threads.size() != 3) || stacks.threads.size() > maxThreads) {
        std::abort();
    }
    for (const auto& [number, page] : undo) {
        pages[number] = page;
    }
    std::vector<CapturedThread> threads(1);
    parsePythonStream({reinterpret_cast<const char*>(data), size}, threads);
    return 0;
}
