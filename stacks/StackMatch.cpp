#include "stacks/StackMatch.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

namespace Zendrik::Stacks {

namespace {

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

// Calls, as Python 3.7 makes them, from the evaluation of one function to the C function or the
// evaluation that it calls, and from C to the evaluation of a function: they have it in their
// names.
bool isCallMachinery(const NativeFrame& frame) {
    const std::string_view function = interpreterFunction(frame);
    const auto has = [function](std::string_view word) {
        return function.find(word) != function.npos;
    };
    return function.substr(0, 8) != "builtin_" && !isEvaluation(frame) &&
           (has("Call") || has("call") || has("Eval") || has("gen_"));
}

bool waitsForLock(const ThreadFrames& native) {
    // The first function of the interpreter's decides.
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
