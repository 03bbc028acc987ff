#include "stacks/python/PythonLayout.h"

#define Py_BUILD_CORE
#include <Python.h>
#include <frameobject.h>
#include <internal/pystate.h>

// A field that is a pointer counts as what it is. NOLINTNEXTLINE(bugprone-sizeof-expression)
#define END_OF(type, field) (offsetof(type, field) + sizeof(((type*)0)->field))

const struct PythonLayout pythonLayout = {
    .runtime = {.size = sizeof(_PyRuntimeState),
                .interpreters = offsetof(_PyRuntimeState, interpreters.head),
                .currentThread = offsetof(_PyRuntimeState, gilstate.tstate_current),
                .lockIsTaken = offsetof(_PyRuntimeState, ceval.gil.locked),
                .lastLockHolder = offsetof(_PyRuntimeState, ceval.gil.last_holder)},
    .interpreter = {.size = END_OF(PyInterpreterState, tstate_head),
                    .next = offsetof(PyInterpreterState, next),
                    .threads = offsetof(PyInterpreterState, tstate_head)},
    .thread = {.size = END_OF(PyThreadState, thread_id),
               .next = offsetof(PyThreadState, next),
               .frame = offsetof(PyThreadState, frame),
               .threadPointer = offsetof(PyThreadState, thread_id)},
    .frame = {.size = END_OF(PyFrameObject, f_lineno),
              .type = offsetof(PyFrameObject, ob_base.ob_base.ob_type),
              .back = offsetof(PyFrameObject, f_back),
              .code = offsetof(PyFrameObject, f_code),
              .trace = offsetof(PyFrameObject, f_trace),
              .lastInstruction = offsetof(PyFrameObject, f_lasti),
              .line = offsetof(PyFrameObject, f_lineno)},
    .code = {.size = END_OF(PyCodeObject, co_lnotab),
             .type = offsetof(PyCodeObject, ob_base.ob_type),
             .firstLine = offsetof(PyCodeObject, co_firstlineno),
             .file = offsetof(PyCodeObject, co_filename),
             .name = offsetof(PyCodeObject, co_name),
             .lineTable = offsetof(PyCodeObject, co_lnotab)},
    .bytes = {.length = offsetof(PyBytesObject, ob_base.ob_size),
              .content = offsetof(PyBytesObject, ob_sval)},
    .text = {.size = sizeof(PyUnicodeObject),
             .length = offsetof(PyASCIIObject, length),
             .state = offsetof(PyASCIIObject, state),
             .wide = offsetof(PyASCIIObject, wstr),
             .asciiSize = sizeof(PyASCIIObject),
             .wideLength = offsetof(PyCompactUnicodeObject, wstr_length),
             .compactSize = sizeof(PyCompactUnicodeObject),
             .content = offsetof(PyUnicodeObject, data)},
};
