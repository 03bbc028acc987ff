#include <Python.h>
#include <frameobject.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "stacks/memory/Mappings.h"
#include "stacks/python/PythonReader.h"

/// The interpreter keeps memory for the whole process on purpose.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

// The process looks at itself, from the middle of scripts.

namespace Zendrik::Stacks {
namespace {

using testing::ElementsAre;

PythonStacks lookThrough(const MemoryReader& memory) {
    return readPythonStacks(findMappedFiles(readMappings(getpid()), processMemory(getpid())),
                            memory);
}

PythonStacks lastLook;
/// What the interpreter itself told of the thread that looked.
std::vector<std::string> ownWords;

std::string lineOf(const std::string& file, int line, const std::string& function) {
    return file + ":" + std::to_string(line) + " " + function;
}

std::string utf8(PyObject* text) {
    const char* const bytes = PyUnicode_AsUTF8(text);
    PyErr_Clear();
    return bytes == nullptr ? "not UTF-8" : bytes;
}

std::vector<std::string> askInterpreter() {
    std::vector<std::string> lines;
    for (PyFrameObject* frame = PyEval_GetFrame(); frame != nullptr; frame = frame->f_back) {
        lines.push_back(lineOf(utf8(frame->f_code->co_filename), PyFrame_GetLineNumber(frame),
                               utf8(frame->f_code->co_name)));
    }
    return lines;
}

/// look(): into `lastLook`. look(address, bytes): as if these bytes stood there.
PyObject* look(PyObject*, PyObject* arguments) {
    unsigned long long address = 0;
    const char* bytes = nullptr;
    Py_ssize_t count = 0;
    if (PyArg_ParseTuple(arguments, "|Ky#", &address, &bytes, &count) == 0) {
        return nullptr;
    }
    ownWords = askInterpreter();
    const MemoryReader memory = processMemory(getpid());
    lastLook = lookThrough([&](std::uint64_t from, void* buffer, std::size_t size) {
        const bool isRead = memory(from, buffer, size);
        for (Py_ssize_t i = 0; i < count; ++i) {
            if (const std::uint64_t at = address + i - from; isRead && at < size) {
                static_cast<char*>(buffer)[at] = bytes[i];
            }
        }
        return isRead;
    });
    Py_RETURN_NONE;
}

PyObject* makeLooking() {
    static PyMethodDef methods[] = {{"look", look, METH_VARARGS, nullptr},
                                    {nullptr, nullptr, 0, nullptr}};
    static PyModuleDef module = {
        PyModuleDef_HEAD_INIT, "looking", nullptr, 0, methods, nullptr, nullptr, nullptr, nullptr};
    return PyModule_Create(&module);
}

std::vector<std::string> linesOf(const PythonThread& thread) {
    std::vector<std::string> lines;
    for (const PythonFrame& frame : thread.frames) {
        lines.push_back(lineOf(frame.file, frame.line, frame.function));
    }
    if (!thread.cutShort.empty()) {
        lines.push_back(thread.cutShort);
    }
    return lines;
}

void run(const std::string& script) {
    lastLook = {};
    EXPECT_EQ(PyRun_SimpleString(("import looking, sys, struct, threading\n" + script).c_str()), 0);
}

/// What the only thread was doing when `script` looked.
std::vector<std::string> linesFrom(const std::string& script) {
    run(script);
    EXPECT_EQ(lastLook.note, "");
    EXPECT_EQ(lastLook.threads.size(), 1U);
    return lastLook.threads.empty() ? std::vector<std::string>() : linesOf(lastLook.threads[0]);
}

class PythonReader : public testing::Test {
  protected:
    void SetUp() override {
        PyImport_AppendInittab("looking", makeLooking);
        Py_SetPythonHome(Py_DecodeLocale(TEST_PYTHON_HOME, nullptr));
        Py_NoSiteFlag = 1;
        EXPECT_TRUE(isQuiet());
        Py_Initialize();
    }
    void TearDown() override {
        // A script that is still alive looks while the interpreter is being finalised.
        run("class Last:\n"
            "  def __del__(self, look=looking.look): look()\n"
            "sys.last = Last()\n");
        Py_Finalize();
        ASSERT_EQ(lastLook.threads.size(), 1U);
        EXPECT_THAT(linesOf(lastLook.threads[0]), ElementsAre("<string>:3 __del__"));
        EXPECT_TRUE(isQuiet());
    }

