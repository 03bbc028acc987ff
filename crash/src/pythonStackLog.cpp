#include "crash/src/pythonStackLog.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <locale>
#include <ostream>
#include <string>

// The records of frames, code and threads are read field by field, and other versions lay them out
// in another way.
static_assert(PY_MAJOR_VERSION == 3 && PY_MINOR_VERSION == 7);

namespace Zendrik::Breakpad {

namespace {

/// Null if @p text has no UTF-8 form, as a path decoded with surrogates. The error must not stay:
/// the interpreter would take it for one of the function that is being called.
const char* utf8OrNull(PyObject* text) {
    const char* utf8 = PyUnicode_AsUTF8(text);
    if (utf8 == nullptr) {
        PyErr_Clear();
    }
    return utf8;
}

long currentThreadId() {
    const PyGILState_STATE lock = PyGILState_Ensure();
    const auto thread = static_cast<long>(PyThreadState_Get()->thread_id);
    PyGILState_Release(lock);
    return thread;
}

void writeFrame(std::ostream& stream, const PyFrameObject& frame, std::size_t depth) {
    const long thread = currentThreadId();
    const PyCodeObject& code = *frame.f_code;
    const char* file = utf8OrNull(code.co_filename);
    const char* function = utf8OrNull(code.co_name);
    // A null text puts the stream into its bad state, and so ends what is written in this call.
    stream << std::string(depth, ' ') << thread << " " << code.co_firstlineno << " "
           << frame.f_lineno << " " << function << " " << file << " " << std::endl;
}

/// One of an earlier run keeps its mode. A link is left alone: it may lead to what isn't a log.
void closeToOthers(const char* path) {
    const int file = open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (file != -1 && fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
        static_cast<void>(fchmod(file, S_IRUSR | S_IWUSR));  // fails for another user's
    }
    if (file != -1) {
        close(file);
    }
}

}  // namespace

const char* const pythonStackLogFile = "PythonStackLog.txt";

bool startPythonStackLog() {
    closeToOthers(pythonStackLogFile);
    PyObject* path = PyUnicode_FromString(pythonStackLogFile);
    if (path == nullptr) {
        PyErr_Clear();
        return false;
    }
    PyEval_SetProfile(pythonStackProfileHook, path);
    Py_DECREF(path);
    return true;
}

int pythonStackProfileHook(PyObject* object, PyFrameObject* frame, int what,
                           PyObject* /*argument*/) {
    constexpr int wantedBits = PyTrace_CALL | PyTrace_C_CALL;
    if (object == nullptr || !PyUnicode_CheckExact(object) || (what & ~wantedBits) != 0) {
        return 0;
    }
    if (const char* path = utf8OrNull(object)) {
        what == PyTrace_C_CALL ? logCFunctionCall(path, frame) : logPythonFunctionCall(path, frame);
    }
    return 0;
}

void logCFunctionCall(const char* path, PyFrameObject* frame) {
    writePythonStack(path, "C function call", frame);
}

void logPythonFunctionCall(const char* path, PyFrameObject* frame) {
    writePythonStack(path, "Python function call", frame);
}

void writePythonStack(const char* path, const char* label, PyFrameObject* frame) {
    // Paths and names of a production are for no other user. The buffer owns the descriptor.
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    __gnu_cxx::stdio_filebuf<char> file(open(path, flags, S_IRUSR | S_IWUSR), std::ios::out);
    std::ostream stream(&file);
    // A global locale of the application's must not group the digits.
    stream.imbue(std::locale::classic());
    stream << label << std::endl;
    std::size_t depth = 0;
    for (const PyFrameObject* each = frame; each != nullptr; each = each->f_back) {
        writeFrame(stream, *each, depth);
        ++depth;
    }
}

}  // namespace Zendrik::Breakpad
