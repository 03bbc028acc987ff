#pragma once

#include <Python.h>
#include <frameobject.h>

/// A diagnostic aid for crashes inside Python-driven code: a profile hook that rewrites one small
/// text file at every function call with the Python stack of that moment. After a crash the file
/// shows the call that was made last, innermost frame first:
///
///     C function call
///     140305811343104 10 10 render /tree/scene.py
///      140305811343104 1 1 <module> /tree/job.py
///
/// Each frame line holds its depth in blanks, the thread, the function's first line, the frame's
/// line as the interpreter stored it, the function and the file, each followed by a blank.
/// docs/python-stack-log.md says what that costs.
///
/// All functions need the interpreter lock and report nothing: what can't be written is left out.
namespace Zendrik::Breakpad {

/// "PythonStackLog.txt", relative: it lands in the working directory as it is at each call.
extern const char* const pythonStackLogFile;

/// Registers pythonStackProfileHook with pythonStackLogFile for the calling thread, in place of
/// another profile function; sys.setprofile takes it off again.
/// @return false, with nothing registered and no Python error left, if memory is short
bool startPythonStackLog();

/// A Py_tracefunc. Writes on PyTrace_CALL and PyTrace_C_CALL to the file `object`, which has to be
/// exactly a Python string. Always 0: the interpreter goes on.
int pythonStackProfileHook(PyObject* object, PyFrameObject* frame, int what, PyObject* argument);

/// writePythonStack for the call of a C function, and for that of a Python function.
void logCFunctionCall(const char* path, PyFrameObject* frame);
void logPythonFunctionCall(const char* path, PyFrameObject* frame);

/// Rewrites the file at @p path with @p label and a line for each frame from @p frame (borrowed,
/// may be null) outwards. A name that has no UTF-8 form ends the text there.
void writePythonStack(const char* path, const char* label, PyFrameObject* frame);

}  // namespace Zendrik::Breakpad