    static bool isQuiet() {
        const PythonStacks stacks = lookThrough(processMemory(getpid()));
        return stacks.threads.empty() && stacks.note.empty();
    }
};

TEST_F(PythonReader, TellsLinesAsTheInterpreterDoes) {
    const char* const bodies[] = {
        "  return looking.look()\n",
        "  text = (1 +\n    (looking.look()\n      or 2))\n  return text\n",
        "  return next(i for i in [1] if\n    not looking.look())\n",
        "  sys._getframe().f_trace = print\n  sys._getframe(1).f_trace = print\n  looking.look()\n",
        "  sys.settrace(lambda *all: None)\n  looking.look()\n  sys.settrace(None)\n",
        "  for i in range(3):\n    looking.look()\n    i += 1\n",
    };
    for (const std::string body : bodies) {
        for (const std::size_t gap : {0, 1, 127, 128, 300}) {
            SCOPED_TRACE(body + " after lines: " + std::to_string(gap));
            const std::string lines(gap, '\n');
            std::string script = "def outer():\n" + lines;
            script.append("  inner()\n").append(lines).append("def inner():\n").append(lines);
            EXPECT_EQ(linesFrom(script.append(body).append("outer()\n")), ownWords);
            EXPECT_GE(ownWords.size(), 3U);
        }
    }
}

TEST_F(PythonReader, GivesNamesInUtf8) {
    const char* const names[] = {"naïve.py", "файл.py", "𐌰.py", "caf\\udce9.py"};
    for (const std::string name : names) {
        SCOPED_TRACE(name);
        EXPECT_THAT(linesFrom("exec(compile('looking.look()', '" + name + "', 'exec'))"),
                    ElementsAre(name + ":1 <module>", "<string>:2 <module>"));
    }
    EXPECT_EQ(linesFrom("exec(compile('looking.look()', 'ä' * 5000, 'exec'))")[0].size(),
              std::size_t{2} * 1024 + std::strlen("...:1 <module>"));
}

TEST_F(PythonReader, EndsAListThatIsDamaged) {
    struct Case {
        const char* what;
        const char* where;
        const char* bytes;
        const char* lastLine;
    };
    constexpr const char* back = "id(sys._getframe(1)) + 24";
    constexpr const char* code = "id(sys._getframe(1)) + 32";
    constexpr const char* unreadable = "the next frame can't be read";
    const Case cases[] = {
        {"ring", back, "id(sys._getframe(1))", "the calls form a ring"},
        {"unreadable frame", back, "8", unreadable},
        {"frame that is none", back, "id(None)", unreadable},
        {"code that is none", code, "id(None)", unreadable},
        {"name that is none", "id(sys._getframe(1).f_code) + 96", "8", unreadable},
        {"name of a width that is none", "id(sys._getframe(1).f_code.co_filename) + 32", "3 << 2",
         unreadable},
        {"line table that is none", "id(sys._getframe(1).f_code) + 112", "8", "<string>:3 f"},
        {"endless line table", "id(sys._getframe(1).f_code.co_lnotab) + 16", "1 << 62",
         "<string>:3 f"},
    };
    for (const Case& damage : cases) {
        SCOPED_TRACE(damage.what);
        const auto lines =
            linesFrom(std::string("def g(): looking.look(") + damage.where + ", struct.pack('Q', " +
                      damage.bytes + "))\ndef f(): return \\\n  g()\nf()");
        const bool hasEnded = !lastLook.threads[0].cutShort.empty();
        EXPECT_EQ(hasEnded ? lines.back() : lines.at(1), damage.lastLine);
    }
    EXPECT_EQ(linesFrom("sys.setrecursionlimit(5000)\n"
                        "def deep(n): return deep(n - 1) if n else looking.look()\n"
                        "deep(3000)")
                  .back(),
              "more calls are under way than are read");
}

TEST_F(PythonReader, TellsThreadsAndWhoHasTheLock) {
    run("ready, end = threading.Barrier(3), threading.Event()\n"
        "def wait():\n"
        "  ready.wait()\n"
        "  end.wait()\n"
        "threads = [threading.Thread(target=wait) for i in range(2)]\n"
        "for thread in threads: thread.start()\n"
        "ready.wait()\n"
        "looking.look()\n"
        "end.set()\n"
        "for thread in threads: thread.join()\n");
    ASSERT_EQ(lastLook.threads.size(), 3U);
    for (const PythonThread& thread : lastLook.threads) {
        const bool isOwn = thread.threadPointer == pthread_self();
        EXPECT_EQ(thread.holdsLock, isOwn);
        EXPECT_EQ(linesOf(thread)[0] == "<string>:9 <module>", isOwn);
    }
}

}  // namespace
}  // namespace Zendrik::Stacks
