#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "base/PrintableText.h"
#include "stacks/StackMatch.h"
#include "stacks/StackText.h"

namespace Zendrik::Stacks {
namespace {

using Base::printableText;

using testing::HasSubstr;

constexpr std::uint64_t threadPointer = 0x1000;

// Frames of these functions, innermost first. A name with ':' in front is in a module of its own.
// "..." ends a list that is not whole.
ThreadFrames nativeFrames(const std::string& functions) {
    ThreadFrames thread;
    thread.whole = true;
    std::istringstream names(functions);
    for (std::string name; names >> name;) {
        if (name == "...") {
            thread.whole = false;
            break;
        }
        NativeFrame& frame = thread.frames.emplace_back();
        const bool other = name.front() == ':';
        frame.module = other ? "/usr/lib/plug.so" : "/opt/libpython3.7m.so.1.0";
        frame.function = name == "E" ? "_PyEval_EvalFrameDefault" : name.substr(other ? 1 : 0);
    }
    return thread;
}

// "f0:1 in a" becomes "a": what people read, with nothing but the functions left.
std::string brief(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t in = line.rfind(" in ");
        std::istringstream words(in != line.npos ? line.substr(in + 4) : line);
        std::string word;
        std::getline(words, word);
        const std::size_t plus = word.find(" + ");
        word = word.substr(0, plus);
        result += (result.empty() ? "" : " ") + word.substr(word.rfind(' ') + 1);
    }
    return result;
}

TEST(StackText, PythonTakesThePlaceOfTheInterpretersFramesWhereTheyAddUp) {
    // Native functions ("..." behind a list that ends early), Python's, what people read.
    constexpr const char* cases[][3] = {
        {":strlen :call call_function E function_code_fastcall call_function E PyEval_EvalCode "
         ":main",
         "a b", "strlen call a b main"},
        // What Python has called, and what has called Python, is no machinery.
        {":read time_sleep _PyCFunction_FastCallKeywords call_function E _PyFunction_FastCallDict "
         "list_sort E",
         "a b", "read time_sleep a list_sort b"},
        // Where the thread stands is always shown.
        {"call_function E", "a", "call_function a"},
        {"E E :main", "a b", "_PyEval_EvalFrameDefault a b main"},
        // A function that is about to enter the list.
        {"E E :main", "b", "_PyEval_EvalFrameDefault b main"},
        // One too many, one too few.
        {":f E E :main", "a", "f _PyEval_EvalFrameDefault _PyEval_EvalFrameDefault main Python: a"},
        {":f E :main", "a b", "f _PyEval_EvalFrameDefault main Python: a b"},
        // A list that ends early, at its outer end.
        {":f E E ...", "a b c", "f a b c"},
        {"E E ...", "a b c", "_PyEval_EvalFrameDefault _PyEval_EvalFrameDefault Python: a b c"},
        {":f E E :main", "a ...", "f a _PyEval_EvalFrameDefault main (...)"},
        {":f", "", "f"},
    };
    for (const auto& [nativeNames, pythonNames, wanted] : cases) {
        SCOPED_TRACE(nativeNames);
        StackCapture capture;
        capture.threads.push_back({7, "", {}, threadPointer});
        PythonStacks python;
        PythonThread& thread = python.threads.emplace_back();
        thread.threadPointer = threadPointer;
        std::istringstream names(pythonNames);
        for (std::string name; names >> name;) {
            if (name == "...") {
                thread.cutShort = name;
            } else {
                thread.frames.push_back({"f.py", name, 1});
            }
        }
        const NativeStacks native{{nativeFrames(nativeNames)}, {}};
        const std::string text = StackText{capture, python, native}.write();
        EXPECT_EQ(brief(text.substr(text.find("  #"))), wanted);
        const std::string all = StackText{capture, python, native, true}.write();
        for (const NativeFrame& frame : native.threads[0].frames) {
            EXPECT_THAT(all, HasSubstr(frame.function));
        }
    }
}

TEST(StackText, RecursionIsFolded) {
    PythonStacks python;
    python.threads = {{threadPointer, false, {}, ""}};
    auto& frames = python.threads[0].frames;
    frames.assign(1000, {"f.py", "deeper", 3});
    frames.push_back({"f.py", "begin", 9});
    frames.insert(frames.end(), 4, {"f.py", "main", 7});
    const std::string deeper = "       f.py:3 in deeper\n";
    const std::string main = "       f.py:7 in main\n";
    EXPECT_EQ(pythonText(python, threadPointer),
              deeper + deeper + deeper + "       (997 more times)\n       f.py:9 in begin\n" +
                  main + main + main + "       (1 more time)\n");
}

TEST(StackText, HeadingsTellWhatAThreadDoesToTheInterpreter) {
    StackCapture capture;
    capture.threads = {{7, "main", {}, 1},
                       {8, "w\x1b\xc3\xb6rk\xff", {}, 2},
                       {9, "", {}, 3},
                       {10, "gives", {}, 0},
                       {11, "hands", {}, 0}};
    capture.crashedTid = 9;
    PythonStacks python;
    python.threads = {{3, true, {}, ""}, {1, false, {}, ""}, {5, false, {{"g.py", "gone", 2}}, ""}};
    const NativeStacks native{
        {nativeFrames(":futex take_gil PyEval_RestoreThread E"),
         nativeFrames(":futex PyThread_acquire_lock take_gil"),
         nativeFrames("free collect.constprop.0 _PyObject_GC_Alloc E"),
         nativeFrames("drop_gil PyEval_SaveThread acquire_timed E"), nativeFrames("drop_gil E")},
        {"libx.so is damaged."}};
    const std::string text = StackText{capture, python, native}.write();
    EXPECT_THAT(text,
                testing::StartsWith(
                    "\nCrashed thread 9, holds the interpreter's lock, collects garbage\n  #0"));
    EXPECT_THAT(text, HasSubstr("\nThread 7, main, waits for the interpreter's lock\n"));
    EXPECT_THAT(text, HasSubstr("\nThread 10, gives\n"));
    EXPECT_THAT(text, HasSubstr("\nThread 11, hands, waits for the interpreter's lock\n"));
    EXPECT_THAT(text, HasSubstr("\nThread 8, w?\xc3\xb6rk\\xff\n"));
    EXPECT_THAT(text, HasSubstr("of a thread that is not among these\n       g.py:2 in gone\n"));
    EXPECT_THAT(text, testing::EndsWith("\nlibx.so is damaged.\n"));
}

TEST(PrintableText, KeepsLettersAndMasksWhatControlsATerminal) {
    const struct {
        const char* text;
        const char* printed;
    } cases[] = {
        {"größe 字 \U0001f600", "größe 字 \U0001f600"},
        {"a\nb\x7f\tc", "a?b??c"},
        {"\xc2\x9b[2J", "?[2J"},                                  // the second range of controls
        {"\xe9t\xe9", "\\xe9t\\xe9"},                             // Latin-1
        {"\xc1\x8a \xe0\x8a\x8a", "\\xc1\\x8a \\xe0\\x8a\\x8a"},  // a line end, in longer forms
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},                      // half a pair
        {"\xf4\x90\x80\x80\xe2\x82", "\\xf4\\x90\\x80\\x80\\xe2\\x82"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(printableText(test.text), test.printed);
    }
}

}  // namespace
}  // namespace Zendrik::Stacks
