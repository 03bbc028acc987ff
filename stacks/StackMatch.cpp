#include "stacks/StackMatch.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

namespace Zendrik::Stacks {

namespace {

// Calls, as Python 3.7 makes them: from the evaluation of one function to the C function or the
// evaluation that it calls, and from C to the evaluation of a function.
constexpr std::string_view callMachinery[] = {
    "_PyCFunction_FastCallDict",
    "_PyCFunction_FastCallKeywords",
    "_PyEval_EvalCodeWithName",
    "_PyFunction_FastCallDict",
    "_PyFunction_FastCallKeywords",
    "_PyMethodDef_RawFastCallDict",
    "_PyMethodDef_RawFastCallKeywords",
    "_PyMethodDescr_FastCallKeywords",
    "_PyObject_CallFunctionVa",
    "_PyObject_CallFunction_SizeT",
    "_PyObject_CallMethodId",
    "_PyObject_CallMethodIdObjArgs",
    "_PyObject_CallMethodId_SizeT",
    "_PyObject_CallMethod_SizeT",
    "_PyObject_Call_Prepend",
    "_PyObject_FastCallDict",
    "_PyObject_FastCallKeywords",
    "_PyObject_FastCall_Prepend",
    "PyCFunction_Call",
    "PyEval_CallFunction",
    "PyEval_CallMethod",
    "PyEval_CallObjectWithKeywords",
    "PyEval_EvalCode",
    "PyEval_EvalCodeEx",
    "PyEval_EvalFrame",
    "PyEval_EvalFrameEx",
    "PyObject_Call",
    "PyObject_CallFunction",
    "PyObject_CallFunctionObjArgs",
    "PyObject_CallMethod",
    "PyObject_CallMethodObjArgs",
    "PyObject_CallObject",
    "call_function",
    "call_method",
    "do_call_core",
    "function_call",
    "function_code_fastcall",
    "gen_iternext",
    "gen_send_ex",
    "method_call",
    "object_vacall",
    "slot_tp_call",
};

// Compilers put ".part.0", ".cold" and the like behind a name.
std::string_view interpreterFunction(const NativeFrame& frame) {
    const std::string_view module =
        std::string_view(frame.module).substr(frame.module.rfind('/') + 1);
    constexpr std::string_view interpreter = "libpython3";
    const std::string_view function = frame.function;
    return frame.inlined || module.substr(0, interpreter.size()) != interpreter
               ? std::string_view()
               : function.substr(0, function.find('.'));
}

bool isEvaluation(const NativeFrame& frame) {
    return interpreterFunction(frame) == "_PyEval_EvalFrameDefault";
}

}  // namespace

bool isCallMachinery(const NativeFrame& frame) {
    const std::string_view function = interpreterFunction(frame);
    return std::find(std::begin(callMachinery), std::end(callMachinery), function) !=
           std::end(callMachinery);
}

bool waitsForLock(const ThreadFrames& native) {
    // The first function of the interpreter's tells.
    const auto first =
        std::find_if(native.frames.begin(), native.frames.end(),
                     [](const NativeFrame& frame) { return !interpreterFunction(frame).empty(); });
    if (first == native.frames.end() || interpreterFunction(*first) != "drop_gil") {
        return first != native.frames.end() && interpreterFunction(*first) == "take_gil";
    }
    // Amid a Python function it only hands the lock to another thread and wants it back; before
    // something that blocks it gives the lock away.
    return std::next(first) != native.frames.end() && isEvaluation(*std::next(first));
}

bool collectsGarbage(const ThreadFrames& native) {
    return std::any_of(native.frames.begin(), native.frames.end(), [](const NativeFrame& frame) {
        const std::string_view function = interpreterFunction(frame);
        return function == "collect" || function == "PyGC_Collect" ||
               function == "_PyGC_CollectNoFail";
    });
}

StackMatch matchFrames(const ThreadFrames& native, const PythonThread& python) {
    std::vector<std::size_t> evaluations;
    for (std::size_t i = 0; i < native.frames.size(); ++i) {
        if (isEvaluation(native.frames[i])) {
            evaluations.push_back(i);
        }
    }
    const std::size_t functions = python.frames.size();
    const bool inEvaluation = !evaluations.empty() && evaluations.front() == 0;
    // A function is entered, or left, a few instructions before and behind its place in the list.
    if (inEvaluation && native.whole && evaluations.size() == functions + 1) {
        evaluations.erase(evaluations.begin());
    }
    const bool fits = evaluations.size() == functions ||
                      (evaluations.size() > functions && !python.cutShort.empty()) ||
                      (evaluations.size() < functions && !native.whole && !inEvaluation);
    const bool isSure = !evaluations.empty() && !native.frames[evaluations.back()].guessed;
    StackMatch match;
    if (!fits || !(isSure || evaluations.size() == functions)) {
        return match;
    }
    for (std::size_t i = 0; i < functions; ++i) {
        if (i < evaluations.size()) {
            match.functions[evaluations[i]] = &python.frames[i];
        } else {
            match.rest.push_back(&python.frames[i]);
        }
    }
    return match;
}

}  // namespace Zendrik::Stacks
