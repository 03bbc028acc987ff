#include "stacks/StackText.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>
#include <vector>

#include "base/PrintableText.h"
#include "stacks/StackMatch.h"
#include "stacks/native/FrameLines.h"

namespace Zendrik::Stacks {

namespace {

using Base::hexadecimal;
using Base::printableText;

// Lines of which a recursion may repeat one a thousand times.
class FoldedLines {
  public:
    void add(const std::string& number, const std::string& line) {
        constexpr std::size_t shown = 3;
        repeats_ = line == last_ ? repeats_ + 1 : 0;
        if (repeats_ == 0) {
            endRun();
            last_ = line;
        }
        if (repeats_ < shown) {
            text_ += number + line;
        } else {
            ++hidden_;
        }
    }
    std::string take() {
        endRun();
        return std::move(text_);
    }

  private:
    void endRun() {
        if (hidden_ > 0) {
            text_ += "       (" + std::to_string(hidden_) +
                     (hidden_ == 1 ? " more time)\n" : " more times)\n");
            hidden_ = 0;
        }
    }

    std::string text_;
    std::string last_;
    std::size_t repeats_ = 0;
    std::size_t hidden_ = 0;
};

constexpr char unnumbered[] = "       ";

// Names that templates make may fill pages.
constexpr std::size_t longestName = 512;

std::string nameOf(const std::string& text) {
    return text.size() <= longestName ? printableText(text)
                                      : printableText(text.substr(0, longestName)) + " ...";
}

std::string numbered(std::size_t number) {
    char text[32];
    static_cast<void>(std::snprintf(text, sizeof text, "  #%-3zu ", number));
    return text;
}

std::string nativeFrame(const NativeFrame& frame) {
    std::string line;
    if (frame.module.empty()) {
        line = hexadecimal(frame.pc);
    } else {
        line = printableText(frame.module.substr(frame.module.rfind('/') + 1));
    }
    if (frame.inlined) {
        line += "  " + nameOf(frame.function) + "  (inlined)";
    } else if (!frame.function.empty()) {
        line += "  " + nameOf(frame.function) + " + " + hexadecimal(frame.functionOffset);
    } else if (!frame.module.empty()) {
        line += " + " + hexadecimal(frame.moduleOffset);
    }
    if (!frame.file.empty()) {
        line += "  at " + printableText(frame.file);
        line += frame.line > 0 ? ":" + std::to_string(frame.line) : std::string();
    }
    return line + (frame.guessed ? "  (guess)\n" : "\n");
}

std::string pythonFrame(const PythonFrame& frame) {
    return printableText(frame.file) + ":" + std::to_string(frame.line) + " in " +
           nameOf(frame.function) + "\n";
}

std::vector<const PythonThread*> pythonThreadsOf(const PythonStacks& python,
                                                 std::uint64_t threadPointer) {
    std::vector<const PythonThread*> threads;
    for (const PythonThread& thread : python.threads) {
        if (threadPointer != 0 && thread.threadPointer == threadPointer) {
            threads.push_back(&thread);
        }
    }
    return threads;
}

std::string cutShortLine(const PythonThread& thread) {
    return thread.cutShort.empty() ? "" : "       (" + printableText(thread.cutShort) + ")\n";
}

std::string pythonFrames(const PythonThread& thread) {
    FoldedLines lines;
    for (const PythonFrame& frame : thread.frames) {
        lines.add(unnumbered, pythonFrame(frame));
    }
    return lines.take() + cutShortLine(thread);
}

// Frames of the machinery that lead to or from a frame which a Python function stands for. The
// innermost frame is where the thread stands, and stays.
std::set<std::size_t> framesLeftOut(const ThreadFrames& native, const StackMatch& match) {
    std::set<std::size_t> leftOut;
    for (const auto& [index, function] : match.functions) {
        for (std::size_t i = index; i > 1 && isCallMachinery(native.frames[i - 1]); --i) {
            leftOut.insert(i - 1);
        }
        for (std::size_t i = index + 1;
             i < native.frames.size() && isCallMachinery(native.frames[i]); ++i) {
            leftOut.insert(i);
        }
    }
    return leftOut;
}

std::string mixedFrames(const ThreadFrames& native, const StackMatch& match, bool allFrames) {
    const std::set<std::size_t> leftOut =
        allFrames ? std::set<std::size_t>() : framesLeftOut(native, match);
    FoldedLines lines;
    for (std::size_t i = 0; i < native.frames.size(); ++i) {
        const auto function = match.functions.find(i);
        const bool isPython = function != match.functions.end();
        if (leftOut.count(i) == 0 && (!isPython || allFrames || i == 0)) {
            lines.add(numbered(i), nativeFrame(native.frames[i]));
        }
        if (isPython) {
            lines.add(numbered(i), pythonFrame(*function->second));
        }
    }
    for (const PythonFrame* frame : match.rest) {
        lines.add(unnumbered, pythonFrame(*frame));
    }
    return lines.take();
}

std::string framesOf(const ThreadFrames& native, const std::vector<const PythonThread*>& python,
                     bool allFrames) {
    std::vector<const PythonThread*> running;
    std::copy_if(python.begin(), python.end(), std::back_inserter(running),
                 [](const PythonThread* thread) {
                     return !thread->frames.empty() || !thread->cutShort.empty();
                 });
    // With the functions of two interpreters nothing shows which is whose.
    const StackMatch match =
        running.size() == 1 ? matchFrames(native, *running.front()) : StackMatch();
    std::string text = mixedFrames(native, match, allFrames);
    if (!match.functions.empty()) {
        return text + cutShortLine(*running.front());
    }
    for (const PythonThread* thread : running) {
        text += "     In Python:\n" + pythonFrames(*thread);
    }
    return text;
}

std::string headingOf(const CapturedThread& thread, bool crashed) {
    return std::string(crashed ? "Crashed thread " : "Thread ") + std::to_string(thread.tid) +
           (thread.name.empty() ? "" : ", " + printableText(thread.name));
}

std::string threadText(const StackText& text, const CapturedThread& thread,
                       const ThreadFrames& native) {
    const std::vector<const PythonThread*> python =
        pythonThreadsOf(text.python, thread.threadPointer);
    std::string heading = headingOf(thread, thread.tid == text.capture.crashedTid);
    if (std::any_of(python.begin(), python.end(),
                    [](const PythonThread* each) { return each->holdsLock; })) {
        heading += ", holds the interpreter's lock";
    } else if (waitsForLock(native)) {
        heading += ", waits for the interpreter's lock";
    }
    if (collectsGarbage(native)) {
        heading += ", collects garbage";
    }
    return heading + "\n" + framesOf(native, python, text.allFrames);
}

// Thread states that no thread of the process belongs to.
std::string strayPython(const StackCapture& capture, const PythonStacks& python) {
    std::string text;
    for (const PythonThread& thread : python.threads) {
        const bool isKnown = std::any_of(
            capture.threads.begin(), capture.threads.end(), [&thread](const CapturedThread& each) {
                return each.threadPointer != 0 && each.threadPointer == thread.threadPointer;
            });
        if (!isKnown && !thread.frames.empty()) {
            text += "\nIn Python, of a thread that is not among these\n" + pythonFrames(thread);
        }
    }
    return text;
}

std::vector<const CapturedThread*> crashedFirst(const StackCapture& capture) {
    std::vector<const CapturedThread*> threads;
    for (const CapturedThread& thread : capture.threads) {
        threads.push_back(&thread);
    }
    std::stable_partition(threads.begin(), threads.end(), [&capture](const CapturedThread* thread) {
        return thread->tid == capture.crashedTid;
    });
    return threads;
}

}  // namespace

std::string StackText::write() const {
    std::string text;
    for (const CapturedThread* thread : crashedFirst(capture)) {
        const auto index = static_cast<std::size_t>(thread - capture.threads.data());
        const ThreadFrames none;
        text += "\n" + threadText(*this, *thread,
                                  index < native.threads.size() ? native.threads[index] : none);
    }
    text += strayPython(capture, python);
    for (const std::string& note : native.notes) {
        text += "\n" + printableText(note) + "\n";
    }
    return text;
}

std::string placesText(const StackCapture& capture) {
    std::string text = "\nPlaces\n";
    for (const CapturedThread* thread : crashedFirst(capture)) {
        NativeFrame frame;
        frame.pc = thread->registers[instructionPointerRegister];
        setModule(frame, capture);
        text += "  " + headingOf(*thread, thread->tid == capture.crashedTid) + ": " +
                nativeFrame(frame);
    }
    return text;
}

std::string pythonText(const PythonStacks& python, std::uint64_t threadPointer) {
    std::string text;
    for (const PythonThread* thread : pythonThreadsOf(python, threadPointer)) {
        text += pythonFrames(*thread);
    }
    return text;
}

std::string pythonText(const StackCapture& capture, const PythonStacks& python) {
    std::string text;
    for (const CapturedThread* thread : crashedFirst(capture)) {
        const std::string frames = pythonText(python, thread->threadPointer);
        if (!frames.empty()) {
            text += "\n" + headingOf(*thread, thread->tid == capture.crashedTid) + "\n" + frames;
        }
    }
    return text + strayPython(capture, python);
}

}  // namespace Zendrik::Stacks
